#include "daemon/shell_service.h"

#include <algorithm>

#include "client/shell_protocol.h"
#include "platform/log.h"
#include "platform/process/notification_center.h"
#include "platform/process/purgeable_space.h"

namespace sv {
namespace {

int32_t urgencyAt(const ipc::Invocation& inv, size_t i) {
    int64_t v = inv.at(i).is_number_unsigned()
                    ? int64_t(std::min<uint64_t>(inv.at(i).get<uint64_t>(), INT32_MAX))
                    : inv.at(i).get<int64_t>();
    return int32_t(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX));
}

int64_t amountAt(const ipc::Invocation& inv, size_t i) {
    if (inv.at(i).is_number_unsigned())
        return int64_t(std::min<uint64_t>(inv.at(i).get<uint64_t>(), uint64_t(INT64_MAX)));
    return inv.at(i).get<int64_t>();
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
            [&purgeable](ipc::Invocation& inv) {
                replyBytes(inv, purgeable.purgeableSpace(urgencyAt(inv, 0)));
            })
        .on("purgeWithAmount:urgency:handler:",
            [&purgeable](ipc::Invocation& inv) {
                replyBytes(inv, purgeable.purge(amountAt(inv, 0), urgencyAt(inv, 1)));
            })
        .on("cancelPurgeWithHandler:",
            [&purgeable](ipc::Invocation& inv) {
                purgeable.cancelPurge();
                inv.handler()();
            })
        .on("periodicWithAmount:urgency:handler:", [&purgeable](ipc::Invocation& inv) {
            replyBytes(inv, purgeable.periodic(amountAt(inv, 0), urgencyAt(inv, 1)));
        });
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
    log::debug("shell connection from pid %i", int(connection->processIdentifier()));
    connection->setExportedInterface(shellProtocolInterface());
    connection->setExportedObject(object_);
    connection->resume();
    return true;
}

}  // namespace sv
