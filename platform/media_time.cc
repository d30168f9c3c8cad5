#include "platform/media_time.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>

namespace sv {
namespace {

__extension__ typedef __int128 i128;

int64_t clamp64(i128 v) {
    if (v > std::numeric_limits<int64_t>::max()) return std::numeric_limits<int64_t>::max();
    if (v < std::numeric_limits<int64_t>::min()) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(v);
}

// v * to / from, rounded to nearest with halves away from zero.
i128 rescale(i128 v, int64_t to, int64_t from) {
    i128 num = v * to;
    i128 q = num / from;
    i128 r = num % from;
    if (2 * (r < 0 ? -r : r) >= from) q += (num < 0 ? -1 : 1);
    return q;
}

int32_t commonTimescale(int32_t a, int32_t b) {
    if (a == b) return a;
    int64_t l = std::lcm(static_cast<int64_t>(a), static_cast<int64_t>(b));
    if (l <= std::numeric_limits<int32_t>::max()) return static_cast<int32_t>(l);
    return a > b ? a : b;
}

MediaTime combine(const MediaTime& a, const MediaTime& b, int sign) {
    if (!a.isValid() || !b.isValid()) return MediaTime::invalid();
    int32_t ts = commonTimescale(a.timescale, b.timescale);
    i128 av = rescale(a.value, ts, a.timescale);
    i128 bv = rescale(b.value, ts, b.timescale);
    MediaTime r = MediaTime::make(clamp64(av + sign * bv), ts);
    r.flags |= (a.flags | b.flags) & ~MediaTime::kFlagValid;
    r.epoch = a.epoch;
    return r;
}

}  // namespace

MediaTime MediaTime::make(int64_t value, int32_t timescale) {
    if (timescale <= 0) return invalid();
    return {value, timescale, kFlagValid, 0};
}

MediaTime MediaTime::makeWithSeconds(double seconds, int32_t timescale) {
    if (timescale <= 0 || !std::isfinite(seconds)) return invalid();
    long double ticks = std::roundl(static_cast<long double>(seconds) * timescale);
    if (ticks > static_cast<long double>(std::numeric_limits<int64_t>::max()) ||
        ticks < static_cast<long double>(std::numeric_limits<int64_t>::min()))
        return invalid();
    return make(static_cast<int64_t>(ticks), timescale);
}

double MediaTime::seconds() const {
    if (!isValid()) return std::numeric_limits<double>::quiet_NaN();
    return static_cast<double>(value) / static_cast<double>(timescale);
}

std::strong_ordering compare(const MediaTime& a, const MediaTime& b) {
    bool av = a.isValid(), bv = b.isValid();
    if (!av || !bv) {
        if (av == bv) return std::strong_ordering::equal;
        return av ? std::strong_ordering::less : std::strong_ordering::greater;
    }
    // Timescales are positive, so cross-multiplying keeps the order exact.
    i128 l = static_cast<i128>(a.value) * b.timescale;
    i128 r = static_cast<i128>(b.value) * a.timescale;
    if (l < r) return std::strong_ordering::less;
    if (l > r) return std::strong_ordering::greater;
    return std::strong_ordering::equal;
}

std::string MediaTime::description() const {
    if (!isValid()) return "{INVALID}";
    char buf[96];
    std::snprintf(buf, sizeof buf, "{%lld/%d = %.3f}", static_cast<long long>(value), timescale,
                  seconds());
    return buf;
}

MediaTime subtract(const MediaTime& a, const MediaTime& b) {
    return combine(a, b, -1);
}
MediaTime add(const MediaTime& a, const MediaTime& b) {
    return combine(a, b, 1);
}

MediaTime convertScale(const MediaTime& t, int32_t timescale) {
    if (!t.isValid() || timescale <= 0) return MediaTime::invalid();
    MediaTime r = MediaTime::make(clamp64(rescale(t.value, timescale, t.timescale)), timescale);
    r.flags = t.flags;
    r.epoch = t.epoch;
    return r;
}

}  // namespace sv
