// The X11 window system: foreground tracking and the display layout of one X
// screen, read from EWMH/ICCCM properties and kept current by property and
// structure events. One xcb connection and one event thread per window
// system, shared by all its monitors.
//
// Windows considered: the top-level windows of the screen (children of the
// root). For each, its client window is the window itself when it carries
// _NET_WM_PID, WM_STATE or _NET_WM_WINDOW_TYPE or is override-redirect, else
// the first descendant (three levels deep at most) that carries WM_STATE (the
// client inside a window manager's frame), else the window itself. A window
// counts while it is mapped and viewable, InputOutput, at least partly on the
// screen, not _NET_WM_STATE_HIDDEN, and not the window manager's check window.
//
// Owner: the process in the client window's _NET_WM_PID (or in that of its
// WM_CLIENT_LEADER), trusted only when WM_CLIENT_MACHINE is absent or names
// this host; for a client that sets neither (plain xcb or Xlib programs), the
// local process that the X server knows made the window (X-Resource 1.2); the application is the
// bundle enclosing that process's executable (platform/process/process_info.h). Windows of
// processes outside bundles have no application but still share the screen. _NET_WM_PID is the
// client's own claim: any X client can set it, as any X client can read the whole screen.
//
// Applications: foreground (kApplicationStateForeground) while they own a
// counted window; frontmost while they own the window in the root's
// _NET_ACTIVE_WINDOW (when the active window is a frame, its client).
//
// Layout: one element per owner, not per window: the windows of one
// application (or, without one, of one process, or of one client leader) form
// one element, placed where its topmost window is in the stacking order, with
// the lowest level of its windows and its lowest window identifier as
// identifier (stable while that window lives). An application's own menus,
// dialogs and second windows therefore never turn "alone on the screen" into
// "sharing it", while another application's window does. Desktop
// (_NET_WM_WINDOW_TYPE_DESKTOP) and dock/panel (_NET_WM_WINDOW_TYPE_DOCK)
// windows are not elements at all: they are the desktop's permanent
// furniture, and counting them would make every layout of a desktop with a
// panel look shared by the system, so that another application taking the
// screen could never be told apart.
//
// Level of a window, the first rule that applies:
//   1. fullscreen (_NET_WM_STATE_FULLSCREEN), or override-redirect and
//      covering the whole screen (screen lockers, fullscreen splash) -> 1 Normal
//   2. _NET_WM_STATE_ABOVE                                      -> 3 Above
//   3. type NOTIFICATION                                        -> 4 Notification
//   4. type POPUP_MENU, DROPDOWN_MENU, TOOLTIP, COMBO or DND, or any
//      other override-redirect window                          -> 5 Popup
//   5. type DIALOG, _NET_WM_STATE_MODAL, or no type and
//      WM_TRANSIENT_FOR                                         -> 2 Dialog
//   6. _NET_WM_STATE_BELOW                                      -> 0 Below
//   7. anything else (NORMAL, UTILITY, TOOLBAR, MENU, SPLASH, no type)
//                                                               -> 1 Normal
// With the recording service's reading (DisplayLayout, platform/system/
// display_layout.h) this gives: an application alone on the screen, with any
// of its own windows and popups, is one element and never interrupts; another
// application's ordinary window appearing makes two elements below level 2 and
// interrupts; a notification, another application's dialog, a window kept on
// top or a menu of an unknown owner shares the screen and keeps the
// recording; another application going fullscreen or a screen locker takes
// the screen and interrupts.
//
// Threads: every method may be called from any thread; monitors deliver on
// their own queues (platform/system/application_state.h, display_layout.h).
// The event thread rescans the screen after each batch of relevant events:
// at once for a change after a quiet spell, and no more than once every
// kX11MinRescanInterval (after a burst of kX11RescanBurst) while events keep
// coming, so a flood of events costs bounded CPU. A lost server connection
// empties the layout and leaves no application foreground until the server
// answers again (tried every kX11ReconnectInterval).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/system/application_state.h"
#include "platform/system/display_layout.h"
#include "platform/ui/ui_backend.h"

namespace sv {

inline constexpr std::chrono::milliseconds kX11MinRescanInterval{4};
inline constexpr int kX11RescanBurst = 4;
inline constexpr std::chrono::seconds kX11ReconnectInterval{2};
// Windows looked at per scan; windows beyond it (a client flooding the screen
// with top-levels) are ignored, topmost first kept.
inline constexpr size_t kX11MaxScannedWindows = 4096;

class X11WindowSystem : public UiBackend, public std::enable_shared_from_this<X11WindowSystem> {
  public:
    // Connects to `displayName` (empty: $DISPLAY), reads the screen once and
    // starts the event thread. An error (kUIErrorDomain) when the server
    // cannot be reached, unless `waitForServer`: then (a display is
    // named) tracking starts once the server answers. A server that goes
    // away is tried again every kX11ReconnectInterval, and tracking resumes
    // with a fresh scan when it is back; meanwhile nothing is foreground and
    // the layout is empty.
    static Result<std::shared_ptr<X11WindowSystem>> connect(const std::string& displayName = {},
                                                            bool waitForServer = false);
    // True when `displayName` (empty: $DISPLAY) names a server that accepts a
    // connection.
    static bool serverAnswers(const std::string& displayName = {});

    ~X11WindowSystem() override;

    // The view as of the last scan.
    DisplayLayout currentLayout() const;
    std::vector<ApplicationState> applications() const;
    ApplicationState applicationState(const std::string& bundleID) const;
    // Returns once every event the server had sent when it was called has
    // been handled (one round trip); false after `timeout` or when the
    // connection is lost.
    bool synchronize(std::chrono::milliseconds timeout = std::chrono::seconds(5)) override;
    bool isConnected() const;
    // Completed scans of the screen (for benchmarks).
    uint64_t scanCount() const;

    // UiBackend
    std::string name() const override { return "x11"; }
    std::shared_ptr<ApplicationStateMonitor> makeApplicationStateMonitor() override;
    std::shared_ptr<DisplayLayoutMonitor> makeMainDisplayLayoutMonitor() override;
    std::optional<std::string> frontmostApplicationBundleIdentifier() override;
    // The trusted _NET_WM_PID owner of a counted top-level window or of its
    // client window, as of the last scan.
    std::optional<int32_t> processOwningLayerContext(uint32_t contextID) const override;

    struct Core;

  private:
    explicit X11WindowSystem(std::shared_ptr<Core> core);
    std::shared_ptr<Core> core_;
    std::thread thread_;
};

}  // namespace sv
