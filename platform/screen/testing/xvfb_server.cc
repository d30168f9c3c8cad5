#include "platform/screen/testing/xvfb_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/screen/x11_screen.h"

namespace sv::testing {

namespace {

std::string findOnPath(const char* name) {
    const char* path = std::getenv("PATH");
    std::string paths = path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    while (start <= paths.size()) {
        size_t end = paths.find(':', start);
        if (end == std::string::npos) end = paths.size();
        std::string candidate = paths.substr(start, end - start) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return {};
}

int pidfdOpen(pid_t pid) {
    return int(syscall(SYS_pidfd_open, pid, 0));
}

// Waits until the process behind `pidfd` has ended, up to `ms`.
bool waitEnded(int pidfd, int ms) {
    pollfd p{pidfd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

}  // namespace

bool XvfbServer::available() {
    return !findOnPath("Xvfb").empty();
}

Result<std::unique_ptr<XvfbServer>> XvfbServer::start(int32_t width, int32_t height,
                                                      std::chrono::seconds timeout,
                                                      const std::string& displayName) {
    auto fail = [](const std::string& why) {
        return Error::make(kXvfbErrorDomain, kXvfbErrorCannotStart, why);
    };
    const std::string exe = findOnPath("Xvfb");
    if (exe.empty()) return fail("Xvfb is not installed");
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return fail(std::string("pipe: ") + std::strerror(errno));
    // The child's end of the pipe becomes descriptor 3 there.
    const std::string geometry = std::to_string(width) + "x" + std::to_string(height) + "x24";
    std::vector<std::string> args = {exe,        "-displayfd", "3",         "-screen",
                                     "0",        geometry,     "-nolisten", "tcp",
                                     "-noreset", "+extension", "Composite"};
    if (!displayName.empty()) args.insert(args.begin() + 1, displayName);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const bool quiet = !std::getenv("SV_XVFB_VERBOSE");
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return fail(std::string("fork: ") + std::strerror(errno));
    }
    if (pid == 0) {
        // Only async-signal-safe calls from here on. The server ends with
        // the thread that started it, also when a test crashes.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (fds[1] == 3) {
            if (fcntl(3, F_SETFD, 0) != 0) _exit(127);
        } else if (dup2(fds[1], 3) < 0) {
            _exit(127);
        }
        if (quiet) {
            int null = open("/dev/null", O_WRONLY);
            if (null >= 0) {
                dup2(null, 1);
                dup2(null, 2);
            }
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    int pidfd = pidfdOpen(pid);
    auto server = std::unique_ptr<XvfbServer>(new XvfbServer(pid, pidfd, ""));
    std::string number;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fds[0], POLLIN, 0};
        if (poll(&p, 1, int(left.count())) <= 0) break;
        char buf[32];
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n <= 0) break;  // the server ended without naming a display
        number.append(buf, size_t(n));
        if (number.find('\n') != std::string::npos) break;
    }
    close(fds[0]);
    while (!number.empty() && (number.back() == '\n' || number.back() == ' ')) number.pop_back();
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos)
        return fail("Xvfb did not start");  // the destructor reaps it
    server->displayName_ = ":" + number;
    return server;
}

XvfbServer::~XvfbServer() {
    stop();
}

void XvfbServer::stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    if (pidfd_ < 0 || !waitEnded(pidfd_, 5000)) kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    if (pidfd_ >= 0) close(pidfd_);
    // A killed server leaves its socket and lock file behind.
    if (!displayName_.empty()) {
        std::error_code ec;
        std::filesystem::remove("/tmp/.X11-unix/X" + displayName_.substr(1), ec);
        std::filesystem::remove("/tmp/.X" + displayName_.substr(1) + "-lock", ec);
    }
    pid_ = -1;
    pidfd_ = -1;
}

Result<std::unique_ptr<XTestWindow>> XTestWindow::create(const std::string& displayName, int32_t x,
                                                         int32_t y, int32_t width, int32_t height,
                                                         uint32_t rgb) {
    xcb_connection_t* c = connectToXServer(displayName.c_str(), nullptr);
    if (!c || xcb_connection_has_error(c)) {
        if (c) xcb_disconnect(c);
        return Error::make(kXvfbErrorDomain, kXvfbErrorCannotConnect,
                           "cannot connect to " + displayName);
    }
    xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    xcb_window_t window = xcb_generate_id(c);
    const uint32_t values[] = {rgb, 1};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, int16_t(x), int16_t(y),
                      uint16_t(width), uint16_t(height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
    xcb_map_window(c, window);
    auto w = std::unique_ptr<XTestWindow>(new XTestWindow(c, screen->root, window));
    w->sync();
    return w;
}

XTestWindow::~XTestWindow() {
    xcb_disconnect(connection_);
}

void XTestWindow::sync() {
    free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

void XTestWindow::raise() {
    const uint32_t above = XCB_STACK_MODE_ABOVE;
    xcb_configure_window(connection_, window_, XCB_CONFIG_WINDOW_STACK_MODE, &above);
    sync();
}

void XTestWindow::unmap() {
    xcb_unmap_window(connection_, window_);
    sync();
}

void XTestWindow::map() {
    xcb_map_window(connection_, window_);
    sync();
}

void XTestWindow::destroy() {
    xcb_destroy_window(connection_, window_);
    sync();
}

void XTestWindow::move(int32_t x, int32_t y) {
    const uint32_t position[] = {uint32_t(x), uint32_t(y)};
    xcb_configure_window(connection_, window_, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y, position);
    sync();
}

void XTestWindow::warpPointer(int32_t x, int32_t y) {
    xcb_warp_pointer(connection_, XCB_NONE, root_, 0, 0, 0, 0, int16_t(x), int16_t(y));
    sync();
}

}  // namespace sv::testing
