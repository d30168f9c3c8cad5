// Tiny driver for benchmarks that print "name value unit" lines.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

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

// User and system CPU seconds of a resource usage.
inline double cpuSeconds(const rusage& u) {
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

inline double cpuSeconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return cpuSeconds(ru);
}

// CPU seconds of the calling thread so far.
inline double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// CPU seconds (user + system) of another process so far, from
// /proc/<pid>/stat; 0 when it cannot be read.
inline double processCpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    const auto close = line.rfind(')');
    if (close == std::string::npos || close + 2 > line.size()) return 0;
    std::istringstream fields(line.substr(close + 2));
    std::string f;
    double utime = 0, stime = 0;
    for (int i = 3; fields >> f; ++i) {
        if (i == 14) utime = std::stod(f);
        if (i == 15) {
            stime = std::stod(f);
            break;
        }
    }
    return (utime + stime) / double(sysconf(_SC_CLK_TCK));
}

// Resident memory of this process by kind (MiB), from /proc/self/status:
// shared surfaces are memfd pages (shmem), libraries file pages.
struct Resident {
    double total = 0, anon = 0, file = 0, shmem = 0;
};
inline Resident resident() {
    Resident r;
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        char key[32] = {};
        double kb = 0;
        if (std::sscanf(line.c_str(), "%31[^:]: %lf", key, &kb) != 2) continue;
        const std::string k = key;
        if (k == "VmRSS") r.total = kb / 1024;
        if (k == "RssAnon") r.anon = kb / 1024;
        if (k == "RssFile") r.file = kb / 1024;
        if (k == "RssShmem") r.shmem = kb / 1024;
    }
    return r;
}

inline double peakRssMiB() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_maxrss) / 1024.0;
}

}  // namespace sv::bench
