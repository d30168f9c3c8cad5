// A small PNG of a BGRA frame, made with FFmpeg's PNG encoder.
//
// Threads: any; no state shared between calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace measure {

// The frame scaled down (nearest pixel) to at most `maxWidth` wide, as PNG
// bytes; empty with `*error` set when it cannot be encoded.
std::vector<uint8_t> thumbnailPNG(const uint8_t* bgra, int width, int height, uint32_t bytesPerRow,
                                  int maxWidth, std::string* error);

// Writes `bytes` to `path` through a temporary file and a rename, so a
// reader never sees half a file. False with `*error` set on failure.
bool writeFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes,
                         std::string* error);

}  // namespace measure
