// Placing a captured picture into a frame surface, shared by the backends
// that capture real displays. Internal to platform/screen.
#pragma once

#include <cstdint>

#include "platform/shared_surface.h"

namespace sv {

// Sets every pixel's alpha to opaque (sources whose fourth byte is padding).
void setOpaque(SharedSurface& surface);

// Scales a BGRA image into a frame without distorting it: the image keeps
// its aspect, centred, with black bars on the sides it does not fill.
void fitInto(const uint8_t* src, int32_t srcStride, int32_t sw, int32_t sh, SharedSurface& dst);

}  // namespace sv
