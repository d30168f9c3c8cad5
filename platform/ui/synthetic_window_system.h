// The synthetic window system: applications on a SyntheticDisplay, driven by
// the client library (an application that starts becomes foreground and
// frontmost with one layer) and by the shell channel (foreground/background,
// layout override). It is the UiBackend of a synthetic process and shares
// its display with the synthetic screen backend, so what is recorded and what
// the foreground tracking sees are the same layers.
//
// Applications are named by bundle identifier and have a process
// identifier, a foreground flag and frontmost status; at most one is
// frontmost. An application's layers are on the display while it is in the
// foreground and taken off (remembered, same context identifiers) while it is
// in the background.
//
// The layout is one element per layer of the display, bottom to top, with the
// layer's level (identifier = context identifier, owner pid and bundle), unless
// an explicit list of levels overrides it (setLayoutLevels).
//
// Threads: every method may be called from any thread. Each monitor calls its
// handlers and observers on its own serial queue (ApplicationStateMonitor::
// queue(), DisplayLayoutMonitor::queue()). State changes reach application-
// state monitors in the order they were made; layouts are recomputed on the
// window system's own serial queue whenever the display's layers or the
// override change, and reach layout monitors in that order.
// Lifetime: create() only; monitors keep the window system alive.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/system/application_state.h"
#include "platform/system/display_layout.h"
#include "platform/ui/ui_backend.h"

namespace sv {

class SyntheticDisplay;

// Bounds on what the shell channel can make the window system hold.
inline constexpr size_t kSyntheticMaxApplications = 1024;
inline constexpr size_t kSyntheticMaxLayoutElements = 256;
inline constexpr size_t kSyntheticMaxBundleIDBytes = 255;

class SyntheticWindowSystem : public UiBackend,
                              public std::enable_shared_from_this<SyntheticWindowSystem> {
  public:
    static std::shared_ptr<SyntheticWindowSystem> create(std::shared_ptr<SyntheticDisplay> display);
    ~SyntheticWindowSystem() override;

    const std::shared_ptr<SyntheticDisplay>& display() const { return display_; }

    // Makes `bundleID` (process `pid`) foreground and frontmost with its
    // layers on top of the display, and returns their context identifiers.
    // A new application, or one whose process changed, gets one full-display
    // layer at kDisplayLayoutLevelNormal with a new context identifier; a
    // known one keeps its layers. Other applications keep their foreground
    // flag (their layers stay, covered). Empty on invalid arguments (empty or
    // over-long bundle identifier, pid <= 0) or when kSyntheticMaxApplications
    // are known already.
    std::vector<uint32_t> launchApplication(const std::string& bundleID, int32_t pid);
    // Foreground: shows the application's layers on top and makes it
    // frontmost (registering it, without layers, if it is unknown).
    // Background: takes its layers off the display and clears its foreground
    // and frontmost status; the foreground application activated last becomes
    // frontmost. `pid` > 0 sets the application's process (a different process
    // than before drops the old process's layers); pid <= 0 keeps it. False on
    // invalid arguments, for an unknown application without a pid, or when
    // kSyntheticMaxApplications are known already.
    bool setForeground(const std::string& bundleID, bool foreground, int32_t pid);
    // Forgets the application and removes its layers. False when unknown.
    bool terminate(const std::string& bundleID);

    // Context identifiers of an application's layers / of a process's layers,
    // whether on the display or not.
    std::vector<uint32_t> layerContextIDs(const std::string& bundleID) const;
    std::vector<uint32_t> layerContextIDsForProcess(int32_t pid) const;
    // Nullopt for an unknown application.
    std::optional<ApplicationState> applicationState(const std::string& bundleID) const;
    std::vector<ApplicationState> applications() const;

    // Replaces the layout with one element per level (bottom to top) until
    // called with nullopt. False (and nothing changes) for more than
    // kSyntheticMaxLayoutElements levels.
    bool setLayoutLevels(std::optional<std::vector<int32_t>> levels);
    std::optional<std::vector<int32_t>> layoutLevels() const;
    DisplayLayout currentLayout() const;

    // UiBackend
    std::string name() const override { return "synthetic"; }
    std::shared_ptr<ApplicationStateMonitor> makeApplicationStateMonitor() override;
    std::shared_ptr<DisplayLayoutMonitor> makeMainDisplayLayoutMonitor() override;
    std::optional<std::string> frontmostApplicationBundleIdentifier() override;

    class StateMonitor;
    class LayoutMonitor;

  private:
    explicit SyntheticWindowSystem(std::shared_ptr<SyntheticDisplay> display);

    struct App {
        int32_t pid = -1;
        bool foreground = false;
        uint64_t activation = 0;  // order of the last activation; the latest one is frontmost
        std::vector<uint32_t> layers;
    };

    // The bundle identifier of the frontmost application, or null.
    const std::string* frontmostLocked() const;
    ApplicationState stateOf(const std::string& bundleID, const App& app,
                             const std::string* frontmost) const;
    ApplicationState stateLocked(const std::string& bundleID) const;
    std::map<std::string, ApplicationState> affectedLocked(const std::string& bundleID) const;
    // Reports every application whose state differs from `before` (what
    // affectedLocked gave before a change of `bundleID`), losers first.
    // Called with mutex_ held, so reports keep the order of changes.
    void reportChangesLocked(const std::string& bundleID,
                             const std::map<std::string, ApplicationState>& before);
    void showLayersLocked(App& app, const std::string& bundleID);
    void hideLayersLocked(const App& app);
    void scheduleLayoutUpdate();
    DisplayLayout computeLayout() const;

    std::shared_ptr<SyntheticDisplay> display_;
    std::shared_ptr<DispatchQueue> layoutQueue_;
    uint64_t layersObserverToken_ = 0;

    mutable std::mutex mutex_;  // applications and state monitors
    std::map<std::string, App> apps_;
    uint64_t activationCounter_ = 0;
    std::vector<std::weak_ptr<StateMonitor>> stateMonitors_;

    mutable std::mutex layoutMutex_;  // override and layout monitors
    std::optional<std::vector<int32_t>> layoutOverride_;
    std::vector<std::weak_ptr<LayoutMonitor>> layoutMonitors_;
};

}  // namespace sv
