// The session's timing arithmetic on its own: paused gaps and re-timed
// frames, the orientation transforms, the size limit and the movie size of
// whole-display recordings.
#include "session/sample_timing.h"

#include <gtest/gtest.h>

#include <cmath>

#include "capture/capture_manager.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/shared_surface.h"

namespace sv {
namespace {

constexpr int32_t kNs = 1000000000;

MediaTime at(double seconds) {
    return MediaTime::make(std::llround(seconds * kNs), kNs);
}

// The gap arithmetic; the session's own test follows whole frames through it.
TEST(SampleTiming, PausedGapsAddUpAndTheRawTimeStartsTheAudio) {
    SampleTimeline t;
    t.noteFrame(at(7.5), true);  // a resume before any frame: the movie starts at 0
    EXPECT_EQ(t.sampleTimeOffset, at(7.5));
    EXPECT_FALSE(t.lastSampleTimestamp.isValid());
    t.reset();
    t.noteFrame(at(10.016), false);
    t.noteFrame(at(15.000), true);
    EXPECT_EQ(t.sampleTimeOffset, at(4.984));
    EXPECT_EQ(t.lastSampleTimestamp, at(10.016));  // not moved by the first frame after
    t.noteFrame(at(15.032), false);
    t.noteFrame(at(30.000), true);
    EXPECT_EQ(t.sampleTimeOffset, at(4.984 + 14.968));

    // The re-timed frame goes on, and its raw time is the capture start.
    auto captureManager = SVCaptureManager::make(std::make_shared<SyntheticAudioBackend>());
    auto frame = SampleBuffer::makeVideo(SharedSurface::create(16, 16).value(), at(30.016));
    MediaTime handedOn;
    _updateSampleBufferWithOffset(frame, t.sampleTimeOffset, captureManager.get(),
                                  [&](const auto& s) { handedOn = s->presentationTime(); });
    EXPECT_EQ(handedOn, at(10.064));
    EXPECT_EQ(captureManager->captureStartTime(), at(30.016));
    // Without an offset the frame itself goes on, not a copy.
    std::shared_ptr<SampleBuffer> seen;
    _updateSampleBufferWithOffset(frame, MediaTime::zero(), nullptr,
                                  [&](const auto& s) { seen = s; });
    EXPECT_EQ(seen, frame);
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
