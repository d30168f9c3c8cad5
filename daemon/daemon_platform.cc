#include "daemon/daemon_platform.h"

#include <algorithm>

#include "platform/log.h"
#include "platform/screen/synthetic_screen.h"
#include "platform/ui/synthetic_window_system.h"
#include "protocol/recording_protocol.h"

namespace sv {

Error shellError(int64_t code, const std::string& message) {
    Error e;
    e.domain = kSVShellErrorDomain;
    e.code = code;
    e.userInfo[kLocalizedDescriptionKey] = message;
    return e;
}

std::shared_ptr<SVDaemonPlatform> SVDaemonPlatform::processPlatform() {
    return create(processUiBackend(), processScreenBackend());
}

std::shared_ptr<SVDaemonPlatform> SVDaemonPlatform::create(std::shared_ptr<UiBackend> ui,
                                                           std::shared_ptr<ScreenBackend> screen) {
    return std::shared_ptr<SVDaemonPlatform>(
        new SVDaemonPlatform(std::move(ui), std::move(screen)));
}

SVDaemonPlatform::SVDaemonPlatform(std::shared_ptr<UiBackend> ui,
                                   std::shared_ptr<ScreenBackend> screen)
    : ui_(std::move(ui)), screen_(std::move(screen)) {
    auto windowSystem = std::dynamic_pointer_cast<SyntheticWindowSystem>(ui_);
    auto syntheticScreen = std::dynamic_pointer_cast<SyntheticScreenBackend>(screen_);
    if (windowSystem && syntheticScreen) {
        if (windowSystem->display() != syntheticScreen->display())
            log::error(
                "SVDaemonPlatform: the window system and the screen show different "
                "synthetic displays; the screen's layers are not the applications'");
        windowSystem_ = std::move(windowSystem);
        display_ = windowSystem_->display();
        // A phone shows one application at a time.
        windowSystem_->setSingleForegroundApplication(true);
    } else if (windowSystem || syntheticScreen) {
        log::error(
            "SVDaemonPlatform: the %@ window system and the %@ screen do not belong "
            "together; the synthetic platform's shell calls are refused",
            ui_ ? ui_->name() : std::string("(null)"),
            screen_ ? screen_->name() : std::string("(null)"));
    }
}

std::string SVDaemonPlatform::description() const {
    return std::string(isSynthetic() ? "synthetic platform" : "real display") + " (window system " +
           (ui_ ? ui_->name() : "none") + ", screen " + (screen_ ? screen_->name() : "none") + ")";
}

std::shared_ptr<ApplicationStateMonitor> SVDaemonPlatform::makeApplicationStateMonitor() const {
    return ui_->makeApplicationStateMonitor();
}

std::shared_ptr<DisplayLayoutMonitor> SVDaemonPlatform::makeMainDisplayLayoutMonitor() const {
    return ui_->makeMainDisplayLayoutMonitor();
}

std::optional<std::string> SVDaemonPlatform::frontmostApplicationBundleIdentifier() const {
    return ui_->frontmostApplicationBundleIdentifier();
}

void SVDaemonPlatform::synchronizeWindowSystem(std::chrono::milliseconds timeout) const {
    if (!ui_->synchronize(timeout))
        log::error("SVRecordingManager: the window system did not catch up within %li ms",
                   int64_t(timeout.count()));
}

void SVDaemonPlatform::applicationConnected(const std::string& bundleID, pid_t pid) {
    if (!windowSystem_ || bundleID.empty()) return;
    windowSystem_->launchApplication(bundleID, int32_t(pid));
}

void SVDaemonPlatform::applicationDisconnected(const std::string& bundleID, pid_t pid) {
    if (!windowSystem_ || bundleID.empty()) return;
    // A newer process of the same application keeps running.
    auto state = windowSystem_->applicationState(bundleID);
    if (state && state->pid == int32_t(pid)) windowSystem_->terminate(bundleID);
}

std::vector<uint32_t> SVDaemonPlatform::layerContextIDsOwnedByProcess(
    pid_t pid, const std::vector<uint32_t>& contextIDs, std::vector<uint32_t>* dropped) const {
    std::vector<uint32_t> own;
    for (uint32_t id : contextIDs) {
        if (std::find(own.begin(), own.end(), id) != own.end()) continue;
        auto owner = pid > 0 ? ui_->processOwningLayerContext(id) : std::nullopt;
        if (owner && *owner == int32_t(pid))
            own.push_back(id);
        else if (dropped)
            dropped->push_back(id);
    }
    return own;
}

OptionalError SVDaemonPlatform::notSynthetic() const {
    return shellError(kSVShellErrorNotSynthetic,
                      "The daemon records a real display (" + description() +
                          "); only the synthetic platform takes this call.");
}

Result<std::vector<uint32_t>> SVDaemonPlatform::layerContextIDsForProcess(pid_t pid) const {
    if (!windowSystem_) return *notSynthetic();
    return windowSystem_->layerContextIDsForProcess(int32_t(pid));
}

OptionalError SVDaemonPlatform::setApplicationState(const std::string& bundleID, bool foreground,
                                                    int32_t pid) {
    if (!windowSystem_) return notSynthetic();
    if (bundleID.empty() || bundleID.size() > kSyntheticMaxBundleIDBytes || pid < 0)
        return shellError(kSVShellErrorInvalidArgument,
                          "An application state needs a bundle identifier of 1 to 255 bytes and "
                          "a process identifier of 0 (keep) or more.");
    if (!windowSystem_->setForeground(bundleID, foreground, pid))
        return shellError(kSVShellErrorInvalidArgument,
                          "Unknown application (name its process) or too many applications.");
    return std::nullopt;
}

OptionalError SVDaemonPlatform::setDisplayLayoutLevels(
    const std::optional<std::vector<int32_t>>& levels) {
    if (!windowSystem_) return notSynthetic();
    if (!windowSystem_->setLayoutLevels(levels))
        return shellError(
            kSVShellErrorInvalidArgument,
            "A layout has at most " + std::to_string(kSyntheticMaxLayoutElements) + " elements.");
    return std::nullopt;
}

OptionalError SVDaemonPlatform::setDisplayTransformFlags(uint32_t flags) {
    if (!windowSystem_) return notSynthetic();
    if (flags & ~uint32_t(kScreenTransformFlipY | kScreenTransformFlipX | kScreenTransformRotate))
        return shellError(kSVShellErrorInvalidArgument,
                          "Transform flags are 1 (flip y), 2 (flip x) and 4 (quarter turn).");
    display_->setTransformFlags(flags);
    return std::nullopt;
}

OptionalError SVDaemonPlatform::injectScreenCaptureFailure(const std::string& failure) {
    if (!windowSystem_) return notSynthetic();
    if (failure == "failed")
        display_->injectFailure(SyntheticScreenFailure::Failed);
    else if (failure == "preempted")
        display_->injectFailure(SyntheticScreenFailure::Preempted);
    else if (failure == "reset")
        display_->injectFailure(SyntheticScreenFailure::MediaServicesReset);
    else
        return shellError(kSVShellErrorInvalidArgument,
                          "A capture failure is \"failed\", \"preempted\" or \"reset\".");
    return std::nullopt;
}

}  // namespace sv
