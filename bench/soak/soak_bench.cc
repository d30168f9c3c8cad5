// A daemon after many recordings: a private sorveld on the synthetic
// platform, N recordings of D seconds in a row through `sorvel record` with a
// consent agent that accepts, and after each the daemon's resident memory,
// descriptors and threads, read from /proc once the recording has been
// handed over and the daemon has settled. Prints "name value unit" lines: the idle figures before
// the first recording, after the first and after the last, and the largest. Usage: soak_bench
// [--recordings N] [--seconds D]   (defaults 100 and 5)
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "tests/client/cli_helpers.h"
#include "tests/daemon/hostile_peer.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace sv::test;
using namespace std::chrono_literals;

namespace {

size_t threadCount(pid_t pid) {
    size_t n = 0;
    for (const auto& e :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
        n += e.is_directory() ? 1 : 0;
    return n;
}

struct Sample {
    double rssMiB = 0;
    size_t descriptors = 0, threads = 0;
};

Sample sample(pid_t pid) {
    return {double(residentKiB(pid)) / 1024.0, descriptorCount(pid), threadCount(pid)};
}

// The figures once the daemon has settled after a recording: it gives
// memory back a moment after it goes idle, so the resident size is read
// until it stops falling (at most 6 s).
Sample settled(pid_t pid) {
    Sample s = sample(pid);
    const auto until = std::chrono::steady_clock::now() + 6s;
    while (std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(500ms);
        const Sample next = sample(pid);
        const bool falling = next.rssMiB < s.rssMiB - 0.5;
        s = next;
        if (!falling && std::chrono::steady_clock::now() > until - 3s) break;
    }
    return s;
}

void report(const char* when, const Sample& s) {
    const std::string prefix = std::string("soak_") + when;
    bench::report((prefix + "_rss").c_str(), s.rssMiB, "MiB");
    bench::report((prefix + "_descriptors").c_str(), double(s.descriptors), "descriptors");
    bench::report((prefix + "_threads").c_str(), double(s.threads), "threads");
}

}  // namespace

int main(int argc, char** argv) {
    int recordings = 100;
    double seconds = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--recordings")) recordings = std::atoi(argv[i + 1]);
        if (!std::strcmp(argv[i], "--seconds")) seconds = std::atof(argv[i + 1]);
    }
    PrivateDaemon daemon("sv-soak-");
    std::vector<std::string> env = daemon.clientEnvironment();
    env.push_back("SORVEL_BUNDLE_PATH=" BUNDLES_DIR);
    if (!daemon.start(SORVELD, {.args = {"--screen-backend", "synthetic", "--audio-backend",
                                         "synthetic", "--log-level", "quiet"},
                                .env = env})) {
        std::fprintf(stderr, "soak_bench: the daemon did not start\n");
        return 1;
    }
    pid_t agent = spawnProcess({SORVEL, "consent-agent", "--answer", "accept"}, env,
                               daemon.root + "/agent.log");
    if (!eventually(
            [&] {
                return test::readFile(daemon.root + "/agent.log").find("registered") !=
                       std::string::npos;
            },
            30s)) {
        std::fprintf(stderr, "soak_bench: the consent agent did not register\n");
        return 1;
    }
    report("idle_before", sample(daemon.pid()));
    Sample first, last, peak;
    int failed = 0;
    const std::string movie = daemon.root + "/movie.mp4";
    for (int i = 0; i < recordings; ++i) {
        pid_t p = spawnProcess(
            {SORVEL, "record", "-o", movie, "--mic", "--duration", std::to_string(seconds)}, env,
            daemon.root + "/record.log");
        if (waitForExit(p, std::chrono::seconds(int(seconds) + 120)) != 0) ++failed;
        std::filesystem::remove(movie);
        const Sample s = settled(daemon.pid());
        if (i == 0) first = s;
        last = s;
        peak.rssMiB = std::max(peak.rssMiB, s.rssMiB);
        peak.descriptors = std::max(peak.descriptors, s.descriptors);
        peak.threads = std::max(peak.threads, s.threads);
    }
    report("after_first", first);
    report("after_last", last);
    report("peak", peak);
    bench::report("soak_recordings", recordings, "recordings");
    bench::report("soak_failed", failed, "recordings");
    kill(agent, SIGTERM);
    waitForExit(agent);
    return failed == 0 ? 0 : 1;
}
