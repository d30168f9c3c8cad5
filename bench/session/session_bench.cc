// A whole recording through the session path on the synthetic platform: an
// SVRecordingSession records an application's layers on a 1600x900 synthetic
// screen at 60 frames per second with both audio tracks (application audio
// and microphone), paced in real time, into a movie that the movie inspector
// then judges. In the same run the ffmpeg command line encodes the same
// frames with the same settings, for the CPU comparison.
//
// Usage: session_bench [--seconds N] [--keep DIR]   (default 60 s)
// Prints "name value unit" lines, then one "session_check_<target> 1 pass"
// or "... 0 fail" line per target.
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "bench/bench_util.h"
#include "bench/session/reference_ffmpeg.h"
#include "bench/session/timed_delegate.h"
#include "movie/movie_inspector.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/dispatch.h"
#include "platform/host_clock.h"
#include "platform/log.h"
#include "platform/media/media_settings.h"
#include "platform/screen/display_mirroring.h"
#include "platform/screen/synthetic_screen.h"
#include "session/recording_session.h"
#include "support/movie_store.h"
#include "support/store_manager.h"

namespace sv {
namespace {

using bench::percentile;
using bench::report;
using bench::Resident;
using bench::resident;
using bench::threadCpuSeconds;
using bench::TimedDelegate;

constexpr int32_t kWidth = 1600, kHeight = 900;
constexpr int32_t kPID = 4242;
constexpr uint32_t kAppLayer = 41, kPanelLayer = 42;

// Targets of a recording at this size and rate.
constexpr double kMaxDeliveryP99Ms = 1.0;
constexpr double kMaxCpuRatio = 0.8;
constexpr double kMaxPeakRssMiB = 150;
constexpr double kMaxAVOffsetMs = 1000.0 / 60;

struct Recording {
    std::string movie;
    double seconds = 0;
    double cpu = 0;
    double peakRssMiB = 0;
    Resident largest;  // the largest resident set seen while recording
    size_t framesCaptured = 0;
    std::vector<double> deliveryMs, deliveryCpuMs;
    size_t framesBlocked = 0, framesPreempted = 0;
};

Recording record(double seconds) {
    auto session = SVRecordingSession::initWithBundleID("org.sorvel.bench.game");
    session->setContextIDs({kAppLayer, kPanelLayer});
    session->setWindowSize({float(kWidth), float(kHeight)});
    session->setFrontmostPIDForAudioTap(kPID);
    session->setMicrophoneEnabled(true);
    session->setRecording(true);
    auto timed = std::make_shared<TimedDelegate>(session, size_t(seconds * 60 * 1.2) + 600);

    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    Semaphore started;
    // The start handler runs on the delivery thread with the first frame;
    // from the next frame on the timing delegate stands in front.
    session->startSessionWithHandler([&] {
        if (auto controller = session->screenCaptureController()) controller->setDelegate(timed);
        started.signal();
    });
    if (!started.waitFor(std::chrono::seconds(30))) {
        std::fprintf(stderr, "session_bench: the session did not start\n");
        std::exit(1);
    }
    // The recording runs in real time; meanwhile the resident set is
    // sampled a few times a second to tell where the memory goes.
    Resident largest;
    const uint64_t end = HostClock::now() + uint64_t(seconds * 1e9);
    while (HostClock::now() < end) {
        if (Resident now = resident(); now.total > largest.total) largest = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(
            std::clamp<int64_t>(int64_t(end - HostClock::now()) / 1'000'000, 1, 250)));
    }

    Semaphore finished;
    std::optional<URL> url;
    session->finishSessionWithHandler([&](std::optional<URL> movie, OptionalError error) {
        if (error) std::fprintf(stderr, "session_bench: %s\n", error->description().c_str());
        url = std::move(movie);
        finished.signal();
    });
    if (!finished.waitFor(std::chrono::seconds(120)) || !url) {
        std::fprintf(stderr, "session_bench: the session wrote no movie\n");
        std::exit(1);
    }
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    // The session lets go of its controller once the movie is finished.
    if (auto controller = session->screenCaptureController()) controller->setDelegate({});

    Recording r;
    r.movie = url->path;
    r.seconds = seconds;
    r.cpu = bench::cpuSeconds(after) - bench::cpuSeconds(before);
    r.peakRssMiB = double(after.ru_maxrss) / 1024.0;
    r.largest = largest;
    std::tie(r.deliveryMs, r.deliveryCpuMs) = timed->times();
    std::tie(r.framesBlocked, r.framesPreempted) = timed->switches();
    r.framesCaptured = r.deliveryMs.size() + 1;  // and the first, before the timing began
    return r;
}

struct Ffmpeg {
    double cpu = 0;
    double peakRssMiB = 0;
    double drawCpu = 0;  // this process drawing the frames it feeds
    bool ok = false;
};

// The same frames (the synthetic screen's drawing of the recorded layers,
// stamps included) as raw BGRA through a pipe, encoded with the movie
// writer's settings, with two AAC tracks from generated tones.
Ffmpeg encodeWithFfmpeg(const SyntheticDisplay& display, int64_t frames, const std::string& out) {
    const double seconds = double(frames) / 60;
    char input[256];
    std::snprintf(input, sizeof input,
                  "ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s %dx%d -r 60 -i - ", kWidth,
                  kHeight);
    const std::string cmd = input + bench::referenceEncoding(seconds, 5'000'000) + " " + out;
    int fds[2];
    if (pipe(fds) != 0) return {};
    const pid_t pid = fork();
    if (pid < 0) return {};
    if (pid == 0) {
        dup2(fds[0], 0);
        close(fds[0]);
        close(fds[1]);
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[0]);
    const SyntheticScene scene =
        display.scene(kCloneMirroringModeClone, std::set<uint32_t>{kAppLayer, kPanelLayer});
    SurfacePool pool(kWidth, kHeight);
    Ffmpeg result;
    bool writing = true;
    const uint64_t start = HostClock::now();
    for (int64_t i = 0; i < frames && writing; ++i) {
        auto surface = pool.acquire().value();
        const double cpu0 = threadCpuSeconds();
        drawSyntheticFrame(*surface, scene, {uint64_t(i), start + uint64_t(double(i) * 1e9 / 60)});
        result.drawCpu += threadCpuSeconds() - cpu0;
        for (int32_t y = 0; y < kHeight && writing; ++y) {
            const uint8_t* p = surface->row(y);
            size_t left = size_t(kWidth) * 4;
            while (left > 0) {
                const ssize_t n = write(fds[1], p, left);
                if (n <= 0) {
                    writing = false;
                    break;
                }
                p += n;
                left -= size_t(n);
            }
        }
    }
    close(fds[1]);
    const bench::ChildResult child = bench::waitForChild(pid);
    result.cpu = child.cpu;
    result.peakRssMiB = child.peakRssMiB;
    result.ok = writing && child.succeeded;
    return result;
}

int checks = 0, failures = 0;
void check(const char* name, bool pass) {
    ++checks;
    failures += !pass;
    std::printf("session_check_%s %d %s\n", name, pass ? 1 : 0, pass ? "pass" : "fail");
    std::fflush(stdout);
}

int run(double seconds, const std::optional<std::string>& keep) {
    log::setOutputEnabled(false);
    char tmpl[] = "/tmp/sv-session-bench-XXXXXX";
    const std::string home = keep ? *keep : std::string(mkdtemp(tmpl));
    std::filesystem::create_directories(home);
    MovieStore::shared().setHomeDirectory(home);
    MovieStore::shared()._srSetupTempDirectory();
    // No store lookups: the bench measures recording, not the network.
    SVReachability::setFlagsProvider(
        [](const std::string&) -> std::optional<uint32_t> { return std::nullopt; });
    setProcessAudioBackend(std::make_shared<SyntheticAudioBackend>());
    auto display = std::make_shared<SyntheticDisplay>(
        SyntheticDisplay::Options{.width = kWidth, .height = kHeight});
    display->addLayer({kAppLayer, kPID, "org.sorvel.bench.game", 0, 0, 0, kWidth, kHeight});
    display->addLayer({kPanelLayer, kPID, "org.sorvel.bench.game", 0, 200, 150, 900, 500});
    setProcessScreenBackend(std::make_shared<SyntheticScreenBackend>(display));

    const Recording rec = record(seconds);
    report("session_seconds", rec.seconds, "s");

    auto inspection = inspectMovie(rec.movie);
    if (!inspection || !inspection->stamps) {
        std::fprintf(stderr, "session_bench: %s: %s\n", rec.movie.c_str(),
                     inspection ? "no frame stamps" : inspection.error().message().c_str());
        return 1;
    }
    const FrameStampReport& s = *inspection->stamps;
    report("session_frames_captured", double(rec.framesCaptured), "frames");
    report("session_frames_written", double(s.frames), "frames");
    report("session_frames_dropped", double(s.dropped), "frames");
    report("session_frames_late", double(s.late), "deadlines");
    report("session_frames_duplicated", double(s.duplicates + s.outOfOrder), "frames");
    report("session_frames_unreadable", double(s.unreadable), "frames");

    std::vector<double> delivery = rec.deliveryMs;
    const double p99 = percentile(delivery, 99);
    report("session_delivery_thread_p50", percentile(delivery, 50), "ms");
    report("session_delivery_thread_p99", p99, "ms");
    report("session_delivery_thread_max", delivery.empty() ? 0 : delivery.back(), "ms");
    // The same handling in CPU time of the delivery thread: what the frame
    // path costs, without the time the thread waited for a core.
    std::vector<double> deliveryCpu = rec.deliveryCpuMs;
    report("session_delivery_thread_cpu_p50", percentile(deliveryCpu, 50), "ms");
    report("session_delivery_thread_cpu_p99", percentile(deliveryCpu, 99), "ms");

    report("session_delivery_frames_blocked", double(rec.framesBlocked), "frames");
    report("session_delivery_frames_preempted", double(rec.framesPreempted), "frames");

    const double cpuPerSecond = rec.cpu / rec.seconds;
    report("session_cpu_per_recorded_second", cpuPerSecond, "s/s");
    report("session_peak_rss", rec.peakRssMiB, "MiB");
    report("session_rss_sampled_max", rec.largest.total, "MiB");
    report("session_rss_sampled_max_surfaces", rec.largest.shmem, "MiB");
    report("session_rss_sampled_max_heap", rec.largest.anon, "MiB");
    report("session_rss_sampled_max_code", rec.largest.file, "MiB");

    double worstOffset = 0;
    bool allMatched = !inspection->audioSync.empty();
    for (const auto& a : inspection->audioSync) {
        const std::string name = "session_av_offset_track" + std::to_string(a.track);
        report((name + "_clicks").c_str(), double(a.matched), "clicks");
        report((name + "_mean").c_str(), a.meanOffset * 1e3, "ms");
        report((name + "_max").c_str(), a.maxOffset * 1e3, "ms");
        worstOffset = std::max(worstOffset, std::abs(a.maxOffset) * 1e3);
        allMatched = allMatched && a.matched > 0;
    }
    report("session_av_offset_max", worstOffset, "ms");

    const Ffmpeg ff = encodeWithFfmpeg(*display, s.frames, home + "/ffmpeg.mp4");
    const double recorded = double(s.frames) / 60;
    double ratio = 0;
    if (ff.ok && ff.cpu > 0) {
        report("ffmpeg_cli_cpu_per_recorded_second", ff.cpu / recorded, "s/s");
        report("ffmpeg_cli_peak_rss", ff.peakRssMiB, "MiB");
        report("session_synthetic_draw_cpu_per_recorded_second", ff.drawCpu / recorded, "s/s");
        // Frame for frame: the same frames went through both (when the
        // screen skipped deadlines, a recorded second holds fewer of them).
        ratio = rec.cpu / ff.cpu;
        report("session_vs_ffmpeg_cpu", ratio, "ratio");
        report("session_vs_ffmpeg_cpu_without_drawing", (rec.cpu - ff.drawCpu) / ff.cpu, "ratio");
    } else {
        std::fprintf(stderr, "session_bench: the ffmpeg command line failed\n");
    }

    check("dropped_frames_zero", s.dropped == 0 && s.frames > 0);
    check("delivery_p99_under_1ms", p99 < kMaxDeliveryP99Ms);
    check("cpu_ratio_at_most_0.8", ff.ok && ratio <= kMaxCpuRatio);
    check("peak_rss_at_most_150MiB", rec.peakRssMiB <= kMaxPeakRssMiB);
    check("av_offset_under_one_frame", allMatched && worstOffset < kMaxAVOffsetMs);

    if (!keep) std::filesystem::remove_all(home);
    return 0;
}

}  // namespace
}  // namespace sv

int main(int argc, char** argv) {
    auto args = sv::bench::parseRecordingArguments("session_bench", argc, argv);
    if (!args) return 2;
    return sv::run(args->seconds, args->keep);
}
