// The display-layout monitor of the main display: what the screen shows, as
// an ordered list of elements, each with an integer level, and observers
// told of every new layout.
//
// The level scale is shared by every backend (the synthetic window system,
// the X11 window system, SyntheticLayer::level). Its one threshold is
// kDisplayLayoutSharedLevel: an element below it is content that takes the
// screen (an application's window), one at or above it is something that
// shares the screen for a while without taking it from the application
// underneath (a dialog, a notification, a menu). The recording service ends a
// recording when a layout of two or more elements holds nothing at or above
// the threshold (several applications, no overlay) and never for a layout of
// exactly one element; the backends' mappings are chosen for that reading
// and documented with them (platform/ui/x11_window_system.h).
//
// Threads: currentLayout(), addObserver(), removeObserver() and invalidate()
// may be called from any thread. Observers are called on the monitor's own
// serial queue (queue()), one layout at a time, in the order the layouts
// arose; a layout equal to the previous one is never delivered.
// Lifetime: observers are held weakly; a monitor keeps its backend alive.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch.h"

namespace sv {

// Windows kept below the others.
inline constexpr int32_t kDisplayLayoutLevelBelow = 0;
// Ordinary application windows and anything else that takes the screen.
inline constexpr int32_t kDisplayLayoutLevelNormal = 1;
// Elements at this level or above share the screen without taking it.
inline constexpr int32_t kDisplayLayoutSharedLevel = 2;
// Dialogs and modal windows.
inline constexpr int32_t kDisplayLayoutLevelDialog = 2;
// Windows kept above the others.
inline constexpr int32_t kDisplayLayoutLevelAbove = 3;
// Notifications.
inline constexpr int32_t kDisplayLayoutLevelNotification = 4;
// Menus, tooltips and other short-lived popups.
inline constexpr int32_t kDisplayLayoutLevelPopup = 5;

struct DisplayLayoutElement {
    int32_t level = kDisplayLayoutLevelNormal;
    // The backend's identifier of what the element stands for: a layer
    // context identifier (synthetic) or a window (X11); 0 when none.
    uint32_t identifier = 0;
    // Owning process and application, when known (-1 / empty otherwise).
    int32_t pid = -1;
    std::string bundleIdentifier;

    std::string description() const;
    friend bool operator==(const DisplayLayoutElement&, const DisplayLayoutElement&) = default;
};

struct DisplayLayout {
    // Bottom to top.
    std::vector<DisplayLayoutElement> elements;

    size_t elementCount() const { return elements.size(); }
    // Number of elements below kDisplayLayoutSharedLevel.
    size_t countBelowSharedLevel() const;
    std::string description() const;
    friend bool operator==(const DisplayLayout&, const DisplayLayout&) = default;
};

// Delivered with each layout; the recording service ignores it.
struct DisplayLayoutTransitionContext {
    uint64_t generation = 0;  // 1 for the first layout delivered by a monitor, then counting
};

class DisplayLayoutMonitor;

class DisplayLayoutObserver {
  public:
    virtual ~DisplayLayoutObserver() = default;
    // On the monitor's queue.
    virtual void layoutMonitorDidUpdateDisplayLayout(
        DisplayLayoutMonitor& monitor, const DisplayLayout& layout,
        const DisplayLayoutTransitionContext& context) = 0;
};

class DisplayLayoutMonitor : public std::enable_shared_from_this<DisplayLayoutMonitor> {
  public:
    // A new monitor of the main display of the process's window system
    // (platform/ui/ui_backend.h). Never null; when the window system is gone
    // the monitor reports an empty layout and never updates.
    static std::shared_ptr<DisplayLayoutMonitor> mainDisplayMonitor();

    virtual ~DisplayLayoutMonitor();
    DisplayLayoutMonitor(const DisplayLayoutMonitor&) = delete;
    DisplayLayoutMonitor& operator=(const DisplayLayoutMonitor&) = delete;

    // What the display shows now (as far as the backend knows: the X11
    // backend's view trails the server by the time it takes to read events);
    // empty after invalidate().
    virtual DisplayLayout currentLayout() const;

    // Adds `observer` (held weakly); adding it again changes nothing.
    void addObserver(const std::shared_ptr<DisplayLayoutObserver>& observer);
    // After this returns no delivery to `observer` begins; one already running
    // on the queue may still finish.
    void removeObserver(const DisplayLayoutObserver* observer);
    size_t observerCount() const;

    // Stops the monitor for good: no observer is called any more, the
    // backend's resources are released. Idempotent.
    void invalidate();
    bool isValid() const;

    const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

  protected:
    // `initial` is the layout at creation; updates equal to it are dropped.
    explicit DisplayLayoutMonitor(DisplayLayout initial);
    // Backends call this (from one thread or serial queue at a time) with the
    // newest layout; unchanged layouts are dropped.
    void updateLayout(DisplayLayout layout);
    // Called once by invalidate() (or not at all), without the monitor's
    // lock; backends detach from their window system here.
    virtual void didInvalidate() {}

  private:
    void deliver(const DisplayLayout& layout, uint64_t generation);

    std::shared_ptr<DispatchQueue> queue_;
    mutable std::mutex mutex_;
    DisplayLayout current_;
    uint64_t generation_ = 0;
    bool valid_ = true;
    struct ObserverEntry {
        const DisplayLayoutObserver* key;
        std::weak_ptr<DisplayLayoutObserver> observer;
    };
    std::vector<ObserverEntry> observers_;
};

}  // namespace sv
