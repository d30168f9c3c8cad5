// Frame stamps: a machine-readable mark drawn into every synthetic screen
// frame, carrying the frame's index and its capture time on the host clock.
// The mark is made of large black and white blocks with a fixed sync
// pattern and a checksum, so it survives H.264 at the recording bitrate and
// down-scaling to the recording size limit, and a reader rejects anything
// that is not a stamp rather than misreading it.
//
// Layout: a band across the top of the frame, kFrameStampColumns cells wide
// and kFrameStampRows cells high; a cell is square with a side of
// min(width / columns, height / rows) pixels, kept fractional, so the grid
// scales with the frame and a reader finds it in a frame of any size from
// that frame's own size. The first and last 16 cells of the top row are the
// sync pattern (white, black, white, ...); the other 160 cells carry the
// frame index and the host time (64 bits each, most significant first) and
// a CRC-32 of them. White is full white, black full black; a reader
// thresholds halfway between the levels it measures on the sync cells.
//
// The audio counterpart is in platform/synthetic_click.h: the synthetic
// microphone and application audio carry a short click at every whole second
// of the host clock, which the movie inspector matches against the frame
// stamped with the same second.
//
// Pure functions, callable from any thread.
#pragma once

#include <cmath>
#include <cstdint>
#include <numbers>
#include <optional>

#include "platform/shared_surface.h"
#include "platform/synthetic_click.h"

namespace sv {

struct FrameStamp {
    uint64_t frameIndex = 0;  // counts every frame a controller drew since its creation
    uint64_t hostTime = 0;    // capture time, host clock ticks (ns)
    friend bool operator==(const FrameStamp&, const FrameStamp&) = default;
};

inline constexpr int32_t kFrameStampColumns = 64;
inline constexpr int32_t kFrameStampRows = 3;
// Smallest surface a stamp is drawn into (and read from).
inline constexpr int32_t kFrameStampMinWidth = 64;
inline constexpr int32_t kFrameStampMinHeight = 32;

// Pixel rows at the top of a width x height frame that the stamp covers
// (0 when the frame is too small to carry one). Everything below is left
// untouched by drawFrameStamp.
int32_t frameStampHeight(int32_t width, int32_t height);

// Draws `stamp` into the top rows of a BGRA surface of at least 64x32
// pixels. False (nothing drawn) for a smaller or read-only surface. Costs
// about width x frameStampHeight() pixel writes, done as row copies.
bool drawFrameStamp(SharedSurface& surface, const FrameStamp& stamp);

// Reads a stamp back from an 8-bit luma plane (Y of a decoded frame, any
// size at least 64x32). nullopt when no valid stamp is there: too little
// contrast, a broken sync pattern or a checksum mismatch.
std::optional<FrameStamp> readFrameStamp(const uint8_t* luma, int32_t width, int32_t height,
                                         int32_t bytesPerRow);

}  // namespace sv
