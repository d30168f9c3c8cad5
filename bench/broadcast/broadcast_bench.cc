// Broadcasting through the shipped extensions: a private sorveld on the
// synthetic platform (a 1600x900 display) and `sorvel record --broadcast`.
//
// Sample-buffer mode, to the measuring processing extension, for D seconds:
// frames delivered per second, their age on arrival (capture to the
// extension's callback) p50/p99, frames the service dropped for a slow
// extension, the service's CPU per recorded second, and the media bytes the
// service copied into frame payloads per frame (0: frames cross as surfaces).
// Upload mode, to the HLS extension, for D seconds in 2-second fragments:
// the hand-over latency of a fragment (from the frame that ends it to its
// request to the extension, read from the service's log) p50/p99, and the
// time until the extension has answered it.
//
// Prints "name value unit" lines. Usage: broadcast_bench [--seconds D]
// (default 60).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "platform/value.h"
#include "tests/client/cli_helpers.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace sv::test;
using namespace std::chrono_literals;

namespace {

// Seconds of the day of a log line ("YYYY-MM-DD HH:MM:SS.mmm ..."), or -1.
double lineTime(const std::string& line) {
    int h = 0, m = 0;
    double s = 0;
    if (line.size() < 23 || std::sscanf(line.c_str() + 11, "%d:%d:%lf", &h, &m, &s) != 3) return -1;
    return h * 3600.0 + m * 60.0 + s;
}

// Times of the log lines holding `part`, in order.
std::vector<double> times(const std::string& log, const std::string& part) {
    std::vector<double> found;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);)
        if (line.find(part) != std::string::npos)
            if (double t = lineTime(line); t >= 0) found.push_back(t);
    return found;
}

// The last service information line of a `sorvel record` log holding `key`.
Value lastInfo(const std::string& log, const char* key) {
    Value last;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);)
        if (auto v = Value::parse(line, nullptr, false); v.is_object() && v.contains(key))
            last = std::move(v);
    return last;
}

// The k-th later time of `to` after each of `from`, in ms.
std::vector<double> latencies(const std::vector<double>& from, const std::vector<double>& to) {
    std::vector<double> ms;
    for (size_t i = 0; i < from.size() && i < to.size(); ++i)
        ms.push_back((to[i] - from[i]) * 1000.0);
    return ms;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 60;
    for (int i = 1; i + 1 < argc; i += 2)
        if (!std::strcmp(argv[i], "--seconds")) seconds = std::atof(argv[i + 1]);
    const std::string duration = std::to_string(int(seconds));
    PrivateDaemon daemon("sv-broadcast-bench-");
    std::vector<std::string> env = daemon.clientEnvironment();
    env.push_back("SORVEL_BUNDLE_PATH=" BUNDLES_DIR);
    if (!daemon.start(SORVELD, {.args = {"--screen-backend", "synthetic", "--audio-backend",
                                         "synthetic", "--trusted-bundle-dir", BUNDLES_DIR},
                                .env = env})) {
        std::fprintf(stderr, "broadcast_bench: the daemon did not start\n");
        return 1;
    }
    const std::string out = daemon.root + "/out";
    std::filesystem::create_directories(out);
    const auto timeout = std::chrono::seconds(int(seconds) + 120);
    int failed = 0;

    // Sample-buffer mode.
    const double cpuBefore = bench::processCpuSeconds(daemon.pid());
    pid_t p = spawnWithInput(
        {SORVEL, "record", "--broadcast", "org.sorvel.measure.processing", "--user-info",
         R"({"directory": ")" + out + R"("})", "--duration", duration, "--mic"},
        env, "", daemon.root + "/samples.log");
    if (waitForExit(p, timeout) != 0) ++failed;
    const double cpu = bench::processCpuSeconds(daemon.pid()) - cpuBefore;
    const Value info = lastInfo(readFile(daemon.root + "/samples.log"), "frames");
    if (!info.is_object()) {
        std::fprintf(stderr, "broadcast_bench: no figures from the processing extension\n%s",
                     readFile(daemon.root + "/samples.log").c_str());
        return 1;
    }
    long sent = 0, dropped = 0, audioSent = 0, audioDropped = 0, copied = -1;
    daemon.logged("pixel bytes copied", 1, 10s);
    {
        const std::string log = daemon.log();
        const auto at = log.rfind("extension link ended: ");
        if (at != std::string::npos)
            std::sscanf(log.c_str() + at,
                        "extension link ended: %ld frames sent, %ld dropped, %ld audio buffers "
                        "sent, %ld dropped, %ld pixel bytes copied",
                        &sent, &dropped, &audioSent, &audioDropped, &copied);
    }
    bench::report("broadcast_samples_frames_per_second", info["fps"].get<double>(), "fps");
    bench::report("broadcast_samples_frames", info["frames"].get<double>(), "frames");
    bench::report("broadcast_samples_frames_dropped", double(dropped), "frames");
    bench::report("broadcast_samples_latency_p50", info["frameAgeMs"]["p50"].get<double>(), "ms");
    bench::report("broadcast_samples_latency_p99", info["frameAgeMs"]["p99"].get<double>(), "ms");
    bench::report("broadcast_samples_service_cpu_per_second", cpu / seconds * 1000.0, "ms/s");
    bench::report("broadcast_samples_pixel_bytes_copied_per_frame",
                  sent > 0 && copied >= 0 ? double(copied) / double(sent) : -1, "bytes");
    bench::report("broadcast_samples_audio_gaps",
                  info["audio"]["application"]["gaps"].get<double>() +
                      info["audio"]["microphone"]["gaps"].get<double>(),
                  "gaps");

    // Upload mode.
    const std::string before = daemon.log();
    p = spawnWithInput({SORVEL, "record", "--broadcast", "org.sorvel.hls.upload", "--user-info",
                        R"({"directory": ")" + out + R"("})", "--clip-duration", "2", "--duration",
                        duration, "--mic"},
                       env, "", daemon.root + "/hls.log");
    if (waitForExit(p, timeout) != 0) ++failed;
    daemon.logged("extension finished, clean up movie clip",
                  times(before, "extension finished, clean up movie clip").size() + 1, 10s);
    const std::string log = daemon.log().substr(before.size());
    const auto rotations =
        times(log, "processSampleBufferForStreaming: fragment exceeded time limit");
    auto handover = latencies(rotations, times(log, "begining extension request"));
    auto answered = latencies(rotations, times(log, "extension finished, clean up movie clip"));
    bench::report("broadcast_hls_fragments", double(handover.size()), "fragments");
    bench::report("broadcast_hls_handover_latency_p50", bench::percentile(handover, 50), "ms");
    bench::report("broadcast_hls_handover_latency_p99", bench::percentile(handover, 99), "ms");
    bench::report("broadcast_hls_answered_latency_p50", bench::percentile(answered, 50), "ms");
    bench::report("broadcast_hls_failed", failed, "broadcasts");
    return failed == 0 ? 0 : 1;
}
