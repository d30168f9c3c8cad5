// The source of screen pixels behind screen capture controllers and the
// display mirroring service. Three backends exist: X11 (xcb with MIT-SHM,
// Composite, RandR and XFixes), the desktop portal's screen cast on Wayland
// (platform/screen/portal_screen.h) and a synthetic one that draws
// deterministic, stamped frames and needs no display
// (platform/screen/synthetic_screen.h).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/geometry.h"
#include "platform/media_time.h"
#include "platform/screen/display_mirroring.h"
#include "platform/screen/screen_capture.h"

namespace sv {

// Errors of choosing and connecting a screen backend.
inline constexpr const char* kScreenErrorDomain = "org.sorvel.ScreenErrorDomain";
enum ScreenErrorCode : int64_t {
    kScreenErrorNoDisplay = 1,          // no X display named, or the build has no X11 support
    kScreenErrorCannotConnect = 2,      // the X server cannot be reached or does not answer
    kScreenErrorUnsupportedServer = 3,  // no such screen, or pixels that are not 32-bit BGRX
    kScreenErrorNoPortal = 4,           // no screen-cast portal, or the build has no support
};

class ScreenBackend {
  public:
    virtual ~ScreenBackend() = default;
    virtual std::string name() const = 0;

    // A new, stopped controller that captures what mirroringService() says.
    // The controller keeps what it needs of the backend alive.
    virtual std::shared_ptr<ScreenCaptureController> makeCaptureController(
        WindowSize frameSize, MediaTime minimumFrameInterval) = 0;
    virtual std::shared_ptr<DisplayMirroringService> mirroringService() = 0;
    // The display's size in pixels in its current orientation.
    virtual WindowSize displaySize() const = 0;
    // False for a phone's panel: it has a native orientation of its own
    // (small panels portrait, large ones landscape) that a whole-display
    // recording keeps however the device is held, its frames carrying the
    // turn as transform flags; and some application is always in front of
    // it. True for a desktop display: recorded the way it is shown (the movie
    // has the display's own size and needs no turn), possibly with no
    // application in front (a bare desktop, a terminal of no bundle).
    virtual bool isDesktop() const { return false; }
};

enum class ScreenBackendKind { Automatic, X11, Portal, Synthetic };

// "x11", "portal", "synthetic", "auto"/"automatic"; nullopt for anything else.
std::optional<ScreenBackendKind> parseScreenBackendKind(std::string_view text);

// Automatic: SORVEL_SCREEN_BACKEND (x11|portal|synthetic) when set,
// otherwise the portal when $WAYLAND_DISPLAY is set and a screen-cast portal
// answers on the session bus, otherwise X11 when $DISPLAY names a display,
// otherwise synthetic. Portal: an error (kScreenErrorNoPortal) when no
// screen-cast portal answers; the restore token is kept at
// PortalScreenBackend::defaultRestoreTokenPath(). X11: the server named
// by $DISPLAY, used once it answers (X11ScreenBackend::Options::
// waitForServer); an error (kScreenErrorDomain) when no display is named or
// the build has no X11 support. Logs the choice.
Result<std::shared_ptr<ScreenBackend>> makeScreenBackend(
    ScreenBackendKind kind = ScreenBackendKind::Automatic);

// The backend of the process (what recording sessions use): the one set with
// setProcessScreenBackend, else makeScreenBackend(Automatic) made on first
// use. Thread-safe.
std::shared_ptr<ScreenBackend> processScreenBackend();
void setProcessScreenBackend(std::shared_ptr<ScreenBackend> backend);

}  // namespace sv
