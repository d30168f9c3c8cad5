// Rational media time: the one clock value type of the whole system.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace sv {

struct MediaTime {
    static constexpr uint32_t kFlagValid = 1;

    int64_t value = 0;
    int32_t timescale = 0;
    uint32_t flags = 0;  // bit 1 = valid; other bits are carried unchanged
    int64_t epoch = 0;

    // value/timescale, valid, epoch 0. A timescale <= 0 yields the invalid time.
    static MediaTime make(int64_t value, int32_t timescale);
    // seconds rounded to the nearest tick of `timescale` (halves away from zero).
    // NaN, infinities and values that do not fit yield the invalid time.
    static MediaTime makeWithSeconds(double seconds, int32_t timescale);
    static constexpr MediaTime invalid() { return {}; }
    static constexpr MediaTime zero() { return {0, 1, kFlagValid, 0}; }

    bool isValid() const { return (flags & kFlagValid) != 0 && timescale > 0; }
    // NaN for an invalid time.
    double seconds() const;

    // Three-way compare: two invalid times are equal, an invalid time is greater
    // than any valid one, valid times compare by exact rational value.
    friend std::strong_ordering compare(const MediaTime& a, const MediaTime& b);
    friend std::strong_ordering operator<=>(const MediaTime& a, const MediaTime& b) {
        return compare(a, b);
    }
    friend bool operator==(const MediaTime& a, const MediaTime& b) {
        return compare(a, b) == std::strong_ordering::equal;
    }

    std::string description() const;
};
static_assert(sizeof(MediaTime) == 24, "MediaTime is a 24-byte record");

// a - b at a common timescale: the least common multiple of the two timescales
// when it fits in 32 bits, otherwise the larger timescale with rounding. An
// invalid operand gives the invalid time; a result that overflows 64 bits is
// clamped rather than wrapped.
MediaTime subtract(const MediaTime& a, const MediaTime& b);
MediaTime add(const MediaTime& a, const MediaTime& b);
// The same time expressed in another timescale, rounded to the nearest tick.
MediaTime convertScale(const MediaTime& t, int32_t timescale);

}  // namespace sv
