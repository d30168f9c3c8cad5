#include "client/shell_client.h"

#include <atomic>

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {

ShellClient::ShellClient(std::string serviceName, std::chrono::milliseconds timeout)
    : connection_(ipc::Connection::toService(std::move(serviceName))), timeout_(timeout) {
    connection_->setRemoteObjectInterface(shellChannelInterface());
    connection_->resume();
}

ShellClient::~ShellClient() {
    connection_->invalidate();
}

void ShellClient::call(const std::string& method, ipc::Arguments args, ReplyCompletion completion) {
    // Reply, error and timeout race; whichever comes first completes.
    struct Once {
        ReplyCompletion completion;
        std::atomic<bool> done{false};
        void finish(ipc::Received reply, OptionalError error) {
            if (!done.exchange(true) && completion) completion(std::move(reply), std::move(error));
        }
    };
    auto once = std::make_shared<Once>();
    once->completion = std::move(completion);
    connection_->remoteObjectProxyWithErrorHandler([once](const Error& e) { once->finish({}, e); })
        .call(method, args,
              [once](const ipc::Received& reply) { once->finish(reply, std::nullopt); });
    std::weak_ptr<Once> weak = once;
    connection_->queue()->asyncAfter(timeout_, [weak] {
        if (auto o = weak.lock()) o->finish({}, ipc::makeError(ipc::kErrorConnectionInterrupted));
    });
}

void ShellClient::send(const std::string& method, ipc::Arguments args, SizeCompletion completion) {
    call(method, std::move(args), [completion](ipc::Received reply, OptionalError error) {
        std::optional<int64_t> bytes;
        if (!error) bytes = reply.integerAt<int64_t>(0);
        if (completion) completion(bytes, std::move(error));
    });
}

namespace {

// The daemon's (error?) answer: nothing, an error, or a malformed answer.
OptionalError answeredError(const Value& v) {
    if (v.is_null()) return std::nullopt;
    if (auto e = Error::fromValue(v)) return e;
    return ipc::makeError(ipc::kErrorMessageRejected);
}

}  // namespace

void ShellClient::callForError(const std::string& method, ipc::Arguments args,
                               Completion completion) {
    call(method, std::move(args), [completion](ipc::Received reply, OptionalError error) {
        if (!error) error = answeredError(reply.at(0));
        if (completion) completion(std::move(error));
    });
}

std::optional<ShellRecordingStatus> ShellRecordingStatus::fromValue(const Value& v) {
    auto bundleID = stringAt(v, "bundleID");
    auto recording = boolAt(v, "recording");
    if (!bundleID || !recording) return std::nullopt;
    ShellRecordingStatus s;
    s.bundleID = *bundleID;
    s.recording = *recording;
    s.paused = boolAt(v, "paused").value_or(false);
    s.microphoneEnabled = boolAt(v, "microphoneEnabled").value_or(false);
    s.systemRecording = boolAt(v, "systemRecording").value_or(false);
    s.elapsed = numberAt(v, "elapsed").value_or(0);
    s.framesWritten = intAt(v, "framesWritten").value_or(0);
    s.framesDropped = intAt(v, "framesDropped").value_or(0);
    s.movieBytes = intAt(v, "movieBytes").value_or(0);
    return s;
}

void ShellClient::layerContextIDsForCaller(LayersCompletion completion) {
    call("layerContextIDsForCallerWithHandler:", {},
         [completion](ipc::Received reply, OptionalError error) {
             std::vector<uint32_t> layers;
             if (!error) error = answeredError(reply.at(1));
             const Value& list = reply.at(0);
             if (!error && list.is_array()) {
                 for (const auto& id : list) {
                     if (!id.is_number_unsigned() || id.get<uint64_t>() > UINT32_MAX) {
                         error = ipc::makeError(ipc::kErrorMessageRejected);
                         layers.clear();
                         break;
                     }
                     layers.push_back(uint32_t(id.get<uint64_t>()));
                 }
             }
             completion(std::move(layers), std::move(error));
         });
}

void ShellClient::recordingStatusForCaller(StatusCompletion completion) {
    call("recordingStatusForCallerWithHandler:", {},
         [completion](ipc::Received reply, OptionalError error) {
             std::optional<ShellRecordingStatus> status;
             if (!error && !reply.at(0).is_null()) {
                 status = ShellRecordingStatus::fromValue(reply.at(0));
                 if (!status) error = ipc::makeError(ipc::kErrorMessageRejected);
             }
             completion(std::move(status), std::move(error));
         });
}

void ShellClient::setApplicationState(const std::string& bundleID, bool foreground, int32_t pid,
                                      Completion completion) {
    callForError("setApplicationState:foreground:processIdentifier:handler:",
                 ipc::Arguments().add(Value(bundleID)).add(Value(foreground)).add(Value(pid)),
                 std::move(completion));
}

void ShellClient::setDisplayLayoutLevels(std::optional<std::vector<int64_t>> levels,
                                         Completion completion) {
    callForError("setDisplayLayoutLevels:handler:",
                 ipc::Arguments().add(levels ? Value(*levels) : Value(nullptr)),
                 std::move(completion));
}

void ShellClient::setDisplayTransformFlags(uint32_t flags, Completion completion) {
    callForError("setDisplayTransformFlags:handler:", ipc::Arguments().add(Value(uint64_t(flags))),
                 std::move(completion));
}

void ShellClient::injectScreenCaptureFailure(const std::string& failure, Completion completion) {
    callForError("injectScreenCaptureFailure:handler:", ipc::Arguments().add(Value(failure)),
                 std::move(completion));
}

OptionalError ShellClient::waitFor(const std::function<void(Completion)>& start) {
    struct Shared {
        Semaphore done;
        OptionalError error;
    };
    auto shared = std::make_shared<Shared>();
    start([shared](OptionalError error) {
        shared->error = std::move(error);
        shared->done.signal();
    });
    shared->done.wait();  // the completion always comes: reply, error or timeout
    return shared->error;
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
