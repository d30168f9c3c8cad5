// Test and benchmark support for the X11 screen backend: a private Xvfb
// server on a display number of its own, and X client windows filled with a
// known colour. Not part of the daemon.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/error.h"

struct xcb_connection_t;

namespace sv::testing {

// Errors of starting a test server or making a test window.
inline constexpr const char* kXvfbErrorDomain = "org.sorvel.testing.XvfbErrorDomain";
enum XvfbErrorCode : int64_t {
    kXvfbErrorCannotStart = 1,    // Xvfb is missing or did not name a display
    kXvfbErrorCannotConnect = 2,  // a test window's client cannot reach the server
};

class XvfbServer {
  public:
    // Whether an Xvfb executable is on PATH.
    static bool available();
    // Starts `Xvfb -displayfd ... -screen 0 <w>x<h>x24 -nolisten tcp
    // -noreset` and waits (up to `timeout`) until it names its display.
    // An error when it cannot. The server is terminated when the
    // calling thread ends, so start it from a thread that outlives it.
    // With `displayName` (":<n>"), on that display (a server coming back
    // where an earlier one was), else on a free one.
    static Result<std::unique_ptr<XvfbServer>> start(
        int32_t width = 1600, int32_t height = 900,
        std::chrono::seconds timeout = std::chrono::seconds(30),
        const std::string& displayName = {});
    // Ends the server (see stop()).
    ~XvfbServer();
    XvfbServer(const XvfbServer&) = delete;
    XvfbServer& operator=(const XvfbServer&) = delete;

    // ":<n>".
    const std::string& displayName() const { return displayName_; }
    pid_t pid() const { return pid_; }
    // Terminates the server and reaps it: SIGTERM, then SIGKILL when it has
    // not ended within five seconds. Idempotent.
    void stop();

  private:
    XvfbServer(pid_t pid, int pidfd, std::string displayName)
        : pid_(pid), pidfd_(pidfd), displayName_(std::move(displayName)) {}
    pid_t pid_;
    int pidfd_;
    std::string displayName_;
};

// A top-level window of a client connection of its own, filled with one
// colour (0xRRGGBB) by the server, unmanaged (override-redirect) and mapped
// when created. Every operation waits until the server has carried it out.
class XTestWindow {
  public:
    static Result<std::unique_ptr<XTestWindow>> create(const std::string& displayName, int32_t x,
                                                       int32_t y, int32_t width, int32_t height,
                                                       uint32_t rgb);
    ~XTestWindow();
    XTestWindow(const XTestWindow&) = delete;
    XTestWindow& operator=(const XTestWindow&) = delete;

    uint32_t id() const { return window_; }
    void raise();
    void unmap();
    void map();
    void destroy();
    void move(int32_t x, int32_t y);
    // Moves the pointer to a root position.
    void warpPointer(int32_t x, int32_t y);
    xcb_connection_t* connection() const { return connection_; }

  private:
    XTestWindow(xcb_connection_t* c, uint32_t root, uint32_t window)
        : connection_(c), root_(root), window_(window) {}
    void sync();
    xcb_connection_t* connection_;
    uint32_t root_;
    uint32_t window_;
};

}  // namespace sv::testing
