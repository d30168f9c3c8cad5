#include "platform/audio/synthetic_audio.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <numbers>
#include <thread>
#include <vector>

#include "platform/host_clock.h"
#include "platform/synthetic_click.h"

namespace sv {

double syntheticToneFrequencyForProcess(int32_t pid) {
    return 220.0 + 20.0 * double(uint32_t(pid) % 32u);
}

class SyntheticSource : public AudioSource {
  public:
    SyntheticSource(SyntheticAudioBackend* backend, bool tap, double frequency, double amplitude,
                    const AudioStreamFormat& format, uint32_t chunkFrames, double speed,
                    AudioChunkSink sink)
        : backend_(backend),
          tap_(tap),
          frequency_(frequency),
          amplitude_(amplitude),
          format_(format),
          chunkFrames_(std::max(1u, chunkFrames)),
          speed_(speed > 0 ? speed : 1.0),
          sink_(std::move(sink)) {
        ++backend_->openSources_;
        thread_ = std::thread([this] { run(); });
    }
    ~SyntheticSource() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        cv_.notify_all();
        thread_.join();
        --backend_->openSources_;
    }
    int32_t stop() override {
        return tap_ && backend_->failTapStop_ ? int32_t(kAudioStopFailedError)
                                              : int32_t(kAudioNoError);
    }

  private:
    void run() {
        pthread_setname_np(pthread_self(), tap_ ? "sv-synth-tap" : "sv-synth-mic");
        const uint32_t channels = std::max(1u, format_.channelsPerFrame);
        const bool isFloat = format_.formatFlags & AudioStreamFormat::kFlagIsFloat;
        const bool bigEndian = format_.formatFlags & AudioStreamFormat::kFlagIsBigEndian;
        const double rate = format_.sampleRate;
        std::vector<uint8_t> chunk(size_t(chunkFrames_) * format_.bytesPerFrame);
        const uint64_t start = HostClock::now();
        const auto startSteady = std::chrono::steady_clock::now();
        uint64_t frames = 0;
        const double step = 2.0 * std::numbers::pi * frequency_ / rate;
        for (;;) {
            // Deliver a chunk once its last frame has been "recorded".
            auto due =
                startSteady +
                std::chrono::nanoseconds(int64_t(
                    double(HostClock::ticksForFrames(frames + chunkFrames_, rate)) / speed_));
            {
                std::unique_lock lock(mutex_);
                if (cv_.wait_until(lock, due, [&] { return stopping_; })) return;
            }
            uint8_t* p = chunk.data();
            const uint64_t chunkTime = start + HostClock::ticksForFrames(frames, rate);
            for (uint32_t i = 0; i < chunkFrames_; ++i) {
                // Phase from the absolute frame index keeps the tone exact.
                double v = frequency_ > 0 ? amplitude_ * std::sin(step * double(frames + i)) : 0.0;
                // The whole-second click, on the host time of this very sample.
                const uint64_t t = chunkTime + HostClock::ticksForFrames(i, rate);
                v = std::clamp(v + syntheticClickValue(t), -1.0, 1.0);
                for (uint32_t c = 0; c < channels; ++c) {
                    if (isFloat) {
                        float f = float(v);
                        std::memcpy(p, &f, 4);
                        p += 4;
                    } else {
                        auto s = uint16_t(int16_t(std::lround(v * 32767.0)));
                        if (bigEndian) {
                            p[0] = uint8_t(s >> 8);
                            p[1] = uint8_t(s);
                        } else {
                            p[0] = uint8_t(s);
                            p[1] = uint8_t(s >> 8);
                        }
                        p += 2;
                    }
                }
            }
            sink_(chunk, chunkTime);
            frames += chunkFrames_;
        }
    }

    SyntheticAudioBackend* backend_;
    bool tap_;
    double frequency_;
    double amplitude_;
    AudioStreamFormat format_;
    uint32_t chunkFrames_;
    double speed_;
    AudioChunkSink sink_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool stopping_ = false;
    std::thread thread_;
};

namespace {
bool generatable(const AudioStreamFormat& f) {
    bool s16 = f.bitsPerChannel == 16 && (f.formatFlags & AudioStreamFormat::kFlagIsSignedInteger);
    bool f32 = f.bitsPerChannel == 32 && (f.formatFlags & AudioStreamFormat::kFlagIsFloat);
    return f.isLinearPCM() && (s16 || f32) && f.channelsPerFrame > 0 &&
           f.bytesPerFrame == f.channelsPerFrame * f.bitsPerChannel / 8 && f.sampleRate >= 1000 &&
           f.sampleRate <= 384000;
}
}  // namespace

std::shared_ptr<CaptureDevice> SyntheticAudioBackend::defaultAudioDevice() {
    if (!options_.hasMicrophone) return nullptr;
    auto d = std::make_shared<CaptureDevice>();
    d->uniqueID = "synthetic-microphone";
    d->localizedName = "Synthetic Microphone";
    return d;
}

std::unique_ptr<AudioSource> SyntheticAudioBackend::openDevice(const CaptureDevice&,
                                                               const AudioStreamFormat& format,
                                                               AudioChunkSink sink,
                                                               AudioSourceFailure,
                                                               int32_t* status) {
    int32_t st = kAudioNoError;
    std::unique_ptr<AudioSource> source;
    if (!options_.serverAvailable)
        st = kAudioServerUnavailableError;
    else if (!options_.hasMicrophone)
        st = kAudioNoDeviceError;
    else if (!generatable(format) || !sink)
        st = kAudioUnsupportedFormatError;
    else
        source = std::make_unique<SyntheticSource>(
            this, false, options_.microphoneFrequency, options_.amplitude, format,
            options_.microphoneChunkFrames, options_.speed, std::move(sink));
    if (status) *status = st;
    return source;
}

std::unique_ptr<AudioSource> SyntheticAudioBackend::openProcessTap(int32_t pid,
                                                                   const AudioStreamFormat& format,
                                                                   AudioChunkSink sink,
                                                                   AudioSourceFailure,
                                                                   int32_t* status) {
    int32_t st = kAudioNoError;
    std::unique_ptr<AudioSource> source;
    if (!options_.serverAvailable)
        st = kAudioServerUnavailableError;
    else if (pid <= 0)
        st = kAudioNoProcessError;
    else if (!generatable(format) || !sink)
        st = kAudioUnsupportedFormatError;
    else
        source = std::make_unique<SyntheticSource>(
            this, true, syntheticToneFrequencyForProcess(pid), options_.amplitude, format,
            options_.tapChunkFrames, options_.speed, std::move(sink));
    if (status) *status = st;
    return source;
}

}  // namespace sv
