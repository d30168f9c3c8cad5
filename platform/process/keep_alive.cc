#include "platform/process/keep_alive.h"

#include <systemd/sd-daemon.h>

#include <unistd.h>

#include <cstdlib>

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {

KeepAlive& KeepAlive::shared() {
    static KeepAlive* k = new KeepAlive;
    return *k;
}

void KeepAlive::beginTransaction() {
    std::lock_guard lock(mutex_);
    ++count_;
    log::debug("keep-alive transaction opened (%li open)", count_);
}

void KeepAlive::endTransaction() {
    std::lock_guard lock(mutex_);
    if (count_ == 0) {
        log::error("keep-alive transaction ended without being begun");
        return;
    }
    --count_;
    log::debug("keep-alive transaction closed (%li open)", count_);
}

long KeepAlive::openTransactionCount() const {
    std::lock_guard lock(mutex_);
    return count_;
}

bool KeepAlive::startedBySocketActivation() {
    return sd_listen_fds(0) > 0;
}

bool KeepAlive::armIdleExit(std::chrono::milliseconds quiet, std::function<bool()> busy,
                            std::function<void()> onIdle) {
    if (!startedBySocketActivation()) return false;
    using Clock = std::chrono::steady_clock;
    auto state = std::make_shared<std::pair<Clock::time_point, bool>>(Clock::now(), false);
    auto timer =
        Timer::schedule(DispatchQueue::main(), std::chrono::seconds(1), std::chrono::seconds(1),
                        [this, state, quiet, busy = std::move(busy), onIdle = std::move(onIdle)] {
                            if (state->second) return;
                            if (openTransactionCount() > 0 || (busy && busy())) {
                                state->first = Clock::now();
                                return;
                            }
                            if (Clock::now() - state->first < quiet) return;
                            state->second = true;
                            log::info("idle with no open transaction; ending");
                            onIdle();
                        });
    std::lock_guard lock(mutex_);
    idleTimer_ = std::move(timer);
    return true;
}

void KeepAlive::disarmIdleExit() {
    std::shared_ptr<Timer> t;
    {
        std::lock_guard lock(mutex_);
        t = std::move(idleTimer_);
    }
    if (t) t->cancel();
}

}  // namespace sv
