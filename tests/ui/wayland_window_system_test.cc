// The Wayland window system against a private headless sway: toplevels that a
// small xdg-shell client shows with known app_ids become the frontmost
// application as the compositor activates them, and a compositor that goes
// away leaves nothing foreground.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

#include "platform/screen/testing/wayland_desktop.h"
#include "platform/ui/wayland_window_system.h"
#include "tests/process/process_helpers.h"
#include "tests/screen/wayland_test_desktop.h"
#include "tests/ui/recorders.h"

namespace sv {
namespace {

using namespace std::chrono_literals;
using testing::WaylandDesktop;

// The first toplevel is frontmost; a second one, focused as it maps, takes
// that from it; the user focusing the first gives it back; the second closing
// ends it; a window of an odd app_id names nothing; the compositor dying
// leaves nothing. What the window system reports and what a monitor
// is told agree.
TEST(WaylandWindowSystemTest, TheActivatedToplevelsAppIDIsFrontmostAsFocusMoves) {
    std::unique_ptr<WaylandDesktop> desktop;
    ASSERT_NO_FATAL_FAILURE(test::startWaylandDesktop(desktop));
    if (IsSkipped()) return;
    test::InfoRecorder infos;  // outlives the monitor's deliveries
    auto connected = WaylandWindowSystem::connect(desktop->waylandDisplay());
    ASSERT_TRUE(connected) << connected.error().message() << desktop->logs();
    auto system = *connected;
    EXPECT_EQ(system->frontmostApplicationBundleIdentifier(), std::nullopt);
    auto monitor = system->makeApplicationStateMonitor();
    monitor->setChangeHandler(infos.handler(monitor));

    auto frontmostIs = [&](std::optional<std::string> name) {
        return test::eventually(
            [&] {
                system->synchronize(1s);
                return system->frontmostApplicationBundleIdentifier() == name;
            },
            20s);
    };
    const std::string first = "wayland:org.example.First", second = "wayland:org.example.Second";
    auto one = desktop->showWindow("org.example.First");
    ASSERT_TRUE(one) << desktop->logs();
    ASSERT_TRUE(frontmostIs(first));
    EXPECT_EQ(system->applicationState(first).state,
              kApplicationStateRunning | kApplicationStateForeground | kApplicationStateFrontmost);
    EXPECT_EQ(system->applicationState(first).pid, -1);
    EXPECT_EQ(system->currentLayout().elementCount(), 1u);

    auto two = desktop->showWindow("org.example.Second");
    ASSERT_TRUE(two) << desktop->logs();
    ASSERT_TRUE(frontmostIs(second));
    EXPECT_EQ(system->applicationState(first).state,
              kApplicationStateRunning | kApplicationStateForeground);
    const auto layout = system->currentLayout();
    ASSERT_EQ(layout.elementCount(), 2u);
    EXPECT_EQ(layout.elements.back().bundleIdentifier, second);  // the activated one on top

    // The user focusing the first again (as a click would).
    ASSERT_TRUE(desktop->swaymsg("[app_id=\"org.example.First\"] focus")) << desktop->logs();
    ASSERT_TRUE(frontmostIs(first));
    EXPECT_EQ(system->applicationState(second).state,
              kApplicationStateRunning | kApplicationStateForeground);

    two.reset();
    EXPECT_TRUE(test::eventually([&] {
        system->synchronize(1s);
        return system->applicationState(second).state == kApplicationStateNotRunning;
    }));
    EXPECT_EQ(system->frontmostApplicationBundleIdentifier(), first);
    // The monitor heard each move: the first lost the front and got it
    // back; the second had it and is gone.
    auto frontmostFlags = [](const std::vector<Value>& all, const std::string& name) {
        std::vector<bool> flags;
        for (const auto& info : all)
            if (stringAt(info, kApplicationInfoBundleIDKey) == name)
                flags.push_back(boolAt(info, kApplicationInfoFrontmostKey).value_or(false));
        return flags;
    };
    auto heard = [&](const std::vector<Value>& all) {
        auto a = frontmostFlags(all, first), b = frontmostFlags(all, second);
        return std::find(a.begin(), a.end(), false) != a.end() && a.back() &&
               std::find(b.begin(), b.end(), true) != b.end() && !b.back();
    };
    EXPECT_TRUE(infos.waitForItems(heard)) << infos.size() << " changes";
    EXPECT_FALSE(infos.offQueue);

    // An app_id that cannot name an application (a space, a slash) names
    // none: the window counts in the layout, and nothing is frontmost.
    auto odd = desktop->showWindow("org.example.First /x");
    ASSERT_TRUE(odd) << desktop->logs();
    ASSERT_TRUE(frontmostIs(std::nullopt));
    EXPECT_EQ(system->applications().size(), 1u);
    ASSERT_EQ(system->currentLayout().elementCount(), 2u);
    EXPECT_EQ(system->currentLayout().elements.back().bundleIdentifier, "");

    ASSERT_TRUE(desktop->killCompositor());
    EXPECT_TRUE(frontmostIs(std::nullopt));
    EXPECT_TRUE(test::eventually([&] { return !system->isConnected(); }));
    EXPECT_TRUE(system->applications().empty());
    EXPECT_EQ(system->currentLayout().elementCount(), 0u);
    monitor->invalidate();
    monitor->queue()->sync([] {});
}

}  // namespace
}  // namespace sv
