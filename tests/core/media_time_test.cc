#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/media_time.h"

namespace sv {
namespace {

TEST(MediaTime, ConstructionAndSeconds) {
    EXPECT_EQ(MediaTime::make(1, 30).seconds(), 1.0 / 30);
    EXPECT_FALSE(MediaTime::make(5, 0).isValid());
    EXPECT_FALSE(MediaTime::make(5, -3).isValid());
    EXPECT_TRUE(std::isnan(MediaTime::invalid().seconds()));
    MediaTime z = MediaTime::zero();
    EXPECT_EQ(z.value, 0);
    EXPECT_EQ(z.timescale, 1);
    EXPECT_TRUE(z.isValid());
    // Seconds round to the nearest tick, halves away from zero.
    EXPECT_EQ(MediaTime::makeWithSeconds(2.4, 1).value, 2);
    EXPECT_EQ(MediaTime::makeWithSeconds(3.6, 1).value, 4);
    EXPECT_EQ(MediaTime::makeWithSeconds(2.5, 1).value, 3);
    EXPECT_EQ(MediaTime::makeWithSeconds(-2.5, 1).value, -3);
    EXPECT_EQ(MediaTime::makeWithSeconds(0.5, 44100).value, 22050);
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
    EXPECT_EQ(length.timescale, 600);
    EXPECT_EQ(length.value, 54 * 600);
    MediaTime mixed = subtract(MediaTime::make(1, 3), MediaTime::make(1, 4));
    EXPECT_EQ(mixed.timescale, 12);
    EXPECT_EQ(mixed.value, 1);
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

TEST(MediaTime, ConvertScaleAndFlagsCarried) {
    MediaTime t = MediaTime::make(1001, 30000);
    t.flags |= 0x100;
    MediaTime c = convertScale(t, 600);
    EXPECT_EQ(c.value, 20);
    EXPECT_EQ(c.flags & 0x100, 0x100u);
    EXPECT_FALSE(convertScale(MediaTime::invalid(), 600).isValid());
}

}  // namespace
}  // namespace sv
