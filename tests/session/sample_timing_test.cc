// The session's timing arithmetic on its own: re-timed frames, the
// orientation transforms, the size limit and the movie size of whole-display
// recordings (the paused gaps are followed through whole frames by the
// session's own test).
#include "session/sample_timing.h"

#include <gtest/gtest.h>

#include <cmath>

#include "platform/shared_surface.h"

namespace sv {
namespace {

constexpr int32_t kNs = 1000000000;

MediaTime at(double seconds) {
    return MediaTime::make(std::llround(seconds * kNs), kNs);
}

TEST(SampleTiming, RetimedCopySharesTheImageAndReplacesEveryEntry) {
    auto surface = SharedSurface::create(16, 16).value();
    auto source = SampleBuffer::makeVideo(surface, {{MediaTime::make(1, 60), at(5.0), at(4.9)},
                                                    {MediaTime::make(1, 30), at(5.1), at(5.0)}});
    auto copy = _copySampleBufferFromSourceBuffer(source, at(1.0));
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->imageBuffer(), surface);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(copy->timingEntries()[i].presentationTimeStamp, at(1.0));
        EXPECT_FALSE(copy->timingEntries()[i].decodeTimeStamp.isValid());
        EXPECT_EQ(copy->timingEntries()[i].duration, source->timingEntries()[i].duration);
    }
    EXPECT_EQ(source->presentationTime(), at(5.0));
}

TEST(SampleTiming, TransformFlagsGiveTheTableExactly) {
    const float c = std::cos(kQuarterTurn);  // about -4.37e-8
    ASSERT_LT(std::fabs(c), 1e-7f);
    ASSERT_NE(c, 0.0f);
    struct Row {
        uint32_t flags;
        float a, b, c, d;
    } rows[] = {
        {0, 1, 0, 0, 1},  {1, 1, 0, 0, -1}, {2, -1, 0, 0, 1},   {3, -1, 0, 0, -1},
        {4, c, 1, -1, c}, {5, c, 1, 1, -c}, {6, -c, -1, -1, c}, {7, -c, -1, 1, -c},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.flags);
        const AffineTransform t = _affineTransformFromTransformFlags(r.flags);
        // Exact float equality: the movie stores these values as computed.
        EXPECT_EQ(t.a, r.a);
        EXPECT_EQ(t.b, r.b);
        EXPECT_EQ(t.c, r.c);
        EXPECT_EQ(t.d, r.d);
        EXPECT_EQ(t.tx, 0.0f);
        EXPECT_EQ(t.ty, 0.0f);
        // Bits other than the three are ignored.
        EXPECT_EQ(_affineTransformFromTransformFlags(r.flags | 0xfffffff8u), t);
    }
}

TEST(SampleTiming, SizeLimitAndMovieOrientation) {
    EXPECT_EQ(_maximumSizeWithSize({1920, 1080}), (WindowSize{1600, 900}));
    EXPECT_EQ(_maximumSizeWithSize({1080, 1920}), (WindowSize{900, 1600}));
    EXPECT_EQ(_maximumSizeWithSize({1334, 750}), (WindowSize{1334, 750}));
    EXPECT_EQ(_maximumSizeWithSize({1600, 1600}), (WindowSize{1600, 1600}));
    const WindowSize ipad = _maximumSizeWithSize({2732, 2048});
    EXPECT_EQ(ipad.width, 1600.0f);
    EXPECT_NEAR(ipad.height, 1199.41f, 0.01f);
    // Very wide: the height limit first, then the width.
    EXPECT_EQ(_maximumSizeWithSize({10000, 2000}), (WindowSize{1600, 320}));

    // Whole-display recordings: small displays portrait, large ones
    // landscape (either side of 2732 makes a display large).
    const WindowSize tall = _maximumSizeWithSize({2048, 2732});
    EXPECT_EQ(_movieSizeForWindowSize(ipad, {2732, 2048}, true), ipad);
    EXPECT_EQ(_movieSizeForWindowSize(tall, {2048, 2732}, true), ipad);
    EXPECT_EQ(_movieSizeForWindowSize({1334, 750}, {1334, 750}, true), (WindowSize{750, 1334}));
    EXPECT_EQ(_movieSizeForWindowSize({750, 1334}, {750, 1334}, true), (WindowSize{750, 1334}));
    EXPECT_EQ(_movieSizeForWindowSize({800, 800}, {800, 800}, true), (WindowSize{800, 800}));
    // Application recordings keep their size.
    EXPECT_EQ(_movieSizeForWindowSize({1334, 750}, {1334, 750}, false), (WindowSize{1334, 750}));
}

}  // namespace
}  // namespace sv
