// The session's timing arithmetic on its own: paused gaps and re-timed
// frames, the orientation transforms, the size limit and the movie size of
// whole-display recordings.
#include "session/sample_timing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "capture/capture_manager.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/shared_surface.h"

namespace sv {
namespace {

constexpr int32_t kNs = 1000000000;

MediaTime at(double seconds) {
    return MediaTime::make(std::llround(seconds * kNs), kNs);
}

std::shared_ptr<SampleBuffer> frameAt(const std::shared_ptr<SharedSurface>& surface,
                                      double seconds) {
    return SampleBuffer::makeVideo(surface, at(seconds), MediaTime::make(1, 60));
}

// Runs frames through the timeline and the re-timing as the frame path does
// and returns the times handed on (NaN when nothing was handed on).
struct Pipeline {
    SampleTimeline timeline;
    std::shared_ptr<SVCaptureManager> captureManager =
        SVCaptureManager::make(std::make_shared<SyntheticAudioBackend>());
    std::shared_ptr<SharedSurface> surface = SharedSurface::create(16, 16);

    double frame(double seconds, bool firstAfterResume = false) {
        auto f = frameAt(surface, seconds);
        timeline.noteFrame(f->presentationTime(), firstAfterResume);
        double out = NAN;
        int calls = 0;
        _updateSampleBufferWithOffset(f, timeline.sampleTimeOffset, captureManager.get(),
                                      [&](const std::shared_ptr<SampleBuffer>& s) {
                                          ++calls;
                                          if (s) out = s->presentationTime().seconds();
                                      });
        EXPECT_EQ(calls, 1);
        return out;
    }
};

TEST(SampleTiming, PausedGapsAreCutOutOfTheTimeline) {
    Pipeline p;
    // No pause yet: times unchanged, no start time set by re-timing.
    EXPECT_DOUBLE_EQ(p.frame(10.000), 10.000);
    EXPECT_DOUBLE_EQ(p.frame(10.016), 10.016);
    EXPECT_FALSE(p.captureManager->captureStartTime().isValid());

    // Resume, first frame at 15.000: the gap is 4.984 s and the frame takes
    // the time of the last one before the pause (the writer drops it as a
    // duplicate); later frames follow on.
    EXPECT_DOUBLE_EQ(p.frame(15.000, true), 10.016);
    EXPECT_EQ(p.timeline.sampleTimeOffset, at(4.984));
    EXPECT_EQ(p.timeline.lastSampleTimestamp, at(10.016));
    EXPECT_EQ(p.captureManager->captureStartTime(), at(15.000));
    EXPECT_DOUBLE_EQ(p.frame(15.016), 10.032);
    EXPECT_EQ(p.captureManager->captureStartTime(), at(15.016));

    // A second pause adds its gap; the first frame after it again lands on
    // the last time handed on before that pause.
    EXPECT_DOUBLE_EQ(p.frame(15.032), 10.048);
    EXPECT_DOUBLE_EQ(p.frame(30.000, true), 10.048);
    EXPECT_EQ(p.timeline.sampleTimeOffset, at(4.984 + 14.968));
    EXPECT_DOUBLE_EQ(p.frame(30.016), 10.064);

    p.timeline.reset();
    EXPECT_FALSE(p.timeline.lastSampleTimestamp.isValid());
    EXPECT_EQ(p.timeline.sampleTimeOffset, MediaTime::zero());
    EXPECT_DOUBLE_EQ(p.frame(40.0), 40.0);
}

TEST(SampleTiming, ResumeBeforeAnyFrameStartsTheMovieAtZero) {
    Pipeline p;
    EXPECT_DOUBLE_EQ(p.frame(7.5, true), 0.0);
    EXPECT_EQ(p.timeline.sampleTimeOffset, at(7.5));
    EXPECT_DOUBLE_EQ(p.frame(7.516), 0.016);
}

TEST(SampleTiming, RetimedCopySharesTheImageAndReplacesEveryEntry) {
    auto surface = SharedSurface::create(16, 16);
    std::vector<SampleTimingInfo> timing = {
        {MediaTime::make(1, 60), at(5.0), at(4.9)},
        {MediaTime::make(1, 30), at(5.1), at(5.0)},
    };
    auto source = SampleBuffer::makeVideo(surface, timing);
    auto copy = _copySampleBufferFromSourceBuffer(source, at(1.0));
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->imageBuffer(), surface);
    ASSERT_EQ(copy->timingEntries().size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(copy->timingEntries()[i].presentationTimeStamp, at(1.0));
        EXPECT_FALSE(copy->timingEntries()[i].decodeTimeStamp.isValid());
        EXPECT_EQ(copy->timingEntries()[i].duration, timing[i].duration);
    }
    // The source is untouched.
    EXPECT_EQ(source->presentationTime(), at(5.0));

    // Without an offset the frame itself goes on, not a copy.
    std::shared_ptr<SampleBuffer> seen;
    _updateSampleBufferWithOffset(source, MediaTime::zero(), nullptr,
                                  [&](const std::shared_ptr<SampleBuffer>& s) { seen = s; });
    EXPECT_EQ(seen, source);
}

TEST(SampleTiming, AudioMovesByTheGapInItsOwnTimescale) {
    const auto format = AudioStreamFormat::pcm16(44100, 1, false);
    auto block = std::make_shared<DataBlock>(441 * 2);
    auto sample = SampleBuffer::makeAudio(block, format, 441, MediaTime::make(441000, 44100));
    ASSERT_TRUE(sample);
    EXPECT_EQ(shiftedAudioSampleBuffer(sample, MediaTime::zero()), sample);
    auto shifted = shiftedAudioSampleBuffer(sample, at(4.0));
    ASSERT_TRUE(shifted);
    EXPECT_EQ(shifted->presentationTime().timescale, 44100);
    EXPECT_EQ(shifted->presentationTime(), MediaTime::make(441000 - 4 * 44100, 44100));
    EXPECT_EQ(shifted->duration(), sample->duration());
    EXPECT_EQ(shifted->dataBlock(), block);
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
