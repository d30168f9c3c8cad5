#include "client/shell_client.h"

#include <atomic>

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {

ShellClient::ShellClient(std::string serviceName, std::chrono::milliseconds timeout)
    : connection_(ipc::Connection::toService(std::move(serviceName))), timeout_(timeout) {
    connection_->setRemoteObjectInterface(shellProtocolInterface());
    connection_->resume();
}

ShellClient::~ShellClient() {
    connection_->invalidate();
}

void ShellClient::send(const std::string& method, ipc::Arguments args, SizeCompletion completion) {
    // Reply, error and timeout race; whichever comes first completes.
    struct Once {
        SizeCompletion completion;
        std::atomic<bool> done{false};
        void finish(std::optional<int64_t> bytes, OptionalError error) {
            if (!done.exchange(true) && completion) completion(bytes, std::move(error));
        }
    };
    auto once = std::make_shared<Once>();
    once->completion = std::move(completion);
    connection_
        ->remoteObjectProxyWithErrorHandler(
            [once](const Error& e) { once->finish(std::nullopt, e); })
        .call(method, args, [once](const ipc::Received& reply) {
            once->finish(reply.integerAt<int64_t>(0), std::nullopt);
        });
    std::weak_ptr<Once> weak = once;
    connection_->queue()->asyncAfter(timeout_, [weak] {
        if (auto o = weak.lock())
            o->finish(std::nullopt, ipc::makeError(ipc::kErrorConnectionInterrupted));
    });
}

void ShellClient::lockButtonPressed(Completion completion) {
    send("lockButtonPressedWithHandler:", {},
         [completion](std::optional<int64_t>, OptionalError e) { completion(std::move(e)); });
}

void ShellClient::purgeableSpace(int32_t urgency, SizeCompletion completion) {
    send("purgeableSpaceWithUrgency:handler:", ipc::Arguments().add(urgency),
         std::move(completion));
}

void ShellClient::purge(int64_t amount, int32_t urgency, SizeCompletion completion) {
    send("purgeWithAmount:urgency:handler:", ipc::Arguments().add(amount).add(urgency),
         std::move(completion));
}

void ShellClient::cancelPurge(Completion completion) {
    send("cancelPurgeWithHandler:", {},
         [completion](std::optional<int64_t>, OptionalError e) { completion(std::move(e)); });
}

void ShellClient::periodic(int64_t amount, int32_t urgency, SizeCompletion completion) {
    send("periodicWithAmount:urgency:handler:", ipc::Arguments().add(amount).add(urgency),
         std::move(completion));
}

template <typename F>
ShellClient::Result ShellClient::wait(F&& start) {
    struct Shared {
        Semaphore done;
        Result result;
    };
    auto shared = std::make_shared<Shared>();
    start([shared](std::optional<int64_t> bytes, OptionalError error) {
        shared->result = Result{bytes, std::move(error)};
        shared->done.signal();
    });
    shared->done.wait();  // the completion always comes: reply, error or timeout
    return shared->result;
}

ShellClient::Result ShellClient::lockButtonPressedAndWait() {
    return wait([this](SizeCompletion c) {
        lockButtonPressed([c](OptionalError e) { c(std::nullopt, std::move(e)); });
    });
}
ShellClient::Result ShellClient::purgeableSpaceAndWait(int32_t urgency) {
    return wait([&](SizeCompletion c) { purgeableSpace(urgency, std::move(c)); });
}
ShellClient::Result ShellClient::purgeAndWait(int64_t amount, int32_t urgency) {
    return wait([&](SizeCompletion c) { purge(amount, urgency, std::move(c)); });
}
ShellClient::Result ShellClient::cancelPurgeAndWait() {
    return wait([this](SizeCompletion c) {
        cancelPurge([c](OptionalError e) { c(std::nullopt, std::move(e)); });
    });
}
ShellClient::Result ShellClient::periodicAndWait(int64_t amount, int32_t urgency) {
    return wait([&](SizeCompletion c) { periodic(amount, urgency, std::move(c)); });
}

}  // namespace sv
