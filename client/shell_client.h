// The operating system's side of the shell channel: tells the daemon that
// the lock button was pressed, relays the storage service's four
// purgeable-space calls, drives the synthetic platform (application states,
// display layout, orientation, capture failures) and asks for the layers and
// the recording status of the calling process.
//
// Every completion is called exactly once, on the client's connection queue:
// with the daemon's answer, or with an error (IPC error domain) when the
// daemon is not running, goes away mid-call, or does not answer within the
// timeout. The client may be used from any thread; destroying it invalidates
// its connection, after which no completion runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/shell_channel.h"
#include "platform/ipc/ipc.h"

namespace sv {

// The recording status of the caller's application
// (recordingStatusForCallerWithHandler:).
struct ShellRecordingStatus {
    std::string bundleID;
    bool recording = false;
    bool paused = false;
    bool microphoneEnabled = false;
    bool systemRecording = false;
    double elapsed = 0;  // seconds recorded, pauses left out
    int64_t framesWritten = 0;
    int64_t framesDropped = 0;  // the encoder fell behind
    int64_t movieBytes = 0;
    // nullopt for a value that is not such a record.
    static std::optional<ShellRecordingStatus> fromValue(const Value& v);
};

class ShellClient {
  public:
    using Completion = std::function<void(OptionalError error)>;
    using SizeCompletion = std::function<void(std::optional<int64_t> bytes, OptionalError error)>;
    // The reply's arguments, or the error of a call that got none.
    using ReplyCompletion = std::function<void(ipc::Received reply, OptionalError error)>;
    using LayersCompletion = std::function<void(std::vector<uint32_t> layers, OptionalError error)>;
    using StatusCompletion =
        std::function<void(std::optional<ShellRecordingStatus> status, OptionalError error)>;

    explicit ShellClient(std::string serviceName = kShellServiceName,
                         std::chrono::milliseconds timeout = std::chrono::seconds(30));
    ~ShellClient();
    ShellClient(const ShellClient&) = delete;
    ShellClient& operator=(const ShellClient&) = delete;

    void lockButtonPressed(Completion completion);
    void purgeableSpace(int32_t urgency, SizeCompletion completion);
    void purge(int64_t amount, int32_t urgency, SizeCompletion completion);
    void cancelPurge(Completion completion);
    void periodic(int64_t amount, int32_t urgency, SizeCompletion completion);

    // Any method of the shell channel (shellChannelInterface()).
    void call(const std::string& method, ipc::Arguments args, ReplyCompletion completion);
    // The recording service's methods. The error is the daemon's answer (or
    // the call's failure); an answer that does not fit is an error of the
    // IPC domain (kErrorMessageRejected).
    void layerContextIDsForCaller(LayersCompletion completion);
    void recordingStatusForCaller(StatusCompletion completion);
    void setApplicationState(const std::string& bundleID, bool foreground, int32_t pid,
                             Completion completion);
    // nullopt: back to the layout made from the display's layers.
    void setDisplayLayoutLevels(std::optional<std::vector<int64_t>> levels, Completion completion);
    void setDisplayTransformFlags(uint32_t flags, Completion completion);
    // "failed", "preempted" or "reset".
    void injectScreenCaptureFailure(const std::string& failure, Completion completion);

    // Blocking forms for tools and tests: the answer, or the error.
    struct Result {
        std::optional<int64_t> bytes;
        OptionalError error;
    };
    Result lockButtonPressedAndWait();
    Result purgeableSpaceAndWait(int32_t urgency);
    Result purgeAndWait(int64_t amount, int32_t urgency);
    Result cancelPurgeAndWait();
    Result periodicAndWait(int64_t amount, int32_t urgency);
    // Waits for `start(completion)` to complete; for the calls above.
    OptionalError waitFor(const std::function<void(Completion)>& start);

  private:
    void send(const std::string& method, ipc::Arguments args, SizeCompletion completion);
    // For calls answered with (error?).
    void callForError(const std::string& method, ipc::Arguments args, Completion completion);
    template <typename F>
    Result wait(F&& start);

    std::shared_ptr<ipc::Connection> connection_;
    std::chrono::milliseconds timeout_;
};

}  // namespace sv
