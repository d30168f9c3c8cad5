// SVCaptureManager: the daemon's one owner of audio capture. It runs the
// microphone through a CaptureSession (samples to microphoneOutputHandler,
// audio 2 of the movie) and taps the audio output of one process through an
// AudioTapQueue (samples to appAudioOutputHandler, audio 1 of the movie).
//
// Threads and queues:
// - Microphone samples reach microphoneOutputHandler on
//   sessionSampleBufferQueue (serial), in order, with their timing unchanged.
// - micDidStartHandler runs once: synchronously inside
//   startMicrophoneCaptureWithOutput when the session already runs, otherwise
//   on the thread where the session's running state first changes.
// - The application audio tap (start, resume, stop, every buffer, its
//   did-start notification and appAudioOutputHandler) runs on the
//   process-wide serial audioDispatchQueue(). stopAppAudioCapture waits for
//   that queue and must never be called from it.
// - Start, stop and reset operations run on the caller's thread; callers must
//   not run two of them at once. Fields shared with the queues (handlers,
//   captureStartTime, lastAudioDate, resumed) are read and written whole
//   under a private lock; handlers are always called without it.
//
// Ownership: the manager keeps copies of the closures it is given; sample
// handlers receive a shared sample that they may keep. A stopped tap's
// buffers never reach a later tap's handler.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/audio/audio_backend.h"
#include "platform/audio/audio_tap_queue.h"
#include "platform/audio/capture_session.h"
#include "platform/audio_format.h"
#include "platform/dispatch.h"
#include "platform/media_time.h"
#include "platform/observation.h"
#include "platform/sample_buffer.h"

namespace sv {

using Date = std::chrono::system_clock::time_point;

// One started application audio tap. Owned by the capture manager
// (audioRecorderQueue) and by the tasks still queued for it, so its identity
// is never reused while such a task is pending. Touched only on
// audioDispatchQueue.
struct AudioRecorderState {
    std::shared_ptr<AudioTapQueue> queue;
    AudioStreamFormat format{};  // requested, then what the queue reports
    std::array<AudioTapQueueBuffer*, 3> buffers{};
    void* audioFile = nullptr;  // declared, never used
    uint32_t bufferByteSize = 0;
    int64_t currentPacket = 0;
    bool running = false;
    AudioTapQueue::ListenerToken runningListener = 0;
};

// Placeholder for a camera preview; nothing creates one.
struct CameraPreviewLayer {};

class SVCaptureManager : public KeyValueObserver,
                         public CaptureDataOutputSampleBufferDelegate,
                         public std::enable_shared_from_this<SVCaptureManager> {
  public:
    using SampleHandler = std::function<void(const std::shared_ptr<SampleBuffer>&)>;
    using DidStartHandler = std::function<void()>;
    using DateSource = std::function<Date()>;

    static constexpr uint32_t kMaxTapBufferBytes = 57344;
    static constexpr const char* kSessionQueueLabel = "org.sorvel.sorveld.capture-session-queue";
    static constexpr const char* kAudioQueueLabel = "org.sorvel.sorveld.capture-queue";

    // The one manager of the process, created on first use on
    // processAudioBackend() and never released.
    static std::shared_ptr<SVCaptureManager> sharedManager();
    // The serial queue of the application audio tap, one per process.
    static std::shared_ptr<DispatchQueue> audioDispatchQueue();
    // A manager of its own on `backend`, created exactly like the shared one;
    // for tests and tools. `now` is the wall clock (system clock when empty).
    static std::shared_ptr<SVCaptureManager> make(std::shared_ptr<AudioBackend> backend,
                                                  DateSource now = {});

    // Sets the requested tap format and the audio session category; use make().
    SVCaptureManager(std::shared_ptr<AudioBackend> backend, DateSource now);
    ~SVCaptureManager() override;

    void startCaptureSession();
    void stopCaptureSession();
    void stopAllCapture();
    // `output` may be empty (the previous handler stays); `didStart` may be empty.
    void startMicrophoneCaptureWithOutput(SampleHandler output, DidStartHandler didStart);
    void stopMicrophoneCapture();

    // Asynchronous on audioDispatchQueue. A running tap must be stopped first.
    void startAppAudioCaptureForProcessID(int32_t pid, SampleHandler output,
                                          DidStartHandler didStart);
    void resumeAppAudioCaptureForProcessID(int32_t pid, SampleHandler output);
    // Synchronous on audioDispatchQueue: when it returns the tap is gone.
    void stopAppAudioCapture();

    // A source of a backend with a server (AudioBackend::hasServer) that
    // could not start because that server does not answer: the recording
    // goes on without it (its did-start handler still runs, so the picture
    // never waits for sound), and this handler hears of it with the platform
    // status. With other backends a source that cannot start never calls its
    // did-start handler. Runs on the thread that tried to start it
    // (the caller's, or audioDispatchQueue for the tap); must not block.
    enum class Source { Microphone, ApplicationAudio };
    using SourceProblemHandler = std::function<void(Source source, int32_t status)>;
    void setSourceProblemHandler(SourceProblemHandler handler);

    // KeyValueObserver: the capture session's "running".
    void observeValueForKeyPath(const std::string& keyPath, Observable& object,
                                const KeyValueChange& change, void* context) override;
    // CaptureDataOutputSampleBufferDelegate, on sessionSampleBufferQueue.
    void captureOutputDidOutputSampleBuffer(
        const std::shared_ptr<CaptureOutput>& output,
        const std::shared_ptr<SampleBuffer>& sampleBuffer,
        const std::shared_ptr<CaptureConnection>& connection) override;

    // The tap's buffer size for a format: sample rate × packet size × 1 s,
    // capped at kMaxTapBufferBytes; the packet size is the format's bytes per
    // packet or, when that is 0, `maximumPacketSize`.
    static uint32_t _tapBufferByteSize(const AudioStreamFormat& format, uint32_t maximumPacketSize);

    // Fields.
    bool isRecordingMicrophone() const;
    void setRecordingMicrophone(bool v);
    bool isRecordingCamera() const;
    void setRecordingCamera(bool v);
    bool isRecordingAppAudio() const;
    void setRecordingAppAudio(bool v);
    bool sessionInProgress() const { return sessionInProgress_.load(); }
    void setSessionInProgress(bool v) { sessionInProgress_.store(v); }
    bool resumed() const;
    void setResumed(bool v);
    std::shared_ptr<CameraPreviewLayer> previewLayer() const;
    void setPreviewLayer(std::shared_ptr<CameraPreviewLayer> v);
    SampleHandler microphoneOutputHandler() const;
    void setMicrophoneOutputHandler(SampleHandler v);
    SampleHandler cameraOutputHandler() const;
    void setCameraOutputHandler(SampleHandler v);
    SampleHandler appAudioOutputHandler() const;
    void setAppAudioOutputHandler(SampleHandler v);
    int32_t cameraPosition() const;
    void setCameraPosition(int32_t v);
    std::shared_ptr<DispatchQueue> sessionSampleBufferQueue() const;
    void setSessionSampleBufferQueue(std::shared_ptr<DispatchQueue> v);
    std::shared_ptr<CaptureSession> captureSession() const;
    // Stops observing the previous session's "running" when it changes.
    void setCaptureSession(std::shared_ptr<CaptureSession> session);
    std::shared_ptr<CaptureDeviceInput> captureDeviceVideoInput() const;
    void setCaptureDeviceVideoInput(std::shared_ptr<CaptureDeviceInput> v);
    std::shared_ptr<CaptureDeviceInput> captureDeviceAudioInput() const;
    void setCaptureDeviceAudioInput(std::shared_ptr<CaptureDeviceInput> v);
    std::shared_ptr<VideoDataOutput> captureSessionVideoDataOutput() const;
    void setCaptureSessionVideoDataOutput(std::shared_ptr<VideoDataOutput> v);
    std::shared_ptr<AudioDataOutput> captureSessionAudioDataOutput() const;
    void setCaptureSessionAudioDataOutput(std::shared_ptr<AudioDataOutput> v);
    // Read and written on audioDispatchQueue only.
    std::shared_ptr<AudioRecorderState> audioRecorderQueue() const { return audioRecorderQueue_; }
    void setAudioRecorderQueue(std::shared_ptr<AudioRecorderState> v) {
        audioRecorderQueue_ = std::move(v);
    }
    std::optional<Date> lastAudioDate() const;
    void setLastAudioDate(std::optional<Date> v);
    DidStartHandler micDidStartHandler() const;
    void setMicDidStartHandler(DidStartHandler v);
    DidStartHandler appTapDidStartHandler() const;
    void setAppTapDidStartHandler(DidStartHandler v);
    MediaTime captureStartTime() const;
    void setCaptureStartTime(const MediaTime& t);
    const AudioStreamFormat& audioBasicDescription() const { return audioBasicDescription_; }
    void setAudioBasicDescription(const AudioStreamFormat& f) { audioBasicDescription_ = f; }

    const std::shared_ptr<AudioBackend>& backend() const { return backend_; }

  private:
    void _startAppAudioCapture(int32_t pid, SampleHandler output, DidStartHandler didStart);
    void _processInputBuffer(const std::shared_ptr<AudioRecorderState>& state, uint64_t hostTime,
                             uint32_t numberPacketDescriptions, AudioTapQueueBuffer* buffer,
                             std::vector<AudioStreamPacketDescription> packetDescriptions);
    void _fillGapBeforeFirstBuffer();
    void _tapDidChangeRunning(const std::shared_ptr<AudioRecorderState>& state);
    void _stopObservingRunning(Observable& session);

    std::shared_ptr<AudioBackend> backend_;
    DateSource now_;

    mutable std::mutex mutex_;
    bool recordingMicrophone_ = false;
    bool recordingCamera_ = false;
    bool recordingAppAudio_ = false;
    std::atomic<bool> sessionInProgress_{false};
    bool resumed_ = false;
    std::shared_ptr<CameraPreviewLayer> previewLayer_;
    SampleHandler microphoneOutputHandler_;
    SampleHandler cameraOutputHandler_;
    SampleHandler appAudioOutputHandler_;
    int32_t cameraPosition_ = 0;
    std::shared_ptr<DispatchQueue> sessionSampleBufferQueue_;
    std::shared_ptr<CaptureSession> captureSession_;
    std::shared_ptr<CaptureDeviceInput> captureDeviceVideoInput_;
    std::shared_ptr<CaptureDeviceInput> captureDeviceAudioInput_;
    std::shared_ptr<VideoDataOutput> captureSessionVideoDataOutput_;
    std::shared_ptr<AudioDataOutput> captureSessionAudioDataOutput_;
    std::shared_ptr<AudioRecorderState> audioRecorderQueue_;  // audioDispatchQueue only
    std::optional<Date> lastAudioDate_;
    DidStartHandler micDidStartHandler_;
    DidStartHandler appTapDidStartHandler_;
    SourceProblemHandler sourceProblemHandler_;  // under mutex_
    void reportSourceProblem(Source source, int32_t status);
    MediaTime captureStartTime_;
    AudioStreamFormat audioBasicDescription_{};
};

}  // namespace sv
