// Application audio tap and microphone through SVCaptureManager: CPU time of
// this process (all its threads) per second of tapped audio in steady state, and the delay from a
// buffer's first frame (its presentation time) to its delivery to the output closure. Runs on the
// synthetic backend and, when a private server can be started, on PulseAudio. Prints "name value
// unit" lines.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/capture_manager.h"
#include "platform/audio/pulse_audio.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/audio/testing/private_pulse_server.h"
#include "platform/host_clock.h"
#include "platform/log.h"

using namespace std::chrono_literals;

namespace {

double cpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t i =
        size_t(std::min<double>(double(v.size() - 1), p / 100.0 * double(v.size() - 1) + 0.5));
    return v[i];
}

struct Run {
    std::vector<double> delaysMs;
    double audioSeconds = 0;
    // Steady state: process CPU time from the first delivery to the last,
    // and the audio delivered in between (set-up and tear-down excluded).
    double cpu = 0;
    double steadyAudioSeconds = 0;
    double firstCpu = -1;
};

// Taps `pid` (or records the microphone) until `audioSeconds` of audio arrived.
Run run(const std::shared_ptr<sv::AudioBackend>& backend, bool microphone, int32_t pid,
        double audioSeconds, std::chrono::seconds timeout) {
    auto m = sv::SVCaptureManager::make(backend);
    std::mutex mutex;
    std::condition_variable cv;
    Run r;
    auto handler = [&](const std::shared_ptr<sv::SampleBuffer>& s) {
        const uint64_t now = sv::HostClock::now();
        const double cpu = cpuSeconds();
        const double seconds = s->duration().seconds();
        std::lock_guard lock(mutex);
        r.delaysMs.push_back((sv::HostClock::toSeconds(now) - s->presentationTime().seconds()) *
                             1e3);
        r.audioSeconds += seconds;
        if (r.firstCpu < 0) {
            r.firstCpu = cpu;
        } else {
            r.steadyAudioSeconds += seconds;
            r.cpu = cpu - r.firstCpu;
        }
        cv.notify_all();
    };
    m->setCaptureStartTime(sv::HostClock::toMediaTime(sv::HostClock::now()));
    if (microphone)
        m->startMicrophoneCaptureWithOutput(handler, nullptr);
    else
        m->startAppAudioCaptureForProcessID(pid, handler, nullptr);
    {
        // Sleep until done: polling would add its own wake-ups to the figures.
        std::unique_lock lock(mutex);
        cv.wait_for(lock, timeout, [&] { return r.audioSeconds >= audioSeconds; });
    }
    m->stopAllCapture();
    std::lock_guard lock(mutex);
    return r;
}

void print(const std::string& name, double value, const char* unit) {
    std::printf("%s %.3f %s\n", name.c_str(), value, unit);
}

void report(const std::string& prefix, const Run& r, bool cpu) {
    if (cpu && r.steadyAudioSeconds > 0)
        print(prefix + "_cpu_per_audio_second", r.cpu / r.steadyAudioSeconds * 1e3, "ms/s");
    print(prefix + "_first_frame_to_delivery_p50", percentile(r.delaysMs, 50), "ms");
    print(prefix + "_first_frame_to_delivery_p99", percentile(r.delaysMs, 99), "ms");
    print(prefix + "_samples", double(r.delaysMs.size()), "count");
}

}  // namespace

int main() {
    sv::log::setOutputEnabled(false);

    // Synthetic: CPU at 20× real time (the generator's sine is included), the
    // delays in real time.
    {
        auto fast = std::make_shared<sv::SyntheticAudioBackend>(
            sv::SyntheticAudioBackend::Options{.speed = 20});
        Run cpu = run(fast, false, 4242, 60.0, 30s);
        if (cpu.steadyAudioSeconds > 0)
            print("capture_tap_synthetic_cpu_per_audio_second",
                  cpu.cpu / cpu.steadyAudioSeconds * 1e3, "ms/s");
        auto realTime = std::make_shared<sv::SyntheticAudioBackend>();
        report("capture_tap_synthetic", run(realTime, false, 4242, 5.0, 15s), false);
        report("capture_mic_synthetic", run(realTime, true, 0, 3.0, 10s), true);
    }

    auto started = sv::testing::PrivatePulseServer::start({});
    if (!started) {
        std::fprintf(stderr, "# no private PulseAudio server: %s\n",
                     started.error().message().c_str());
        return 0;
    }
    auto server = std::move(*started);
    auto pulse = std::make_shared<sv::PulseAudioBackend>(server->address());
    pid_t player = server->playTones({440, 660}, 9.0);
    std::this_thread::sleep_for(300ms);
    report("capture_tap_pulse", run(pulse, false, player, 5.0, 15s), true);
    sv::testing::PrivatePulseServer::reap(player);
    report("capture_mic_pulse", run(pulse, true, 0, 3.0, 10s), true);
    return 0;
}
