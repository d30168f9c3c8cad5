// Frame stamps on raw pixels: drawn into BGRA surfaces, converted to luma
// the way the movie writer converts them, read back; scaled, disturbed and
// damaged stamps. The round trip through H.264 is in tests/movie.
#include <gtest/gtest.h>

#include <libyuv.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "platform/screen/frame_stamp.h"

namespace sv {
namespace {

struct Luma {
    int32_t width = 0, height = 0;
    std::vector<uint8_t> y;
    std::optional<FrameStamp> read() const {
        return readFrameStamp(y.data(), width, height, width);
    }
};

// BT.601 limited-range luma, as the movie writer's conversion makes it.
Luma lumaOf(const SharedSurface& s) {
    Luma l{s.width(), s.height(), std::vector<uint8_t>(size_t(s.width()) * s.height())};
    const int cw = (s.width() + 1) / 2, ch = (s.height() + 1) / 2;
    std::vector<uint8_t> u(size_t(cw) * ch), v(size_t(cw) * ch);
    libyuv::ARGBToI420(s.data(), int(s.bytesPerRow()), l.y.data(), s.width(), u.data(), cw,
                       v.data(), cw, s.width(), s.height());
    return l;
}

// A busy picture (gradient and speckles) under the stamp.
std::shared_ptr<SharedSurface> busySurface(int32_t w, int32_t h, uint32_t seed = 1) {
    auto s = SharedSurface::create(w, h).value();
    std::mt19937 rng(seed);
    for (int32_t y = 0; y < h; ++y) {
        uint8_t* row = s->mutableRow(y);
        for (int32_t x = 0; x < w; ++x) {
            uint8_t g = uint8_t((x * 255) / w);
            if (rng() % 7 == 0) g = uint8_t(rng());
            row[4 * x] = g, row[4 * x + 1] = uint8_t(255 - g), row[4 * x + 2] = uint8_t(g / 2);
            row[4 * x + 3] = 255;
        }
    }
    return s;
}

const FrameStamp kStamps[] = {
    {0, 0},
    {1, 1'000'000'000},
    {123456, 98'765'432'101'234},
    {std::numeric_limits<uint64_t>::max(), std::numeric_limits<uint64_t>::max()},
    {0x5555555555555555u, 0xAAAAAAAAAAAAAAAAu},
};

TEST(FrameStamp, RoundTripsAtEverySizeAndLeavesTheRestAlone) {
    struct Size {
        int32_t w, h;
    };
    for (Size size : {Size{64, 32}, Size{320, 240}, Size{752, 1334}, Size{1600, 900},
                      Size{1600, 64}, Size{2732, 2048}}) {
        auto s = busySurface(size.w, size.h);
        const int32_t band = frameStampHeight(size.w, size.h);
        ASSERT_GT(band, 0);
        // A band of 3/64 of the width, unless the frame is too flat for that.
        EXPECT_EQ(band, std::min(size.h, (size.w * 3 + 32) / 64)) << size.w << "x" << size.h;
        const size_t rowBytes = s->bytesPerRow();
        std::vector<uint8_t> below(s->data() + band * rowBytes, s->data() + size.h * rowBytes);
        for (const auto& stamp : kStamps) {
            ASSERT_TRUE(drawFrameStamp(*s, stamp));
            EXPECT_EQ(lumaOf(*s).read(), stamp) << size.w << "x" << size.h;
        }
        EXPECT_TRUE(std::equal(below.begin(), below.end(), s->data() + band * rowBytes))
            << "pixels below the stamp changed at " << size.w << "x" << size.h;
    }
}

TEST(FrameStamp, SurvivesScalingAndNoise) {
    const FrameStamp stamp{4242, 77'000'123'456};
    auto big = busySurface(2732, 2048);
    ASSERT_TRUE(drawFrameStamp(*big, stamp));
    // Down to the recording size limit, and to a small window, with the
    // filters a capture backend may use.
    struct Target {
        int32_t w, h;
    };
    for (Target t : {Target{1600, 1200}, Target{1600, 1198}, Target{320, 240}}) {
        for (auto filter : {libyuv::kFilterBilinear, libyuv::kFilterBox, libyuv::kFilterNone}) {
            auto small = SharedSurface::create(t.w, t.h).value();
            libyuv::ARGBScale(big->data(), int(big->bytesPerRow()), big->width(), big->height(),
                              small->mutableData(), int(small->bytesPerRow()), t.w, t.h, filter);
            EXPECT_EQ(lumaOf(*small).read(), stamp) << t.w << "x" << t.h << " filter " << filter;
        }
    }

    // Heavy noise and a washed-out picture (black 70, white 150) still read.
    auto s = busySurface(1600, 900);
    ASSERT_TRUE(drawFrameStamp(*s, stamp));
    Luma l = lumaOf(*s);
    std::mt19937 rng(3);
    for (auto& v : l.y) {
        double x = 70 + (v - 16) * 80.0 / 219.0 + std::uniform_int_distribution<int>(-25, 25)(rng);
        v = uint8_t(std::clamp(x, 0.0, 255.0));
    }
    EXPECT_EQ(l.read(), stamp);
}

TEST(FrameStamp, RejectsWhatIsNotAStamp) {
    // Flat and noisy pictures.
    Luma flat{320, 240, std::vector<uint8_t>(320 * 240, 128)};
    EXPECT_FALSE(flat.read());
    EXPECT_FALSE(lumaOf(*busySurface(320, 240, 9)).read());

    // One flipped data cell fails the checksum; a flipped sync cell the sync.
    auto s = busySurface(640, 480);
    ASSERT_TRUE(drawFrameStamp(*s, {99, 12345}));
    const Luma good = lumaOf(*s);
    ASSERT_TRUE(good.read());
    const int32_t cell = 640 / kFrameStampColumns;
    auto flipCell = [&](int column, int row) {
        Luma l = good;
        for (int32_t y = row * cell; y < (row + 1) * cell; ++y)
            for (int32_t x = column * cell; x < (column + 1) * cell; ++x)
                l.y[size_t(y) * 640 + x] = uint8_t(251 - l.y[size_t(y) * 640 + x]);
        return l;
    };
    for (int column : {20, 40}) EXPECT_FALSE(flipCell(column, 1).read()) << column;
    EXPECT_FALSE(flipCell(3, 0).read());
    EXPECT_FALSE(flipCell(60, 0).read());

    // Too small, read-only or missing planes are refused without touching memory.
    auto tiny = SharedSurface::create(63, 32).value();
    EXPECT_FALSE(drawFrameStamp(*tiny, {1, 1}));
    EXPECT_EQ(frameStampHeight(64, 31), 0);
    auto ro = SharedSurface::importDescriptor(s->duplicateFd(), s->descriptor()).value();
    ASSERT_TRUE(ro);
    EXPECT_FALSE(drawFrameStamp(*ro, {1, 1}));
    EXPECT_FALSE(readFrameStamp(nullptr, 640, 480, 640));
    EXPECT_FALSE(readFrameStamp(good.y.data(), 640, 480, 100));
    EXPECT_FALSE(readFrameStamp(good.y.data(), 63, 480, 640));
}

}  // namespace
}  // namespace sv
