#include "platform/process/purgeable_space.h"

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {

PurgeableSpaceService& PurgeableSpaceService::shared() {
    static PurgeableSpaceService* s = new PurgeableSpaceService;
    return *s;
}

void PurgeableSpaceService::registerService(const std::string& serviceName,
                                            PurgeableSpaceCallbacks callbacks) {
    std::lock_guard lock(mutex_);
    name_ = serviceName;
    callbacks_ = std::make_shared<PurgeableSpaceCallbacks>(std::move(callbacks));
}

bool PurgeableSpaceService::isRegistered() const {
    return callbacks() != nullptr;
}

std::string PurgeableSpaceService::serviceName() const {
    std::lock_guard lock(mutex_);
    return name_;
}

std::shared_ptr<PurgeableSpaceCallbacks> PurgeableSpaceService::callbacks() const {
    std::lock_guard lock(mutex_);
    return callbacks_;
}

std::optional<int64_t> PurgeableSpaceService::purgeableSpace(int32_t urgency) {
    auto c = callbacks();
    if (!c || !c->purgeable) return std::nullopt;
    return c->purgeable(urgency);
}

std::optional<int64_t> PurgeableSpaceService::purge(int64_t amount, int32_t urgency) {
    auto c = callbacks();
    if (!c || !c->purge) return std::nullopt;
    return c->purge(amount, urgency);
}

void PurgeableSpaceService::cancelPurge() {
    auto c = callbacks();
    if (c && c->cancel) c->cancel();
}

std::optional<int64_t> PurgeableSpaceService::periodic(int64_t amount, int32_t urgency) {
    auto c = callbacks();
    if (!c || !c->periodic) return std::nullopt;
    return c->periodic(amount, urgency);
}

void PurgeableSpaceService::startPeriodicCalls(std::chrono::nanoseconds interval) {
    auto timer = Timer::schedule(DispatchQueue::global(QueuePriority::Background), interval,
                                 interval, [this] { periodic(0, 0); });
    std::lock_guard lock(mutex_);
    timer_ = std::move(timer);
}

void PurgeableSpaceService::stopPeriodicCalls() {
    std::shared_ptr<Timer> t;
    {
        std::lock_guard lock(mutex_);
        t = std::move(timer_);
    }
    if (t) t->cancel();
}

}  // namespace sv
