#include <gtest/gtest.h>

#include <cstring>

#include "platform/sample_buffer.h"

namespace sv {
namespace {

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
