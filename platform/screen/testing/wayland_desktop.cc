#include "platform/screen/testing/wayland_desktop.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"
#include "platform/wayland/wayland_display.h"
#include "xdg-shell-client-protocol.h"

namespace sv::testing {

namespace {

namespace fs = std::filesystem;

Error cannotStart(const std::string& why) {
    return Error::make(kWaylandDesktopErrorDomain, kWaylandDesktopErrorCannotStart, why);
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string script() {
    return std::string(SV_SOURCE_DIR) + "/platform/screen/testing/wayland-desktop.sh";
}

// Ends the process group and reaps its leader.
void endGroup(pid_t group) {
    ::kill(-group, SIGTERM);
    for (int i = 0; i < 50; ++i) {
        if (::kill(-group, 0) != 0) break;
        ::waitpid(group, nullptr, WNOHANG);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ::kill(-group, SIGKILL);
    ::waitpid(group, nullptr, 0);
}

// The client's proxies are freed before it disconnects (disconnecting leaves
// them allocated). The thread that showed it only.
struct ClientWindow final : WaylandDesktop::Window {
    ~ClientWindow() override {
        for (auto it = proxies.rbegin(); it != proxies.rend(); ++it) wl_proxy_destroy(*it);
        display.reset();
    }
    template <typename T>
    T* keep(T* proxy) {
        if (proxy) proxies.push_back(reinterpret_cast<wl_proxy*>(proxy));
        return proxy;
    }
    WaylandDisplay display;
    std::vector<wl_proxy*> proxies;
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    xdg_wm_base* wm = nullptr;
    bool configured = false;
};

const wl_registry_listener kRegistry = {
    .global =
        [](void* data, wl_registry* r, uint32_t name, const char* interface, uint32_t) {
            auto* w = static_cast<ClientWindow*>(data);
            if (!std::strcmp(interface, wl_compositor_interface.name))
                w->compositor = w->keep(static_cast<wl_compositor*>(
                    wl_registry_bind(r, name, &wl_compositor_interface, 4)));
            else if (!std::strcmp(interface, wl_shm_interface.name))
                w->shm =
                    w->keep(static_cast<wl_shm*>(wl_registry_bind(r, name, &wl_shm_interface, 1)));
            else if (!std::strcmp(interface, xdg_wm_base_interface.name))
                w->wm = w->keep(static_cast<xdg_wm_base*>(
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
            static_cast<ClientWindow*>(data)->configured = true;
        },
};

}  // namespace

std::unique_ptr<WaylandDesktop::Window> WaylandDesktop::showWindow(const std::string& appID,
                                                                   int32_t width, int32_t height,
                                                                   uint32_t rgb) const {
    if (width <= 0 || height <= 0 || width > 4096 || height > 4096) return nullptr;
    auto w = std::make_unique<ClientWindow>();
    w->display.reset(wl_display_connect(waylandDisplay().c_str()));
    if (!w->display) return nullptr;
    wl_display* d = w->display.get();
    wl_registry_add_listener(w->keep(wl_display_get_registry(d)), &kRegistry, w.get());
    wl_display_roundtrip(d);
    if (!w->compositor || !w->shm || !w->wm) return nullptr;
    xdg_wm_base_add_listener(w->wm, &kWm, nullptr);
    wl_surface* surface = w->keep(wl_compositor_create_surface(w->compositor));
    xdg_surface* xdg = w->keep(xdg_wm_base_get_xdg_surface(w->wm, surface));
    xdg_surface_add_listener(xdg, &kXdgSurface, w.get());
    xdg_toplevel_set_app_id(w->keep(xdg_surface_get_toplevel(xdg)), appID.c_str());
    wl_surface_commit(surface);
    while (!w->configured)
        if (wl_display_dispatch(d) < 0) return nullptr;
    const int32_t stride = width * 4;
    const size_t bytes = size_t(stride) * size_t(height);
    UniqueFd memory(memfd_create("sv-test-window", MFD_CLOEXEC));
    if (!memory.valid() || ftruncate(memory.get(), off_t(bytes)) != 0) return nullptr;
    void* pixels = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
    if (pixels == MAP_FAILED) return nullptr;
    std::fill_n(static_cast<uint32_t*>(pixels), bytes / 4, 0xFF000000u | rgb);
    munmap(pixels, bytes);
    wl_shm_pool* pool = w->keep(wl_shm_create_pool(w->shm, memory.get(), int32_t(bytes)));
    wl_surface_attach(
        surface,
        w->keep(wl_shm_pool_create_buffer(pool, 0, width, height, stride, WL_SHM_FORMAT_XRGB8888)),
        0, 0);
    wl_surface_commit(surface);
    if (wl_display_roundtrip(d) < 0) return nullptr;
    return w;
}

bool WaylandDesktop::swaymsg(const std::string& command) const {
    std::string socket;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(dir_ + "/run", ignored))
        if (entry.path().filename().string().starts_with("sway-ipc.")) socket = entry.path();
    if (socket.empty()) return false;
    const pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid == 0) {
        ::execlp("swaymsg", "swaymsg", "-q", "-s", socket.c_str(), command.c_str(), nullptr);
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool WaylandDesktop::available() {
    for (const char* tool :
         {"/usr/bin/sway", "/usr/bin/pipewire", "/usr/libexec/xdg-desktop-portal",
          "/usr/libexec/xdg-desktop-portal-wlr"})
        if (::access(tool, X_OK) != 0) return false;
    return true;
}

Result<std::unique_ptr<WaylandDesktop>> WaylandDesktop::start(Options options) {
    char tmpl[] = "/tmp/sv-wayland-XXXXXX";
    if (!::mkdtemp(tmpl)) return cannotStart(std::string("mkdtemp: ") + std::strerror(errno));
    const std::string dir = tmpl;
    char colour[16];
    std::snprintf(colour, sizeof colour, "#%06X", options.rgb & 0xFFFFFF);
    const std::string w = std::to_string(options.width), h = std::to_string(options.height);
    const std::string path = script();
    pid_t pid = ::fork();
    if (pid < 0) return cannotStart(std::string("fork: ") + std::strerror(errno));
    if (pid == 0) {
        ::setpgid(0, 0);
        const std::string log = dir + "/desktop.log";
        if (FILE* f = std::fopen(log.c_str(), "w")) {
            ::dup2(fileno(f), 1);
            ::dup2(fileno(f), 2);
        }
        ::execl("/bin/bash", "bash", path.c_str(), dir.c_str(), w.c_str(), h.c_str(), colour,
                options.outputName.c_str(), options.screencopyShim ? SV_SCREENCOPY_SHIM : "",
                nullptr);
        ::_exit(127);
    }
    ::setpgid(pid, pid);
    auto desktop =
        std::unique_ptr<WaylandDesktop>(new WaylandDesktop(pid, dir, {}, options.timeout));
    const auto deadline = std::chrono::steady_clock::now() + options.timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (fs::exists(dir + "/ready")) {
            std::string bus = readFile(dir + "/ready");
            while (!bus.empty() && (bus.back() == '\n' || bus.back() == ' ')) bus.pop_back();
            desktop->bus_ = bus;
            return desktop;
        }
        if (fs::exists(dir + "/failed"))
            return cannotStart(readFile(dir + "/failed") + desktop->logs());
        if (::waitpid(pid, nullptr, WNOHANG) == pid)
            return cannotStart("the desktop's script ended: " + readFile(dir + "/desktop.log"));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return cannotStart("the desktop did not start in time" + desktop->logs());
}

WaylandDesktop::~WaylandDesktop() {
    endGroup(group_);
    std::error_code ignored;
    if (!std::getenv("SV_KEEP_WAYLAND_DESKTOP")) fs::remove_all(dir_, ignored);
}

bool WaylandDesktop::killCompositor() {
    const pid_t pid = std::atoi(readFile(dir_ + "/sway.pid").c_str());
    if (pid <= 0 || ::kill(pid, SIGKILL) != 0) return false;
    // Reaped by the desktop's script; gone once its /proc entry is.
    const std::string proc = "/proc/" + std::to_string(pid);
    for (int i = 0; i < 100; ++i) {
        if (!fs::exists(proc)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

bool WaylandDesktop::restartCompositor() {
    const std::string marker = dir_ + "/restarted";
    std::error_code ignored;
    fs::remove(marker, ignored);
    if (::kill(group_, SIGUSR1) != 0) return false;
    const auto deadline = std::chrono::steady_clock::now() + timeout_;
    while (std::chrono::steady_clock::now() < deadline) {
        if (fs::exists(marker)) return true;
        if (fs::exists(dir_ + "/failed")) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

std::string WaylandDesktop::logs() const {
    std::string all;
    for (const char* name : {"desktop", "sway", "pipewire", "wireplumber", "xdpw", "xdp", "dbus"}) {
        // The backend's account of the compositor's globals says nothing.
        std::stringstream in(readFile(dir_ + "/" + name + ".log"));
        std::string text, line;
        while (std::getline(in, line))
            if (line.find("interface to register") == std::string::npos &&
                line.find("registered to interface") == std::string::npos)
                text += line + "\n";
        if (text.size() > 6000) text = "..." + text.substr(text.size() - 6000);
        all += std::string("\n--- ") + name + ".log\n" + text;
    }
    return all;
}

}  // namespace sv::testing
