// Test and benchmark support for the portal screen backend: a private
// Wayland desktop (platform/screen/testing/wayland-desktop.sh) of one
// headless output filled with a solid colour, with its own session bus,
// PipeWire and desktop portal, and client windows of a solid colour shown
// in it. Not part of the daemon.
//
// Threads: one object belongs to the thread that made it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/error.h"

namespace sv::testing {

inline constexpr const char* kWaylandDesktopErrorDomain =
    "org.sorvel.testing.WaylandDesktopErrorDomain";
enum WaylandDesktopErrorCode : int64_t {
    kWaylandDesktopErrorCannotStart = 1,  // a part of the stack is missing or did not start
};

class WaylandDesktop {
  public:
    struct Options {
        int32_t width = 640, height = 480;
        uint32_t rgb = 0x3080C0;  // the output's colour
        // The output the portal shares without asking; any other name makes
        // it refuse to start a screen cast.
        std::string outputName = "HEADLESS-1";
        // Off: the portal's backend runs as packaged, and without a GPU it
        // answers every Start with 2 (screencopy_shm_shim.cc says why).
        bool screencopyShim = true;
        std::chrono::seconds timeout{60};
    };
    // Whether sway and the portal are installed.
    static bool available();
    // Starts the desktop in a new temporary directory and waits until its
    // screen-cast portal answers; an error with the reason (and the logs'
    // directory) when it does not within the timeout.
    static Result<std::unique_ptr<WaylandDesktop>> start(Options options);
    // Ends every process of the desktop and removes its directory.
    ~WaylandDesktop();
    WaylandDesktop(const WaylandDesktop&) = delete;
    WaylandDesktop& operator=(const WaylandDesktop&) = delete;

    // The desktop's session bus ("unix:path=...").
    const std::string& busAddress() const { return bus_; }
    const std::string& directory() const { return dir_; }
    // The compositor's socket, an absolute path for WAYLAND_DISPLAY.
    std::string waylandDisplay() const { return dir_ + "/run/wayland-1"; }
    // Kills the compositor alone (SIGKILL), as a crash would, and waits
    // (up to five seconds) until it is gone; false when it is not.
    bool killCompositor();
    // Starts a killed compositor and the portal's backend again, as a
    // session does, and waits (up to the start's timeout) until the backend
    // answers; false when it does not.
    bool restartCompositor();
    // The logs of every part, for a failed test's message.
    std::string logs() const;
    // Runs a sway command (swaymsg) on the compositor; whether it succeeded.
    bool swaymsg(const std::string& command) const;

    // A client window of its own connection: one xdg-shell toplevel showing
    // a solid colour. It reads nothing once shown (later configures and
    // pings go unanswered, which sway tolerates). Destroying it closes the
    // connection, which closes the window.
    class Window {
      public:
        virtual ~Window() = default;
    };
    // Shows a `width` x `height` toplevel of colour `rgb` (0xRRGGBB) with the
    // app_id `appID` and returns once the compositor has its picture; sway
    // tiles it, and may draw it larger than its picture, unless a sway
    // command floats it. Null when the compositor does not take it.
    std::unique_ptr<Window> showWindow(const std::string& appID, int32_t width = 64,
                                       int32_t height = 64, uint32_t rgb = 0) const;

  private:
    WaylandDesktop(pid_t group, std::string dir, std::string bus, std::chrono::seconds timeout)
        : group_(group), dir_(std::move(dir)), bus_(std::move(bus)), timeout_(timeout) {}
    pid_t group_;
    std::string dir_, bus_;
    std::chrono::seconds timeout_;
};

}  // namespace sv::testing
