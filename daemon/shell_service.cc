#include "daemon/shell_service.h"

#include <optional>

#include "daemon/protocol/shell_protocol.h"
#include "platform/log.h"
#include "platform/process/notification_center.h"
#include "platform/process/purgeable_space.h"

namespace sv {
namespace {

// Integer arguments as the daemon uses them: urgency is 32-bit, amounts are
// 64-bit. The interface admits only such values; one that still does not
// fit (an object exported under a looser interface) is refused and logged,
// never clamped, and the call gets no answer.
template <typename T>
std::optional<T> integerArgument(const ipc::Invocation& inv, size_t i, const char* name) {
    auto v = inv.integerAt<T>(i);
    if (!v) {
        static log::RateLimit limit;
        log::error(limit, "shell: %@ refused: %@ out of range", inv.method(), name);
    }
    return v;
}

// The purgeable-space calls with their (amount and) urgency read, or
// nothing when one is out of range.
template <typename F>
ipc::MethodTable::Method withUrgency(size_t index, F&& body) {
    return [index, body = std::forward<F>(body)](ipc::Invocation& inv) {
        if (auto urgency = integerArgument<int32_t>(inv, index, "urgency")) body(inv, *urgency);
    };
}

template <typename F>
ipc::MethodTable::Method withAmountAndUrgency(F&& body) {
    return [body = std::forward<F>(body)](ipc::Invocation& inv) {
        auto amount = integerArgument<int64_t>(inv, 0, "amount");
        auto urgency = amount ? integerArgument<int32_t>(inv, 1, "urgency") : std::nullopt;
        if (amount && urgency) body(inv, *amount, *urgency);
    };
}

void replyBytes(const ipc::Invocation& inv, std::optional<int64_t> bytes) {
    inv.handler()(ipc::Arguments().add(bytes.value_or(0)));
}

}  // namespace

std::shared_ptr<SVShellService> SVShellService::create(std::string* error) {
    auto s = std::make_shared<SVShellService>();
    s->listener_ = ipc::Listener::named(kShellServiceName, error);
    if (!s->listener_) return nullptr;
    s->listener_->setDelegate(s);
    auto& purgeable = PurgeableSpaceService::shared();
    s->object_ = std::make_shared<ipc::MethodTable>();
    s->object_
        ->on("lockButtonPressedWithHandler:",
             [](ipc::Invocation& inv) {
                 NotificationCenter::defaultCenter().post(kLockButtonPressedNotification);
                 inv.handler()();
             })
        .on("purgeableSpaceWithUrgency:handler:",
            withUrgency(0,
                        [&purgeable](ipc::Invocation& inv, int32_t urgency) {
                            replyBytes(inv, purgeable.purgeableSpace(urgency));
                        }))
        .on("purgeWithAmount:urgency:handler:",
            withAmountAndUrgency(
                [&purgeable](ipc::Invocation& inv, int64_t amount, int32_t urgency) {
                    replyBytes(inv, purgeable.purge(amount, urgency));
                }))
        .on("cancelPurgeWithHandler:",
            [&purgeable](ipc::Invocation& inv) {
                purgeable.cancelPurge();
                inv.handler()();
            })
        .on("periodicWithAmount:urgency:handler:",
            withAmountAndUrgency(
                [&purgeable](ipc::Invocation& inv, int64_t amount, int32_t urgency) {
                    replyBytes(inv, purgeable.periodic(amount, urgency));
                }));
    return s;
}

void SVShellService::resume() {
    listener_->resume();
}

void SVShellService::invalidate() {
    listener_->invalidate();
}

bool SVShellService::listenerShouldAcceptNewConnection(
    ipc::Listener&, const std::shared_ptr<ipc::Connection>& connection) {
    static log::RateLimit limit;
    log::debug(limit, "shell connection from pid %i", int(connection->processIdentifier()));
    connection->setExportedInterface(shellProtocolInterface());
    connection->setExportedObject(object_);
    connection->resume();
    return true;
}

}  // namespace sv
