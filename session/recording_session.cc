#include "session/recording_session.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <set>
#include <span>
#include <utility>

#include "broadcast/broadcast_payload.h"
#include "platform/host_clock.h"
#include "platform/log.h"
#include "protocol/broadcast_extension.h"
#include "support/localization.h"
#include "support/movie_store.h"
#include "support/recording_errors.h"
#include "support/store_manager.h"

namespace sv {

namespace {

// The recording error for a movie that could not be written: the disk (or
// the user's quota, or the file size limit) is full, or anything else.
int64_t recordingErrorCodeForWriteFailure(const Error& error) {
    const int64_t err = -error.code;  // FFmpeg's codes are negated errno values
    return err == ENOSPC || err == EDQUOT || err == EFBIG ? kSVRecordingErrorInsufficientStorage
                                                          : kSVRecordingErrorFailedDuringRecording;
}

// The application's name as a file name: nothing in it may reach outside the
// movie store, so "/" (and NUL, which would cut the path short) become "_".
std::string fileNameComponent(std::string name) {
    for (char& c : name)
        if (c == '/' || c == '\0') c = '_';
    return name;
}

bool fileExists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Calls a handler at most once, from whichever path gets there first.
template <typename F>
class Once {
  public:
    explicit Once(F f) : f_(std::move(f)) {}
    template <typename... A>
    void operator()(A&&... args) {
        if (called_.exchange(true)) return;
        if (f_) f_(std::forward<A>(args)...);
    }

  private:
    F f_;
    std::atomic<bool> called_{false};
};

// `sample` cut at `time`: the part before and the part from there on (either
// may be null). Audio that cannot be cut (not interleaved linear PCM, or no
// valid times) stays whole, before.
std::pair<std::shared_ptr<SampleBuffer>, std::shared_ptr<SampleBuffer>> splitAudioAt(
    const std::shared_ptr<SampleBuffer>& sample, const MediaTime& time) {
    const AudioStreamFormat& f = sample->audioFormat();
    const MediaTime start = sample->presentationTime();
    const int64_t n = sample->numSamples();
    if (!time.isValid() || !start.isValid() || f.sampleRate <= 0 || f.framesPerPacket != 1 ||
        f.bytesPerFrame == 0 || (f.formatFlags & AudioStreamFormat::kFlagIsNonInterleaved) ||
        !sample->dataBlock() || sample->dataLength() < size_t(n) * f.bytesPerFrame)
        return {sample, nullptr};
    const int64_t k = std::clamp<int64_t>(
        int64_t(std::llround(subtract(time, start).seconds() * f.sampleRate)), 0, n);
    if (k == n) return {sample, nullptr};
    if (k == 0) return {nullptr, sample};
    const uint8_t* data = sample->dataBlock()->data();
    const size_t cut = size_t(k) * f.bytesPerFrame;
    auto before = SampleBuffer::makeAudio(DataBlock::copyOf(data, cut), f, k, start);
    auto after = SampleBuffer::makeAudio(
        DataBlock::copyOf(data + cut, size_t(n - k) * f.bytesPerFrame), f, n - k,
        add(start, MediaTime::make(k, int32_t(std::lround(f.sampleRate)))));
    if (!before || !after) return {sample, nullptr};
    return {before, after};
}

}  // namespace

// --- Creation -----------------------------------------------------------------

SVRecordingSession::SVRecordingSession(std::string bundleID) : bundleID_(std::move(bundleID)) {}

std::shared_ptr<SVRecordingSession> SVRecordingSession::initWithBundleID(std::string bundleID) {
    std::shared_ptr<SVRecordingSession> session(new SVRecordingSession(std::move(bundleID)));
    {
        std::lock_guard lock(session->_shouldStopLock);
        session->timeline_.reset();
        session->_shouldStop = false;
    }
    std::lock_guard lock(session->propertiesMutex_);
    session->broadcastServiceInfoQueue_ = DispatchQueue::serial(kServiceInfoQueueLabel);
    session->pendingBroadcastExtensionPayloads_.clear();
    return session;
}

SVRecordingSession::~SVRecordingSession() = default;

std::string SVRecordingSession::description() const {
    return "<SVRecordingSession " + bundleID() + " recording=" + (isRecording() ? "1" : "0") +
           " paused=" + (isPaused() ? "1" : "0") + ">";
}

// --- Names ----------------------------------------------------------------------

std::string SVRecordingSession::_localizedMovieName() const {
    // A missing name is formatted the way the system formats a missing
    // object, so every such application shares "(null).mp4".
    auto name = _svLocalizedAppNameFromBundleID(bundleID());
    return fileNameComponent(name ? *name : std::string("(null)"));
}

namespace {

std::string fragmentPath(const std::string& dir, const std::string& bundleID, int32_t index) {
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    char tail[96];
    std::snprintf(tail, sizeof tail, "_%f_%li.mp4", now, long(index));
    return dir + "/SVMovie_" + fileNameComponent(bundleID) + tail;
}

}  // namespace

std::string SVRecordingSession::outputPath() const {
    const std::string dir = MovieStore::shared()._srTempPath();
    if (broadcastExtension_.load()) return fragmentPath(dir, bundleID(), broadcastFragmentIndex());
    return dir + "/" + _localizedMovieName() + ".mp4";
}

URL SVRecordingSession::outputURL() const {
    return URL::fileURLWithPath(outputPath());
}

std::string SVRecordingSession::trimmedOutputPath() const {
    return MovieStore::shared()._srTempPath() + "/" + _localizedMovieName() + "_trimmed.mp4";
}

URL SVRecordingSession::trimmedOutputURL() const {
    return URL::fileURLWithPath(trimmedOutputPath());
}

// --- Store details ----------------------------------------------------------------

void SVRecordingSession::getStoreInfoWithHandler(StoreInfoHandler handler) {
    if (!isSystemRecording() && !storeInfo() && SVReachability::isNetworkAvailable()) {
        // The lookup may answer more than once; only the first answer counts.
        auto once = std::make_shared<Once<StoreInfoHandler>>(std::move(handler));
        std::weak_ptr<SVRecordingSession> weak = weak_from_this();
        SVStoreManager::sharedManager()->loadItemDetailsForBundleIdentifier(
            bundleID(), [weak, once](std::shared_ptr<SVStoreInfo> info) {
                if (auto self = weak.lock()) self->setStoreInfo(info);
                (*once)(std::move(info));
            });
        return;
    }
    if (handler) handler(storeInfo());
}

// --- Start ----------------------------------------------------------------------------

void SVRecordingSession::startSessionWithHandler(StartHandler handler) {
    log::info("SVRecordingSession: startSession");
    paused_.store(false);
    framesWritten_.store(0);
    framesDropped_.store(0);
    audioInputsSeen_.store(0);
    sessionHandler_.store(handler ? std::make_shared<StartHandler>(std::move(handler)) : nullptr);
    const uint64_t generation = ++captureGeneration_;
    const uint64_t recordingGeneration = ++recordingGeneration_;
    if (auto backend = _screenBackend(); backend && backend->isDesktop()) {
        // A desktop's display server can go away and come back (a reset of
        // its media services): the next recording starts afresh. A phone's
        // session stays stopped for good.
        std::lock_guard lock(_shouldStopLock);
        _shouldStop = false;
    }
    // The last recording's writer is of no use any more. One that was never
    // finished (stopped with an error) is cancelled now: left to its
    // destructor it would remove its partial file, which has this
    // recording's name, at some later moment.
    if (auto previous = movieWriter_.exchange(nullptr); previous && previous->fileWriter())
        previous->fileWriter()->cancelWriting();
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    getStoreInfoWithHandler(
        [weak, generation, recordingGeneration](std::shared_ptr<SVStoreInfo> info) {
            if (auto self = weak.lock())
                self->_startWithStoreInfo(std::move(info), generation, recordingGeneration);
        });
}

void SVRecordingSession::_startWithStoreInfo(std::shared_ptr<SVStoreInfo> info, uint64_t generation,
                                             uint64_t recordingGeneration) {
    if (recordingGeneration_.load() != recordingGeneration) {
        log::info("SVRecordingSession: start abandoned, the recording ended before it began");
        return;
    }
    auto backend = _screenBackend();
    const WindowSize size = _movieSizeForWindowSize(
        windowSize(), originalWindowSize(), isSystemRecording(), !backend || !backend->isDesktop());
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();

    if (broadcastProcessMode() != kBroadcastProcessModeUpload) {
        _notifyExtensionOfAction(kBroadcastActionStart, [weak, generation] {
            if (auto self = weak.lock()) self->_resumeOrStartSession(generation);
        });
        return;
    }
    {
        std::lock_guard lock(propertiesMutex_);
        movieSize_ = size;
    }
    preparedWriter_.store(nullptr);
    auto writer = SVMovieWriter::initWithWindowSize(size, outputPath(), std::move(info));
    writer->setBroadcastConfig(broadcastConfiguration());
    writer->setSystemRecording(isSystemRecording());
    // A movie that can no longer be written (the disk is full) ends the
    // recording at once, with what was written kept. The writer holds this
    // handler, so it refers to the writer weakly.
    std::weak_ptr<SVMovieWriter> weakWriter = writer;
    writer->setFailureHandler([weak, weakWriter](const Error& error) {
        log::error("SVRecordingSession: the movie cannot be written: %@",
                   media::mediaErrorText(error));
        const int64_t code = recordingErrorCodeForWriteFailure(error);
        // On the writer's worker, which the stop's finish waits for.
        DispatchQueue::global()->async([weak, weakWriter, code] {
            auto self = weak.lock();
            auto failed = weakWriter.lock();
            if (self && failed && self->movieWriter_.load() == failed)
                self->stopWithError(_svUserErrorForCode(code));
        });
    });
    // The writer becomes the session's once its file writer is set up (on
    // the store's queue), so nothing on another thread sees it half made; a
    // stop in the meantime finds no writer and abandons this one.
    writer->startWritingHandler([weak, writer, generation, recordingGeneration] {
        auto self = weak.lock();
        if (!self) return;
        {
            std::lock_guard control(self->controlMutex_);
            if (self->recordingGeneration_.load() != recordingGeneration) {
                log::info("SVRecordingSession: start abandoned, capture was stopped meanwhile");
                return;
            }
            self->movieWriter_.store(writer);
            if (self->broadcastExtension_.load())
                self->_prepareFragmentWriter(self->broadcastFragmentIndex() + 1);
            if (self->captureGeneration_.load() != generation) {
                // Paused while the writer was being set up: it is kept, and
                // the resume starts capture.
                log::info("SVRecordingSession: writer ready while paused");
                return;
            }
        }
        self->_resumeOrStartSession(generation);
    });
}

void SVRecordingSession::_resumeOrStartSession() {
    _resumeOrStartSession(captureGeneration_.load());
}

std::shared_ptr<ScreenBackend> SVRecordingSession::_screenBackend() {
    {
        std::lock_guard lock(propertiesMutex_);
        if (screenBackend_) return screenBackend_;
    }
    // Made outside the lock: the first use may connect to a display server.
    auto backend = processScreenBackend();
    std::lock_guard lock(propertiesMutex_);
    if (!screenBackend_) screenBackend_ = std::move(backend);
    return screenBackend_;
}

void SVRecordingSession::_resumeOrStartSession(uint64_t generation) {
    auto backend = _screenBackend();
    std::lock_guard control(controlMutex_);
    if (captureGeneration_.load() != generation) {
        log::info("SVRecordingSession: start abandoned, capture was stopped meanwhile");
        return;
    }
    auto mirroring = backend ? backend->mirroringService() : nullptr;
    if (isSystemRecording()) {
        log::info("mirror mode");
        if (mirroring) {
            // A system recording's identifiers choose a part of the display
            // where the backend has parts (an X11 RandR monitor); none is
            // the whole display.
            const auto ids = contextIDs();
            mirroring->setLayerContextsToClone(std::set<uint32_t>(ids.begin(), ids.end()));
            mirroring->setCloneMirroringMode(kCloneMirroringModeMirror);
        }
    } else {
        log::info("clone mode");
        const auto ids = contextIDs();
        if (mirroring) {
            mirroring->setLayerContextsToClone(std::set<uint32_t>(ids.begin(), ids.end()));
            mirroring->setCloneMirroringMode(kCloneMirroringModeClone);
        }
    }

    std::shared_ptr<ScreenCaptureController> controller;
    {
        std::lock_guard lock(propertiesMutex_);
        if (!screenCaptureController_ && backend) {
            const MediaTime interval =
                broadcastExtension_.load() ? kBroadcastFrameInterval : kRecordingFrameInterval;
            screenCaptureController_ = backend->makeCaptureController(windowSize_, interval);
        }
        controller = screenCaptureController_;
    }
    if (!controller) {
        log::error("SVRecordingSession: no screen capture controller");
        return;
    }
    controller->setDelegate(std::weak_ptr<ScreenCaptureControllerDelegate>(shared_from_this()));

    const int32_t pid = frontmostPIDForAudioTap();
    if (pid <= 0 && backend && backend->isDesktop() && isMicrophoneEnabled()) {
        // A desktop may have no application in front: no process to tap, but
        // the user asked for the microphone, so it is recorded all the same.
        std::weak_ptr<SVRecordingSession> weak = weak_from_this();
        DispatchQueue::global()->async([weak, generation] {
            if (auto self = weak.lock()) self->_appAudioDidStart(generation);
        });
        return;
    }
    if (pid <= 0) {
        // No process to tap: neither application audio nor the microphone.
        log::info("starting screen capture");
        controller->startCapture();
        return;
    }
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    SVCaptureManager::sharedManager()->startAppAudioCaptureForProcessID(
        pid, _appAudioOutputRoute(), [weak, generation] {
            // On the tap's queue, which a stop waits for: continue elsewhere.
            DispatchQueue::global()->async([weak, generation] {
                if (auto self = weak.lock()) self->_appAudioDidStart(generation);
            });
        });
}

void SVRecordingSession::_appAudioDidStart(uint64_t generation) {
    if (!isMicrophoneEnabled()) {
        _startScreenCapture(generation);
        return;
    }
    std::lock_guard control(controlMutex_);
    if (captureGeneration_.load() != generation) return;
    log::info("starting mic capture");
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    SVCaptureManager::sharedManager()->startMicrophoneCaptureWithOutput(
        _microphoneOutputRoute(), [weak, generation] {
            // May run inside the call above, under controlMutex_.
            DispatchQueue::global()->async([weak, generation] {
                if (auto self = weak.lock()) self->_startScreenCapture(generation);
            });
        });
}

void SVRecordingSession::_startScreenCapture(uint64_t generation) {
    std::lock_guard control(controlMutex_);
    if (captureGeneration_.load() != generation) return;
    auto controller = screenCaptureController();
    if (!controller) return;
    log::info("starting screen capture");
    controller->startCapture();
}

// --- Pause, resume, re-targeting ---------------------------------------------------

void SVRecordingSession::resumeSessionWithContextID(uint32_t contextID) {
    if (!paused_.load()) return;
    log::info("SVRecordingSession: resumeSessionWithContextID:");
    setContextIDs({contextID});
    sessionWasResumed_.store(true);
    paused_.store(false);
    if (broadcastExtension_.load()) _notifyExtensionOfAction(kBroadcastActionResume, [] {});
    _resumeOrStartSession();
}

void SVRecordingSession::pauseSession() {
    if (paused_.exchange(true)) return;
    log::info("SVRecordingSession: pauseSession");
    _stopAllCapture(true);
    if (broadcastExtension_.load()) _notifyExtensionOfAction(kBroadcastActionPause, [] {});
}

void SVRecordingSession::updateAudioCaptureToProcessWithPID(int32_t pid) {
    log::info("updateAudioCaptureToProcessWithPID:%i", pid);
    if (!isRecording() || !isSystemRecording()) return;
    setFrontmostPIDForAudioTap(pid);
    std::lock_guard control(controlMutex_);
    auto captureManager = SVCaptureManager::sharedManager();
    log::info("stopping audio capture");
    captureManager->stopAppAudioCapture();
    log::info("stopped audio capture");
    if (pid >= 1) {
        log::info("resuming audio capture");
        captureManager->resumeAppAudioCaptureForProcessID(pid, _retargetedAppAudioOutputRoute());
    } else {
        log::info("invalid pid stopping audio capture");
    }
}

// --- Stop -----------------------------------------------------------------------------

void SVRecordingSession::stopAllCapture() {
    _stopAllCapture(false);
}

void SVRecordingSession::_stopAllCapture(bool pausing) {
    log::info("SVRecordingSession: stopAllCapture");
    {
        // From here on no step of a start chain in flight starts anything.
        std::lock_guard control(controlMutex_);
        ++captureGeneration_;
        if (!pausing) ++recordingGeneration_;
    }
    // A broadcast fragment prepared ahead never begins once the recording ends.
    if (!pausing)
        if (auto prepared = preparedWriter_.exchange(nullptr))
            if (auto w = prepared->writer->fileWriter()) w->cancelWriting();
    // Without controlMutex_: the stop waits for a frame or failure callback
    // in progress, and a failure callback stops capture itself.
    auto controller = screenCaptureController();
    if (controller) {
        controller->stopCapture();
        controller->setDelegate({});
    }
    if (!pausing && controller) {
        // A recording's end releases its controller, and with it the pool
        // of frame surfaces it keeps for reuse (up to kMaxFramesInFlight
        // screen-sized buffers): an idle session holds no frame memory.
        // The next start makes a controller of the size it records.
        {
            std::lock_guard lock(propertiesMutex_);
            if (screenCaptureController_ == controller) screenCaptureController_.reset();
        }
        controller.reset();  // outside the locks: the release joins its thread
    }
    std::lock_guard control(controlMutex_);
    SVCaptureManager::sharedManager()->stopAllCapture();
    log::info("Stop mirroring");
    if (auto backend = _screenBackend())
        if (auto mirroring = backend->mirroringService())
            mirroring->setCloneMirroringMode(kCloneMirroringModeEnded);
}

void SVRecordingSession::stopWithError(const Error& error) {
    if (!recording_.exchange(false)) return;
    log::info("SVRecordingSession: stopWithError");
    stopAllCapture();
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    auto tell = [weak, error](std::optional<URL> movieURL) {
        if (auto self = weak.lock())
            if (auto d = self->delegate()) d->recordingSessionStoppedWithError(error, movieURL);
    };
    auto writer = movieWriter_.load();
    if (broadcastProcessMode() == kBroadcastProcessModeSampleBuffer) {
        // The broadcast is over: the extension hears no finish, its link
        // and process end.
        _endExtensionLink();
        tell(std::nullopt);
        return;
    }
    if (!writer) {
        tell(std::nullopt);
        return;
    }
    // What was recorded until the failure is kept: the movie is finished
    // as a stop would finish it (a writer that failed keeps the fragments
    // it wrote) and goes with the error.
    const bool broadcasting = broadcastExtension_.load() != nullptr;
    writer->finishWritingWithHandler(
        [weak, writer, tell, broadcasting](std::optional<URL> movieURL) {
            auto self = weak.lock();
            if (self) self->movieWriter_.clearIf(writer);
            if (!writer->hasPlayableMovie() || !movieURL || !fileExists(movieURL->path))
                movieURL.reset();
            if (broadcasting) {
                if (self) self->_notifyBroadcastExtensionOfCompletedMovieWithURL(movieURL, true);
                movieURL.reset();
            }
            tell(std::move(movieURL));
        });
}

bool SVRecordingSession::finishSessionWithHandler(FinishHandler handler) {
    return finishSessionWithStartClipDuration(0.0, 0.0, std::move(handler));
}

bool SVRecordingSession::finishSessionWithStartClipDuration(double startClipDuration,
                                                            double endClipDuration,
                                                            FinishHandler handler) {
    if (!recording_.exchange(false)) return false;
    log::info("SVRecordingSession: finishSessionWithHandler");
    stopAllCapture();

    {
        std::lock_guard lock(_shouldStopLock);
        timeline_.reset();
    }
    sessionWasResumed_.store(false);
    audioTimeOffset_.store(0);

    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    if (broadcastProcessMode() == kBroadcastProcessModeSampleBuffer) {
        _notifyExtensionOfAction(kBroadcastActionFinish, [weak, handler] {
            // The link to the extension ends with the broadcast.
            if (auto self = weak.lock()) self->_endExtensionLink();
            if (handler) handler(std::nullopt, std::nullopt);
        });
        return true;
    }

    auto writer = movieWriter_.load();
    if (!writer) {
        // Stopped before the writer was ready: there is no movie.
        log::error("SVRecordingSession: no movie, the recording had not started");
        if (handler) handler(std::nullopt, _svUserErrorForCode(kSVRecordingErrorFailedToStart));
        return true;
    }
    using Status = media::MovieFileWriter::Status;
    const bool wroteFrames = writer->fileWriterStatus() != int(Status::Unknown);
    const bool broadcasting = broadcastExtension_.load() != nullptr;
    const URL trimmedURL = trimmedOutputURL();
    if (broadcasting) {
        // The fragment before this last one goes to the extension first.
        _finishPreviousFragment([weak, handler] {
            auto owner = weak.lock();
            auto last = owner ? owner->movieWriter_.load() : nullptr;
            if (!last) {
                if (handler) handler(std::nullopt, std::nullopt);
                return;
            }
            last->finishWritingWithHandler([weak, last, handler](std::optional<URL> movieURL) {
                log::info("SVRecordingSession: finishWritingWithHandler");
                if (auto session = weak.lock()) {
                    session->movieWriter_.clearIf(last);
                    session->_notifyBroadcastExtensionOfCompletedMovieWithURL(movieURL, true);
                }
                if (handler) handler(std::nullopt, std::nullopt);
            });
        });
        return true;
    }
    writer->finishWritingWithHandler([weak, writer, handler, startClipDuration, endClipDuration,
                                      trimmedURL, wroteFrames](std::optional<URL> movieURL) {
        log::info("SVRecordingSession: finishWritingWithHandler");
        // The finished writer's encoders and buffers are of no use any more:
        // released with this closure rather than held until the next start.
        if (auto self = weak.lock()) self->movieWriter_.clearIf(writer);
        if (!wroteFrames || !writer->hasPlayableMovie() || !movieURL ||
            !fileExists(movieURL->path)) {
            const int64_t code = wroteFrames ? kSVRecordingErrorFailedDuringRecording
                                             : kSVRecordingErrorFailedToStart;
            log::error("SVRecordingSession: no movie was written, error %li", code);
            if (handler) handler(std::nullopt, _svUserErrorForCode(code));
            return;
        }
        if (writer->fileWriterStatus() != int(Status::Completed)) {
            // Writing failed before this stop came (the disk filled): the
            // part written until then, with the failure's error.
            auto failure = writer->fileWriter()->error();
            const int64_t code = failure ? recordingErrorCodeForWriteFailure(*failure)
                                         : kSVRecordingErrorFailedDuringRecording;
            log::error("SVRecordingSession: movie cut short, error %li", code);
            if (handler) handler(std::move(movieURL), _svUserErrorForCode(code));
            return;
        }
        if (startClipDuration > 0 && endClipDuration > 0) {
            log::info("trimming");
            writer->trimMovieWithURL(
                *movieURL, startClipDuration, endClipDuration, trimmedURL,
                [handler, movieURL](std::optional<URL> trimmed) {
                    log::info("finished trimming");
                    if (!trimmed) {
                        // The recording itself is intact: hand that over
                        // rather than nothing.
                        log::error("SVRecordingSession: trimming failed, keeping the movie whole");
                        if (handler) handler(movieURL, std::nullopt);
                        return;
                    }
                    if (handler) handler(std::move(trimmed), std::nullopt);
                });
            return;
        }
        if (handler) handler(std::move(movieURL), std::nullopt);
    });
    return true;
}

void SVRecordingSession::finishAndCleanupSessionFilesWithHandler(CleanupHandler handler) {
    log::info("SVRecordingSession: cleanupSessionFiles");
    if (recording_.exchange(false)) stopAllCapture();
    // The movie is being thrown away: stop its encoders and close its file
    // now instead of keeping them until the next start. A finished movie is
    // left alone.
    if (auto writer = movieWriter_.load(); writer && writer->fileWriter())
        writer->fileWriter()->cancelWriting();
    MovieStore::shared()._srRemoveFile(outputURL(), [handler](OptionalError error) {
        if (error) log::error("error removing file with code: %i", int32_t(error->code));
        if (handler) handler();
    });
}

// --- Frame path -------------------------------------------------------------------

void SVRecordingSession::screenCaptureControllerDidReceiveSampleBuffer(
    ScreenCaptureController&, const std::shared_ptr<SampleBuffer>& sampleBuffer,
    uint32_t transformFlags) {
    // The start completes with the first frame, before any check.
    if (auto handler = sessionHandler_.exchange(nullptr)) (*handler)();
    if (broadcastExtension_.load())
        _processSampleBufferForStreaming(sampleBuffer, transformFlags);
    else
        _processSampleBuffer(sampleBuffer, transformFlags);
}

void SVRecordingSession::_processSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                              uint32_t transformFlags) {
    if (!sampleBuffer) return;
    std::lock_guard lock(_shouldStopLock);
    if (_shouldStop) return;
    if (paused_.load()) {
        log::info("session is paused discard sample");
        return;
    }
    const MediaTime p = sampleBuffer->presentationTime();
    if (!p.isValid()) {
        log::error("SVRecordingSession: frame without a presentation time, dropping it");
        return;
    }
    const bool firstAfterResume = sessionWasResumed_.load();
    timeline_.noteFrame(p, firstAfterResume);
    if (firstAfterResume) {
        // The audio routes move their samples by the same gaps, in host
        // ticks; they take the new sum once the flag is down.
        const MediaTime offset = timeline_.sampleTimeOffset;
        audioTimeOffset_.store(offset.isValid() ? convertScale(offset, HostClock::kTimescale).value
                                                : 0);
        sessionWasResumed_.store(false);
    }
    auto captureManager = SVCaptureManager::sharedManager();
    _updateSampleBufferWithOffset(sampleBuffer, timeline_.sampleTimeOffset, captureManager.get(),
                                  [&](const std::shared_ptr<SampleBuffer>& sample) {
                                      _handOverSampleBuffer(sample, sampleBuffer, p, transformFlags,
                                                            *captureManager);
                                  });
}

void SVRecordingSession::_handOverSampleBuffer(const std::shared_ptr<SampleBuffer>& sample,
                                               const std::shared_ptr<SampleBuffer>& original,
                                               const MediaTime& presentationTime,
                                               uint32_t transformFlags,
                                               SVCaptureManager& captureManager) {
    if (!sample) return;  // the re-timed copy could not be made
    // Application audio waits for this: the manager clears it whenever all
    // capture stops, so the first frame of every start and resume sets it.
    if (!captureManager.captureStartTime().isValid())
        captureManager.setCaptureStartTime(presentationTime);
    const AffineTransform transform = isSystemRecording()
                                          ? _affineTransformFromTransformFlags(transformFlags)
                                          : AffineTransform::identity();
    if (broadcastProcessMode() == kBroadcastProcessModeSampleBuffer) {
        // The extension gets the frame as captured, not re-timed; the
        // progress counts it on the recording's timeline.
        if (!_notifyExtensionOfVideoSampleBuffer(original, kBroadcastSampleTypeVideo)) {
            framesDropped_.fetch_add(1);
            return;
        }
    } else {
        auto writer = movieWriter_.load();
        if (!writer) return;
        if (!writer->appendVideoSampleBuffer(sample, transform)) {
            framesDropped_.fetch_add(1);
            return;
        }
    }
    const double seconds = sample->presentationTime().seconds();
    if (framesWritten_.fetch_add(1) == 0) firstWrittenSeconds_.store(seconds);
    lastWrittenSeconds_.store(seconds);
}

SVRecordingSession::Progress SVRecordingSession::progress() const {
    Progress p;
    p.framesWritten = framesWritten_.load();
    p.framesDropped = framesDropped_.load();
    if (p.framesWritten > 0)
        p.recordedSeconds = std::max(0.0, lastWrittenSeconds_.load() - firstWrittenSeconds_.load());
    return p;
}

// --- Failures ---------------------------------------------------------------------

void SVRecordingSession::screenCaptureControllerDidFailWithStatus(ScreenCaptureController&,
                                                                  int32_t status) {
    log::error("SVRecordingSession: screenCaptureController: didFailWithStatus:");
    // A desktop whose own sharing dialog the user cancelled is a refusal like
    // the consent alert's.
    stopWithError(_svUserErrorForCode(status == kScreenCaptureUserDeclined
                                          ? kSVRecordingErrorUserDeclined
                                          : kSVRecordingErrorFailedDuringRecording));
}

void SVRecordingSession::screenCaptureControllerWasPreempted(ScreenCaptureController&) {
    log::error("SVRecordingSession: screenCaptureControllerWasPreempted");
    stopWithError(_svUserErrorForCode(kSVRecordingErrorUnknown));
}

void SVRecordingSession::screenCaptureControllerMediaServicesWereReset(ScreenCaptureController&) {
    {
        std::lock_guard lock(_shouldStopLock);
        _shouldStop = true;
    }
    // The lock is released before stopping: the controller's stop waits for
    // a frame delivery in progress, and that delivery takes the same lock.
    // With _shouldStop already set, no frame reaches the writer any more.
    log::error("SVRecordingSession: screenCaptureControllerMediaServicesWereReset");
    stopWithError(_svUserErrorForCode(kSVRecordingErrorFailedDuringRecording));
}

// --- Audio routes -------------------------------------------------------------------

SVRecordingSession::SampleHandler SVRecordingSession::_appAudioOutputRoute() {
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    return [weak](const std::shared_ptr<SampleBuffer>& sample) {
        if (auto self = weak.lock()) self->_routeAppAudio(sample);
    };
}

SVRecordingSession::SampleHandler SVRecordingSession::_microphoneOutputRoute() {
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    return [weak](const std::shared_ptr<SampleBuffer>& sample) {
        if (auto self = weak.lock()) self->_routeMicrophoneAudio(sample);
    };
}

SVRecordingSession::SampleHandler SVRecordingSession::_retargetedAppAudioOutputRoute() {
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    return [weak](const std::shared_ptr<SampleBuffer>& sample) {
        // Without the paused and process-mode tests: re-targeting only
        // happens in whole-display recordings, which neither pause nor
        // stream samples.
        if (auto self = weak.lock()) self->_appendAudio(sample, 1);
    };
}

void SVRecordingSession::_routeAppAudio(const std::shared_ptr<SampleBuffer>& sample) {
    if (!sample || paused_.load()) return;
    if (broadcastProcessMode() == kBroadcastProcessModeSampleBuffer) {
        _notifyExtensionOfAudioSampleBuffer(sample, kBroadcastSampleTypeAppAudio);
        return;
    }
    _appendAudio(sample, 1);
}

void SVRecordingSession::_routeMicrophoneAudio(const std::shared_ptr<SampleBuffer>& sample) {
    if (!sample || paused_.load()) return;
    // Silence keeps its place in the movie, so the tracks stay in step.
    if (!isMicrophoneEnabled()) sample->fillBytes(0, sample->dataLength(), 0);
    if (broadcastProcessMode() == kBroadcastProcessModeSampleBuffer) {
        _notifyExtensionOfAudioSampleBuffer(sample, kBroadcastSampleTypeMicrophone);
        return;
    }
    _appendAudio(sample, 2);
}

void SVRecordingSession::_appendAudio(const std::shared_ptr<SampleBuffer>& sample, int input) {
    if (!sample) return;
    auto writer = movieWriter_.load();
    if (!writer) return;
    // Until the first frame after a resume has measured the gap, audio has
    // no place in the movie yet.
    if (sessionWasResumed_.load()) return;
    const int64_t offset = audioTimeOffset_.load();
    auto shifted = offset == 0 ? sample
                               : shiftedAudioSampleBuffer(
                                     sample, MediaTime::make(offset, HostClock::kTimescale));
    if (!shifted) return;
    const unsigned inputBit = input == 1 ? 1u : 2u;
    audioInputsSeen_.fetch_or(inputBit);
    std::shared_ptr<SVMovieWriter> seamDone;
    {
        // Audio of the time before the current fragment's first frame
        // belongs to the fragment before, while that is still open; a buffer
        // across the seam is split there, so nothing is lost or doubled.
        std::lock_guard lock(seamMutex_);
        if (previousFragment_ &&
            compare(shifted->presentationTime(), previousFragment_->boundary) < 0) {
            auto [before, after] = splitAudioAt(shifted, previousFragment_->boundary);
            if (before) {
                if (input == 1)
                    previousFragment_->writer->appendAudio1SampleBuffer(before);
                else
                    previousFragment_->writer->appendAudio2SampleBuffer(before);
            }
            shifted = after;
        }
        if (shifted && previousFragment_ && previousFragment_->boundary.isValid()) {
            // This input has reached the new fragment: nothing older comes.
            previousFragment_->reached |= inputBit;
            if ((previousFragment_->reached & previousFragment_->waitFor) ==
                previousFragment_->waitFor)
                seamDone = previousFragment_->writer;
        }
    }
    if (seamDone) _finishPreviousFragmentSoon(seamDone);
    if (!shifted) return;
    if (input == 1)
        writer->appendAudio1SampleBuffer(shifted);
    else
        writer->appendAudio2SampleBuffer(shifted);
}

// --- Broadcast ----------------------------------------------------------------------

OptionalError SVRecordingSession::enableBroadcastWithExtension(
    std::shared_ptr<AppExtension> extension, int32_t processMode, std::optional<Value> userInfo) {
    log::info("SVRecordingSession: enableBroadcastWithBroadcastExtensionID");
    // The extension reads its fragments through their tokens, and nothing
    // else of the movie store.
    if (extension) extension->setInaccessibleDirectories({MovieStore::shared()._srTempPath()});
    setBroadcastExtension(std::move(extension));
    setBroadcastUserInfo(std::move(userInfo));
    setBroadcastFragmentStartTime(MediaTime::invalid());
    setBroadcastFragmentIndex(1);
    setBroadcastProcessMode(processMode);
    _endExtensionLink();  // a link left from an earlier broadcast
    if (broadcastProcessMode() != kBroadcastProcessModeSampleBuffer) return std::nullopt;
    log::info("setting up extension proxy");
    auto extensionNow = broadcastExtension_.load();
    auto made = extensionNow
                    ? SVBroadcastExtensionProxy::initWithBroadcastUploadExtension(extensionNow)
                    : Result<std::shared_ptr<SVBroadcastExtensionProxy>>(Error::make(
                          kExtensionErrorDomain, kExtensionErrorCannotStart, "no extension"));
    if (!made) {
        log::error("SVRecordingSession: no link to the extension: %@", made.error().description());
        disableBroadcast();
        return std::nullopt;
    }
    auto proxy = std::move(*made);
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    proxy->setServiceInfoHandler([weak](const Value& info) {
        if (auto self = weak.lock())
            if (auto d = self->delegate()) d->broadcastSessionLinkDidUpdateServiceInfo(info);
    });
    proxy->setErrorHandler([weak](const Error& error) {
        if (auto self = weak.lock()) self->stopWithError(error);
    });
    // The first answer counts: a ping (ready) or the failure to start.
    struct Wait {
        std::mutex mutex;
        std::condition_variable cv;
        std::optional<OptionalError> result;
    };
    auto wait = std::make_shared<Wait>();
    proxy->establishConnectionWithHandler([wait](OptionalError error) {
        std::lock_guard lock(wait->mutex);
        if (wait->result) return;
        wait->result = std::move(error);
        wait->cv.notify_all();
    });
    std::optional<OptionalError> result;
    {
        std::unique_lock lock(wait->mutex);
        wait->cv.wait_for(lock, broadcastLinkWait(), [&] { return wait->result.has_value(); });
        result = wait->result;
    }
    if (!result || *result) {
        if (!result)
            log::error("SVRecordingSession: the extension's link did not come up within %li ms",
                       long(broadcastLinkWait().count()));
        proxy->invalidateConnection();
        disableBroadcast();
        return std::nullopt;
    }
    log::info("connection to extensions ready");
    setBroadcastUploadExtensionProxy(std::move(proxy));
    return std::nullopt;
}

void SVRecordingSession::disableBroadcast() {
    log::info("SVRecordingSession: disableBroadcast");
    setBroadcastExtension(nullptr);
    setBroadcastUserInfo(std::nullopt);
    setBroadcastConfiguration(nullptr);
    setBroadcastProcessMode(kBroadcastProcessModeUpload);
}

double SVRecordingSession::_broadcastClipDuration() const {
    auto configuration = broadcastConfiguration();
    const double wished = configuration ? configuration->clipDuration() : 0.0;
    // Not a number is not above 0 either.
    return wished > 0 ? wished : kDefaultBroadcastClipDuration;
}

std::shared_ptr<SVMovieWriter> SVRecordingSession::_makeFragmentWriter(int32_t index) {
    WindowSize size;
    {
        std::lock_guard lock(propertiesMutex_);
        size = movieSize_;
    }
    auto writer = SVMovieWriter::initWithWindowSize(
        size, fragmentPath(MovieStore::shared()._srTempPath(), bundleID(), index), storeInfo());
    writer->setBroadcastConfig(broadcastConfiguration());
    writer->setSystemRecording(isSystemRecording());
    writer->setupFileWriter();
    return writer;
}

void SVRecordingSession::_prepareFragmentWriter(int32_t index) {
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    const uint64_t recordingGeneration = recordingGeneration_.load();
    DispatchQueue::global(QueuePriority::Background)->async([weak, index, recordingGeneration] {
        auto self = weak.lock();
        if (!self || !self->broadcastExtension_.load()) return;
        auto prepared = std::make_shared<PreparedWriter>();
        prepared->index = index;
        prepared->writer = self->_makeFragmentWriter(index);
        std::lock_guard control(self->controlMutex_);
        if (self->recordingGeneration_.load() != recordingGeneration) {
            // The broadcast ended meanwhile: this fragment never begins.
            if (auto w = prepared->writer->fileWriter()) w->cancelWriting();
            return;
        }
        self->preparedWriter_.store(std::move(prepared));
    });
}

void SVRecordingSession::_processSampleBufferForStreaming(
    const std::shared_ptr<SampleBuffer>& sampleBuffer, uint32_t transformFlags) {
    if (!sampleBuffer) return;
    const MediaTime t = sampleBuffer->presentationTime();
    MediaTime fragmentStart = broadcastFragmentStartTime();
    if (!fragmentStart.isValid() && t.isValid()) {
        setBroadcastFragmentStartTime(t);
        fragmentStart = t;
        log::info("setting sample time = %i", int32_t(t.seconds()));
    }
    const double limit = _broadcastClipDuration();
    // Paused frames never reach a writer: they neither end a fragment nor
    // begin one.
    if (broadcastProcessMode() == kBroadcastProcessModeUpload && t.isValid() &&
        fragmentStart.isValid() && !paused_.load() &&
        subtract(t, fragmentStart).seconds() > limit) {
        auto previous = movieWriter_.load();
        if (previous) {
            setBroadcastFragmentStartTime(t);
            const int32_t index = broadcastFragmentIndex() + 1;
            setBroadcastFragmentIndex(index);
            log::info(
                "SVRecordingSession: processSampleBufferForStreaming: fragment exceeded time "
                "limit, uploading");
            log::info("setting up new movie writer");
            auto prepared = preparedWriter_.exchange(nullptr);
            std::shared_ptr<SVMovieWriter> next;
            if (prepared && prepared->index == index) {
                next = prepared->writer;
            } else {
                // Not ready in time (a very short clip duration): made here.
                log::error("SVRecordingSession: fragment %i was not prepared, making it now",
                           index);
                next = _makeFragmentWriter(index);
            }
            // An older fragment still open (a clip shorter than the grace)
            // is finished first, so fragments reach the extension in order.
            _finishPreviousFragment(nullptr);
            {
                std::lock_guard lock(seamMutex_);
                previousFragment_ =
                    PreviousFragment{previous, MediaTime::invalid(), audioInputsSeen_.load(), 0};
            }
            // This frame is the first of the new fragment: every later frame
            // goes to the new writer; audio goes by its time (_appendAudio).
            movieWriter_.store(next);
            _prepareFragmentWriter(index + 1);
            _processSampleBuffer(sampleBuffer, transformFlags);
            const MediaTime boundary = next->lastVideoPresentationTime();
            bool noAudio = false;
            {
                std::lock_guard lock(seamMutex_);
                if (previousFragment_ && previousFragment_->writer == previous) {
                    previousFragment_->boundary = boundary.isValid() ? boundary : t;
                    noAudio = previousFragment_->waitFor == 0;
                }
            }
            if (noAudio) {
                _finishPreviousFragmentSoon(previous);
            } else {
                std::weak_ptr<SVRecordingSession> weak = weak_from_this();
                DispatchQueue::global()->asyncAfter(kSeamGrace, [weak, previous] {
                    if (auto self = weak.lock()) self->_finishPreviousFragment(nullptr, previous);
                });
            }
            return;
        }
    }
    _processSampleBuffer(sampleBuffer, transformFlags);
}

void SVRecordingSession::_finishPreviousFragmentSoon(const std::shared_ptr<SVMovieWriter>& writer) {
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    // Not on the audio or frame thread that noticed: finishing may take a
    // moment.
    DispatchQueue::global()->async([weak, writer] {
        if (auto self = weak.lock()) self->_finishPreviousFragment(nullptr, writer);
    });
}

void SVRecordingSession::_finishPreviousFragment(std::function<void()> then,
                                                 const std::shared_ptr<SVMovieWriter>& onlyWriter) {
    std::optional<PreviousFragment> previous;
    {
        std::lock_guard lock(seamMutex_);
        if (!onlyWriter || (previousFragment_ && previousFragment_->writer == onlyWriter))
            previous.swap(previousFragment_);
        if (previous) {
            ++fragmentsFinishing_;
        } else if (then && fragmentsFinishing_ > 0) {
            // An earlier fragment is still being finished (its seam closed
            // just now): what follows waits for its hand-over.
            afterFragmentsFinish_.push_back(std::move(then));
            return;
        }
    }
    if (!previous) {
        if (then) then();
        return;
    }
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    previous->writer->finishWritingWithHandler([weak, then](std::optional<URL> url) {
        std::vector<std::function<void()>> waiting;
        if (auto self = weak.lock()) {
            self->_notifyBroadcastExtensionOfCompletedMovieWithURL(url, false);
            std::lock_guard lock(self->seamMutex_);
            if (--self->fragmentsFinishing_ == 0) waiting.swap(self->afterFragmentsFinish_);
        }
        if (then) then();
        for (auto& next : waiting) next();
    });
}

void SVRecordingSession::_notifyExtensionOfAction(int32_t action, ActionCompletion completion) {
    log::info("SVRecordingSession: _notifyExtensionOfAction: %i", action);
    if (!broadcastExtension_.load()) {
        log::error("no broadcast extension found!");
        if (completion) completion();
        return;
    }
    auto proxy = broadcastUploadExtensionProxy_.load();
    if (!proxy) {
        log::error("broadcast extension not ready");
        if (completion) completion();
        return;
    }
    Value payload = Value::object();
    payload[kPayloadKeyActionType] = action;
    if (auto userInfo = broadcastUserInfo(); userInfo && !userInfo->is_null())
        payload[kBroadcastExtensionKeyExtensionUserInfo] = *userInfo;
    // An extension that never answers holds up neither the start nor the
    // finish: whichever comes first, its answer or the wait's end, goes on.
    auto once = std::make_shared<Once<ActionCompletion>>(std::move(completion));
    proxy->processPayload(std::move(payload), [once] { (*once)(); });
    DispatchQueue::global()->asyncAfter(kBroadcastActionWait, [once] { (*once)(); });
}

bool SVRecordingSession::_notifyExtensionOfVideoSampleBuffer(
    const std::shared_ptr<SampleBuffer>& sampleBuffer, int32_t type) {
    static log::RateLimit limit;
    if (!broadcastExtension_.load()) {
        log::error(limit, "no broadcast extension found!");
        return false;
    }
    auto proxy = broadcastUploadExtensionProxy_.load();
    if (!proxy) {
        log::error(limit, "broadcast extension not ready");
        return false;
    }
    if (!sampleBuffer) return false;
    ipc::Arguments args;
    Value payload = Value::object();
    payload[kPayloadKeySampleType] = type;
    // The capture's own surface crosses (its descriptor), never its pixels;
    // a frame without one goes with an empty object.
    payload[kPayloadKeySharedSurface] =
        SVSharedSurfaceObject(sampleBuffer->imageBuffer()).encodeWithCoder(&args);
    payload[kPayloadKeyTimingInfo] =
        bytesValue(timingRecordBytes(sampleBuffer->timingEntry(0).value_or(SampleTimingInfo{})));
    args.add(std::move(payload));
    // The frame (and with it its surface) stays out of the capture's pool
    // until the extension has read it.
    return proxy->processSamplePayload(SVBroadcastExtensionProxy::SampleKind::Video,
                                       std::move(args), sampleBuffer);
}

void SVRecordingSession::_notifyExtensionOfAudioSampleBuffer(
    const std::shared_ptr<SampleBuffer>& sampleBuffer, int32_t type) {
    static log::RateLimit limit;
    if (!broadcastExtension_.load()) {
        log::error(limit, "no broadcast extension found!");
        return;
    }
    auto proxy = broadcastUploadExtensionProxy_.load();
    if (!proxy) {
        log::error(limit, "broadcast extension not ready");
        return;
    }
    if (!sampleBuffer) return;
    const AudioStreamFormat& format = sampleBuffer->audioFormat();
    if ((format.formatFlags & AudioStreamFormat::kFlagIsNonInterleaved) &&
        format.channelsPerFrame > 1) {
        log::error(limit,
                   "SVRecordingSession: audio of type %i skipped: it is in %i buffers (one "
                   "per channel), a payload holds one",
                   type, int32_t(format.channelsPerFrame));
        return;
    }
    const auto& block = sampleBuffer->dataBlock();
    const size_t length = block ? std::min(sampleBuffer->dataLength(), block->size()) : 0;
    const uint8_t* data = block ? block->data() : nullptr;
    const SampleTimingInfo timing = sampleBuffer->timingEntry(0).value_or(SampleTimingInfo{});
    const int64_t numSamples = sampleBuffer->numSamples();
    // A long buffer goes in parts of whole frames, each with its own time, so
    // no message outgrows the link's limits; the parts join without a gap.
    const bool divisible = format.bytesPerFrame > 0 && format.framesPerPacket == 1 &&
                           format.sampleRate > 0 && timing.presentationTimeStamp.isValid() &&
                           length == size_t(numSamples) * format.bytesPerFrame;
    const int64_t partFrames =
        divisible ? std::max<int64_t>(1, int64_t(kMaxAudioPayloadBytes / format.bytesPerFrame))
                  : numSamples;
    if (!divisible && length > kMaxAudioPayloadBytes) {
        log::error(limit, "SVRecordingSession: audio of type %i skipped: %li bytes in one piece",
                   type, long(length));
        return;
    }
    const int32_t rate = int32_t(std::lround(format.sampleRate));
    for (int64_t first = 0; first < std::max<int64_t>(numSamples, 1); first += partFrames) {
        const int64_t frames = divisible ? std::min(partFrames, numSamples - first) : numSamples;
        SampleTimingInfo part = timing;
        size_t offset = 0, bytes = length;
        if (divisible) {
            offset = size_t(first) * format.bytesPerFrame;
            bytes = size_t(frames) * format.bytesPerFrame;
            part.presentationTimeStamp =
                add(timing.presentationTimeStamp, MediaTime::make(first, rate));
            part.duration = MediaTime::make(frames, rate);
            part.decodeTimeStamp = MediaTime::invalid();
        }
        ipc::Arguments args;
        Value payload = Value::object();
        payload[kPayloadKeySampleType] = type;
        payload[kPayloadKeyAudioBufferList] =
            bytesValue(std::span<const uint8_t>(data ? data + offset : nullptr, bytes));
        payload[kPayloadKeyFormatDesc] = audioFormatValue(format);
        payload[kPayloadKeyTimingInfo] = bytesValue(timingRecordBytes(part));
        payload[kPayloadKeyNumSamples] = int32_t(frames);
        args.add(std::move(payload));
        proxy->processSamplePayload(SVBroadcastExtensionProxy::SampleKind::Audio, std::move(args),
                                    nullptr);
    }
}

void SVRecordingSession::_endExtensionLink() {
    if (auto proxy = broadcastUploadExtensionProxy_.exchange(nullptr)) {
        const auto stats = proxy->statistics();
        log::info(
            "SVRecordingSession: extension link ended: %li frames sent, %li dropped, %li audio "
            "buffers sent, %li dropped, %li pixel bytes copied",
            long(stats.videoSent), long(stats.videoDropped), long(stats.audioSent),
            long(stats.audioDropped), long(stats.videoBytesCopied));
        proxy->invalidateConnection();
    }
}

namespace {
std::atomic<int64_t> gBroadcastLinkWaitMs{kDefaultBroadcastLinkWait.count()};
}  // namespace

std::chrono::milliseconds SVRecordingSession::broadcastLinkWait() {
    return std::chrono::milliseconds(gBroadcastLinkWaitMs.load());
}

void SVRecordingSession::setBroadcastLinkWait(std::chrono::milliseconds wait) {
    gBroadcastLinkWaitMs.store(std::max<int64_t>(0, wait.count()));
}

void SVRecordingSession::_notifyBroadcastExtensionOfCompletedMovieWithURL(
    const std::optional<URL>& movieURL, bool finished) {
    log::info("SVRecordingSession: notifyBroadcastExtensionOfCompletedMovieWithURL:");
    auto extension = broadcastExtension_.load();
    if (!extension) {
        log::error("no broadcast extension found!");
        return;
    }
    if (!movieURL) {
        log::error("SVRecordingSession: the fragment has no file; nothing to hand over");
        return;
    }
    std::vector<ExtensionItem> items;
    items.push_back(ExtensionItem::itemWithTitle(kBroadcastExtensionKeyRequestedFinish,
                                                 Value(finished ? "1" : "0")));
    auto token = FileAccessToken::issueForPath(movieURL->path, kBroadcastFileTokenClass);
    if (!token) {
        log::error("file token is null!");
        return;
    }
    items.push_back(
        ExtensionItem::itemWithTitle(kBroadcastExtensionKeyExtensionSandboxToken, token->string()));
    items.push_back(ExtensionItem::itemWithTitle(kBroadcastExtensionKeyExtensionUserInfo,
                                                 broadcastUserInfo().value_or(Value(nullptr))));
    items.push_back(ExtensionItem::itemWithTitle(kBroadcastExtensionKeyMovieClipURL,
                                                 movieURL->absoluteString()));
    // Each completion finds its own fragment by the request identifier, so
    // replacing the handler for every fragment is harmless.
    std::weak_ptr<SVRecordingSession> weak = weak_from_this();
    extension->setRequestCompletionBlock(
        [weak](const std::string& id, std::vector<ExtensionItem> returned) {
            if (auto self = weak.lock()) self->_broadcastRequestDidComplete(id, returned);
        });
    extension->setRequestCancellationBlock([weak](const std::string& id, const Error& error) {
        if (auto self = weak.lock()) self->_broadcastRequestDidBreak(id, error);
    });
    log::info("begining extension request");
    PendingFragment fragment{*movieURL, token, finished};
    {
        std::lock_guard lock(fragmentsMutex_);
        if (finished) finalAnswered_ = false;
        ++requestsInFlight_;
    }
    extension->beginExtensionRequestWithInputItems(
        std::move(items), {token},
        [weak, fragment = std::move(fragment)](std::string id, OptionalError error) mutable {
            log::error("finished extension request with items with error code: %i)",
                       int32_t(error ? error->code : 0));
            auto self = weak.lock();
            if (!self) return;
            if (error) {  // no request: the fragment stays for the store's clean-up
                self->_endExtensionIfDone(true, false);
                return;
            }
            std::lock_guard lock(self->fragmentsMutex_);
            self->pendingFragments_.emplace(std::move(id), std::move(fragment));
        });
}

std::optional<SVRecordingSession::PendingFragment> SVRecordingSession::_takePendingFragment(
    const std::string& requestIdentifier) {
    std::lock_guard lock(fragmentsMutex_);
    auto it = pendingFragments_.find(requestIdentifier);
    if (it == pendingFragments_.end()) return std::nullopt;
    PendingFragment fragment = std::move(it->second);
    pendingFragments_.erase(it);
    return fragment;
}

void SVRecordingSession::_broadcastRequestDidComplete(const std::string& requestIdentifier,
                                                      const std::vector<ExtensionItem>& items) {
    std::optional<PendingFragment> fragment = _takePendingFragment(requestIdentifier);
    if (!fragment) {
        log::error("SVRecordingSession: completion of unknown request %@ ignored",
                   requestIdentifier);
        return;
    }
    MovieStore::shared()._srRemoveFile(
        fragment->url, [](OptionalError) { log::info("extension finished, clean up movie clip"); });
    for (const auto& item : items) {
        if (item.title == kBroadcastExtensionKeyBroadcastConfiguration) {
            const Bytes* data = bytesOf(item.attachment);
            if (!data) {
                log::error("Error loading input item for type");
                continue;
            }
            log::info("received updated broadcast configuration from extension");
            setBroadcastConfiguration(SVBroadcastConfiguration::decodeFromData(*data));
        } else if (item.title == kBroadcastExtensionKeyExtensionServiceInfo) {
            if (!item.attachment.is_object()) {
                log::error("Error loading input item for type");
                continue;
            }
            log::debug("received service info from broadcast service");
            if (auto d = delegate()) d->broadcastSessionDidUpdateServiceInfo(item.attachment);
        }
    }
    _endExtensionIfDone(true, fragment->finished);
    // The token is released with `fragment`, once.
}

void SVRecordingSession::_endExtensionIfDone(bool requestEnded, bool finalAnswer) {
    bool end = false;
    {
        std::lock_guard lock(fragmentsMutex_);
        if (requestEnded && requestsInFlight_ > 0) --requestsInFlight_;
        if (finalAnswer) finalAnswered_ = true;
        end = extensionDoneLocked();
        if (end) finalAnswered_ = false;
    }
    if (end)
        if (auto extension = broadcastExtension_.load()) extension->_kill(SIGKILL);
}

void SVRecordingSession::_broadcastRequestDidBreak(const std::string& requestIdentifier,
                                                   const Error& error) {
    std::optional<PendingFragment> fragment = _takePendingFragment(requestIdentifier);
    if (!fragment) return;
    log::error("SVRecordingSession: fragment %@ was not uploaded: %@", fragment->url.path,
               error.description());
    // Nobody will take it any more.
    MovieStore::shared()._srRemoveFile(fragment->url, [](OptionalError) {});
    _endExtensionIfDone(true, fragment->finished);
}

// --- Properties -------------------------------------------------------------------

void SVRecordingSession::setWindowSize(WindowSize size) {
    // A size that is no size at all (from a confused or hostile client)
    // records the whole display's size instead of failing later.
    auto usable = [](float side) { return std::isfinite(side) && side >= 1.0f; };
    if (!usable(size.width) || !usable(size.height)) {
        auto backend = _screenBackend();
        const WindowSize display = backend ? backend->displaySize() : WindowSize{};
        log::error("SVRecordingSession: unusable window size %fx%f, using the display's %fx%f",
                   size.width, size.height, display.width, display.height);
        size = usable(display.width) && usable(display.height) ? display : WindowSize{2, 2};
    }
    std::lock_guard lock(propertiesMutex_);
    originalWindowSize_ = size;
    windowSize_ = _maximumSizeWithSize(size);
    // A sliver of a window still makes a movie that can be written.
    windowSize_.width = std::max(windowSize_.width, 2.0f);
    windowSize_.height = std::max(windowSize_.height, 2.0f);
}

WindowSize SVRecordingSession::windowSize() const {
    std::lock_guard lock(propertiesMutex_);
    return windowSize_;
}

WindowSize SVRecordingSession::originalWindowSize() const {
    std::lock_guard lock(propertiesMutex_);
    return originalWindowSize_;
}

void SVRecordingSession::setBroadcastProcessMode(int32_t mode) {
    if (mode != kBroadcastProcessModeUpload && mode != kBroadcastProcessModeSampleBuffer) {
        log::error("SVRecordingSession: unknown broadcast process mode %i, using 0", mode);
        mode = kBroadcastProcessModeUpload;
    }
    broadcastProcessMode_.store(mode);
}

MediaTime SVRecordingSession::lastSampleTimestamp() const {
    std::lock_guard lock(_shouldStopLock);
    return timeline_.lastSampleTimestamp;
}

MediaTime SVRecordingSession::sampleTimeOffset() const {
    std::lock_guard lock(_shouldStopLock);
    return timeline_.sampleTimeOffset;
}

#define SV_GUARDED_PROPERTY(Type, getter, setter, field)           \
    Type SVRecordingSession::getter() const {                      \
        std::lock_guard lock(propertiesMutex_);                    \
        return field;                                              \
    }                                                              \
    void SVRecordingSession::setter(Type value) {                  \
        std::lock_guard lock(propertiesMutex_);                    \
        std::swap(field, value); /* the old value dies unlocked */ \
    }

SV_GUARDED_PROPERTY(std::shared_ptr<SVClientProxy>, clientProxy, setClientProxy, clientProxy_)
SV_GUARDED_PROPERTY(std::string, bundleID, setBundleID, bundleID_)
SV_GUARDED_PROPERTY(std::vector<uint32_t>, contextIDs, setContextIDs, contextIDs_)
SV_GUARDED_PROPERTY(std::optional<URL>, interruptedMovieURL, setInterruptedMovieURL,
                    interruptedMovieURL_)
SV_GUARDED_PROPERTY(std::shared_ptr<SVBroadcastConfiguration>, broadcastConfiguration,
                    setBroadcastConfiguration, broadcastConfiguration_)
SV_GUARDED_PROPERTY(std::string, broadcastExtensionID, setBroadcastExtensionID,
                    broadcastExtensionID_)
SV_GUARDED_PROPERTY(std::shared_ptr<ScreenCaptureController>, screenCaptureController,
                    setScreenCaptureController, screenCaptureController_)
SV_GUARDED_PROPERTY(std::shared_ptr<SVStoreInfo>, storeInfo, setStoreInfo, storeInfo_)
SV_GUARDED_PROPERTY(std::optional<Value>, broadcastUserInfo, setBroadcastUserInfo,
                    broadcastUserInfo_)
SV_GUARDED_PROPERTY(MediaTime, broadcastFragmentStartTime, setBroadcastFragmentStartTime,
                    broadcastFragmentStartTime_)
#undef SV_GUARDED_PROPERTY

std::shared_ptr<SVRecordingSessionDelegate> SVRecordingSession::delegate() const {
    std::lock_guard lock(propertiesMutex_);
    return delegate_.lock();
}

void SVRecordingSession::setDelegate(std::weak_ptr<SVRecordingSessionDelegate> delegate) {
    std::lock_guard lock(propertiesMutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<DispatchQueue> SVRecordingSession::broadcastAggregatePayloadQueue() const {
    std::lock_guard lock(propertiesMutex_);
    return broadcastAggregatePayloadQueue_;
}

std::shared_ptr<DispatchQueue> SVRecordingSession::broadcastServiceInfoQueue() const {
    std::lock_guard lock(propertiesMutex_);
    return broadcastServiceInfoQueue_;
}

std::vector<Value> SVRecordingSession::pendingBroadcastExtensionPayloads() const {
    std::lock_guard lock(propertiesMutex_);
    return pendingBroadcastExtensionPayloads_;
}

}  // namespace sv
