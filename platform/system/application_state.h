// The application-state monitor and the frontmost application.
//
// Applications are named by bundle identifier. The state value of an
// application is a bit set (kApplicationState*); kApplicationStateForeground
// (value 8) is set while the application shows something on the screen.
// Information about an application, delivered for requests and to the change
// handler, is a dictionary:
//   kApplicationInfoBundleIDKey   text    the bundle identifier
//   kApplicationInfoPIDKey        int     its process identifier; the last one
//                                         known after it ended, -1 when none
//                                         was ever known
//   kApplicationInfoFrontmostKey  bool    it owns the active window / layer
//   kApplicationInfoStateKey      int     its state value
//
// Threads: applicationStateForApplication() is synchronous and may be called
// from any thread. Replies to information requests and the change handler run
// on the monitor's own serial queue (queue()). For one state change the
// handler first receives the applications that lost frontmost or foreground
// status, then those that gained it, so that a follower of the frontmost
// application never ends on a stale one.
// Lifetime: a monitor keeps its backend alive.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/dispatch.h"
#include "platform/value.h"

namespace sv {

// State value bits.
inline constexpr uint32_t kApplicationStateNotRunning = 0;
// A process of the application is known to the window system.
inline constexpr uint32_t kApplicationStateRunning = 1u << 1;
// The application shows something on the screen (a layer on the display, a
// mapped and viewable top-level window).
inline constexpr uint32_t kApplicationStateForeground = 1u << 3;
// The application owns the active window / the frontmost layer.
inline constexpr uint32_t kApplicationStateFrontmost = 1u << 4;

inline constexpr const char* kApplicationInfoBundleIDKey = "SVApplicationBundleIdentifier";
inline constexpr const char* kApplicationInfoPIDKey = "SVApplicationProcessIdentifier";
inline constexpr const char* kApplicationInfoFrontmostKey = "SVApplicationIsFrontmost";
inline constexpr const char* kApplicationInfoStateKey = "SVApplicationState";

// What the window system knows about one application at one moment.
struct ApplicationState {
    std::string bundleIdentifier;
    int32_t pid = -1;
    uint32_t state = kApplicationStateNotRunning;

    bool isForeground() const { return (state & kApplicationStateForeground) != 0; }
    bool isFrontmost() const { return (state & kApplicationStateFrontmost) != 0; }
    // The information dictionary described above.
    Value toInfo() const;
    friend bool operator==(const ApplicationState&, const ApplicationState&) = default;
};

class ApplicationStateMonitor : public std::enable_shared_from_this<ApplicationStateMonitor> {
  public:
    using InfoHandler = std::function<void(Value info)>;
    using ChangeHandler = std::function<void(const Value& info)>;

    // A new monitor of the process's window system (platform/ui/ui_backend.h).
    static std::shared_ptr<ApplicationStateMonitor> create();

    virtual ~ApplicationStateMonitor();
    ApplicationStateMonitor(const ApplicationStateMonitor&) = delete;
    ApplicationStateMonitor& operator=(const ApplicationStateMonitor&) = delete;

    // The state value of `bundleID` now; kApplicationStateNotRunning for an
    // unknown application or after invalidate().
    uint32_t applicationStateForApplication(const std::string& bundleID) const;
    // Calls `handler` once, on queue(), with the information dictionary of
    // `bundleID` as it is when the request is served (an unknown application
    // gets pid -1 and state 0; so does every request after invalidate()).
    void applicationInfoForApplication(const std::string& bundleID, InfoHandler handler);
    // Replaces the change handler (nullptr removes it). After this returns, no
    // call of the previous handler begins; one already running may finish.
    void setChangeHandler(ChangeHandler handler);
    bool hasChangeHandler() const;

    // No further change deliveries; pending information requests are still
    // answered (with empty information). Idempotent.
    void invalidate();
    bool isValid() const;

    const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

  protected:
    ApplicationStateMonitor();
    // The backend's current view of `bundleID` (pid -1 and state 0 when it
    // knows nothing). Any thread.
    virtual ApplicationState stateOfApplication(const std::string& bundleID) const = 0;
    // Backends call this with each changed application, in the order described
    // above; it is handed to the change handler on queue().
    void applicationStateDidChange(const ApplicationState& state);
    // Called once by invalidate(), without the monitor's lock.
    virtual void didInvalidate() {}

  private:
    std::shared_ptr<DispatchQueue> queue_;
    mutable std::mutex mutex_;
    bool valid_ = true;
    // Replaced, never mutated, so a delivery can hold the one it started with.
    std::shared_ptr<const ChangeHandler> handler_;
};

// The bundle identifier of the frontmost application of the process's window
// system, or nullopt when there is none or its process lies in no bundle.
// Synchronous, any thread.
std::optional<std::string> frontmostApplicationBundleIdentifier();

}  // namespace sv
