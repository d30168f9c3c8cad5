#include "platform/ui/testing/x11_testing.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include <xcb/xcb.h>

#include "platform/ui/ui_backend.h"
#include "platform/xcb_handles.h"

extern char** environ;

namespace sv::testing {
namespace {

// Waits for `pid` for at most `timeout`; true when it was reaped.
bool reapWithin(pid_t pid, std::chrono::milliseconds timeout) {
    auto end = std::chrono::steady_clock::now() + timeout;
    while (true) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid || r < 0) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void endProcess(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    if (!reapWithin(pid, std::chrono::seconds(5))) {
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

}  // namespace

// ---- the test's X client

Result<std::unique_ptr<X11TestClient>> X11TestClient::connect(const std::string& displayName) {
    int screenNumber = 0;
    XcbConnection c(connectXcbSerialized(displayName.c_str(), &screenNumber));
    if (!c || xcb_connection_has_error(c.get()))
        return Error::make(kUIErrorDomain, kUIErrorCannotConnect,
                           "cannot connect to " + displayName);
    std::unique_ptr<X11TestClient> client(new X11TestClient);
    client->root_ = xcb_setup_roots_iterator(xcb_get_setup(c.get())).data->root;
    client->c_ = c.release();
    return client;
}

X11TestClient::~X11TestClient() {
    if (c_) xcb_disconnect(c_);
}

uint32_t X11TestClient::atom(const std::string& name) {
    auto cookie = xcb_intern_atom(c_, 0, uint16_t(name.size()), name.c_str());
    XcbReply<xcb_intern_atom_reply_t> r(xcb_intern_atom_reply(c_, cookie, nullptr));
    return r ? r->atom : 0;
}

void X11TestClient::sync() {
    XcbReply<xcb_get_input_focus_reply_t>(
        xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr));
}

void X11TestClient::setAtoms(uint32_t window, const std::string& property,
                             const std::vector<std::string>& names) {
    std::vector<uint32_t> atoms;
    for (const auto& n : names) atoms.push_back(atom(n));
    xcb_change_property(c_, XCB_PROP_MODE_REPLACE, window, atom(property), XCB_ATOM_ATOM, 32,
                        uint32_t(atoms.size()), atoms.data());
}

uint32_t X11TestClient::createWindow(const TestWindowOptions& options, bool mapIt) {
    uint32_t w = xcb_generate_id(c_);
    uint32_t values[] = {options.overrideRedirect ? 1u : 0u};
    xcb_create_window(c_, XCB_COPY_FROM_PARENT, w, options.parent ? options.parent : root_,
                      int16_t(options.x), int16_t(options.y), uint16_t(options.width),
                      uint16_t(options.height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      XCB_COPY_FROM_PARENT, XCB_CW_OVERRIDE_REDIRECT, values);
    if (options.pid) setPid(w, *options.pid);
    if (!options.types.empty()) setAtoms(w, "_NET_WM_WINDOW_TYPE", options.types);
    if (!options.states.empty()) setAtoms(w, "_NET_WM_STATE", options.states);
    if (options.clientMachine)
        xcb_change_property(c_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_CLIENT_MACHINE,
                            XCB_ATOM_STRING, 8, uint32_t(options.clientMachine->size()),
                            options.clientMachine->data());
    if (options.wmClass) {
        const std::string value = "sv" + std::string(1, '\0') + *options.wmClass + '\0';
        xcb_change_property(c_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                            uint32_t(value.size()), value.data());
    }
    if (options.transientFor)
        xcb_change_property(c_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_TRANSIENT_FOR,
                            XCB_ATOM_WINDOW, 32, 1, &options.transientFor);
    if (mapIt) xcb_map_window(c_, w);
    sync();
    return w;
}

void X11TestClient::map(uint32_t window) {
    xcb_map_window(c_, window);
    sync();
}

void X11TestClient::unmap(uint32_t window) {
    xcb_unmap_window(c_, window);
    sync();
}

void X11TestClient::destroy(uint32_t window) {
    xcb_destroy_window(c_, window);
    sync();
}

void X11TestClient::raise(uint32_t window) {
    uint32_t mode[] = {XCB_STACK_MODE_ABOVE};
    xcb_configure_window(c_, window, XCB_CONFIG_WINDOW_STACK_MODE, mode);
    sync();
}

void X11TestClient::move(uint32_t window, int x, int y) {
    uint32_t pos[] = {uint32_t(x), uint32_t(y)};
    xcb_configure_window(c_, window, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y, pos);
    sync();
}

void X11TestClient::setTypes(uint32_t window, const std::vector<std::string>& types) {
    setAtoms(window, "_NET_WM_WINDOW_TYPE", types);
    sync();
}

void X11TestClient::setStates(uint32_t window, const std::vector<std::string>& states) {
    setAtoms(window, "_NET_WM_STATE", states);
    sync();
}

void X11TestClient::setPid(uint32_t window, uint32_t pid) {
    xcb_change_property(c_, XCB_PROP_MODE_REPLACE, window, atom("_NET_WM_PID"), XCB_ATOM_CARDINAL,
                        32, 1, &pid);
    sync();
}

void X11TestClient::setWmState(uint32_t window, uint32_t state) {
    uint32_t a = atom("WM_STATE");
    uint32_t data[] = {state, 0};
    xcb_change_property(c_, XCB_PROP_MODE_REPLACE, window, a, a, 32, 2, data);
    sync();
}

void X11TestClient::setActiveWindow(uint32_t window) {
    uint32_t a = atom("_NET_ACTIVE_WINDOW");
    if (window)
        xcb_change_property(c_, XCB_PROP_MODE_REPLACE, root_, a, XCB_ATOM_WINDOW, 32, 1, &window);
    else
        xcb_delete_property(c_, root_, a);
    sync();
}

void X11TestClient::cycleActiveWindow(const std::vector<uint32_t>& windows, int count) {
    uint32_t a = atom("_NET_ACTIVE_WINDOW");
    for (int i = 0; i < count && !windows.empty(); ++i)
        xcb_change_property(c_, XCB_PROP_MODE_REPLACE, root_, a, XCB_ATOM_WINDOW, 32, 1,
                            &windows[size_t(i) % windows.size()]);
    sync();
}

void X11TestClient::createUnmappedWindows(const TestWindowOptions& options, int count) {
    for (int i = 0; i < count; ++i) {
        uint32_t w = xcb_generate_id(c_);
        xcb_create_window(c_, XCB_COPY_FROM_PARENT, w, options.parent ? options.parent : root_,
                          int16_t(options.x), int16_t(options.y), uint16_t(options.width),
                          uint16_t(options.height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                          XCB_COPY_FROM_PARENT, 0, nullptr);
    }
    sync();
}

// ---- bundled processes

std::unique_ptr<BundledProcess> BundledProcess::start(const std::string& dir,
                                                      const std::string& name,
                                                      const std::string& bundleID) {
    namespace fs = std::filesystem;
    std::string bundle = dir + "/" + name + ".app";
    std::error_code ec;
    fs::create_directories(bundle, ec);
    std::ofstream(bundle + "/bundle.json")
        << "{\"identifier\": \"" << bundleID << "\", \"name\": \"" << name << "\"}";
    std::string executable = bundle + "/" + name;
    if (!fs::exists(executable))
        fs::copy_file("/bin/sleep", executable, fs::copy_options::overwrite_existing, ec);
    if (ec) return nullptr;
    const char* argv[] = {executable.c_str(), "600", nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, executable.c_str(), nullptr, nullptr, const_cast<char**>(argv),
                    environ) != 0)
        return nullptr;
    std::unique_ptr<BundledProcess> p(new BundledProcess);
    p->pid_ = pid;
    p->bundleID_ = bundleID;
    return p;
}

BundledProcess::~BundledProcess() {
    endProcess(pid_);
}

}  // namespace sv::testing
