#include "capture/capture_manager.h"

#include "platform/host_clock.h"
#include "platform/log.h"

namespace sv {

namespace {

#define SV_FIELD(Type, getter, setter, member) \
    Type SVCaptureManager::getter() const {    \
        std::lock_guard lock(mutex_);          \
        return member;                         \
    }                                          \
    void SVCaptureManager::setter(Type v) {    \
        std::lock_guard lock(mutex_);          \
        member = std::move(v);                 \
    }

void reportStartStatus(int32_t status) {
    if (status != kAudioNoError)
        log::error("SVRecordingManager: startAudioCapture error: %i", status);
}

}  // namespace

SV_FIELD(bool, isRecordingMicrophone, setRecordingMicrophone, recordingMicrophone_)
SV_FIELD(bool, isRecordingCamera, setRecordingCamera, recordingCamera_)
SV_FIELD(bool, isRecordingAppAudio, setRecordingAppAudio, recordingAppAudio_)
SV_FIELD(bool, resumed, setResumed, resumed_)
SV_FIELD(std::shared_ptr<CameraPreviewLayer>, previewLayer, setPreviewLayer, previewLayer_)
SV_FIELD(SVCaptureManager::SampleHandler, microphoneOutputHandler, setMicrophoneOutputHandler,
         microphoneOutputHandler_)
SV_FIELD(SVCaptureManager::SampleHandler, cameraOutputHandler, setCameraOutputHandler,
         cameraOutputHandler_)
SV_FIELD(SVCaptureManager::SampleHandler, appAudioOutputHandler, setAppAudioOutputHandler,
         appAudioOutputHandler_)
SV_FIELD(int32_t, cameraPosition, setCameraPosition, cameraPosition_)
SV_FIELD(std::shared_ptr<DispatchQueue>, sessionSampleBufferQueue, setSessionSampleBufferQueue,
         sessionSampleBufferQueue_)
SV_FIELD(std::shared_ptr<CaptureDeviceInput>, captureDeviceVideoInput, setCaptureDeviceVideoInput,
         captureDeviceVideoInput_)
SV_FIELD(std::shared_ptr<CaptureDeviceInput>, captureDeviceAudioInput, setCaptureDeviceAudioInput,
         captureDeviceAudioInput_)
SV_FIELD(std::shared_ptr<VideoDataOutput>, captureSessionVideoDataOutput,
         setCaptureSessionVideoDataOutput, captureSessionVideoDataOutput_)
SV_FIELD(std::shared_ptr<AudioDataOutput>, captureSessionAudioDataOutput,
         setCaptureSessionAudioDataOutput, captureSessionAudioDataOutput_)
SV_FIELD(std::optional<Date>, lastAudioDate, setLastAudioDate, lastAudioDate_)
SV_FIELD(SVCaptureManager::DidStartHandler, micDidStartHandler, setMicDidStartHandler,
         micDidStartHandler_)
SV_FIELD(SVCaptureManager::DidStartHandler, appTapDidStartHandler, setAppTapDidStartHandler,
         appTapDidStartHandler_)
#undef SV_FIELD

MediaTime SVCaptureManager::captureStartTime() const {
    std::lock_guard lock(mutex_);
    return captureStartTime_;
}

void SVCaptureManager::setCaptureStartTime(const MediaTime& t) {
    std::lock_guard lock(mutex_);
    captureStartTime_ = t;
}

std::shared_ptr<CaptureSession> SVCaptureManager::captureSession() const {
    std::lock_guard lock(mutex_);
    return captureSession_;
}

void SVCaptureManager::setCaptureSession(std::shared_ptr<CaptureSession> session) {
    std::shared_ptr<CaptureSession> previous;
    {
        std::lock_guard lock(mutex_);
        if (session == captureSession_) return;
        previous = captureSession_;
    }
    if (previous) _stopObservingRunning(*previous);
    std::lock_guard lock(mutex_);
    captureSession_ = std::move(session);
}

void SVCaptureManager::_stopObservingRunning(Observable& session) {
    // Not observed (any more) is fine: nothing to undo.
    (void)session.removeObserver(this, CaptureSession::kRunningKey);
}

// Creation

std::shared_ptr<SVCaptureManager> SVCaptureManager::sharedManager() {
    static OnceFlag once;
    static std::shared_ptr<SVCaptureManager>* shared = nullptr;
    dispatchOnce(
        once, [] { shared = new std::shared_ptr<SVCaptureManager>(make(processAudioBackend())); });
    return *shared;
}

std::shared_ptr<DispatchQueue> SVCaptureManager::audioDispatchQueue() {
    static OnceFlag once;
    static std::shared_ptr<DispatchQueue>* queue = nullptr;
    dispatchOnce(once, [] {
        queue = new std::shared_ptr<DispatchQueue>(DispatchQueue::serial(kAudioQueueLabel));
    });
    return *queue;
}

std::shared_ptr<SVCaptureManager> SVCaptureManager::make(std::shared_ptr<AudioBackend> backend,
                                                         DateSource now) {
    auto manager = std::make_shared<SVCaptureManager>(std::move(backend), std::move(now));
    manager->setSessionSampleBufferQueue(DispatchQueue::serial(kSessionQueueLabel));
    manager->setCaptureStartTime(MediaTime::invalid());
    return manager;
}

SVCaptureManager::SVCaptureManager(std::shared_ptr<AudioBackend> backend, DateSource now)
    : backend_(std::move(backend)), now_(std::move(now)) {
    if (!now_) now_ = [] { return std::chrono::system_clock::now(); };
    audioBasicDescription_ = AudioStreamFormat::pcm16(44100.0, 1, true);
    // Recording only, mixing with other audio; a refusal changes nothing here.
    (void)AudioSession::sharedInstance().setCategory(AudioSessionCategory::Record,
                                                     AudioSessionCategoryOptionMixWithOthers);
}

SVCaptureManager::~SVCaptureManager() = default;

// Capture session and microphone

void SVCaptureManager::startCaptureSession() {
    log::info("SVCaptureManager: startCaptureSession");
    if (sessionInProgress_.load()) return;
    sessionInProgress_.store(true);
    setCaptureSession(CaptureSession::make(backend_));
}

void SVCaptureManager::stopCaptureSession() {
    log::info("SVCaptureManager: stopDeviceCaptureSessionWithFinishHandler");
    if (!sessionInProgress_.load()) return;
    sessionInProgress_.store(false);
    auto session = captureSession();
    if (!session) return;
    _stopObservingRunning(*session);
    session->stopRunning();
}

void SVCaptureManager::startMicrophoneCaptureWithOutput(SampleHandler output,
                                                        DidStartHandler didStart) {
    if (isRecordingMicrophone()) return;
    log::info("SVCaptureManager: setAudioCaptureEnabled: YES");
    startCaptureSession();
    if (output) setMicrophoneOutputHandler(std::move(output));
    setRecordingMicrophone(true);
    auto session = captureSession();

    auto input = CaptureDeviceInput::make(defaultCaptureDeviceForAudio(backend_));
    setCaptureDeviceAudioInput(input);
    if (session && input && session->canAddInput(input)) session->addInput(input);

    auto dataOutput = AudioDataOutput::make();
    setCaptureSessionAudioDataOutput(dataOutput);
    dataOutput->setSampleBufferDelegate(
        std::weak_ptr<CaptureDataOutputSampleBufferDelegate>(shared_from_this()),
        sessionSampleBufferQueue());
    if (session && session->canAddOutput(dataOutput)) session->addOutput(dataOutput);

    setMicDidStartHandler(std::move(didStart));
    if (!session) return;
    if (session->isRunning()) {
        DidStartHandler handler;
        {
            std::lock_guard lock(mutex_);
            handler = std::move(micDidStartHandler_);
            micDidStartHandler_ = nullptr;
        }
        if (handler) handler();
    } else {
        session->addObserver(shared_from_this(), CaptureSession::kRunningKey,
                             KeyValueObservingOptionNone, nullptr);
        session->startRunning();
        if (!session->isRunning() && backend_ && backend_->hasServer()) {
            // Not running (no audio server): the recording goes on without
            // the microphone rather than waiting for it forever.
            (void)session->removeObserver(this, CaptureSession::kRunningKey);
            DidStartHandler handler;
            {
                std::lock_guard lock(mutex_);
                handler = std::move(micDidStartHandler_);
                micDidStartHandler_ = nullptr;
            }
            reportSourceProblem(Source::Microphone, kAudioServerUnavailableError);
            if (handler) handler();
        }
    }
}

void SVCaptureManager::setSourceProblemHandler(SourceProblemHandler handler) {
    std::lock_guard lock(mutex_);
    sourceProblemHandler_ = std::move(handler);
}

void SVCaptureManager::reportSourceProblem(Source source, int32_t status) {
    SourceProblemHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = sourceProblemHandler_;
    }
    if (handler) handler(source, status);
}

void SVCaptureManager::observeValueForKeyPath(const std::string& keyPath, Observable& object,
                                              const KeyValueChange&, void*) {
    if (keyPath != CaptureSession::kRunningKey) return;
    DidStartHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = std::move(micDidStartHandler_);
        micDidStartHandler_ = nullptr;
    }
    if (handler) handler();
    _stopObservingRunning(object);
}

void SVCaptureManager::stopMicrophoneCapture() {
    if (!isRecordingMicrophone()) return;
    log::info("SVCaptureManager: setAudioCaptureEnabled: NO");
    setRecordingMicrophone(false);
    auto session = captureSession();
    if (!session) return;
    if (auto input = captureDeviceAudioInput()) session->removeInput(input);
    if (auto output = captureSessionAudioDataOutput()) session->removeOutput(output);
}

void SVCaptureManager::captureOutputDidOutputSampleBuffer(
    const std::shared_ptr<CaptureOutput>& output, const std::shared_ptr<SampleBuffer>& sampleBuffer,
    const std::shared_ptr<CaptureConnection>&) {
    SampleHandler handler;
    {
        std::lock_guard lock(mutex_);
        if (output && output == captureSessionAudioDataOutput_)
            handler = microphoneOutputHandler_;
        else if (output && output == captureSessionVideoDataOutput_)
            handler = cameraOutputHandler_;
    }
    if (handler) handler(sampleBuffer);
}

void SVCaptureManager::stopAllCapture() {
    stopCaptureSession();
    stopMicrophoneCapture();
    stopAppAudioCapture();
    std::lock_guard lock(mutex_);
    cameraOutputHandler_ = nullptr;
    microphoneOutputHandler_ = nullptr;
    appAudioOutputHandler_ = nullptr;
    captureStartTime_ = MediaTime::invalid();
    lastAudioDate_.reset();
}

// Application audio tap

uint32_t SVCaptureManager::_tapBufferByteSize(const AudioStreamFormat& format,
                                              uint32_t maximumPacketSize) {
    uint32_t packetSize = format.bytesPerPacket != 0 ? format.bytesPerPacket : maximumPacketSize;
    double bytes = format.sampleRate * double(packetSize) * 1.0;
    if (bytes < double(kMaxTapBufferBytes)) return bytes > 0 ? uint32_t(bytes) : 0;
    return kMaxTapBufferBytes;
}

void SVCaptureManager::startAppAudioCaptureForProcessID(int32_t pid, SampleHandler output,
                                                        DidStartHandler didStart) {
    auto self = shared_from_this();
    audioDispatchQueue()->async(
        [self, pid, output = std::move(output), didStart = std::move(didStart)]() mutable {
            self->_startAppAudioCapture(pid, std::move(output), std::move(didStart));
        });
}

void SVCaptureManager::resumeAppAudioCaptureForProcessID(int32_t pid, SampleHandler output) {
    setResumed(true);
    startAppAudioCaptureForProcessID(pid, std::move(output), nullptr);
}

void SVCaptureManager::_startAppAudioCapture(int32_t pid, SampleHandler output,
                                             DidStartHandler didStart) {
    setAppAudioOutputHandler(std::move(output));
    auto state = std::make_shared<AudioRecorderState>();
    audioRecorderQueue_ = state;
    state->format = audioBasicDescription_;

    // The queue's thread holds the manager and the state weakly: a state
    // that is gone recycles nothing, and the manager outlives its taps.
    std::weak_ptr<SVCaptureManager> weakSelf = weak_from_this();
    std::weak_ptr<AudioRecorderState> weakState = state;
    auto callback = [weakSelf, weakState](AudioTapQueueBuffer* buffer,
                                          const AudioTimeStamp& startTime,
                                          uint32_t numberPacketDescriptions,
                                          const AudioStreamPacketDescription* packetDescriptions) {
        auto st = weakState.lock();
        if (!st) return;
        auto self = weakSelf.lock();
        if (!self || !self->captureStartTime().isValid()) {
            // No start time yet: this audio precedes the recording.
            st->queue->enqueueBuffer(buffer);
            return;
        }
        std::vector<AudioStreamPacketDescription> descriptions;
        if (packetDescriptions)
            descriptions.assign(packetDescriptions, packetDescriptions + numberPacketDescriptions);
        audioDispatchQueue()->async([self, st, hostTime = startTime.hostTime,
                                     numberPacketDescriptions, buffer,
                                     descriptions = std::move(descriptions)]() mutable {
            self->_processInputBuffer(st, hostTime, numberPacketDescriptions, buffer,
                                      std::move(descriptions));
        });
    };
    int32_t status = AudioTapQueue::create(backend_, state->format, callback, 0, &state->queue);
    reportStartStatus(status);
    log::info("SVRecordingManager: startAudioCapture: Created Audio Tap Queue Input");
    auto& queue = state->queue;

    status = queue ? queue->setProcessID(pid) : int32_t(kAudioParamError);
    reportStartStatus(status);
    log::info("SVRecordingManager: startAudioCapture: Successfully set Audio Tap Queue to PID");

    status = queue ? queue->getStreamFormat(&state->format) : int32_t(kAudioParamError);
    reportStartStatus(status);

    uint32_t maxPacketSize = 0;
    if (state->format.bytesPerPacket == 0 && queue) queue->getMaximumPacketSize(&maxPacketSize);
    state->bufferByteSize = _tapBufferByteSize(state->format, maxPacketSize);

    for (auto& buffer : state->buffers) {
        buffer = nullptr;
        if (!queue) continue;
        if (queue->allocateBuffer(state->bufferByteSize, &buffer) == kAudioNoError)
            queue->enqueueBuffer(buffer);
    }
    state->currentPacket = 0;
    state->running = true;

    if (queue) {
        queue->addRunningListener(
            [weakSelf, weakState](bool) {
                auto st = weakState.lock();
                if (!st) return;
                if (auto self = weakSelf.lock())
                    audioDispatchQueue()->async([self, st] { self->_tapDidChangeRunning(st); });
                // Once per queue.
                st->queue->removeRunningListener(st->runningListener);
            },
            &state->runningListener);
    }

    status = queue ? queue->start() : int32_t(kAudioParamError);
    reportStartStatus(status);
    log::info(
        "SVRecordingManager: startAudioCapture: Successfully started Audio Tap Queue Recording");
    setAppTapDidStartHandler(std::move(didStart));
    if (status != kAudioNoError && backend_ && backend_->hasServer()) {
        // The tap will not run (no audio server): the recording goes on
        // without application audio rather than waiting for it forever.
        reportSourceProblem(Source::ApplicationAudio, status);
        if (DidStartHandler handler = appTapDidStartHandler()) handler();
    }
}

void SVCaptureManager::_tapDidChangeRunning(const std::shared_ptr<AudioRecorderState>& state) {
    if (state != audioRecorderQueue_ || !state->running) return;
    // The handler stays stored.
    if (DidStartHandler handler = appTapDidStartHandler()) handler();
}

void SVCaptureManager::_fillGapBeforeFirstBuffer() {
    std::optional<Date> last;
    {
        std::lock_guard lock(mutex_);
        if (!resumed_) return;
        resumed_ = false;
        last = lastAudioDate_;
    }
    if (!last) return;
    const double gap = std::chrono::duration<double>(now_() - *last).count();
    if (!(gap > 0.0)) return;
    log::info("gap since last audio tap, filling with empty sample buffer");
    const AudioStreamFormat& format = audioBasicDescription_;
    const size_t sampleSize = format.bytesPerFrame != 0 ? format.bytesPerPacket : 1;
    const double framesPerPacket = format.framesPerPacket ? double(format.framesPerPacket) : 1.0;
    const auto n = uint32_t(gap * 44100.0 / framesPerPacket);
    auto block = std::make_shared<DataBlock>(size_t(n) * sampleSize);
    SampleTimingInfo timing{MediaTime::makeWithSeconds(gap, 44100), MediaTime::zero(),
                            MediaTime::invalid()};
    auto silence = SampleBuffer::makeAudio(std::move(block), format, int64_t(n),
                                           std::vector<SampleTimingInfo>{timing},
                                           std::vector<size_t>{sampleSize});
    if (!silence) return;
    if (SampleHandler handler = appAudioOutputHandler()) handler(silence);
}

void SVCaptureManager::_processInputBuffer(
    const std::shared_ptr<AudioRecorderState>& state, uint64_t hostTime,
    uint32_t numberPacketDescriptions, AudioTapQueueBuffer* buffer,
    std::vector<AudioStreamPacketDescription> packetDescriptions) {
    // A buffer of a queue that has been stopped since: not ours any more.
    if (state != audioRecorderQueue_) return;
    const MediaTime presentationTime = HostClock::toMediaTime(hostTime);
    _fillGapBeforeFirstBuffer();

    if (!state->running) {
        log::info("recorder is not running, ignoring audio data");
        return;
    }
    int64_t packets = numberPacketDescriptions;
    if (packets == 0)
        packets = state->format.bytesPerPacket != 0
                      ? int64_t(buffer->audioDataByteSize / state->format.bytesPerPacket)
                      : 0;
    auto block = DataBlock::copyOf(buffer->audioData, buffer->audioDataByteSize);
    auto sample =
        SampleBuffer::makeAudio(std::move(block), state->format, int64_t(numberPacketDescriptions),
                                presentationTime, std::move(packetDescriptions));
    if (sample) {
        const MediaTime duration = sample->duration();
        const double seconds = duration.isValid() ? duration.seconds() : 0.0;
        setLastAudioDate(now_() + std::chrono::duration_cast<Date::duration>(
                                      std::chrono::duration<double>(seconds)));
        if (SampleHandler handler = appAudioOutputHandler()) handler(sample);
    }
    state->currentPacket += packets;
    if (state->queue && state->queue->enqueueBuffer(buffer) == kAudioNoError)
        log::info("SVRecordingManager: HandleInputBuffer: Successfully enqueued the audio buffer");
}

void SVCaptureManager::stopAppAudioCapture() {
    audioDispatchQueue()->sync([this] {
        auto state = audioRecorderQueue_;
        if (!state) return;
        auto& queue = state->queue;
        if (state->running) {
            if (int32_t status = queue ? queue->stop(true) : int32_t(kAudioParamError);
                status != kAudioNoError) {
                // The queue is left as it is; its late buffers fail the
                // identity test of _processInputBuffer.
                log::error("SVRecordingManager:stopAudioCapture:error: %i", status);
            } else {
                log::info(
                    "SVRecordingManager:stopAudioCapture: Audio Tap Queue successfully stopped");
                state->running = false;
                for (auto& buffer : state->buffers) {
                    int32_t st =
                        buffer ? queue->freeBuffer(buffer) : int32_t(kAudioInvalidBufferError);
                    if (st == kAudioNoError)
                        log::info("SVRecordingManager: Audio Tap Queue buffer released");
                    else
                        log::error("SVRecordingManager: error: %i", st);
                    buffer = nullptr;
                }
                if (int32_t st = queue->dispose(true); st == kAudioNoError)
                    log::info("SVRecordingManager: Audio Tap Queue has been disposed");
                else
                    log::error("SVRecordingManager: error: %i", st);
            }
        }
        if (queue) queue->removeRunningListener(state->runningListener);
        audioRecorderQueue_ = nullptr;
    });
}

}  // namespace sv
