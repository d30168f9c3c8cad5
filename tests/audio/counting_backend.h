// An audio backend for tests that hands everything to another backend and
// counts what its sources deliver, so that a test can wait until audio has
// flowed (for instance while nothing may reach a client) instead of
// sleeping for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/audio/audio_backend.h"
#include "tests/support/test_util.h"

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
        return chunks_.waitForItems([&](const auto& all) { return sum(all) >= bytes; }, timeout);
    }
    uint64_t bytes() const { return sum(chunks_.all()); }
    // Host time of the first chunk any source delivered.
    std::optional<uint64_t> firstHostTime() const {
        auto all = chunks_.all();
        return all.empty() ? std::nullopt : std::optional(all.front().first);
    }

  private:
    using Chunk = std::pair<uint64_t, size_t>;  // host time, bytes
    static uint64_t sum(const std::vector<Chunk>& chunks) {
        uint64_t n = 0;
        for (const auto& c : chunks) n += c.second;
        return n;
    }
    AudioChunkSink counted(AudioChunkSink sink) {
        if (!sink) return nullptr;  // the backend refuses it
        return [this, sink = std::move(sink)](std::span<const uint8_t> bytes, uint64_t hostTime) {
            sink(bytes, hostTime);
            chunks_.add({hostTime, bytes.size()});
        };
    }

    std::shared_ptr<AudioBackend> inner_;
    test::Collected<Chunk> chunks_;
};

}  // namespace sv::testing
