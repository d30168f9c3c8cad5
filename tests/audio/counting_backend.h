// An audio backend for tests that hands everything to another backend and
// counts what its sources deliver, so that a test can wait until audio has
// flowed (for instance while nothing may reach a client) instead of
// sleeping for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/audio/audio_backend.h"

namespace sv::testing {

class CountingBackend : public AudioBackend {
  public:
    explicit CountingBackend(std::shared_ptr<AudioBackend> inner) : inner_(std::move(inner)) {}

    std::string name() const override { return inner_->name(); }
    std::shared_ptr<CaptureDevice> defaultAudioDevice() override {
        return inner_->defaultAudioDevice();
    }
    std::unique_ptr<AudioSource> openDevice(const CaptureDevice& device,
                                            const AudioStreamFormat& format, AudioChunkSink sink,
                                            AudioSourceFailure onFailure,
                                            int32_t* status) override {
        return inner_->openDevice(device, format, counted(std::move(sink)), std::move(onFailure),
                                  status);
    }
    std::unique_ptr<AudioSource> openProcessTap(int32_t pid, const AudioStreamFormat& format,
                                                AudioChunkSink sink, AudioSourceFailure onFailure,
                                                int32_t* status) override {
        return inner_->openProcessTap(pid, format, counted(std::move(sink)), std::move(onFailure),
                                      status);
    }

    // Waits until the sources together have delivered `bytes` bytes (counted
    // after the sink returned).
    bool waitForBytes(uint64_t bytes, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return bytes_ >= bytes; });
    }
    uint64_t bytes() const {
        std::lock_guard lock(mutex_);
        return bytes_;
    }
    // Host time of the first chunk any source delivered.
    std::optional<uint64_t> firstHostTime() const {
        std::lock_guard lock(mutex_);
        return first_;
    }

  private:
    AudioChunkSink counted(AudioChunkSink sink) {
        if (!sink) return nullptr;  // the backend refuses it
        return [this, sink = std::move(sink)](std::span<const uint8_t> bytes, uint64_t hostTime) {
            sink(bytes, hostTime);
            std::lock_guard lock(mutex_);
            if (!first_) first_ = hostTime;
            bytes_ += bytes.size();
            cv_.notify_all();
        };
    }

    std::shared_ptr<AudioBackend> inner_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    uint64_t bytes_ = 0;
    std::optional<uint64_t> first_;
};

}  // namespace sv::testing
