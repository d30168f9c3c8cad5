// What display layout monitors and application state monitors deliver, and
// whether every delivery came on the monitor's queue.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "platform/system/application_state.h"
#include "platform/system/display_layout.h"
#include "tests/support/test_util.h"

namespace sv::test {

inline std::vector<int32_t> levelsOf(const DisplayLayout& layout) {
    std::vector<int32_t> levels;
    for (const auto& e : layout.elements) levels.push_back(e.level);
    return levels;
}

// {bundle, frontmost, pid} of an application information dictionary.
inline std::tuple<std::string, bool, int64_t> summary(const Value& info) {
    return {stringAt(info, kApplicationInfoBundleIDKey).value_or("?"),
            boolAt(info, kApplicationInfoFrontmostKey).value_or(false),
            intAt(info, kApplicationInfoPIDKey).value_or(0)};
}
using Summary = std::tuple<std::string, bool, int64_t>;

struct LayoutRecorder : DisplayLayoutObserver, Collected<DisplayLayout> {
    std::atomic<bool> offQueue{false};

    void layoutMonitorDidUpdateDisplayLayout(DisplayLayoutMonitor& monitor,
                                             const DisplayLayout& layout,
                                             const DisplayLayoutTransitionContext&) override {
        if (!monitor.queue()->isCurrent()) offQueue = true;
        add(layout);
    }
    // Waits until the latest layout delivered satisfies `pred`.
    bool waitForLast(const std::function<bool(const DisplayLayout&)>& pred) {
        return waitForItems([&](const std::vector<DisplayLayout>& all) {
            return !all.empty() && pred(all.back());
        });
    }
    bool waitForLevels(const std::vector<int32_t>& levels) {
        return waitForLast([&](const DisplayLayout& l) { return levelsOf(l) == levels; });
    }
};

struct InfoRecorder : Collected<Value> {
    std::atomic<bool> offQueue{false};

    // Called on the monitor's queue; the recorder must outlive the monitor's
    // use of the handler.
    ApplicationStateMonitor::ChangeHandler handler(
        const std::shared_ptr<ApplicationStateMonitor>& m) {
        std::weak_ptr<ApplicationStateMonitor> weak = m;
        return [this, weak](const Value& info) {
            auto monitor = weak.lock();
            if (!monitor || !monitor->queue()->isCurrent()) offQueue = true;
            add(info);
        };
    }
};

}  // namespace sv::test
