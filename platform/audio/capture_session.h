// Media capture session: inputs (capture devices) feed outputs (data
// outputs that hand each sample to a delegate on a serial queue). Audio only:
// a session records the device of each attached device input while it runs
// and delivers 1024-frame samples, stamped on the host clock, to every
// attached audio data output.
//
// Threads: configuration, startRunning and stopRunning may be called from
// any thread, but not concurrently with each other. The "running" property
// changes synchronously inside startRunning/stopRunning (observers are told
// on that thread); when the server stops the recording by itself it changes
// to false on a backend notification thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/audio/audio_backend.h"
#include "platform/dispatch.h"
#include "platform/observation.h"
#include "platform/sample_buffer.h"

namespace sv {

class CaptureSession;
class CaptureOutput;

// Default device of a media type; null when the platform has none.
std::shared_ptr<CaptureDevice> defaultCaptureDeviceForAudio(
    const std::shared_ptr<AudioBackend>& backend);

class CaptureInput {
  public:
    virtual ~CaptureInput() = default;
};

class CaptureDeviceInput : public CaptureInput {
  public:
    // Null when `device` is null or has no audio.
    static std::shared_ptr<CaptureDeviceInput> make(std::shared_ptr<CaptureDevice> device);
    const std::shared_ptr<CaptureDevice>& device() const { return device_; }
    explicit CaptureDeviceInput(std::shared_ptr<CaptureDevice> device)
        : device_(std::move(device)) {}

  private:
    std::shared_ptr<CaptureDevice> device_;
};

// The link between an input and an output, passed with each sample.
struct CaptureConnection {
    std::weak_ptr<CaptureInput> input;
    std::weak_ptr<CaptureOutput> output;
};

class CaptureDataOutputSampleBufferDelegate {
  public:
    virtual ~CaptureDataOutputSampleBufferDelegate() = default;
    // On the output's delivery queue. The sample is shared; its timing is the
    // host time of its first frame.
    virtual void captureOutputDidOutputSampleBuffer(
        const std::shared_ptr<CaptureOutput>& output,
        const std::shared_ptr<SampleBuffer>& sampleBuffer,
        const std::shared_ptr<CaptureConnection>& connection) = 0;
};

class CaptureOutput : public std::enable_shared_from_this<CaptureOutput> {
  public:
    virtual ~CaptureOutput() = default;
    virtual bool isAudio() const = 0;

    // The delegate is held weakly; samples arrive on `queue` (serial), in
    // order. Samples already posted when the delegate changes still go to the
    // delegate current when they run.
    void setSampleBufferDelegate(std::weak_ptr<CaptureDataOutputSampleBufferDelegate> delegate,
                                 std::shared_ptr<DispatchQueue> queue);
    // Posts `sample` to the delegate queue (called by the session).
    void deliver(std::shared_ptr<SampleBuffer> sample,
                 std::shared_ptr<CaptureConnection> connection);

  private:
    std::mutex mutex_;
    std::weak_ptr<CaptureDataOutputSampleBufferDelegate> delegate_;
    std::shared_ptr<DispatchQueue> queue_;
};

class AudioDataOutput : public CaptureOutput {
  public:
    // The format of delivered samples: 44100 Hz mono signed 16-bit native (little) endian.
    static constexpr AudioStreamFormat kFormat = AudioStreamFormat::pcm16(44100.0, 1, false);
    static constexpr uint32_t kFramesPerSample = 1024;
    static std::shared_ptr<AudioDataOutput> make() { return std::make_shared<AudioDataOutput>(); }
    bool isAudio() const override { return true; }
};

// Declared for camera capture; no session of this platform accepts one.
class VideoDataOutput : public CaptureOutput {
  public:
    static std::shared_ptr<VideoDataOutput> make() { return std::make_shared<VideoDataOutput>(); }
    bool isAudio() const override { return false; }
};

class CaptureSession : public Observable, public std::enable_shared_from_this<CaptureSession> {
  public:
    static constexpr const char* kRunningKey = "running";

    static std::shared_ptr<CaptureSession> make(std::shared_ptr<AudioBackend> backend);
    explicit CaptureSession(std::shared_ptr<AudioBackend> backend);
    ~CaptureSession() override;

    // An input can be added once, and only one input per device.
    bool canAddInput(const std::shared_ptr<CaptureInput>& input) const;
    void addInput(const std::shared_ptr<CaptureInput>& input);
    void removeInput(const std::shared_ptr<CaptureInput>& input);
    // Audio data outputs only, each once.
    bool canAddOutput(const std::shared_ptr<CaptureOutput>& output) const;
    void addOutput(const std::shared_ptr<CaptureOutput>& output);
    void removeOutput(const std::shared_ptr<CaptureOutput>& output);

    // Starts recording the attached devices; running becomes true even when
    // nothing is attached. A device that fails to open is logged and skipped.
    // Running stays false (no change reported) when devices are attached and
    // the server cannot be reached.
    void startRunning();
    // Stops every recording; when it returns no further sample is posted.
    void stopRunning();
    bool isRunning() const { return running_.load(); }

    const std::shared_ptr<AudioBackend>& backend() const { return backend_; }

  private:
    struct DeviceStream;
    // Opens a recording for each input without one; false when inputs are
    // attached and the server answered for none of them.
    bool openStreams();
    void closeStreams();
    void accumulate(DeviceStream& stream, std::span<const uint8_t> bytes, uint64_t hostTime);
    void setRunning(bool running);
    void deliverChunk(const std::shared_ptr<CaptureDeviceInput>& input,
                      std::span<const uint8_t> bytes, uint64_t hostTime);

    std::shared_ptr<AudioBackend> backend_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<CaptureInput>> inputs_;
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;
    std::vector<std::shared_ptr<DeviceStream>> streams_;
    std::atomic<bool> running_{false};
};

enum class AudioSessionCategory { Ambient, Playback, Record, PlayAndRecord };
enum AudioSessionCategoryOptions : uint32_t { AudioSessionCategoryOptionMixWithOthers = 1 };

// The process's audio session. Linux has no per-process audio policy, so
// setting the category only records and logs it.
class AudioSession {
  public:
    static AudioSession& sharedInstance();
    // Always succeeds here; an error on platforms that refuse.
    Result<void> setCategory(AudioSessionCategory category, uint32_t options);
    AudioSessionCategory category() const;
    uint32_t categoryOptions() const;

  private:
    mutable std::mutex mutex_;
    AudioSessionCategory category_ = AudioSessionCategory::Ambient;
    uint32_t options_ = 0;
};

}  // namespace sv
