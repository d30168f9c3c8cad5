// Screen capture costs, as "name value unit" lines:
// - the synthetic drawing of one 1600x900 frame (p50/p99);
// - delivery of a 60 Hz synthetic controller against its deadlines
//   (latency from deadline to callback, skipped deadlines);
// - X11 capture of a 1600x900 Xvfb screen in mirror and clone mode: time
//   from the grab's start to the frame reaching the delegate (p50/p99), CPU
//   of this process and of the X server per frame;
// - at 1920x1080/60 in the same run, X11 mirror capture of an Xvfb screen
//   against the portal backend on a private headless Wayland desktop (its
//   bar changes ten times a second; other deadlines repeat the last picture):
//   time from the picture's capture (X11) or arrival (portal) to the
//   delegate, and this process's CPU per delivered frame.
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "bench/bench_util.h"
#include "platform/host_clock.h"
#include "platform/screen/synthetic_screen.h"
#if SV_HAVE_XCB
#include "platform/screen/testing/xvfb_server.h"
#include "platform/screen/x11_screen.h"
#endif
#if SV_BENCH_HAVE_PORTAL
#include "platform/screen/portal_screen.h"
#include "platform/screen/testing/wayland_desktop.h"
#endif

namespace sv {
namespace {

using bench::percentile;
using bench::processCpuSeconds;
using bench::report;
using bench::threadCpuSeconds;

void benchSyntheticDraw() {
    SyntheticDisplay display({.width = 1600, .height = 900});
    display.addLayer({1, 100, "com.example.app", 0, 0, 0, 1600, 900});
    display.addLayer({2, 200, "com.example.panel", 0, 200, 150, 900, 500});
    display.addLayer({3, 300, "com.example.alert", 0, 600, 300, 400, 250});
    SyntheticScene scene = display.scene(kCloneMirroringModeMirror, {});
    SurfacePool pool(1600, 900);
    std::vector<double> ms;
    const double cpu0 = threadCpuSeconds();
    for (uint64_t i = 0; i < 600; ++i) {
        auto surface = pool.acquire().value();
        uint64_t t0 = HostClock::now();
        drawSyntheticFrame(*surface, scene, {i, t0});
        ms.push_back(double(HostClock::now() - t0) / 1e6);
    }
    report("screen_synthetic_draw_1600x900_cpu", (threadCpuSeconds() - cpu0) / 600 * 1e3,
           "ms/frame");
    report("screen_synthetic_draw_1600x900_p50", percentile(ms, 50), "ms");
    report("screen_synthetic_draw_1600x900_p99", percentile(ms, 99), "ms");
}

// Records, for every delivered frame, the host time at delivery against the
// frame's presentation time.
struct Timing : ScreenCaptureControllerDelegate {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<uint64_t> pts, delivered;
    size_t wanted = 0;

    void screenCaptureControllerDidReceiveSampleBuffer(ScreenCaptureController&,
                                                       const std::shared_ptr<SampleBuffer>& s,
                                                       uint32_t) override {
        uint64_t now = HostClock::now();
        std::lock_guard lock(mutex);
        pts.push_back(HostClock::fromMediaTime(s->presentationTime()));
        delivered.push_back(now);
        if (pts.size() >= wanted) cv.notify_all();
    }
    void screenCaptureControllerDidFailWithStatus(ScreenCaptureController&, int32_t s) override {
        std::fprintf(stderr, "capture failed: %d\n", s);
    }
    void screenCaptureControllerWasPreempted(ScreenCaptureController&) override {}
    void screenCaptureControllerMediaServicesWereReset(ScreenCaptureController&) override {
        std::fprintf(stderr, "media services reset\n");
    }
    bool wait(size_t n) {
        std::unique_lock lock(mutex);
        wanted = n;
        return cv.wait_for(lock, std::chrono::seconds(60), [&] { return pts.size() >= n; });
    }
};

struct RunFigures {
    std::vector<double> latencyMs;
    size_t frames = 0;
    size_t skipped = 0;
    double cpuPerFrameMs = 0;
};

RunFigures runController(ScreenBackend& backend, size_t frames, WindowSize size = {1600, 900}) {
    auto timing = std::make_shared<Timing>();
    auto controller = backend.makeCaptureController(size, MediaTime::make(1, 60));
    controller->setDelegate(timing);
    controller->startCapture();
    timing->wait(10);  // warm up: pools, segments, redirection
    size_t first;
    {
        std::lock_guard lock(timing->mutex);
        first = timing->pts.size();
    }
    const double cpu0 = bench::cpuSeconds();
    timing->wait(first + frames);
    const double cpu = bench::cpuSeconds() - cpu0;
    controller->stopCapture();
    RunFigures r;
    std::lock_guard lock(timing->mutex);
    const uint64_t interval = HostClock::ticksForFrames(1, 60.0);
    for (size_t i = first; i < timing->pts.size(); ++i) {
        r.latencyMs.push_back(double(timing->delivered[i] - timing->pts[i]) / 1e6);
        if (i > first) {
            uint64_t gap = timing->pts[i] - timing->pts[i - 1];
            r.skipped += size_t((gap + interval / 2) / interval) - 1;
        }
    }
    r.frames = r.latencyMs.size();
    r.cpuPerFrameMs = cpu / double(r.frames) * 1e3;
    return r;
}

void benchSyntheticDelivery() {
    auto display = std::make_shared<SyntheticDisplay>(SyntheticDisplay::Options{1600, 900, 0});
    display->addLayer({1, 100, "com.example.app", 0, 0, 0, 1600, 900});
    SyntheticScreenBackend backend(display);
    backend.mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
    RunFigures r = runController(backend, 300);
    report("screen_synthetic_delivery_latency_p50", percentile(r.latencyMs, 50), "ms");
    report("screen_synthetic_delivery_latency_p99", percentile(r.latencyMs, 99), "ms");
    report("screen_synthetic_delivery_latency_max", percentile(r.latencyMs, 100), "ms");
    report("screen_synthetic_skipped_deadlines", double(r.skipped), "per_300_frames");
    report("screen_synthetic_cpu_60fps", r.cpuPerFrameMs, "ms/frame");
}

#if SV_HAVE_XCB
void benchX11() {
    auto started = testing::XvfbServer::start(1600, 900);
    if (!started) {
        std::printf("# X11 figures skipped: %s\n", started.error().message().c_str());
        return;
    }
    auto server = std::move(*started);
    auto a =
        testing::XTestWindow::create(server->displayName(), 100, 100, 900, 600, 0xC03020).value();
    auto b =
        testing::XTestWindow::create(server->displayName(), 600, 300, 800, 500, 0x2040C0).value();
    a->warpPointer(800, 450);
    struct Mode {
        const char* name;
        bool sharedMemory;
        int32_t mode;
    };
    for (Mode m : {Mode{"mirror", true, kCloneMirroringModeMirror},
                   Mode{"clone", true, kCloneMirroringModeClone},
                   Mode{"mirror_socket", false, kCloneMirroringModeMirror}}) {
        auto connected =
            X11ScreenBackend::connect(server->displayName(), {.sharedMemory = m.sharedMemory});
        if (!connected) {
            std::printf("# X11 figures skipped: %s\n", connected.error().message().c_str());
            return;
        }
        auto backend = *connected;
        backend->mirroringService()->setLayerContextsToClone({a->id()});
        backend->mirroringService()->setCloneMirroringMode(m.mode);
        const double server0 = processCpuSeconds(server->pid());
        RunFigures r = runController(*backend, 240);
        const double serverCpu = processCpuSeconds(server->pid()) - server0;
        std::string prefix = std::string("screen_x11_") + m.name + "_1600x900_";
        report((prefix + "capture_p50").c_str(), percentile(r.latencyMs, 50), "ms");
        report((prefix + "capture_p99").c_str(), percentile(r.latencyMs, 99), "ms");
        report((prefix + "cpu").c_str(), r.cpuPerFrameMs, "ms/frame");
        report((prefix + "server_cpu").c_str(), serverCpu / double(r.frames) * 1e3, "ms/frame");
        report((prefix + "skipped_deadlines").c_str(), double(r.skipped), "per_240_frames");
    }
}
#endif

void reportFullHD(const char* prefix, RunFigures r) {
    const std::string p = prefix;
    report((p + "latency_p50").c_str(), percentile(r.latencyMs, 50), "ms");
    report((p + "latency_p99").c_str(), percentile(r.latencyMs, 99), "ms");
    report((p + "cpu").c_str(), r.cpuPerFrameMs, "ms/frame");
    report((p + "skipped_deadlines").c_str(), double(r.skipped), "per_240_frames");
}

// X11 and the portal at 1920x1080/60, one after the other in this run.
void benchFullHD() {
#if SV_HAVE_XCB
    if (auto started = testing::XvfbServer::start(1920, 1080)) {
        auto server = std::move(*started);
        if (auto connected = X11ScreenBackend::connect(server->displayName())) {
            (*connected)->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
            reportFullHD("screen_x11_mirror_1920x1080_",
                         runController(**connected, 240, {1920, 1080}));
        }
    } else {
        std::printf("# X11 1920x1080 figures skipped: %s\n", started.error().message().c_str());
    }
#endif
#if SV_BENCH_HAVE_PORTAL
    auto desktop = testing::WaylandDesktop::start({.width = 1920, .height = 1080});
    if (!desktop) {
        std::printf("# portal figures skipped: %s\n", desktop.error().message().c_str());
        return;
    }
    auto backend = PortalScreenBackend::connect({.busAddress = (*desktop)->busAddress()});
    if (!backend) {
        std::printf("# portal figures skipped: %s\n", backend.error().message().c_str());
        return;
    }
    (*backend)->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
    reportFullHD("screen_portal_1920x1080_", runController(**backend, 240, {1920, 1080}));
#endif
}

}  // namespace
}  // namespace sv

int main() {
    sv::benchSyntheticDraw();
    sv::benchSyntheticDelivery();
#if SV_HAVE_XCB
    sv::benchX11();
#endif
    sv::benchFullHD();
    return 0;
}
