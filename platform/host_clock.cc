#include "platform/host_clock.h"

#include <time.h>

#include <cmath>

namespace sv {

uint64_t HostClock::now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * uint64_t(kTicksPerSecond) + uint64_t(ts.tv_nsec);
}

MediaTime HostClock::toMediaTime(uint64_t hostTime) {
    return MediaTime::make(int64_t(hostTime), kTimescale);
}

uint64_t HostClock::fromMediaTime(const MediaTime& t) {
    if (!t.isValid() || t.value < 0) return 0;
    if (t.timescale == kTimescale) return uint64_t(t.value);
    MediaTime c = convertScale(t, kTimescale);
    return c.isValid() && c.value > 0 ? uint64_t(c.value) : 0;
}

uint64_t HostClock::ticksForFrames(uint64_t frames, double rate) {
    if (!(rate > 0)) return 0;
    return uint64_t(std::llround(double(frames) * double(kTicksPerSecond) / rate));
}

}  // namespace sv
