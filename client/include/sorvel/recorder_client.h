// The recorder client: how an application asks the screen-recording service
// (sorveld) to record its own window layers, or the whole display, together
// with its audio and, when the user allows it, the microphone.
//
// Part of the installed client library (libsorvel-client; pkg-config
// "sorvel-client", CMake package "Sorvel", target Sorvel::Client). This
// header is self-contained and needs only the C++20 standard library.
//
// Identity. The service identifies the application by its process: the
// executable must lie inside a bundle (a directory with a bundle.json whose
// "identifier" names the application). A process outside any bundle is
// connected but has no recording session, so its requests do nothing.
//
// Threads. Every method may be called from any thread and returns at once;
// nothing here blocks. Every completion handler and every delegate callback
// runs through the client's executor (Options::executor): by default a serial
// queue of the library's own, otherwise whatever the application passed
// (its main loop, a queue of its own). Handlers and callbacks are handed to
// the executor in the order the library learns of them; with a serial
// executor they also run in that order.
//
// Handlers. Each completion handler runs at most once, and it does run, once,
// in every one of these cases:
// - the service answers (with its result or one of its recording errors);
// - the service is not running when the request is made
//   (kClientServiceNotRunning);
// - the connection breaks before the answer (kClientConnectionInterrupted),
//   e.g. because the service ended or restarted;
// - the request cannot be sent (kClientRequestQueueFull,
//   kClientRequestRejected, kClientInvalidArgument);
// - the answer cannot be read (kClientInvalidReply);
// - the client is invalidated or destroyed first (kClientInvalidated).
// The service itself answers some requests never: a stop request when
// nothing records, and a discard request while a recording runs. Their
// handlers then wait until one of the cases above happens.
//
// Reconnection. After the service goes away the next request connects again.
// Before that request the library repeats the application's last activity
// report (clientDidBecomeActiveWithBundleID / clientDidResignActiveWithBundleID),
// so the restarted service knows the application's state again. A recording
// that was running when the connection broke is over: the delegate hears of
// it through stopRecordingWithError with kClientConnectionInterrupted.
//
// Lifetime. The client owns its connection. Destroying it (or invalidate())
// closes the connection: pending handlers are called with kClientInvalidated
// and no delegate callback starts afterwards. Closing the connection while
// a recording runs makes the service stop it and throw the movie away.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sorvel/recorder_error.h"

namespace sv {

// Width and height in pixels.
struct SVWindowSize {
    float width = 0;
    float height = 0;
    friend bool operator==(const SVWindowSize&, const SVWindowSize&) = default;
};

// Calls from the service about a recording that ended on its side. Held
// weakly by the client; callbacks run through the client's executor. When
// more than 1024 callbacks wait in an executor that does not keep up, the
// client drops further ones (and logs it) instead of growing without bound.
class SVRecorderClientDelegate {
  public:
    virtual ~SVRecorderClientDelegate() = default;
    // The recording ended without a stop request: another application
    // started recording, the screen was shared, the device was locked,
    // storage ran short, capture failed, or the connection to the service
    // broke. `moviePath` is the movie recorded so far when the service kept
    // one; the file belongs to the application from now on.
    virtual void stopRecordingWithError(const std::optional<SVRecorderError>& error,
                                        const std::optional<std::string>& moviePath) {
        (void)error;
        (void)moviePath;
    }
    // New service information from the application's broadcast extension,
    // as a JSON object (byte strings become base64 text).
    virtual void updateBroadcastServiceInfo(const std::string& serviceInfoJSON) {
        (void)serviceInfoJSON;
    }
};

// Something the user should know about a recording that goes on, from the
// service: `code` says what (1: the audio server went away and the
// recording continues with silence; 2: the audio server is back; later
// services may add codes), `message` says it in a sentence to show.
struct SVRecorderWarning {
    int64_t code = 0;
    std::string message;
};

class SVRecorderClient {
  public:
    // Runs a task, now or later, on a thread of the application's choice.
    // Called from the library's threads; must not block for long.
    using Executor = std::function<void(std::function<void()> task)>;

    struct Options {
        // Where handlers and callbacks run; empty: a serial queue of the
        // library's own.
        Executor executor;
        // The service's name; empty: "org.sorvel.sorveld".
        std::string serviceName;
        // Directory of the service's socket; empty: $SORVEL_RUNTIME_DIR, else
        // $XDG_RUNTIME_DIR, else /tmp. Applies to every client of the process.
        std::string runtimeDirectory;
    };

    // (error, microphone recording, camera recording): on success the error is
    // empty and the flags say which sources the user allowed.
    using StartHandler = std::function<void(std::optional<SVRecorderError> error,
                                            bool microphoneEnabled, bool cameraEnabled)>;
    // (movie, error): the finished movie's path, or the error (a failed
    // finish may still hand back a movie).
    using StopHandler = std::function<void(std::optional<std::string> moviePath,
                                           std::optional<SVRecorderError> error)>;
    // Empty error: done.
    using CompletionHandler = std::function<void(std::optional<SVRecorderError> error)>;

    // Connects to the service at once (which makes this application the
    // service's current one); when the service is not running, the first
    // request tries again.
    explicit SVRecorderClient(Options options = {});
    ~SVRecorderClient();
    SVRecorderClient(const SVRecorderClient&) = delete;
    SVRecorderClient& operator=(const SVRecorderClient&) = delete;

    // Held weakly; may be changed at any time.
    void setDelegate(std::weak_ptr<SVRecorderClientDelegate> delegate);
    // Warnings about the running recording go to `handler`, through the
    // executor (empty: none). The service sends warnings only to clients
    // that asked: setting a handler asks, before the next request of each
    // connection. May be changed at any time.
    using WarningHandler = std::function<void(const SVRecorderWarning& warning)>;
    void setWarningHandler(WarningHandler handler);

    // Starts recording the layers named by `contextIDs` (the application's
    // window layers; on X11 its window ids), or the whole display when
    // `systemRecording` is true. The service asks the user first (unless
    // this is a broadcast or a system recording, or the user allowed this
    // application recently), so the handler may come only after the user
    // answered. A start while a recording runs answers at once with no error.
    void startRecordingWindowLayerContextIDs(std::vector<uint32_t> contextIDs,
                                             SVWindowSize windowSize, bool microphoneEnabled,
                                             bool cameraEnabled, bool broadcast,
                                             bool systemRecording, StartHandler handler);
    // Prepares a broadcast for the next start with broadcast = true.
    // `configurationData`: the encoded broadcast configuration, or nothing;
    // `userInfoJSON`: a JSON object handed to the extension, or empty.
    void setupBroadcastWithHostBundleID(std::string hostBundleID,
                                        std::string broadcastExtensionBundleID,
                                        std::optional<std::vector<uint8_t>> configurationData,
                                        std::string userInfoJSON, CompletionHandler handler);
    void stopRecordingWithHandler(StopHandler handler);
    // Stops and, when both durations are above zero, cuts that many seconds
    // (rounded to whole seconds) from the movie's start and end.
    void stopRecordingWithStartClipDuration(double startClipDuration, double endClipDuration,
                                            StopHandler handler);
    // No answer comes for these four; they do nothing unless a recording
    // runs (pause and resume: not for a system recording).
    void pauseRecording();
    void resumeRecordingWithWindowLayerContextID(uint32_t contextID);
    void setMicrophoneEnabled(bool enabled);
    // Where the application-audio track of this client's system recordings
    // comes from: false (the default) the frontmost application's sound,
    // following it; true everything the desktop plays. Takes effect at the
    // next system recording's start.
    void setSystemRecordingDesktopAudio(bool desktop);
    // Deletes the files of the last recording (after it was stopped). The
    // handler's error only ever comes from the library (see Handlers).
    void discardRecordingWithHandler(CompletionHandler handler);

    // Activity reports: the application became active (frontmost with the
    // user's focus) or resigned active. Without an argument they use
    // mainBundleIdentifier() and send nothing when that is empty.
    void clientDidBecomeActiveWithBundleID(std::string bundleID);
    void clientDidResignActiveWithBundleID(std::string bundleID);
    void clientDidBecomeActive();
    void clientDidResignActive();

    // Closes the connection for good (see Lifetime). Idempotent.
    void invalidate();

    // The identifier of the bundle that holds this process's executable, or
    // "" when it lies in none.
    static std::string mainBundleIdentifier();

    struct Impl;

  private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace sv
