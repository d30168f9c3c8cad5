// SVDaemonPlatform: the window system and the screen as the recording
// service uses them, chosen once at start-up so that both always agree: the
// synthetic platform (the synthetic window system on the display of the
// synthetic screen backend) or X11 (the X11 window system and screen of
// $DISPLAY).
//
// On the synthetic platform the daemon plays the phone's application
// launcher: an application whose connection the daemon accepts is launched
// (foreground, frontmost, one full-display layer) and takes the screen, the
// previous foreground application going to the background with its layers
// taken off the display; an application whose connection ends is terminated.
// The shell channel drives the rest (application states, layout levels,
// orientation, capture failures); on X11 those calls answer
// kSVShellErrorNotSynthetic, as the real window system and screen cannot be
// told what to show.
//
// Threads: every method may be called from any thread. Ownership: shared;
// the backends are the process's (processUiBackend, processScreenBackend).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/screen/screen_backend.h"
#include "platform/system/application_state.h"
#include "platform/system/display_layout.h"
#include "platform/ui/ui_backend.h"

namespace sv {

class SyntheticDisplay;
class SyntheticWindowSystem;

class SVDaemonPlatform {
  public:
    // The platform of the process's window system and screen backends.
    static std::shared_ptr<SVDaemonPlatform> processPlatform();
    static std::shared_ptr<SVDaemonPlatform> create(std::shared_ptr<UiBackend> ui,
                                                    std::shared_ptr<ScreenBackend> screen);

    bool isSynthetic() const { return windowSystem_ != nullptr; }
    std::string description() const;

    std::shared_ptr<ApplicationStateMonitor> makeApplicationStateMonitor() const;
    std::shared_ptr<DisplayLayoutMonitor> makeMainDisplayLayoutMonitor() const;
    std::optional<std::string> frontmostApplicationBundleIdentifier() const;
    // Brings what the window system reports up to date with the display
    // (UiBackend::synchronize), waiting at most `timeout`. Called before a
    // start request's foreground check: an application may ask to record the
    // moment its window appears.
    void synchronizeWindowSystem(std::chrono::milliseconds timeout) const;

    // The application of `pid` connected / went away (synthetic only).
    void applicationConnected(const std::string& bundleID, pid_t pid);
    void applicationDisconnected(const std::string& bundleID, pid_t pid);

    // The identifiers of `contextIDs` that belong to process `pid`, in order
    // and without repetitions; the others go to `dropped`.
    std::vector<uint32_t> layerContextIDsOwnedByProcess(pid_t pid,
                                                        const std::vector<uint32_t>& contextIDs,
                                                        std::vector<uint32_t>* dropped) const;
    // The synthetic window system's layers of `pid` (on the display or not);
    // an error (kSVShellErrorNotSynthetic) on a real display.
    Result<std::vector<uint32_t>> layerContextIDsForProcess(pid_t pid) const;

    // The shell channel's synthetic platform. Nothing on error.
    OptionalError setApplicationState(const std::string& bundleID, bool foreground, int32_t pid);
    OptionalError setDisplayLayoutLevels(const std::optional<std::vector<int32_t>>& levels);
    OptionalError setDisplayTransformFlags(uint32_t flags);
    // "failed", "preempted" or "reset".
    OptionalError injectScreenCaptureFailure(const std::string& failure);

  private:
    SVDaemonPlatform(std::shared_ptr<UiBackend> ui, std::shared_ptr<ScreenBackend> screen);
    OptionalError notSynthetic() const;

    std::shared_ptr<UiBackend> ui_;
    std::shared_ptr<ScreenBackend> screen_;
    // Set on the synthetic platform only.
    std::shared_ptr<SyntheticWindowSystem> windowSystem_;
    std::shared_ptr<SyntheticDisplay> display_;
};

// An error of the shell channel's domain with its message.
Error shellError(int64_t code, const std::string& message);

}  // namespace sv
