// The synthetic audio backend: no server, deterministic content. The
// default device produces a sine of a configurable frequency (or silence);
// the tap of process P produces a sine of syntheticToneFrequencyForProcess(P).
// Both carry a short click at every whole second of the host time of their
// samples (syntheticClickValue, platform/screen/frame_stamp.h), mixed over
// the tone and clipped to full scale, so a movie's audio can be matched
// against its stamped frames.
// Each source runs a generator thread paced by the host clock; presentation
// times are the source's start time plus frames / rate, so consecutive chunks
// are exactly contiguous.
#pragma once

#include <atomic>
#include <memory>

#include "platform/audio/audio_backend.h"

namespace sv {

// 220 Hz + 20 Hz × (pid mod 32): distinct tones for neighbouring pids.
double syntheticToneFrequencyForProcess(int32_t pid);

class SyntheticAudioBackend : public AudioBackend {
  public:
    struct Options {
        double microphoneFrequency = 440.0;  // 0: silence
        double amplitude = 0.25;             // of full scale
        bool hasMicrophone = true;
        // Pace factor: 1 is real time. Tests use more to get tap buffers
        // quickly; the stamps then advance faster than the host clock.
        double speed = 1.0;
        uint32_t microphoneChunkFrames = 1024;
        uint32_t tapChunkFrames = 441;
        // Failure injection for tests.
        bool serverAvailable = true;  // false: every open fails as unreachable
        bool failTapStop = false;     // a tap's stop reports kAudioStopFailedError
    };

    SyntheticAudioBackend() : SyntheticAudioBackend(Options{}) {}
    explicit SyntheticAudioBackend(Options options)
        : options_(options), failTapStop_(options.failTapStop) {}

    std::string name() const override { return "synthetic"; }
    std::shared_ptr<CaptureDevice> defaultAudioDevice() override;
    std::unique_ptr<AudioSource> openDevice(const CaptureDevice& device,
                                            const AudioStreamFormat& format, AudioChunkSink sink,
                                            AudioSourceFailure onFailure, int32_t* status) override;
    std::unique_ptr<AudioSource> openProcessTap(int32_t pid, const AudioStreamFormat& format,
                                                AudioChunkSink sink, AudioSourceFailure onFailure,
                                                int32_t* status) override;

    const Options& options() const { return options_; }
    void setFailTapStop(bool fail) { failTapStop_ = fail; }
    // Number of sources open right now (devices and taps).
    int openSources() const { return openSources_.load(); }

  private:
    Options options_;
    std::atomic<bool> failTapStop_{false};
    std::atomic<int> openSources_{0};
    friend class SyntheticSource;
};

}  // namespace sv
