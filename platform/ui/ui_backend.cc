#include "platform/ui/ui_backend.h"

#include <cstdlib>
#include <mutex>

#include "platform/log.h"
#include "platform/screen/synthetic_screen.h"
#include "platform/system/application_state.h"
#include "platform/system/display_layout.h"
#include "platform/ui/synthetic_window_system.h"
#include "platform/ui/x11_window_system.h"
#if defined(SV_HAVE_WAYLAND_UI)
#include "platform/ui/wayland_window_system.h"
#endif

namespace sv {

std::optional<UiBackendKind> parseUiBackendKind(std::string_view text) {
    if (text == "x11") return UiBackendKind::X11;
    if (text == "synthetic") return UiBackendKind::Synthetic;
    if (text == "auto" || text == "automatic") return UiBackendKind::Automatic;
    return std::nullopt;
}

Result<std::shared_ptr<UiBackend>> makeUiBackend(UiBackendKind kind,
                                                 std::shared_ptr<SyntheticDisplay> display) {
    if (kind == UiBackendKind::Automatic) {
        if (const char* env = std::getenv("SORVEL_SCREEN_BACKEND"); env && *env) {
            if (auto parsed = parseUiBackendKind(env))
                kind = *parsed;
            else
                log::error("UI: unknown SORVEL_SCREEN_BACKEND \"%@\", choosing automatically", env);
        }
    }
    if (kind == UiBackendKind::Automatic) {
        // A named display is a real desktop even while its server is not up
        // yet (a service started before the session's X server): tracking
        // starts when it answers, rather than a synthetic display standing
        // in for it.
        const char* d = std::getenv("DISPLAY");
        kind = d && *d ? UiBackendKind::X11 : UiBackendKind::Synthetic;
    }
    std::shared_ptr<UiBackend> backend;
    if (kind == UiBackendKind::X11) {
        auto x11 = X11WindowSystem::connect({}, /*waitForServer=*/true);
        if (!x11) {
            log::error("UI: cannot use the X11 window system: %@", x11.error().message());
            return x11.error();
        }
        backend = std::move(*x11);
    } else if (kind == UiBackendKind::Wayland) {
#if defined(SV_HAVE_WAYLAND_UI)
        auto wayland = WaylandWindowSystem::connect();
        if (!wayland) return wayland.error();
        backend = std::move(*wayland);
#else
        return Error::make(kUIErrorDomain, kUIErrorSetupFailed,
                           "this build has no Wayland window system");
#endif
    } else {
        if (!display) {
            // The process's screen backend follows the same choice, so in a
            // synthetic process it is the synthetic screen and its display.
            if (auto screen =
                    std::dynamic_pointer_cast<SyntheticScreenBackend>(processScreenBackend()))
                display = screen->display();
        }
        backend =
            SyntheticWindowSystem::create(display ? display : std::make_shared<SyntheticDisplay>());
    }
    log::info("UI: using the %@ window system", backend->name());
    return backend;
}

namespace {
std::mutex gBackendMutex;
std::shared_ptr<UiBackend>& processBackendSlot() {
    static auto* slot = new std::shared_ptr<UiBackend>;
    return *slot;
}
}  // namespace

std::shared_ptr<UiBackend> processUiBackend() {
    std::lock_guard lock(gBackendMutex);
    auto& slot = processBackendSlot();
    if (!slot) {
        slot = makeUiBackend(UiBackendKind::Automatic).valueOr(nullptr);
        // The server went away between the check and the connection: the
        // window system without a server is the synthetic one.
        if (!slot) slot = makeUiBackend(UiBackendKind::Synthetic).valueOr(nullptr);
    }
    return slot;
}

void setProcessUiBackend(std::shared_ptr<UiBackend> backend) {
    std::lock_guard lock(gBackendMutex);
    processBackendSlot() = std::move(backend);
}

// The services' entry points that go through the process's window system.

std::shared_ptr<ApplicationStateMonitor> ApplicationStateMonitor::create() {
    return processUiBackend()->makeApplicationStateMonitor();
}

std::shared_ptr<DisplayLayoutMonitor> DisplayLayoutMonitor::mainDisplayMonitor() {
    return processUiBackend()->makeMainDisplayLayoutMonitor();
}

std::optional<std::string> frontmostApplicationBundleIdentifier() {
    return processUiBackend()->frontmostApplicationBundleIdentifier();
}

}  // namespace sv
