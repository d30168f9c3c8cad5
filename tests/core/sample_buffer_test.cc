#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "platform/sample_buffer.h"

namespace sv {
namespace {

TEST(MediaTime, ConstructionAndSeconds) {
    EXPECT_EQ(MediaTime::make(1, 30).seconds(), 1.0 / 30);
    EXPECT_FALSE(MediaTime::make(5, 0).isValid());
    EXPECT_FALSE(MediaTime::make(5, -3).isValid());
    EXPECT_TRUE(std::isnan(MediaTime::invalid().seconds()));
    EXPECT_TRUE(MediaTime::zero().isValid());
    // Seconds round to the nearest tick, halves away from zero.
    for (auto [seconds, timescale, value] :
         {std::tuple{2.4, 1, 2}, {3.6, 1, 4}, {2.5, 1, 3}, {-2.5, 1, -3}, {0.5, 44100, 22050}})
        EXPECT_EQ(MediaTime::makeWithSeconds(seconds, timescale).value, value) << seconds;
    EXPECT_FALSE(MediaTime::makeWithSeconds(std::nan(""), 600).isValid());
    EXPECT_FALSE(MediaTime::makeWithSeconds(1e300, 600).isValid());
}

TEST(MediaTime, CompareIsExactAndInvalidIsGreatest) {
    EXPECT_EQ(MediaTime::make(1, 2), MediaTime::make(500, 1000));
    EXPECT_LT(MediaTime::make(1, 3), MediaTime::make(333334, 1000000));
    EXPECT_GT(MediaTime::make(1, 3), MediaTime::make(333333, 1000000));
    EXPECT_EQ(MediaTime::invalid(), MediaTime::invalid());
    EXPECT_GT(MediaTime::invalid(), MediaTime::make(std::numeric_limits<int64_t>::max(), 1));
    EXPECT_LT(MediaTime::make(std::numeric_limits<int64_t>::min(), 1), MediaTime::invalid());
    // Values near the limits do not overflow the cross multiplication.
    MediaTime big = MediaTime::make(std::numeric_limits<int64_t>::max(), 1000000000);
    MediaTime bigger = MediaTime::make(std::numeric_limits<int64_t>::max(), 999999999);
    EXPECT_LT(big, bigger);
    EXPECT_EQ(MediaTime::zero(), MediaTime::make(0, 90000));
}

TEST(MediaTime, SubtractAtCommonTimescale) {
    // 60 s at 600 minus 4 s at 1, minus 2 s at 1: the trimming length.
    MediaTime length = subtract(subtract(MediaTime::make(36000, 600), MediaTime::make(4, 1)),
                                MediaTime::make(2, 1));
    EXPECT_EQ(std::pair(length.value, length.timescale), std::pair(int64_t(54 * 600), 600));
    MediaTime mixed = subtract(MediaTime::make(1, 3), MediaTime::make(1, 4));
    EXPECT_EQ(std::pair(mixed.value, mixed.timescale), std::pair(int64_t(1), 12));
    EXPECT_FALSE(subtract(MediaTime::invalid(), MediaTime::zero()).isValid());
    EXPECT_FALSE(subtract(MediaTime::zero(), MediaTime::invalid()).isValid());
    // Co-prime large timescales fall back to the larger one with rounding.
    MediaTime r = subtract(MediaTime::make(1000000007, 1000000007), MediaTime::make(1, 999999937));
    EXPECT_EQ(r.timescale, 1000000007);
    EXPECT_NEAR(r.seconds(), 1.0 - 1.0 / 999999937, 1e-9);
    // Overflow clamps instead of wrapping to a negative time.
    MediaTime clamped =
        subtract(MediaTime::make(std::numeric_limits<int64_t>::max(), 1), MediaTime::make(-10, 1));
    EXPECT_EQ(clamped.value, std::numeric_limits<int64_t>::max());
}

TEST(SampleBuffer, TimingCopySharesTheMedia) {
    auto surface = SharedSurface::create(64, 32).value();
    auto frame =
        SampleBuffer::makeVideo(surface, MediaTime::make(15000, 1000), MediaTime::make(1, 60));
    ASSERT_TRUE(frame);
    EXPECT_TRUE(frame->isVideo());
    auto entries = frame->timingEntries();
    entries[0].presentationTimeStamp = MediaTime::make(10032, 1000);
    entries[0].decodeTimeStamp = MediaTime::invalid();
    auto copy = frame->copyWithTiming(entries);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->imageBuffer().get(), surface.get());
    EXPECT_EQ(copy->presentationTime(), MediaTime::make(10032, 1000));
    EXPECT_EQ(frame->presentationTime(), MediaTime::make(15000, 1000));
    EXPECT_EQ(copy->duration(), MediaTime::make(1, 60));
    EXPECT_FALSE(frame->copyWithTiming({}));
    EXPECT_FALSE(SampleBuffer::makeVideo(nullptr, MediaTime::zero()));
}

TEST(SampleBuffer, AudioDurationFillAndBounds) {
    auto fmt = AudioStreamFormat::pcm16(44100, 1, true);
    auto block = std::make_shared<DataBlock>(57344);
    std::memset(block->data(), 0x11, block->size());
    auto s = SampleBuffer::makeAudio(block, fmt, 28672, MediaTime::make(5, 1));
    ASSERT_TRUE(s);
    EXPECT_EQ(s->duration(), MediaTime::make(28672, 44100));
    EXPECT_EQ(s->numSamples(), 28672);
    // Silencing in place is seen through every sample sharing the block.
    auto shared = s->copyWithTiming(s->timingEntries());
    EXPECT_TRUE(s->fillBytes(0, s->dataLength(), 0));
    EXPECT_EQ(shared->dataBlock()->data()[57343], 0);
    EXPECT_FALSE(s->fillBytes(57000, 1000, 0));
    // More samples than the block holds is refused.
    EXPECT_FALSE(SampleBuffer::makeAudio(block, fmt, 28673, MediaTime::zero()));
    AudioStreamFormat bad = fmt;
    bad.sampleRate = 0;
    EXPECT_FALSE(SampleBuffer::makeAudio(block, bad, 1, MediaTime::zero()));
}

TEST(SampleBuffer, AudioFromBytesCopiesOnceWithGivenTiming) {
    auto fmt = AudioStreamFormat::pcm16(44100, 1, true);
    std::vector<uint8_t> bytes(44100, 0);
    SampleTimingInfo t{MediaTime::make(22050, 44100), MediaTime::zero(), MediaTime::invalid()};
    auto s = SampleBuffer::makeAudioFromBytes(bytes, fmt, t);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->numSamples(), 22050);
    EXPECT_DOUBLE_EQ(s->duration().seconds(), 0.5);
    EXPECT_EQ(s->presentationTime(), MediaTime::zero());
    EXPECT_NE(s->dataBlock()->data(), bytes.data());
}

}  // namespace
}  // namespace sv
