// Tiny driver for benchmarks that print "name value unit" lines.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include <sys/resource.h>

namespace sv::bench {

inline void report(const char* name, double value, const char* unit) {
    std::printf("%s %.6g %s\n", name, value, unit);
    std::fflush(stdout);
}

// Runs `fn` repeatedly for about `seconds` and returns nanoseconds per call.
template <typename F>
double nsPerCall(F&& fn, double seconds = 0.5) {
    using clock = std::chrono::steady_clock;
    for (int i = 0; i < 100; ++i) fn();  // warm up
    size_t iterations = 0;
    auto start = clock::now();
    auto deadline = start + std::chrono::duration<double>(seconds);
    size_t batch = 64;
    while (clock::now() < deadline) {
        for (size_t i = 0; i < batch; ++i) fn();
        iterations += batch;
        batch = std::min<size_t>(batch * 2, 1 << 16);
    }
    double ns = std::chrono::duration<double, std::nano>(clock::now() - start).count();
    return ns / double(iterations);
}

// Percentile (0..100) of a sample set, sorted in place.
inline double percentile(std::vector<double>& v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t idx = static_cast<size_t>(p / 100.0 * double(v.size() - 1) + 0.5);
    return v[std::min(idx, v.size() - 1)];
}

inline double cpuSeconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

inline double peakRssMiB() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_maxrss) / 1024.0;
}

}  // namespace sv::bench
