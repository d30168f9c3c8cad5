// The Wayland window system: foreground tracking on compositors that list
// their toplevels to clients (zwlr_foreign_toplevel_manager_v1, offered by
// wlroots compositors such as sway; GNOME and KDE offer nothing comparable,
// and connect() fails there). One wl_display connection and one event thread
// per window system, shared by all its monitors.
//
// Applications: a toplevel names its application by its app_id; the
// application is `wayland:` + app_id (letters, digits, '.', '-' and '_', at
// most 200; a toplevel without such an app_id names none). The prefix keeps
// these names apart from bundle identifiers and from X11 applications
// (`x11:`). The compositor tells no client which process owns a toplevel, so
// every application has pid -1: the recording service can name the frontmost
// application but not tap its process's audio, and processOwningLayerContext
// knows no owner.
//   - foreground while it has a toplevel that is not minimised;
//   - frontmost while it owns the activated toplevel.
// Layout: one element per application (or per toplevel without one), level 1,
// ordered by last activation (the activated one on top): the protocol gives
// no stacking order. A toplevel's identifier is a serial number the window
// system gives it, stable while it lives.
//
// Threads: every method may be called from any thread; monitors deliver on
// their own queues (platform/system/application_state.h, display_layout.h).
// The event thread applies a toplevel's changes at its `done` event and
// publishes after each batch of events. A compositor that goes away (or stops
// listing toplevels) empties the layout and leaves no application foreground;
// it is tried again every kWaylandReconnectInterval, logged once per outage,
// until it answers. The destructor stops the thread (an eventfd wakes it) and
// joins it, unless it runs on that thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/system/application_state.h"
#include "platform/system/display_layout.h"
#include "platform/ui/ui_backend.h"

namespace sv {

inline constexpr std::chrono::seconds kWaylandReconnectInterval{2};
// Toplevels tracked at once; more (a compositor gone wrong) are ignored.
inline constexpr size_t kWaylandMaxToplevels = 4096;

class WaylandWindowSystem : public UiBackend,
                            public std::enable_shared_from_this<WaylandWindowSystem> {
  public:
    // Connects to `displayName` (empty: $WAYLAND_DISPLAY; a name or an
    // absolute socket path), binds the toplevel manager, learns the current
    // toplevels and starts the event thread. Errors (kUIErrorDomain):
    // kUIErrorNoDisplay without a name, kUIErrorCannotConnect when the
    // compositor does not answer, kUIErrorUnsupportedServer when it offers no
    // toplevel manager.
    static Result<std::shared_ptr<WaylandWindowSystem>> connect(
        const std::string& displayName = {});

    ~WaylandWindowSystem() override;

    DisplayLayout currentLayout() const;
    std::vector<ApplicationState> applications() const;
    ApplicationState applicationState(const std::string& bundleID) const;
    // Returns once every event the compositor had sent when it was called has
    // been applied (one round trip); false after `timeout` or while the
    // compositor is away.
    bool synchronize(std::chrono::milliseconds timeout = std::chrono::seconds(5)) override;
    bool isConnected() const;

    // UiBackend
    std::string name() const override { return "wayland"; }
    std::shared_ptr<ApplicationStateMonitor> makeApplicationStateMonitor() override;
    std::shared_ptr<DisplayLayoutMonitor> makeMainDisplayLayoutMonitor() override;
    std::optional<std::string> frontmostApplicationBundleIdentifier() override;
    // Always nullopt: the compositor names no process.
    std::optional<int32_t> processOwningLayerContext(uint32_t contextID) const override;

    struct Core;

  private:
    explicit WaylandWindowSystem(std::shared_ptr<Core> core);
    std::shared_ptr<Core> core_;
    std::thread thread_;
};

}  // namespace sv
