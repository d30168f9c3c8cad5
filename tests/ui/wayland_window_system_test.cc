// The Wayland window system against a private headless sway: toplevels that a
// small xdg-shell client shows with known app_ids become the frontmost
// application as the compositor activates them, and a compositor that goes
// away leaves nothing foreground.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include <wayland-client.h>

#include "platform/screen/testing/wayland_desktop.h"
#include "platform/ui/wayland_window_system.h"
#include "platform/unique_fd.h"
#include "tests/process/process_helpers.h"
#include "tests/ui/recorders.h"
#include "xdg-shell-client-protocol.h"

namespace sv {
namespace {

using namespace std::chrono_literals;
using testing::WaylandDesktop;

struct DisplayClose {
    void operator()(wl_display* d) const { wl_display_disconnect(d); }
};

// A client of its own connection showing one 64x64 toplevel with an app_id;
// the compositor maps (and focuses) it once it has a buffer. Closing the
// connection destroys the window; the client's proxies are freed first
// (disconnecting leaves them allocated). Test thread only.
struct TestToplevel {
    ~TestToplevel() {
        for (auto it = proxies.rbegin(); it != proxies.rend(); ++it) wl_proxy_destroy(*it);
        display.reset();
    }
    template <typename T>
    T* keep(T* proxy) {
        if (proxy) proxies.push_back(reinterpret_cast<wl_proxy*>(proxy));
        return proxy;
    }
    std::unique_ptr<wl_display, DisplayClose> display;
    std::vector<wl_proxy*> proxies;
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    xdg_wm_base* wm = nullptr;
    bool configured = false;
};

const wl_registry_listener kRegistry = {
    .global =
        [](void* data, wl_registry* r, uint32_t name, const char* interface, uint32_t) {
            auto* t = static_cast<TestToplevel*>(data);
            if (!std::strcmp(interface, wl_compositor_interface.name))
                t->compositor = t->keep(static_cast<wl_compositor*>(
                    wl_registry_bind(r, name, &wl_compositor_interface, 4)));
            else if (!std::strcmp(interface, wl_shm_interface.name))
                t->shm =
                    t->keep(static_cast<wl_shm*>(wl_registry_bind(r, name, &wl_shm_interface, 1)));
            else if (!std::strcmp(interface, xdg_wm_base_interface.name))
                t->wm = t->keep(static_cast<xdg_wm_base*>(
                    wl_registry_bind(r, name, &xdg_wm_base_interface, 1)));
        },
    .global_remove = [](void*, wl_registry*, uint32_t) {},
};
const xdg_wm_base_listener kWm = {
    .ping = [](void*, xdg_wm_base* wm, uint32_t serial) { xdg_wm_base_pong(wm, serial); },
};
const xdg_surface_listener kXdgSurface = {
    .configure =
        [](void* data, xdg_surface* s, uint32_t serial) {
            xdg_surface_ack_configure(s, serial);
            static_cast<TestToplevel*>(data)->configured = true;
        },
};

std::unique_ptr<TestToplevel> showToplevel(const std::string& socket, const std::string& appID) {
    auto t = std::make_unique<TestToplevel>();
    t->display.reset(wl_display_connect(socket.c_str()));
    if (!t->display) return nullptr;
    wl_display* d = t->display.get();
    wl_registry_add_listener(t->keep(wl_display_get_registry(d)), &kRegistry, t.get());
    wl_display_roundtrip(d);
    if (!t->compositor || !t->shm || !t->wm) return nullptr;
    xdg_wm_base_add_listener(t->wm, &kWm, nullptr);
    wl_surface* surface = t->keep(wl_compositor_create_surface(t->compositor));
    xdg_surface* xdg = t->keep(xdg_wm_base_get_xdg_surface(t->wm, surface));
    xdg_surface_add_listener(xdg, &kXdgSurface, t.get());
    xdg_toplevel_set_app_id(t->keep(xdg_surface_get_toplevel(xdg)), appID.c_str());
    wl_surface_commit(surface);
    while (!t->configured)
        if (wl_display_dispatch(d) < 0) return nullptr;
    UniqueFd memory(memfd_create("sv-test-toplevel", MFD_CLOEXEC));
    constexpr int32_t kSide = 64, kStride = kSide * 4;
    if (!memory.valid() || ftruncate(memory.get(), kStride * kSide) != 0) return nullptr;
    wl_shm_pool* pool = t->keep(wl_shm_create_pool(t->shm, memory.get(), kStride * kSide));
    wl_surface_attach(
        surface,
        t->keep(wl_shm_pool_create_buffer(pool, 0, kSide, kSide, kStride, WL_SHM_FORMAT_XRGB8888)),
        0, 0);
    wl_surface_commit(surface);
    if (wl_display_roundtrip(d) < 0) return nullptr;
    return t;
}

// The first toplevel is frontmost; a second one, focused as it maps, takes
// that from it; the user focusing the first gives it back; the second closing
// ends it; a window of an odd app_id names nothing; the compositor dying
// leaves nothing. What the window system reports and what a monitor
// is told agree.
TEST(WaylandWindowSystemTest, TheActivatedToplevelsAppIDIsFrontmostAsFocusMoves) {
    const char* ci = std::getenv("CI");
    const bool inCI = ci && std::string(ci) == "true";
    if (!WaylandDesktop::available()) {
        if (inCI) FAIL() << "sway or the desktop portal is missing (scripts/install-deps.sh)";
        GTEST_SKIP() << "sway is not installed (scripts/install-deps.sh installs it)";
    }
    auto started = WaylandDesktop::start({});
    if (!started && !inCI)
        GTEST_SKIP() << "no private Wayland desktop here: " << started.error().message();
    ASSERT_TRUE(started) << started.error().message();
    auto& desktop = *started;
    test::InfoRecorder infos;  // outlives the monitor's deliveries
    auto connected = WaylandWindowSystem::connect(desktop->waylandDisplay());
    ASSERT_TRUE(connected) << connected.error().message() << desktop->logs();
    auto system = *connected;
    EXPECT_EQ(system->frontmostApplicationBundleIdentifier(), std::nullopt);
    auto monitor = system->makeApplicationStateMonitor();
    monitor->setChangeHandler(infos.handler(monitor));

    auto frontmostIs = [&](std::optional<std::string> name) {
        return test::eventually(
            [&] {
                system->synchronize(1s);
                return system->frontmostApplicationBundleIdentifier() == name;
            },
            20s);
    };
    const std::string first = "wayland:org.example.First", second = "wayland:org.example.Second";
    auto one = showToplevel(desktop->waylandDisplay(), "org.example.First");
    ASSERT_TRUE(one) << desktop->logs();
    ASSERT_TRUE(frontmostIs(first));
    EXPECT_EQ(system->applicationState(first).state,
              kApplicationStateRunning | kApplicationStateForeground | kApplicationStateFrontmost);
    EXPECT_EQ(system->applicationState(first).pid, -1);
    EXPECT_EQ(system->currentLayout().elementCount(), 1u);

    auto two = showToplevel(desktop->waylandDisplay(), "org.example.Second");
    ASSERT_TRUE(two) << desktop->logs();
    ASSERT_TRUE(frontmostIs(second));
    EXPECT_EQ(system->applicationState(first).state,
              kApplicationStateRunning | kApplicationStateForeground);
    const auto layout = system->currentLayout();
    ASSERT_EQ(layout.elementCount(), 2u);
    EXPECT_EQ(layout.elements.back().bundleIdentifier, second);  // the activated one on top

    // The user focusing the first again (as a click would).
    std::string swaySocket;
    for (const auto& entry : std::filesystem::directory_iterator(desktop->directory() + "/run"))
        if (entry.path().filename().string().starts_with("sway-ipc.")) swaySocket = entry.path();
    ASSERT_FALSE(swaySocket.empty()) << desktop->logs();
    ASSERT_EQ(std::system(
                  ("SWAYSOCK=" + swaySocket + " swaymsg -q '[app_id=\"org.example.First\"] focus'")
                      .c_str()),
              0);
    ASSERT_TRUE(frontmostIs(first));
    EXPECT_EQ(system->applicationState(second).state,
              kApplicationStateRunning | kApplicationStateForeground);

    two.reset();
    EXPECT_TRUE(test::eventually([&] {
        system->synchronize(1s);
        return system->applicationState(second).state == kApplicationStateNotRunning;
    }));
    EXPECT_EQ(system->frontmostApplicationBundleIdentifier(), first);
    // The monitor heard each move: the first lost the front and got it
    // back; the second had it and is gone.
    auto frontmostFlags = [](const std::vector<Value>& all, const std::string& name) {
        std::vector<bool> flags;
        for (const auto& info : all)
            if (stringAt(info, kApplicationInfoBundleIDKey) == name)
                flags.push_back(boolAt(info, kApplicationInfoFrontmostKey).value_or(false));
        return flags;
    };
    auto heard = [&](const std::vector<Value>& all) {
        auto a = frontmostFlags(all, first), b = frontmostFlags(all, second);
        return std::find(a.begin(), a.end(), false) != a.end() && a.back() &&
               std::find(b.begin(), b.end(), true) != b.end() && !b.back();
    };
    EXPECT_TRUE(infos.waitForItems(heard)) << infos.size() << " changes";
    EXPECT_FALSE(infos.offQueue);

    // An app_id that cannot name an application (a space, a slash) names
    // none: the window counts in the layout, and nothing is frontmost.
    auto odd = showToplevel(desktop->waylandDisplay(), "org.example.First /x");
    ASSERT_TRUE(odd) << desktop->logs();
    ASSERT_TRUE(frontmostIs(std::nullopt));
    EXPECT_EQ(system->applications().size(), 1u);
    ASSERT_EQ(system->currentLayout().elementCount(), 2u);
    EXPECT_EQ(system->currentLayout().elements.back().bundleIdentifier, "");

    ASSERT_TRUE(desktop->killCompositor());
    EXPECT_TRUE(frontmostIs(std::nullopt));
    EXPECT_TRUE(test::eventually([&] { return !system->isConnected(); }));
    EXPECT_TRUE(system->applications().empty());
    EXPECT_EQ(system->currentLayout().elementCount(), 0u);
    monitor->invalidate();
    monitor->queue()->sync([] {});
}

}  // namespace
}  // namespace sv
