// The host clock: CLOCK_MONOTONIC counted in nanosecond ticks. Every audio
// sample's presentation time (microphone and application tap) is on this
// clock, and so are screen frames, so all media of a recording share one
// timeline.
#pragma once

#include <cstdint>

#include "platform/media_time.h"

namespace sv {

struct HostClock {
    static constexpr int64_t kTicksPerSecond = 1'000'000'000;
    static constexpr int32_t kTimescale = 1'000'000'000;

    // The current host time in ticks. Thread-safe, never blocks.
    static uint64_t now();
    // A host time as a MediaTime of timescale 1e9 (exact).
    static MediaTime toMediaTime(uint64_t hostTime);
    // A valid MediaTime as host ticks (rounded); 0 for an invalid or negative time.
    static uint64_t fromMediaTime(const MediaTime& t);
    static double toSeconds(uint64_t hostTime) {
        return double(hostTime) / double(kTicksPerSecond);
    }
    // Ticks spanned by `frames` frames at `rate` Hz (rounded).
    static uint64_t ticksForFrames(uint64_t frames, double rate);
};

}  // namespace sv
