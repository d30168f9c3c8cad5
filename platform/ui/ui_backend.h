// The window system behind the application-state monitor, the frontmost
// application and the display-layout monitor. Two backends exist: X11 (EWMH
// properties and structure events of the screen's top-level windows,
// platform/ui/x11_window_system.h), Wayland compositors that list their
// toplevels (platform/ui/wayland_window_system.h) and the synthetic window
// system on the synthetic display (platform/ui/synthetic_window_system.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/error.h"

namespace sv {

// Errors of choosing and connecting a window system.
inline constexpr const char* kUIErrorDomain = "org.sorvel.UIErrorDomain";
enum UIErrorCode : int64_t {
    kUIErrorNoDisplay = 1,          // no X display (Wayland compositor) is named
    kUIErrorCannotConnect = 2,      // the X server (compositor) cannot be reached
    kUIErrorUnsupportedServer = 3,  // the server has no such screen (lists no toplevels)
    kUIErrorSetupFailed = 4,        // the window system's own resources cannot be made
};

class ApplicationStateMonitor;
class DisplayLayoutMonitor;
class SyntheticDisplay;

class UiBackend {
  public:
    virtual ~UiBackend() = default;
    virtual std::string name() const = 0;

    // New monitors; each keeps the backend alive and has a queue of its own.
    virtual std::shared_ptr<ApplicationStateMonitor> makeApplicationStateMonitor() = 0;
    virtual std::shared_ptr<DisplayLayoutMonitor> makeMainDisplayLayoutMonitor() = 0;
    // The bundle identifier of the frontmost application, or nullopt.
    // Synchronous, any thread.
    virtual std::optional<std::string> frontmostApplicationBundleIdentifier() = 0;
    // The process that owns the layer context (synthetic) or window (X11)
    // `contextID`, as far as the window system knows; nullopt when it knows
    // no owner. What the recording service checks before it records a
    // layer for an application. Synchronous, any thread.
    virtual std::optional<int32_t> processOwningLayerContext(uint32_t contextID) const = 0;
    // Returns once what the window system reports reflects every change the
    // display had made when it was called (a window an application has just
    // mapped), or after `timeout`; false then. Blocks the caller: a round
    // trip to the display server. The synthetic window system is always
    // current.
    virtual bool synchronize(std::chrono::milliseconds timeout) {
        (void)timeout;
        return true;
    }
};

enum class UiBackendKind { Automatic, X11, Wayland, Synthetic };

// "x11", "synthetic", "auto"/"automatic" (the names SORVEL_SCREEN_BACKEND
// shares with the screen backends); nullopt for anything else. Wayland is
// chosen by the daemon alone, beside the portal screen.
std::optional<UiBackendKind> parseUiBackendKind(std::string_view text);

// Automatic: SORVEL_SCREEN_BACKEND (x11|synthetic) when set, so that the
// window system always matches the screen that is recorded; otherwise X11
// when $DISPLAY names a display, otherwise synthetic. X11: the server named
// by $DISPLAY, tracked once it answers (X11WindowSystem::connect with
// waitForServer); an error (kUIErrorDomain) when no display is named. Wayland: the compositor
// named by $WAYLAND_DISPLAY (WaylandWindowSystem::connect); an error when it does not answer or
// lists no toplevels to clients, or where the Wayland window system is not built. Synthetic: a
// window system on `display`; when null, on the display of the process's screen backend if that is
// synthetic (so that the recorded screen and the window system show the same layers), else on a new
// display. Logs the choice.
Result<std::shared_ptr<UiBackend>> makeUiBackend(
    UiBackendKind kind = UiBackendKind::Automatic,
    std::shared_ptr<SyntheticDisplay> display = nullptr);

// The backend of the process (what ApplicationStateMonitor::create,
// DisplayLayoutMonitor::mainDisplayMonitor and
// frontmostApplicationBundleIdentifier use): the one set with
// setProcessUiBackend, else makeUiBackend(Automatic) made on first use.
// Thread-safe.
std::shared_ptr<UiBackend> processUiBackend();
void setProcessUiBackend(std::shared_ptr<UiBackend> backend);

}  // namespace sv
