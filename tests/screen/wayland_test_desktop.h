// A private Wayland desktop for one test. Where sway or the desktop portal is
// not installed, or the desktop cannot start here, the test is skipped,
// except under CI=true where it fails: CI installs the whole stack.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/screen/testing/wayland_desktop.h"

namespace sv::test {

// Call it through ASSERT_NO_FATAL_FAILURE, then return when IsSkipped().
inline void startWaylandDesktop(std::unique_ptr<sv::testing::WaylandDesktop>& desktop,
                                sv::testing::WaylandDesktop::Options options = {}) {
    const char* ci = std::getenv("CI");
    const bool inCI = ci && std::string(ci) == "true";
    if (!sv::testing::WaylandDesktop::available()) {
        if (inCI) FAIL() << "sway or the desktop portal is missing (scripts/install-deps.sh)";
        GTEST_SKIP() << "sway or the desktop portal is not installed (scripts/install-deps.sh)";
    }
    auto started = sv::testing::WaylandDesktop::start(options);
    if (!started && !inCI)
        GTEST_SKIP() << "no private Wayland desktop here: " << started.error().message();
    ASSERT_TRUE(started) << started.error().message();
    desktop = std::move(*started);
}

}  // namespace sv::test
