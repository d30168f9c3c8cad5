// Whole-second clicks of the synthetic audio sources: the synthetic
// microphone and application audio carry a short click at every whole second
// of the host clock, which the movie inspector matches against the frame
// stamped with the same second (platform/screen/frame_stamp.h).
//
// Pure functions, callable from any thread.
#pragma once

#include <cmath>
#include <cstdint>
#include <numbers>

namespace sv {

// Length of a click (ms), its peak as a fraction of full scale and the
// frequency of the burst it is made of (well above the sources' tones).
inline constexpr double kSyntheticClickMilliseconds = 5.0;
inline constexpr double kSyntheticClickAmplitude = 0.9;
inline constexpr double kSyntheticClickFrequency = 2000.0;
// The click's sample value (-1..1) at host time `hostTime` (ns): non-zero
// only in [k s, k s + click length) for whole seconds k.
inline double syntheticClickValue(uint64_t hostTime) {
    constexpr uint64_t kLength = uint64_t(kSyntheticClickMilliseconds * 1e6);
    const uint64_t intoSecond = hostTime % 1'000'000'000u;
    if (intoSecond >= kLength) return 0.0;
    return kSyntheticClickAmplitude *
           std::sin(2.0 * std::numbers::pi * kSyntheticClickFrequency * double(intoSecond) * 1e-9);
}

}  // namespace sv
