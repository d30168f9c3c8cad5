// Frame stamps: a machine-readable mark drawn into every synthetic screen
// frame, carrying the frame's index and its capture time on the host clock.
// The mark is made of large black and white blocks with a fixed sync
// pattern and a checksum, so it survives H.264 at the recording bitrate and
// down-scaling to the recording size limit, and a reader rejects anything
// that is not a stamp rather than misreading it.
//
// Also the audio counterpart: the synthetic microphone and application audio
// carry a short click at every whole second of the host clock, which the
// movie inspector matches against the frame stamped with the same second.
//
// Pure functions, callable from any thread.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/shared_surface.h"

namespace sv {

struct FrameStamp {
    uint64_t frameIndex = 0;  // counts every frame a controller drew since its creation
    uint64_t hostTime = 0;    // capture time, host clock ticks (ns)
    friend bool operator==(const FrameStamp&, const FrameStamp&) = default;
};

// Draws `stamp` into the top rows of a BGRA surface of at least 64x32
// pixels. False (nothing drawn) for a smaller or read-only surface.
bool drawFrameStamp(SharedSurface& surface, const FrameStamp& stamp);

// Reads a stamp back from an 8-bit luma plane (Y of a decoded frame, any
// size at least 64x32). nullopt when no valid stamp is there.
std::optional<FrameStamp> readFrameStamp(const uint8_t* luma, int32_t width, int32_t height,
                                         int32_t bytesPerRow);

// Whole-second clicks of the synthetic audio sources.
// Length of a click (ms) and its peak as a fraction of full scale.
inline constexpr double kSyntheticClickMilliseconds = 5.0;
inline constexpr double kSyntheticClickAmplitude = 0.9;
// The click's sample value (-1..1) at host time `hostTime` (ns): non-zero
// only in [k s, k s + click length) for whole seconds k.
double syntheticClickValue(uint64_t hostTime);

}  // namespace sv
