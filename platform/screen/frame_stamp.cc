#include "platform/screen/frame_stamp.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace sv {
namespace {

constexpr int kSyncCells = 16;  // at each end of the top row
constexpr int kDataBits = 160;  // 64 index + 64 time + 32 CRC
static_assert(kFrameStampColumns * kFrameStampRows - 2 * kSyncCells == kDataBits);

// Smallest white-minus-black difference (8-bit levels) accepted as a stamp:
// far below what any encoder leaves of full black against full white, far
// above what a flat or noisy picture shows between neighbouring cells.
constexpr double kMinContrast = 40.0;

struct Grid {
    double cell = 0;  // side of a cell in pixels
    bool valid() const { return cell >= 1.0; }
    int32_t x(int column) const { return int32_t(std::lround(column * cell)); }
    int32_t y(int row) const { return int32_t(std::lround(row * cell)); }
};

Grid gridFor(int32_t width, int32_t height) {
    if (width < kFrameStampMinWidth || height < kFrameStampMinHeight) return {};
    return {std::min(double(width) / kFrameStampColumns, double(height) / kFrameStampRows)};
}

bool isSyncCell(int row, int column) {
    return row == 0 && (column < kSyncCells || column >= kFrameStampColumns - kSyncCells);
}

// The sync pattern starts white at the frame's left edge and alternates.
bool syncIsWhite(int column) {
    return column % 2 == 0;
}

uint32_t crc32(const uint8_t* data, size_t length) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

std::array<uint8_t, 16> payloadBytes(const FrameStamp& stamp) {
    std::array<uint8_t, 16> bytes{};
    for (int i = 0; i < 8; ++i) {
        bytes[size_t(i)] = uint8_t(stamp.frameIndex >> (56 - 8 * i));
        bytes[size_t(8 + i)] = uint8_t(stamp.hostTime >> (56 - 8 * i));
    }
    return bytes;
}

// Bit i of the data cells, most significant first within each field.
std::array<bool, kDataBits> encode(const FrameStamp& stamp) {
    const auto bytes = payloadBytes(stamp);
    const uint32_t crc = crc32(bytes.data(), bytes.size());
    std::array<bool, kDataBits> bits{};
    for (int i = 0; i < 128; ++i) bits[size_t(i)] = (bytes[size_t(i / 8)] >> (7 - i % 8)) & 1;
    for (int i = 0; i < 32; ++i) bits[size_t(128 + i)] = (crc >> (31 - i)) & 1;
    return bits;
}

}  // namespace

int32_t frameStampHeight(int32_t width, int32_t height) {
    Grid g = gridFor(width, height);
    return g.valid() ? std::min(height, g.y(kFrameStampRows)) : 0;
}

bool drawFrameStamp(SharedSurface& surface, const FrameStamp& stamp) {
    if (surface.isReadOnly() || surface.pixelFormat() != PixelFormat::BGRA) return false;
    const Grid g = gridFor(surface.width(), surface.height());
    if (!g.valid()) return false;
    const auto bits = encode(stamp);
    const int32_t gridWidth = std::min(surface.width(), g.x(kFrameStampColumns));
    // One row of pixels per row of cells, copied into every pixel row of it.
    std::vector<uint32_t> line(static_cast<size_t>(gridWidth));
    int bit = 0;
    for (int row = 0; row < kFrameStampRows; ++row) {
        for (int column = 0; column < kFrameStampColumns; ++column) {
            const bool white = isSyncCell(row, column) ? syncIsWhite(column) : bits[size_t(bit++)];
            const int32_t x0 = g.x(column), x1 = std::min(gridWidth, g.x(column + 1));
            std::fill(line.begin() + x0, line.begin() + std::max(x0, x1),
                      white ? 0xFFFFFFFFu : 0xFF000000u);
        }
        const int32_t y1 = std::min(surface.height(), g.y(row + 1));
        for (int32_t y = g.y(row); y < y1; ++y)
            std::memcpy(surface.mutableRow(y), line.data(), line.size() * sizeof(uint32_t));
    }
    return true;
}

std::optional<FrameStamp> readFrameStamp(const uint8_t* luma, int32_t width, int32_t height,
                                         int32_t bytesPerRow) {
    if (!luma || bytesPerRow < width) return std::nullopt;
    const Grid g = gridFor(width, height);
    if (!g.valid()) return std::nullopt;

    // Mean level of the middle half of each cell: edges blur under scaling
    // and compression, the middle keeps the cell's own level.
    std::array<double, size_t(kFrameStampColumns * kFrameStampRows)> level{};
    for (int row = 0; row < kFrameStampRows; ++row) {
        for (int column = 0; column < kFrameStampColumns; ++column) {
            const double cx0 = column * g.cell, cy0 = row * g.cell, q = g.cell / 4;
            int32_t x0 = int32_t(cx0 + q), x1 = int32_t(std::ceil(cx0 + g.cell - q));
            int32_t y0 = int32_t(cy0 + q), y1 = int32_t(std::ceil(cy0 + g.cell - q));
            x1 = std::clamp(x1, x0 + 1, width);
            y1 = std::clamp(y1, y0 + 1, height);
            if (x0 >= width || y0 >= height) return std::nullopt;
            uint64_t sum = 0;
            for (int32_t y = y0; y < y1; ++y) {
                const uint8_t* p = luma + size_t(y) * size_t(bytesPerRow);
                for (int32_t x = x0; x < x1; ++x) sum += p[x];
            }
            level[size_t(row * kFrameStampColumns + column)] =
                double(sum) / double(int64_t(x1 - x0) * (y1 - y0));
        }
    }

    double white = 0, black = 0;
    for (int column = 0; column < kFrameStampColumns; ++column) {
        if (!isSyncCell(0, column)) continue;
        (syncIsWhite(column) ? white : black) += level[size_t(column)];
    }
    white /= kSyncCells;
    black /= kSyncCells;
    if (white - black < kMinContrast) return std::nullopt;
    const double threshold = (white + black) / 2;
    for (int column = 0; column < kFrameStampColumns; ++column) {
        if (isSyncCell(0, column) && (level[size_t(column)] > threshold) != syncIsWhite(column))
            return std::nullopt;
    }

    std::array<uint8_t, 16> bytes{};
    uint32_t crc = 0;
    int bit = 0;
    for (int row = 0; row < kFrameStampRows; ++row) {
        for (int column = 0; column < kFrameStampColumns; ++column) {
            if (isSyncCell(row, column)) continue;
            const bool one = level[size_t(row * kFrameStampColumns + column)] > threshold;
            if (bit < 128)
                bytes[size_t(bit / 8)] |= uint8_t(one) << (7 - bit % 8);
            else
                crc = crc << 1 | uint32_t(one);
            ++bit;
        }
    }
    if (crc != crc32(bytes.data(), bytes.size())) return std::nullopt;
    FrameStamp stamp;
    for (int i = 0; i < 8; ++i) {
        stamp.frameIndex = stamp.frameIndex << 8 | bytes[size_t(i)];
        stamp.hostTime = stamp.hostTime << 8 | bytes[size_t(8 + i)];
    }
    return stamp;
}

}  // namespace sv
