// Foreground tracking: how long a window change takes to reach a layout
// observer (X11 under a private Xvfb, with few and with many windows on the
// screen, and on the synthetic window system), what a flood of active-window
// changes costs the X11 event thread, and the cost of one alert through the
// scripted presenter. Prints "name value unit" lines.
#include <time.h>

#include <dirent.h>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "platform/log.h"
#include "platform/screen/synthetic_screen.h"
#include "platform/system/system_alert.h"
#include "platform/ui/scripted_alert_presenter.h"
#include "platform/ui/synthetic_window_system.h"
#include "platform/ui/x11_window_system.h"
#if SV_UI_BENCH_X11
#include "platform/screen/testing/xvfb_server.h"
#include "platform/ui/testing/x11_testing.h"
#endif

using namespace sv;
using namespace std::chrono_literals;

namespace {

// Counts deliveries and wakes a waiter.
struct CountingObserver : DisplayLayoutObserver {
    std::mutex mutex;
    std::condition_variable changed;
    size_t elements = 0;
    uint64_t deliveries = 0;
    void layoutMonitorDidUpdateDisplayLayout(DisplayLayoutMonitor&, const DisplayLayout& layout,
                                             const DisplayLayoutTransitionContext&) override {
        std::lock_guard lock(mutex);
        elements = layout.elementCount();
        ++deliveries;
        changed.notify_all();
    }
    bool waitForElements(size_t n) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return elements == n; });
    }
};

#if SV_UI_BENCH_X11
double threadCpuSeconds(const char* name) {
    // The CPU time of the named thread of this process, from /proc.
    double total = 0;
    DIR* d = opendir("/proc/self/task");
    if (!d) return 0;
    while (auto* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::string base = std::string("/proc/self/task/") + e->d_name;
        std::ifstream comm(base + "/comm");
        std::string n;
        std::getline(comm, n);
        if (n != name) continue;
        std::ifstream stat(base + "/stat");
        std::string line;
        std::getline(stat, line);
        auto close = line.rfind(')');
        std::vector<std::string> fields;
        std::string f;
        for (char ch : line.substr(close + 2)) {
            if (ch == ' ') {
                fields.push_back(f);
                f.clear();
            } else {
                f += ch;
            }
        }
        // utime and stime are fields 14 and 15 of the whole line.
        if (fields.size() > 12)
            total += double(std::stoull(fields[11]) + std::stoull(fields[12])) /
                     double(sysconf(_SC_CLK_TCK));
    }
    closedir(d);
    return total;
}

// `bare`: the background windows carry no properties, so each one is
// searched for a client inside it as if it were a window manager's frame.
void x11Latency(const std::string& display, int background, bool bare, const char* name) {
    auto client = testing::X11TestClient::connect(display).valueOr(nullptr);
    auto system = X11WindowSystem::connect(display).valueOr(nullptr);
    if (!client || !system) return;
    testing::TestWindowOptions options;
    options.width = options.height = 100;
    for (int i = 0; i < background; ++i) {
        if (!bare) options.pid = uint32_t(10000 + i);  // one element each
        client->createWindow(options);
    }
    system->synchronize();
    auto monitor = system->makeMainDisplayLayoutMonitor();
    auto observer = std::make_shared<CountingObserver>();
    monitor->addObserver(observer);
    size_t base = monitor->currentLayout().elementCount();
    options.pid = 99999;
    uint32_t w = client->createWindow(options, false);
    std::vector<double> ms;
    for (int i = 0; i < 100; ++i) {
        auto start = std::chrono::steady_clock::now();
        client->map(w);
        if (!observer->waitForElements(base + 1)) break;
        ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
        client->unmap(w);
        if (!observer->waitForElements(base)) break;
        // Isolated changes: the scan budget refills between them, so what
        // is measured is the path of one change, not the flood limit.
        std::this_thread::sleep_for(kX11MinRescanInterval * kX11RescanBurst);
    }
    bench::report((std::string(name) + "_p50").c_str(), bench::percentile(ms, 50), "ms");
    bench::report((std::string(name) + "_p95").c_str(), bench::percentile(ms, 95), "ms");
}

void x11Flood(const std::string& display) {
    auto client = testing::X11TestClient::connect(display).valueOr(nullptr);
    auto system = X11WindowSystem::connect(display).valueOr(nullptr);
    if (!client || !system) return;
    testing::TestWindowOptions options;
    std::vector<uint32_t> windows;
    for (int i = 0; i < 20; ++i) {
        options.pid = uint32_t(20000 + i);
        windows.push_back(client->createWindow(options));
    }
    system->synchronize();
    uint64_t scans = system->scanCount();
    double cpu = threadCpuSeconds("sv-x11-windows");
    auto start = std::chrono::steady_clock::now();
    constexpr int kChanges = 100000;
    client->cycleActiveWindow(windows, kChanges);
    system->synchronize();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    bench::report("x11_flood_changes_per_s", kChanges / seconds, "1/s");
    bench::report("x11_flood_scans_per_s", double(system->scanCount() - scans) / seconds, "1/s");
    bench::report("x11_flood_event_thread_cpu",
                  100.0 * (threadCpuSeconds("sv-x11-windows") - cpu) / seconds, "%");
}

#endif

void syntheticLatency() {
    auto system = SyntheticWindowSystem::create(std::make_shared<SyntheticDisplay>());
    auto monitor = system->makeMainDisplayLayoutMonitor();
    auto observer = std::make_shared<CountingObserver>();
    monitor->addObserver(observer);
    std::vector<double> us;
    for (int i = 0; i < 1000; ++i) {
        auto start = std::chrono::steady_clock::now();
        system->launchApplication("org.example.bench", 100);
        if (!observer->waitForElements(1)) break;
        us.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
        system->setForeground("org.example.bench", false, 0);
        if (!observer->waitForElements(0)) break;
    }
    bench::report("synthetic_layout_latency_p50", bench::percentile(us, 50), "us");
    bench::report("synthetic_layout_latency_p95", bench::percentile(us, 95), "us");
}

void alertCost() {
    auto presenter = std::make_shared<ScriptedAlertPresenter>(
        [](const AlertRequest&) { return std::optional<AlertResponse>(AlertResponse::Other); });
    AlertRequest r;
    r.title = "Allow Notes to record the screen?";
    r.message = "Screen recordings may contain private information.";
    r.defaultButton = "Don't Allow";
    r.otherButton = "Record Screen";
    double ns = bench::nsPerCall([&] {
        auto alert = SystemAlert::create(r, presenter).value();
        if (!alert || alert->waitForResponse() != AlertResponse::Other) std::abort();
    });
    bench::report("alert_scripted_round_trip", ns / 1000.0, "us");
}

}  // namespace

int main() {
    log::setOutputEnabled(false);
    alertCost();
    syntheticLatency();
#if SV_UI_BENCH_X11
    auto started = testing::XvfbServer::start(1280, 800);
    if (!started) {
        std::fprintf(stderr, "ui_bench: no X11 figures: %s\n", started.error().message().c_str());
        return 0;
    }
    auto server = std::move(*started);
    x11Latency(server->displayName(), 4, false, "x11_layout_latency_5_windows");
    x11Latency(server->displayName(), 300, false, "x11_layout_latency_300_windows");
    x11Latency(server->displayName(), 300, true, "x11_layout_latency_300_bare_windows");
    x11Flood(server->displayName());
#endif
    return 0;
}
