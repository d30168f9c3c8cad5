// The synthetic window system on a synthetic display: applications launched
// and sent back and forth, the change handler and layout observers on their
// queues, the layout override, the process's backend choice.
#include <thread>

#include <gtest/gtest.h>

#include "platform/screen/synthetic_screen.h"
#include "platform/ui/synthetic_window_system.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"
#include "tests/ui/recorders.h"

using namespace sv;
using namespace std::chrono_literals;

namespace {

using test::InfoRecorder;
using test::LayoutRecorder;
using test::levelsOf;
using test::summary;
using S = test::Summary;

class SyntheticWindowSystemTest : public ::testing::Test {
  protected:
    std::shared_ptr<SyntheticDisplay> display_ =
        std::make_shared<SyntheticDisplay>(SyntheticDisplay::Options{1600, 900, 0});
    std::shared_ptr<SyntheticWindowSystem> system_ = SyntheticWindowSystem::create(display_);
};

TEST_F(SyntheticWindowSystemTest,
       LaunchedApplicationsAreForegroundWithALayerTheLastIsFrontmostTheBackgroundHasNone) {
    auto alpha = system_->launchApplication("org.example.alpha", 100);
    ASSERT_EQ(alpha.size(), 1u);
    auto layers = display_->layers();
    ASSERT_EQ(layers.size(), 1u);
    const auto& l = layers[0];
    EXPECT_EQ(
        std::tie(l.contextID, l.ownerPID, l.ownerBundleID, l.level, l.x, l.y, l.width, l.height),
        std::make_tuple(alpha[0], 100, "org.example.alpha", kDisplayLayoutLevelNormal, 0, 0, 1600,
                        900));
    auto monitor = system_->makeApplicationStateMonitor();
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.alpha"),
              kApplicationStateRunning | kApplicationStateForeground | kApplicationStateFrontmost);
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), "org.example.alpha");

    // Launching again (the client library connects again) keeps the layer.
    EXPECT_EQ(system_->launchApplication("org.example.alpha", 100), alpha);
    EXPECT_EQ(display_->layers().size(), 1u);

    // A second application covers the first, which stays in the foreground.
    auto beta = system_->launchApplication("org.example.beta", 200);
    ASSERT_EQ(beta.size(), 1u);
    EXPECT_NE(beta, alpha);
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), "org.example.beta");
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.alpha"),
              kApplicationStateRunning | kApplicationStateForeground);
    layers = display_->layers();
    ASSERT_EQ(layers.size(), 2u);
    EXPECT_EQ(layers[1].contextID, beta[0]);
    EXPECT_EQ(system_->layerContextIDsForProcess(200), beta);
    EXPECT_TRUE(system_->layerContextIDsForProcess(300).empty());

    // The same application under a new process gets a new layer.
    auto relaunched = system_->launchApplication("org.example.alpha", 101);
    ASSERT_EQ(relaunched.size(), 1u);
    EXPECT_NE(relaunched, alpha);
    EXPECT_TRUE(system_->layerContextIDsForProcess(100).empty());
    EXPECT_EQ(display_->layers().size(), 2u);

    // Bad arguments change nothing.
    EXPECT_TRUE(system_->launchApplication("", 5).empty());
    EXPECT_TRUE(system_->launchApplication("org.example.gamma", 0).empty());
    EXPECT_TRUE(system_->launchApplication(std::string(300, 'x'), 5).empty());
    EXPECT_EQ(system_->applications().size(), 2u);

    // The background clears the foreground bit and takes the layers off.
    ASSERT_TRUE(system_->setForeground("org.example.beta", false, 200));
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.beta") & 8u, 0u);
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), "org.example.alpha");
    ASSERT_EQ(display_->layers().size(), 1u);
    EXPECT_EQ(display_->layers()[0].contextID, relaunched[0]);
    EXPECT_EQ(system_->layerContextIDs("org.example.beta"), beta);  // remembered

    // Back to the foreground with the same layer, on top, frontmost.
    ASSERT_TRUE(system_->setForeground("org.example.beta", true, 0));
    EXPECT_EQ(display_->layers().back().contextID, beta[0]);
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), "org.example.beta");

    // The shell can make an application known without layers.
    EXPECT_FALSE(system_->setForeground("org.example.gamma", true, 0));  // needs a pid
    ASSERT_TRUE(system_->setForeground("org.example.gamma", true, 300));
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), "org.example.gamma");
    EXPECT_EQ(display_->layers().size(), 2u);

    // Nobody in the foreground: nobody frontmost.
    for (const char* b : {"org.example.alpha", "org.example.beta", "org.example.gamma"})
        ASSERT_TRUE(system_->setForeground(b, false, 0));
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), std::nullopt);
    EXPECT_TRUE(display_->layers().empty());

    EXPECT_TRUE(system_->terminate("org.example.alpha"));
    EXPECT_FALSE(system_->terminate("org.example.alpha"));
    EXPECT_FALSE(system_->applicationState("org.example.alpha"));
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.alpha"), 0u);
}

TEST_F(SyntheticWindowSystemTest, ChangeHandlerAndInformationComeOnTheMonitorsQueue) {
    auto monitor = system_->makeApplicationStateMonitor();
    InfoRecorder recorder;
    monitor->setChangeHandler(recorder.handler(monitor));

    system_->launchApplication("org.example.alpha", 100);
    system_->launchApplication("org.example.beta", 200);
    system_->terminate("org.example.beta");
    ASSERT_TRUE(recorder.waitFor(5));
    auto infos = recorder.all();
    std::vector<S> summaries;
    for (const auto& info : infos) summaries.push_back(summary(info));
    // Losers first: alpha gives up frontmost before beta takes it, and beta
    // goes (with its last pid) before alpha is frontmost again.
    EXPECT_EQ(summaries, (std::vector<S>{{"org.example.alpha", true, 100},
                                         {"org.example.alpha", false, 100},
                                         {"org.example.beta", true, 200},
                                         {"org.example.beta", false, 200},
                                         {"org.example.alpha", true, 100}}));
    EXPECT_EQ(intAt(infos[3], kApplicationInfoStateKey), 0);

    Value info = sv::test::awaitOnce<Value>([&](std::function<void(Value)> done) {
        monitor->applicationInfoForApplication("org.example.alpha", [monitor, done](Value v) {
            v["onQueue"] = monitor->queue()->isCurrent();
            done(v);
        });
    });
    EXPECT_EQ(summary(info), S("org.example.alpha", true, 100));
    EXPECT_EQ(boolAt(info, "onQueue"), true);
    info = sv::test::awaitOnce<Value>([&](std::function<void(Value)> done) {
        monitor->applicationInfoForApplication("org.example.nobody", done);
    });
    EXPECT_EQ(summary(info), S("org.example.nobody", false, -1));

    // Replaced handler: only the new one hears later changes.
    InfoRecorder second;
    monitor->setChangeHandler(second.handler(monitor));
    system_->setForeground("org.example.alpha", false, 0);
    ASSERT_TRUE(second.waitFor(1));
    EXPECT_EQ(second.size(), 1u);
    EXPECT_EQ(recorder.size(), 5u);
    EXPECT_FALSE(recorder.offQueue || second.offQueue);
}

TEST_F(SyntheticWindowSystemTest, LayoutFollowsTheDisplaysLayersUnlessOverridden) {
    auto monitor = system_->makeMainDisplayLayoutMonitor();
    auto recorder = std::make_shared<LayoutRecorder>();
    monitor->addObserver(recorder);
    EXPECT_EQ(monitor->currentLayout().elementCount(), 0u);

    auto alpha = system_->launchApplication("org.example.alpha", 100);
    // Synchronously current, and delivered to observers on the queue.
    EXPECT_EQ(monitor->currentLayout().elements,
              (std::vector<DisplayLayoutElement>{{1, alpha[0], 100, "org.example.alpha"}}));
    ASSERT_TRUE(recorder->waitForLevels({1}));

    // Any layer of the display is an element with its own level.
    SyntheticLayer banner;
    banner.contextID = display_->makeContextID();
    banner.level = kDisplayLayoutLevelNotification;
    banner.width = 400;
    banner.height = 80;
    display_->addLayer(banner);
    ASSERT_TRUE(recorder->waitForLevels({1, 4}));

    ASSERT_TRUE(system_->setLayoutLevels(std::vector<int32_t>{0, 1}));
    ASSERT_TRUE(recorder->waitForLevels({0, 1}));
    EXPECT_EQ(system_->layoutLevels(), (std::vector<int32_t>{0, 1}));
    // Display changes do not show through the override.
    system_->launchApplication("org.example.beta", 200);
    EXPECT_EQ(levelsOf(monitor->currentLayout()), (std::vector<int32_t>{0, 1}));
    ASSERT_TRUE(system_->setLayoutLevels(std::vector<int32_t>{}));
    ASSERT_TRUE(recorder->waitForLevels({}));
    EXPECT_FALSE(
        system_->setLayoutLevels(std::vector<int32_t>(kSyntheticMaxLayoutElements + 1, 1)));
    EXPECT_EQ(system_->layoutLevels(), std::vector<int32_t>{});

    ASSERT_TRUE(system_->setLayoutLevels(std::nullopt));
    ASSERT_TRUE(recorder->waitForLevels({1, 4, 1}));

    auto all = recorder->all();
    for (size_t i = 1; i < all.size(); ++i) EXPECT_FALSE(all[i] == all[i - 1]) << i;
    EXPECT_FALSE(recorder->offQueue);

    // Invalidated: no more deliveries, an empty current layout.
    size_t seen = all.size();
    monitor->invalidate();
    EXPECT_EQ(monitor->currentLayout().elementCount(), 0u);
    auto other = system_->makeMainDisplayLayoutMonitor();
    auto witness = std::make_shared<LayoutRecorder>();
    other->addObserver(witness);
    system_->terminate("org.example.beta");
    ASSERT_TRUE(witness->waitForLevels({1, 4}));
    EXPECT_EQ(recorder->all().size(), seen);
}

TEST_F(SyntheticWindowSystemTest, ConcurrentDriversLeaveAConsistentStateAndLastLayout) {
    auto monitor = system_->makeMainDisplayLayoutMonitor();
    auto recorder = std::make_shared<LayoutRecorder>();
    monitor->addObserver(recorder);
    auto states = system_->makeApplicationStateMonitor();
    // Changes are handled on the monitor's queue, possibly after the test
    // body: the count outlives it.
    auto handled = std::make_shared<std::atomic<int>>(0);
    states->setChangeHandler([handled](const Value&) { ++*handled; });

    constexpr int kThreads = 6, kRounds = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            std::string bundle = "org.example.app" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                // Launch, background, foreground, override the layout, end the override.
                if (i % 5 == 0) system_->launchApplication(bundle, 1000 + t);
                if (i % 5 == 1 || i % 5 == 2) system_->setForeground(bundle, i % 5 == 2, 0);
                if (i % 5 == 3) system_->setLayoutLevels(std::vector<int32_t>{i % 3});
                if (i % 5 == 4) system_->setLayoutLevels(std::nullopt);
                if (i == kRounds - 1 && t % 2) system_->terminate(bundle);
            }
        });
    }
    for (auto& t : threads) t.join();

    // The last layout delivered is the one the display shows now.
    auto expected = system_->currentLayout();
    ASSERT_TRUE(recorder->waitForLast([&](const DisplayLayout& l) { return l == expected; }));
    size_t frontmost = 0;
    for (const auto& app : system_->applications()) {
        frontmost += app.isFrontmost();
        EXPECT_FALSE(app.isFrontmost() && !app.isForeground());
    }
    EXPECT_EQ(frontmost, 1u);
    EXPECT_EQ(system_->applications().size(), size_t(kThreads / 2));
    EXPECT_TRUE(test::eventually([&] { return handled->load() > 0; }, std::chrono::seconds(30)));
}

TEST_F(SyntheticWindowSystemTest, BoundedAgainstAShellThatRegistersEndlessApplications) {
    for (size_t i = 0; i < kSyntheticMaxApplications; ++i)
        ASSERT_TRUE(system_->setForeground("org.example.a" + std::to_string(i), false, 10));
    EXPECT_TRUE(system_->launchApplication("org.example.more", 11).empty());
    EXPECT_FALSE(system_->setForeground("org.example.more", true, 11));
    // Known applications still work.
    EXPECT_EQ(system_->launchApplication("org.example.a0", 10).size(), 1u);
    EXPECT_TRUE(system_->terminate("org.example.a1"));
    EXPECT_EQ(system_->launchApplication("org.example.more", 11).size(), 1u);
}

TEST(UiBackendTest, TheSyntheticBackendSharesTheScreensDisplay) {
    auto display = std::make_shared<SyntheticDisplay>();
    {
        sv::test::ScopedEnv env{{"SORVEL_SCREEN_BACKEND", "synthetic"}, {"DISPLAY", ":0"}};
        auto backend = makeUiBackend(UiBackendKind::Automatic, display).valueOr(nullptr);
        ASSERT_TRUE(backend);
        EXPECT_EQ(backend->name(), "synthetic");
        auto system = std::dynamic_pointer_cast<SyntheticWindowSystem>(backend);
        ASSERT_TRUE(system);
        EXPECT_EQ(system->display(), display);
    }
    {
        // Without a display of its own: the process's synthetic screen.
        auto screen = std::make_shared<SyntheticScreenBackend>(display);
        setProcessScreenBackend(screen);
        sv::test::ScopedEnv env{{"DISPLAY", std::nullopt}, {"SORVEL_SCREEN_BACKEND", std::nullopt}};
        auto backend =
            std::dynamic_pointer_cast<SyntheticWindowSystem>(makeUiBackend().valueOr(nullptr));
        ASSERT_TRUE(backend);
        EXPECT_EQ(backend->display(), display);
        setProcessScreenBackend(nullptr);

        // The services' entry points go through the process's backend.
        setProcessUiBackend(backend);
        backend->launchApplication("org.example.alpha", 100);
        EXPECT_EQ(frontmostApplicationBundleIdentifier(), "org.example.alpha");
        EXPECT_TRUE(
            ApplicationStateMonitor::create()->applicationStateForApplication("org.example.alpha") &
            kApplicationStateForeground);
        EXPECT_EQ(DisplayLayoutMonitor::mainDisplayMonitor()->currentLayout().elementCount(), 1u);
        setProcessUiBackend(nullptr);
    }
    EXPECT_EQ(parseUiBackendKind("synthetic"), UiBackendKind::Synthetic);
    EXPECT_EQ(parseUiBackendKind("x11"), UiBackendKind::X11);
    EXPECT_EQ(parseUiBackendKind("automatic"), UiBackendKind::Automatic);
    EXPECT_FALSE(parseUiBackendKind("wayland"));
}

}  // namespace
