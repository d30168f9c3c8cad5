#include "platform/screen/screen_backend.h"

#include <cstdlib>
#include <mutex>

#include "platform/log.h"
#include "platform/screen/synthetic_screen.h"
#if SV_HAVE_PORTAL
#include "platform/screen/portal_screen.h"
#endif
#if SV_HAVE_XCB
#include "platform/screen/x11_screen.h"
#endif

namespace sv {

std::optional<ScreenBackendKind> parseScreenBackendKind(std::string_view text) {
    if (text == "x11") return ScreenBackendKind::X11;
    if (text == "portal") return ScreenBackendKind::Portal;
    if (text == "synthetic") return ScreenBackendKind::Synthetic;
    if (text == "auto" || text == "automatic") return ScreenBackendKind::Automatic;
    return std::nullopt;
}

Result<std::shared_ptr<ScreenBackend>> makeScreenBackend(ScreenBackendKind kind) {
    if (kind == ScreenBackendKind::Automatic) {
        if (const char* env = std::getenv("SORVEL_SCREEN_BACKEND"); env && *env) {
            if (auto parsed = parseScreenBackendKind(env))
                kind = *parsed;
            else
                log::error("Screen: unknown SORVEL_SCREEN_BACKEND \"%@\", choosing automatically",
                           env);
        }
    }
    std::shared_ptr<ScreenBackend> backend;
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (kind == ScreenBackendKind::Portal ||
        (kind == ScreenBackendKind::Automatic && wayland && *wayland)) {
#if SV_HAVE_PORTAL
        auto portal = PortalScreenBackend::connect(
            {.restoreTokenPath = PortalScreenBackend::defaultRestoreTokenPath()});
        if (portal) {
            backend = std::move(*portal);
        } else if (kind == ScreenBackendKind::Portal) {
            log::error("Screen: the portal backend cannot be used: %@", portal.error().message());
            return Error::make(kScreenErrorDomain, kScreenErrorNoPortal, portal.error().message());
        } else {
            log::info("Screen: Wayland session without a screen-cast portal (%@)",
                      portal.error().message());
        }
#else
        if (kind == ScreenBackendKind::Portal) {
            const char* why = "this build has no screen-cast portal support";
            log::error("Screen: %@", why);
            return Error::make(kScreenErrorDomain, kScreenErrorNoPortal, why);
        }
#endif
    }
    const char* display = std::getenv("DISPLAY");
    const std::string displayName = display ? display : "";
    if (!backend && (kind == ScreenBackendKind::X11 ||
                     (kind == ScreenBackendKind::Automatic && !displayName.empty()))) {
#if SV_HAVE_XCB
        // A named display is a real desktop even while its server is not up
        // yet: capture starts when it answers, and recordings fail until
        // then, rather than a synthetic display standing in for it.
        auto x11 = X11ScreenBackend::connect(displayName, {.waitForServer = true});
        if (!x11) {
            log::error("Screen: the X11 backend cannot be used: %@", x11.error().message());
            return x11.error();
        }
        backend = std::move(*x11);
#else
        if (kind == ScreenBackendKind::X11) {
            const char* why = "this build has no X11 support";
            log::error("Screen: %@", why);
            return Error::make(kScreenErrorDomain, kScreenErrorNoDisplay, why);
        }
#endif
    }
    if (!backend) backend = std::make_shared<SyntheticScreenBackend>();
    WindowSize size = backend->displaySize();
    log::info("Screen: using the %@ screen backend (%ix%i)", backend->name(), int32_t(size.width),
              int32_t(size.height));
    return backend;
}

namespace {
std::mutex gBackendMutex;
std::shared_ptr<ScreenBackend>& processBackendSlot() {
    // Never destroyed: controllers may still be in use while statics go away.
    static auto* slot = new std::shared_ptr<ScreenBackend>;
    return *slot;
}
}  // namespace

std::shared_ptr<ScreenBackend> processScreenBackend() {
    std::lock_guard lock(gBackendMutex);
    auto& slot = processBackendSlot();
    if (!slot) slot = makeScreenBackend(ScreenBackendKind::Automatic).valueOr(nullptr);
    return slot;
}

void setProcessScreenBackend(std::shared_ptr<ScreenBackend> backend) {
    std::lock_guard lock(gBackendMutex);
    processBackendSlot() = std::move(backend);
}

}  // namespace sv
