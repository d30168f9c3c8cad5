// SVRecordingSession: one recording of one application, from the start
// request to the finished movie. The recording manager keeps one session per
// bundle identifier, configures it and drives it with start, pause, resume,
// finish (optionally trimmed) and clean-up; the session runs the screen
// capture controller, the shared SVCaptureManager's application audio tap
// and microphone, and the SVMovieWriter, and reports failures of the screen
// source to its delegate.
//
// A start runs as a chain: store details (network permitting), the movie
// writer's file set-up, then the application audio tap (only when a process
// to tap is known), then the microphone (only when enabled, and only after
// the tap), then the screen. The start handler runs when the first frame
// arrives. Pause stops all capture and keeps the movie open; the paused gap
// is cut out of the movie's timeline at the first frame after the resume.
//
// Ownership: the manager's registry owns the session. The session owns its
// screen capture controller (created at the first start, reused by every
// resume and later start, released only with the session), its movie writer
// and its store details. Destroying a session releases its fields only; it
// neither stops capture nor removes files. Closures handed to the capture
// manager, the store manager, the movie writer and the screen controller
// hold the session weakly and do nothing once it is gone. Handlers are
// called at most once.
//
// Threads:
// - Requests (start, pause, resume, finish, clean-up, re-targeting, the
//   setters) arrive on the manager's threads; callers do not run two of
//   them at once on one session.
// - Frames and the three failure callbacks arrive on the screen capture
//   controller's delivery thread. A frame is handled synchronously under
//   _shouldStopLock, the one lock of the frame path, up to the writer's
//   append (which returns at once).
// - Application audio arrives on the capture manager's audioDispatchQueue,
//   microphone audio on its sessionSampleBufferQueue; the audio routes take
//   no session lock and read only atomic fields.
// - The start handler runs on the delivery thread of the first frame. The
//   finish handler runs on the default global queue (where the writer
//   finishes and trims), or at once on the calling thread when there is no
//   movie to finish or the session streams samples. The clean-up handler
//   runs on the movie store's background queue. The start chain runs on the
//   store's background queue (writer ready), the audio tap's queue and the
//   default global queue.
// - Fields read across threads are atomics (the flags, the process mode,
//   the tap's process) or shared slots (writer, start handler, broadcast
//   extension); the other properties are guarded by a private mutex and
//   their getters return copies.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "broadcast/broadcast_extension_proxy.h"
#include "capture/capture_manager.h"
#include "movie/movie_writer.h"
#include "platform/dispatch.h"
#include "platform/error.h"
#include "platform/extension/app_extension.h"
#include "platform/geometry.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"
#include "platform/screen/screen_backend.h"
#include "platform/screen/screen_capture.h"
#include "platform/url.h"
#include "platform/value.h"
#include "protocol/broadcast_configuration.h"
#include "protocol/broadcast_extension.h"
#include "session/recording_session_delegate.h"
#include "session/sample_timing.h"
#include "session/shared_slot.h"
#include "support/store_info.h"

namespace sv {

class SVClientProxy;  // the application's connection (daemon/)

// Broadcast process modes.
inline constexpr int32_t kBroadcastProcessModeUpload = 0;
inline constexpr int32_t kBroadcastProcessModeSampleBuffer = 1;

// Actions and sample types of the payloads for a processing extension.
inline constexpr int32_t kBroadcastActionStart = 1;
inline constexpr int32_t kBroadcastActionPause = 2;
inline constexpr int32_t kBroadcastActionResume = 3;
inline constexpr int32_t kBroadcastActionFinish = 4;
inline constexpr int32_t kBroadcastSampleTypeVideo = 1;
inline constexpr int32_t kBroadcastSampleTypeAppAudio = 2;
inline constexpr int32_t kBroadcastSampleTypeMicrophone = 3;

// Length of an uploaded fragment when the configuration wishes none.
inline constexpr double kDefaultBroadcastClipDuration = 5.0;
// How long a finished fragment stays open at most for late audio of its time.
inline constexpr std::chrono::milliseconds kSeamGrace{1500};
// How long enabling a sample-buffer broadcast waits for the extension's link
// by default (SVRecordingSession::setBroadcastLinkWait); a link not up by
// then counts as failed.
inline constexpr std::chrono::milliseconds kDefaultBroadcastLinkWait{10000};
// How long a start or finish waits for the extension to acknowledge its
// action before going on without it.
inline constexpr std::chrono::milliseconds kBroadcastActionWait{5000};
// Largest audio payload; a longer buffer goes to the extension in parts.
inline constexpr size_t kMaxAudioPayloadBytes = 64 * 1024;

class SVRecordingSession : public ScreenCaptureControllerDelegate,
                           public std::enable_shared_from_this<SVRecordingSession> {
  public:
    using StartHandler = std::function<void()>;
    // The movie's location (or nothing) and an error (or nothing).
    using FinishHandler = std::function<void(std::optional<URL> movieURL, OptionalError error)>;
    using CleanupHandler = std::function<void()>;
    using StoreInfoHandler = std::function<void(std::shared_ptr<SVStoreInfo> storeInfo)>;
    using ActionCompletion = std::function<void()>;
    using SampleHandler = SVCaptureManager::SampleHandler;

    static constexpr const char* kServiceInfoQueueLabel = "org.sorvel.sorveld.ServiceInfoQueue";
    // Shortest time between two frames of a recording and of a broadcast.
    static constexpr MediaTime kRecordingFrameInterval{1, 60, MediaTime::kFlagValid, 0};
    static constexpr MediaTime kBroadcastFrameInterval{1, 30, MediaTime::kFlagValid, 0};

    // A new idle session for an application.
    static std::shared_ptr<SVRecordingSession> initWithBundleID(std::string bundleID);
    ~SVRecordingSession() override;

    // --- Movie names ------------------------------------------------------
    // "<store>/<name>.mp4" with the application's localized name ("/" in it
    // becomes "_", a missing name reads "(null)"); while broadcasting,
    // "<store>/SVMovie_<bundleID>_<seconds since 1970>_<fragment>.mp4", a
    // new name on every call. The store path ends in "/", so the joined path
    // holds "//".
    std::string outputPath() const;
    URL outputURL() const;
    // "<store>/<name>_trimmed.mp4".
    std::string trimmedOutputPath() const;
    URL trimmedOutputURL() const;

    // --- Requests from the manager ----------------------------------------
    // Store details for the movie's metadata: looked up once the network is
    // there, for an application recording that has none yet (the handler
    // then runs on the main queue); otherwise `handler` gets the cached
    // details (or nothing) at once on the calling thread.
    void getStoreInfoWithHandler(StoreInfoHandler handler);
    // Starts the chain described above; `handler` runs at the first frame.
    // The session has no other way to report that the start failed.
    void startSessionWithHandler(StartHandler handler);
    // Only while paused: records `contextID` alone from now on and restarts
    // capture.
    void resumeSessionWithContextID(uint32_t contextID);
    // Only while not paused: stops all capture; the movie stays open.
    void pauseSession();
    // For a recording system recording only: taps `pid`'s audio from now on
    // (pid < 1: no application audio any more).
    void updateAudioCaptureToProcessWithPID(int32_t pid);
    // finishSessionWithStartClipDuration(0, 0, handler).
    bool finishSessionWithHandler(FinishHandler handler);
    // Only while recording (otherwise `handler` is never called and the
    // result is false: the session may have stopped itself on a capture
    // failure an instant before, whatever the caller checked first): stops
    // capture, resets the timeline, finishes the movie and, when both
    // durations are above zero, trims that many seconds off its start and
    // end into trimmedOutputURL. The handler gets the movie (the untrimmed
    // one when trimming fails), or an error when there is no movie: -5803
    // when no frame was ever written, -5804 when the movie could not be
    // written. A movie whose writing failed before the stop (the disk
    // filled) comes with -5805 (or -5804) and what was written until then,
    // untrimmed. A broadcasting session hands the movie to its extension and
    // answers (nothing, nothing).
    // True when the handler was taken (it is then called once).
    bool finishSessionWithStartClipDuration(double startClipDuration, double endClipDuration,
                                            FinishHandler handler);
    // Stops the screen controller, the capture manager's sources and clone
    // mirroring. Also aborts any start chain in progress.
    void stopAllCapture();
    // Only while recording: stops capture, finishes the movie (keeping what
    // was recorded) and tells the delegate the error with that movie.
    void stopWithError(const Error& error);
    // Stops capture when recording, abandons the unfinished movie and removes
    // the file at outputURL; `handler` runs once the removal is done.
    void finishAndCleanupSessionFilesWithHandler(CleanupHandler handler);
    // Keeps `size` as originalWindowSize and its limited form as windowSize.
    // A side that is not a finite number of at least 1 is logged and the
    // display's size (of the process screen backend) taken instead.
    void setWindowSize(WindowSize size);
    // Sets up mirroring and the controller and starts the sources (start and
    // resume use it).
    void _resumeOrStartSession();

    // --- Broadcast --------------------------------------------------------
    // Upload mode (0): the recording is cut into fragments of the
    // configuration's clip duration (kDefaultBroadcastClipDuration when it
    // wishes none); each video frame more than that after the fragment's
    // first frame starts the next fragment, whose writer was prepared ahead
    // on a background queue, so the frame path never waits for one. Every
    // finished fragment goes to the extension in a request of its own with
    // a read-only token for its file; the request's completion (tied to its
    // fragment by the request identifier) removes the file, releases the
    // token, takes a returned configuration and passes returned service
    // information to the delegate. The last fragment's completion ends the
    // extension. Sample-buffer mode (1) starts the extension with a live
    // link (SVBroadcastExtensionProxy) and blocks the calling thread until
    // the link is ready, or failed, or broadcastLinkWait() has passed; a
    // link that is not ready then is ended and the session records without
    // broadcast (disableBroadcast). Over a ready link every action, frame and
    // audio buffer goes to the extension as a payload with its original
    // times; its service information goes to the delegate
    // (broadcastSessionLinkDidUpdateServiceInfo); a link that breaks stops
    // the session with -5808. Never reports an error. A mode other than 0 or
    // 1 is logged and taken as 0.
    OptionalError enableBroadcastWithExtension(std::shared_ptr<AppExtension> extension,
                                               int32_t processMode, std::optional<Value> userInfo);
    void disableBroadcast();
    // Every frame while broadcasting, on the delivery thread; hands the frame
    // on to _processSampleBuffer.
    void _processSampleBufferForStreaming(const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                          uint32_t transformFlags);
    // The hand-overs to a processing extension. Without an extension or a
    // link they log at error level, and the action's completion runs at
    // once on the calling thread; otherwise it runs when the extension
    // acknowledges the action (on the link's queue), or after
    // kBroadcastActionWait without an answer (on a global queue). Sample
    // payloads never wait: frames go as their capture surface (no pixel is
    // copied), audio as a copy of its one buffer, in parts of at most
    // kMaxAudioPayloadBytes with their own times (audio in more than one
    // buffer is skipped and logged); a slow extension loses samples, counted
    // by the proxy. The fragment hand-over may run on any thread.
    void _notifyExtensionOfAction(int32_t action, ActionCompletion completion);
    // True when the frame went to the extension (false: no link, or
    // dropped because the extension is behind).
    bool _notifyExtensionOfVideoSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                             int32_t type);
    void _notifyExtensionOfAudioSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                             int32_t type);
    void _notifyBroadcastExtensionOfCompletedMovieWithURL(const std::optional<URL>& movieURL,
                                                          bool finished);

    // --- Frame path (delivery thread) -------------------------------------
    void screenCaptureControllerDidReceiveSampleBuffer(
        ScreenCaptureController& controller, const std::shared_ptr<SampleBuffer>& sampleBuffer,
        uint32_t transformFlags) override;
    // Drops the frame while paused or after a media-services reset, cuts the
    // paused gaps out of its time and appends it to the writer (or hands it
    // to the processing extension).
    void _processSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer,
                              uint32_t transformFlags);
    // Failures: each stops the session with a recording error (-5804,
    // -5800, -5804). After a media-services reset every later frame is
    // dropped for the life of the session object.
    void screenCaptureControllerDidFailWithStatus(ScreenCaptureController& controller,
                                                  int32_t status) override;
    void screenCaptureControllerWasPreempted(ScreenCaptureController& controller) override;
    void screenCaptureControllerMediaServicesWereReset(
        ScreenCaptureController& controller) override;

    // --- Audio routes -----------------------------------------------------
    // What the session hands the capture manager: application audio (dropped
    // while paused; to audio 1 or the processing extension), microphone
    // (dropped while paused; zeroed in place while the microphone is off, so
    // it stays as timed silence; to audio 2 or the extension) and application
    // audio after a re-targeting (always to audio 1). Audio is moved earlier
    // by the paused gaps like the video, and dropped between a resume and the
    // first frame after it (the gap is not known before). Each holds the
    // session weakly.
    SampleHandler _appAudioOutputRoute();
    SampleHandler _microphoneOutputRoute();
    SampleHandler _retargetedAppAudioOutputRoute();

    // --- Properties -------------------------------------------------------
    bool isMicrophoneEnabled() const { return microphoneEnabled_.load(); }
    void setMicrophoneEnabled(bool enabled) { microphoneEnabled_.store(enabled); }
    bool isRecording() const { return recording_.load(); }
    void setRecording(bool recording) { recording_.store(recording); }
    bool isPaused() const { return paused_.load(); }
    void setPaused(bool paused) { paused_.store(paused); }
    bool isSystemRecording() const { return systemRecording_.load(); }
    void setSystemRecording(bool systemRecording) { systemRecording_.store(systemRecording); }
    // A system recording's application-audio track takes everything the
    // desktop plays (kAudioTapEveryProcess) instead of following the
    // frontmost application.
    bool recordsDesktopAudio() const { return desktopAudio_.load(); }
    void setRecordsDesktopAudio(bool desktop) { desktopAudio_.store(desktop); }
    bool sessionWasResumed() const { return sessionWasResumed_.load(); }
    void setSessionWasResumed(bool resumed) { sessionWasResumed_.store(resumed); }
    std::shared_ptr<SVClientProxy> clientProxy() const;
    void setClientProxy(std::shared_ptr<SVClientProxy> proxy);
    std::string bundleID() const;
    void setBundleID(std::string bundleID);
    std::vector<uint32_t> contextIDs() const;
    void setContextIDs(std::vector<uint32_t> contextIDs);
    std::shared_ptr<SVRecordingSessionDelegate> delegate() const;
    void setDelegate(std::weak_ptr<SVRecordingSessionDelegate> delegate);
    std::optional<URL> interruptedMovieURL() const;
    void setInterruptedMovieURL(std::optional<URL> url);
    int32_t frontmostPIDForAudioTap() const { return frontmostPIDForAudioTap_.load(); }
    void setFrontmostPIDForAudioTap(int32_t pid) { frontmostPIDForAudioTap_.store(pid); }
    std::shared_ptr<SVBroadcastConfiguration> broadcastConfiguration() const;
    void setBroadcastConfiguration(std::shared_ptr<SVBroadcastConfiguration> configuration);
    std::string broadcastExtensionID() const;
    void setBroadcastExtensionID(std::string extensionID);
    std::shared_ptr<SVMovieWriter> movieWriter() const { return movieWriter_.load(); }
    void setMovieWriter(std::shared_ptr<SVMovieWriter> writer) {
        movieWriter_.store(std::move(writer));
    }
    std::shared_ptr<ScreenCaptureController> screenCaptureController() const;
    void setScreenCaptureController(std::shared_ptr<ScreenCaptureController> controller);
    std::shared_ptr<SVStoreInfo> storeInfo() const;
    void setStoreInfo(std::shared_ptr<SVStoreInfo> info);
    std::shared_ptr<AppExtension> broadcastExtension() const { return broadcastExtension_.load(); }
    void setBroadcastExtension(std::shared_ptr<AppExtension> extension) {
        broadcastExtension_.store(std::move(extension));
    }
    int32_t broadcastProcessMode() const { return broadcastProcessMode_.load(); }
    void setBroadcastProcessMode(int32_t mode);
    std::shared_ptr<SVBroadcastExtensionProxy> broadcastUploadExtensionProxy() const {
        return broadcastUploadExtensionProxy_.load();
    }
    void setBroadcastUploadExtensionProxy(std::shared_ptr<SVBroadcastExtensionProxy> proxy) {
        broadcastUploadExtensionProxy_.store(std::move(proxy));
    }
    // How long enabling a sample-buffer broadcast waits for the link
    // (process-wide; kDefaultBroadcastLinkWait unless set). Any thread.
    static std::chrono::milliseconds broadcastLinkWait();
    static void setBroadcastLinkWait(std::chrono::milliseconds wait);
    std::optional<Value> broadcastUserInfo() const;
    void setBroadcastUserInfo(std::optional<Value> userInfo);
    // Declared for broadcasting; never created.
    std::shared_ptr<DispatchQueue> broadcastAggregatePayloadQueue() const;
    std::shared_ptr<DispatchQueue> broadcastServiceInfoQueue() const;
    std::vector<Value> pendingBroadcastExtensionPayloads() const;
    int32_t broadcastFragmentIndex() const { return broadcastFragmentIndex_.load(); }
    void setBroadcastFragmentIndex(int32_t index) { broadcastFragmentIndex_.store(index); }
    bool hasSessionHandler() const { return sessionHandler_.load() != nullptr; }
    WindowSize windowSize() const;
    WindowSize originalWindowSize() const;
    // The video timeline (under _shouldStopLock; never call from the frame path).
    MediaTime lastSampleTimestamp() const;
    MediaTime sampleTimeOffset() const;
    MediaTime broadcastFragmentStartTime() const;
    void setBroadcastFragmentStartTime(MediaTime time);

    // What the current (or last) recording has written so far: the frames
    // handed to the movie writer and the length of the movie's video in
    // seconds, the paused gaps cut out. Reset by each start. Any thread.
    struct Progress {
        int64_t framesWritten = 0;
        // Frames that reached the writer but were not taken: the encoder
        // fell behind (its queue was full) or the writer had stopped. In a
        // sample-buffer broadcast: frames handed to (or dropped for) the
        // processing extension.
        int64_t framesDropped = 0;
        double recordedSeconds = 0;
    };
    Progress progress() const;

    std::string description() const;

  private:
    explicit SVRecordingSession(std::string bundleID);

    // The start chain. `generation` is the value of captureGeneration_ that
    // the chain was started under; any stop moves it on, and a step of an
    // older chain then does nothing.
    void _startWithStoreInfo(std::shared_ptr<SVStoreInfo> info, uint64_t generation,
                             uint64_t recordingGeneration);
    void _resumeOrStartSession(uint64_t generation);
    void _appAudioDidStart(uint64_t generation);
    void _startScreenCapture(uint64_t generation);
    // Hand-over of one frame (under _shouldStopLock).
    void _handOverSampleBuffer(const std::shared_ptr<SampleBuffer>& sample,
                               const std::shared_ptr<SampleBuffer>& original,
                               const MediaTime& presentationTime, uint32_t transformFlags,
                               SVCaptureManager& captureManager);
    // Audio to the writer, moved by the paused gaps.
    void _appendAudio(const std::shared_ptr<SampleBuffer>& sample, int input);
    void _routeAppAudio(const std::shared_ptr<SampleBuffer>& sample);
    void _routeMicrophoneAudio(const std::shared_ptr<SampleBuffer>& sample);
    // Broadcast fragments. The writer of fragment `index`, set up (file
    // writer and encoders made) on the calling thread.
    std::shared_ptr<SVMovieWriter> _makeFragmentWriter(int32_t index);
    // Prepares the writer of fragment `index` on a background queue.
    void _prepareFragmentWriter(int32_t index);
    double _broadcastClipDuration() const;
    void _broadcastRequestDidComplete(const std::string& requestIdentifier,
                                      const std::vector<ExtensionItem>& items);
    void _broadcastRequestDidBreak(const std::string& requestIdentifier, const Error& error);
    // A fragment handed to the extension, until its request completes.
    struct PendingFragment {
        URL url;
        std::shared_ptr<FileAccessToken> token;
        bool finished = false;
    };
    std::mutex fragmentsMutex_;
    std::map<std::string, PendingFragment> pendingFragments_;
    // Requests begun and not yet completed or broken, and whether the final
    // fragment's answer came: the extension is ended only once both say so,
    // so an earlier fragment still being answered is not cut off.
    int requestsInFlight_ = 0;
    bool finalAnswered_ = false;
    // With fragmentsMutex_ held: whether the extension may be ended now.
    bool extensionDoneLocked() const { return finalAnswered_ && requestsInFlight_ == 0; }
    void _endExtensionIfDone(bool requestEnded, bool finalAnswer);
    // The fragment of a request, taken out of pendingFragments_ (nothing
    // when it is not there: its request never registered or ended before).
    std::optional<PendingFragment> _takePendingFragment(const std::string& requestIdentifier);
    // The next fragment's writer, prepared ahead (with its index).
    struct PreparedWriter {
        int32_t index = 0;
        std::shared_ptr<SVMovieWriter> writer;
    };
    SharedSlot<PreparedWriter> preparedWriter_;
    // The fragment before the current one, still open for the audio whose
    // time lies before the current fragment's first frame (audio arrives
    // later than the frames of its time). It is finished once every audio
    // input that delivered anything in this recording (`waitFor`, a bit per
    // input) has delivered audio of the new fragment's time (`reached`), or
    // after kSeamGrace at the latest. `boundary` is the current fragment's
    // first frame's time (invalid until that frame is in). Guarded by
    // seamMutex_ (held only for an append).
    struct PreviousFragment {
        std::shared_ptr<SVMovieWriter> writer;
        MediaTime boundary;
        unsigned waitFor = 0;
        unsigned reached = 0;
    };
    std::mutex seamMutex_;
    std::optional<PreviousFragment> previousFragment_;
    // Fragments taken from previousFragment_ whose writers are still
    // finishing, and what waits for them: a later fragment is handed to the
    // extension only after the earlier ones, so the final fragment never
    // overtakes the one before it. Guarded by seamMutex_.
    int fragmentsFinishing_ = 0;
    std::vector<std::function<void()>> afterFragmentsFinish_;
    // The audio inputs (bit 0: application, bit 1: microphone) that
    // delivered audio since the start.
    std::atomic<unsigned> audioInputsSeen_{0};
    // Finishes the previous fragment (if any; only when its writer is
    // `onlyWriter`, when given) and hands it over, then runs `then` (on the
    // writer's finish queue, or at once without one).
    void _finishPreviousFragment(std::function<void()> then,
                                 const std::shared_ptr<SVMovieWriter>& onlyWriter = nullptr);
    // Finishes the previous fragment of `writer` soon, on a global queue.
    void _finishPreviousFragmentSoon(const std::shared_ptr<SVMovieWriter>& writer);
    WindowSize movieSize_;

    // The process's screen backend, taken when first needed and kept.
    std::shared_ptr<ScreenBackend> _screenBackend();
    std::string _localizedMovieName() const;

    // Guards _shouldStop and timeline_. Held by the frame path for the whole
    // handling of one frame and by the media-services-reset callback while it
    // sets _shouldStop; never held while the controller is stopped (its stop
    // waits for a frame in progress) or recursively.
    mutable std::mutex _shouldStopLock;
    bool _shouldStop = false;
    SampleTimeline timeline_;

    std::atomic<bool> microphoneEnabled_{false};
    std::atomic<bool> recording_{false};
    std::atomic<bool> paused_{false};
    std::atomic<bool> systemRecording_{false};
    std::atomic<bool> desktopAudio_{false};
    std::atomic<bool> sessionWasResumed_{false};
    std::atomic<int32_t> frontmostPIDForAudioTap_{0};
    std::atomic<int32_t> broadcastProcessMode_{kBroadcastProcessModeUpload};
    std::atomic<int32_t> broadcastFragmentIndex_{0};
    SharedSlot<SVMovieWriter> movieWriter_;
    SharedSlot<AppExtension> broadcastExtension_;
    SharedSlot<SVBroadcastExtensionProxy> broadcastUploadExtensionProxy_;
    // Ends the link to a processing extension (if any) and forgets it.
    void _endExtensionLink();
    SharedSlot<StartHandler> sessionHandler_;
    // The paused gaps in host-clock ticks, for the audio routes; written by
    // the frame path when it measures a gap and by finish.
    std::atomic<int64_t> audioTimeOffset_{0};
    // Progress of the recording (the frame path writes, anyone reads).
    std::atomic<int64_t> framesWritten_{0};
    std::atomic<int64_t> framesDropped_{0};
    std::atomic<double> firstWrittenSeconds_{0};
    std::atomic<double> lastWrittenSeconds_{0};

    // Serializes the session's calls into the shared capture manager (which
    // wants one caller at a time) and pairs each stop's generation step with
    // the start steps, so a pause or stop can never be undone by a start
    // chain still in flight. Never held while the screen controller is
    // stopped, and never taken on the capture manager's queues.
    std::mutex controlMutex_;
    std::atomic<uint64_t> captureGeneration_{0};
    // Moved on by each start and each stop, not by a pause: a movie writer
    // set up for a start still belongs to the recording when a pause came
    // meanwhile (the resume starts capture), not when it was stopped.
    std::atomic<uint64_t> recordingGeneration_{0};
    // stopAllCapture(), for a pause (`pausing`) or a stop.
    void _stopAllCapture(bool pausing);

    mutable std::mutex propertiesMutex_;
    std::shared_ptr<SVClientProxy> clientProxy_;
    std::string bundleID_;
    std::vector<uint32_t> contextIDs_;
    std::weak_ptr<SVRecordingSessionDelegate> delegate_;
    std::optional<URL> interruptedMovieURL_;
    std::shared_ptr<SVBroadcastConfiguration> broadcastConfiguration_;
    std::string broadcastExtensionID_;
    std::shared_ptr<ScreenCaptureController> screenCaptureController_;
    std::shared_ptr<ScreenBackend> screenBackend_;
    std::shared_ptr<SVStoreInfo> storeInfo_;
    std::optional<Value> broadcastUserInfo_;
    std::shared_ptr<DispatchQueue> broadcastAggregatePayloadQueue_;
    std::shared_ptr<DispatchQueue> broadcastServiceInfoQueue_;
    std::vector<Value> pendingBroadcastExtensionPayloads_;
    WindowSize windowSize_;
    WindowSize originalWindowSize_;
    MediaTime broadcastFragmentStartTime_;
};

}  // namespace sv
