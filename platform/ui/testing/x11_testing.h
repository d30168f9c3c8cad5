// Test and benchmark support for the X11 window system: an X client that
// makes top-level windows with the properties an application or a window
// manager would set, and processes inside test bundles that own them. (The
// private Xvfb server is platform/screen/testing/xvfb_server.h.) Not for
// production code.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"

struct xcb_connection_t;

namespace sv::testing {

// A window as the test client describes it.
struct TestWindowOptions {
    int x = 0, y = 0, width = 400, height = 300;
    std::optional<uint32_t> pid;  // _NET_WM_PID
    // _NET_WM_WINDOW_TYPE atoms by name, e.g. "_NET_WM_WINDOW_TYPE_DIALOG".
    std::vector<std::string> types;
    std::vector<std::string> states;  // _NET_WM_STATE atoms by name
    bool overrideRedirect = false;
    std::optional<std::string> clientMachine;  // WM_CLIENT_MACHINE
    std::optional<std::string> wmClass;        // WM_CLASS's class (instance "sv")
    uint32_t transientFor = 0;                 // WM_TRANSIENT_FOR
    uint32_t parent = 0;                       // 0: the root
};

// One X connection of the test. Every call waits until the server has
// carried it out (a round trip), so that what follows sees its effect.
class X11TestClient {
  public:
    // An error (kUIErrorDomain, kUIErrorCannotConnect) when the server
    // cannot be reached.
    static Result<std::unique_ptr<X11TestClient>> connect(const std::string& displayName);
    ~X11TestClient();
    X11TestClient(const X11TestClient&) = delete;
    X11TestClient& operator=(const X11TestClient&) = delete;

    uint32_t root() const { return root_; }
    // Creates the window with its properties; mapped when `map`.
    uint32_t createWindow(const TestWindowOptions& options, bool map = true);
    void map(uint32_t window);
    void unmap(uint32_t window);
    void destroy(uint32_t window);
    void raise(uint32_t window);
    void move(uint32_t window, int x, int y);
    void setTypes(uint32_t window, const std::vector<std::string>& types);
    void setStates(uint32_t window, const std::vector<std::string>& states);
    void setPid(uint32_t window, uint32_t pid);
    // WM_STATE as a window manager sets it on a client (1 normal, 3 iconic).
    void setWmState(uint32_t window, uint32_t state);
    // The root's _NET_ACTIVE_WINDOW; 0 deletes it.
    void setActiveWindow(uint32_t window);
    // Floods: `count` changes of the active window (cycling through
    // `windows`) / `count` unmapped windows, sent without waiting in between.
    void cycleActiveWindow(const std::vector<uint32_t>& windows, int count);
    void createUnmappedWindows(const TestWindowOptions& options, int count);
    void sync();

  private:
    X11TestClient() = default;
    uint32_t atom(const std::string& name);
    void setAtoms(uint32_t window, const std::string& property,
                  const std::vector<std::string>& names);
    xcb_connection_t* c_ = nullptr;
    uint32_t root_ = 0;
};

// A process running inside a test bundle: <dir>/<name>.app/bundle.json with
// `bundleID`, and a copy of /bin/sleep as its executable (a copy, not a link:
// a process's executable is the link's target). Ended and reaped on
// destruction.
class BundledProcess {
  public:
    static std::unique_ptr<BundledProcess> start(const std::string& dir, const std::string& name,
                                                 const std::string& bundleID);
    ~BundledProcess();
    pid_t pid() const { return pid_; }
    const std::string& bundleID() const { return bundleID_; }

  private:
    BundledProcess() = default;
    pid_t pid_ = -1;
    std::string bundleID_;
};

}  // namespace sv::testing
