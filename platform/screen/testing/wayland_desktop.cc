#include "platform/screen/testing/wayland_desktop.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

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

}  // namespace

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
    auto desktop = std::unique_ptr<WaylandDesktop>(new WaylandDesktop(pid, dir, {}));
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
