// The X11 window system under a private Xvfb: windows made by the test as
// applications and window managers make them, owned by processes inside test
// bundles; the test sets the root's _NET_ACTIVE_WINDOW itself, as a window
// manager would.
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "platform/screen/testing/xvfb_server.h"
#include "platform/system/application_state.h"
#include "platform/system/display_layout.h"
#include "platform/ui/testing/x11_testing.h"
#include "platform/ui/ui_backend.h"
#include "platform/ui/x11_window_system.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"
#include "tests/ui/recorders.h"

using namespace sv;
using namespace sv::testing;
using namespace std::chrono_literals;

namespace {

std::vector<std::string> ownersOf(const DisplayLayout& layout) {
    std::vector<std::string> owners;
    for (const auto& e : layout.elements)
        owners.push_back(e.bundleIdentifier.empty() ? "pid " + std::to_string(e.pid)
                                                    : e.bundleIdentifier);
    return owners;
}

using sv::test::InfoRecorder;
using sv::test::LayoutRecorder;
using sv::test::levelsOf;
using sv::test::summary;
using S = sv::test::Summary;

Value requestInfo(ApplicationStateMonitor& monitor, const std::string& bundleID) {
    return sv::test::awaitOnce<Value>([&](std::function<void(Value)> done) {
        monitor.applicationInfoForApplication(bundleID, done);
    });
}

std::unique_ptr<XvfbServer> startServerOrExplain() {
    auto server = XvfbServer::start(1280, 800);
    if (!server) {
        const char* ci = std::getenv("CI");
        if (ci && std::string(ci) == "true")
            ADD_FAILURE() << "Xvfb is needed under CI: " << server.error().message();
        return nullptr;
    }
    return std::move(*server);
}

class X11WindowSystemTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { server_ = startServerOrExplain(); }
    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        if (!server_) GTEST_SKIP() << "Xvfb cannot be started here";
        client_ = X11TestClient::connect(server_->displayName()).valueOr(nullptr);
        ASSERT_TRUE(client_);
        client_->setActiveWindow(0);
        auto connected = X11WindowSystem::connect(server_->displayName());
        ASSERT_TRUE(connected) << connected.error().message();
        system_ = *connected;
        alpha_ = BundledProcess::start(dir_.path(), "Alpha", "org.example.alpha");
        beta_ = BundledProcess::start(dir_.path(), "Beta", "org.example.beta");
        ASSERT_TRUE(alpha_ && beta_);
    }
    void TearDown() override {
        system_.reset();
        client_.reset();  // its windows go with it
    }

    uint32_t window(std::optional<pid_t> pid, std::vector<std::string> types = {},
                    std::vector<std::string> states = {}) {
        TestWindowOptions options;
        if (pid) options.pid = uint32_t(*pid);
        options.types = std::move(types);
        options.states = std::move(states);
        return client_->createWindow(options);
    }
    // The frontmost application once `window` is the active window.
    std::optional<std::string> frontmostWith(uint32_t window) {
        client_->setActiveWindow(window);
        EXPECT_TRUE(system_->synchronize());
        return system_->frontmostApplicationBundleIdentifier();
    }
    DisplayLayout layoutNow() {
        EXPECT_TRUE(system_->synchronize());
        return system_->currentLayout();
    }

    static std::unique_ptr<XvfbServer> server_;
    sv::test::TempDir dir_;
    std::unique_ptr<X11TestClient> client_;
    std::shared_ptr<X11WindowSystem> system_;
    std::unique_ptr<BundledProcess> alpha_, beta_;
};
std::unique_ptr<XvfbServer> X11WindowSystemTest::server_;

TEST_F(X11WindowSystemTest, FrontmostAndForegroundFollowTheActiveWindowAndMappedWindows) {
    auto monitor = system_->makeApplicationStateMonitor();
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.alpha"), 0u);

    uint32_t a = window(alpha_->pid());
    uint32_t b = window(beta_->pid());
    uint32_t stranger = window(getpid());  // a process outside any bundle
    EXPECT_EQ(frontmostWith(a), "org.example.alpha");
    constexpr uint32_t kShown = kApplicationStateRunning | kApplicationStateForeground;
    static_assert(kApplicationStateForeground == 8u);
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.alpha"),
              kShown | kApplicationStateFrontmost);
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.beta"), kShown);
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.unknown"), 0u);

    EXPECT_EQ(summary(requestInfo(*monitor, "org.example.alpha")),
              S("org.example.alpha", true, alpha_->pid()));
    EXPECT_EQ(summary(requestInfo(*monitor, "org.example.unknown")),
              S("org.example.unknown", false, -1));

    client_->unmap(a);
    EXPECT_EQ(frontmostWith(b), "org.example.beta");
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.alpha"), 0u);
    EXPECT_TRUE(monitor->applicationStateForApplication("org.example.beta") &
                kApplicationStateFrontmost);

    // A frontmost window of a process outside any bundle is no application,
    // unless it names its application (WM_CLASS, a desktop application id):
    // then it is that application, with the process the X server names.
    EXPECT_EQ(frontmostWith(stranger), std::nullopt);
    TestWindowOptions terminal;
    terminal.wmClass = "Sv-Term";
    uint32_t term = client_->createWindow(terminal);
    EXPECT_EQ(frontmostWith(term), "x11:Sv-Term");
    EXPECT_EQ(intAt(requestInfo(*monitor, "x11:Sv-Term"), kApplicationInfoPIDKey), getpid());
    terminal.wmClass = "bad/class";
    EXPECT_EQ(frontmostWith(client_->createWindow(terminal)), std::nullopt);
    client_->destroy(term);
    EXPECT_EQ(frontmostWith(0), std::nullopt);

    // After invalidation nothing is known any more.
    monitor->invalidate();
    EXPECT_EQ(monitor->applicationStateForApplication("org.example.beta"), 0u);
}

TEST_F(X11WindowSystemTest, ChangeHandlerHearsActivationsOnItsQueueLosersFirst) {
    uint32_t a = window(alpha_->pid());
    uint32_t b = window(beta_->pid());
    EXPECT_EQ(frontmostWith(a), "org.example.alpha");
    auto monitor = system_->makeApplicationStateMonitor();
    InfoRecorder recorder;
    monitor->setChangeHandler(recorder.handler(monitor));

    client_->setActiveWindow(b);
    // Then the frontmost application's window goes away: it is reported, not
    // frontmost, with its last process, so a follower can let go of it.
    ASSERT_TRUE(recorder.waitFor(2));
    client_->destroy(b);
    ASSERT_TRUE(recorder.waitFor(3));
    auto infos = recorder.all();
    std::vector<S> summaries;
    for (const auto& info : infos) summaries.push_back(summary(info));
    EXPECT_EQ(summaries, (std::vector<S>{{"org.example.alpha", false, alpha_->pid()},
                                         {"org.example.beta", true, beta_->pid()},
                                         {"org.example.beta", false, beta_->pid()}}));
    EXPECT_EQ(intAt(infos[2], kApplicationInfoStateKey), 0);

    // Removed: later changes reach nobody; a new handler hears only what
    // happens after it was set.
    monitor->setChangeHandler(nullptr);
    frontmostWith(0);
    InfoRecorder second;
    monitor->setChangeHandler(second.handler(monitor));
    client_->setActiveWindow(a);
    ASSERT_TRUE(second.waitFor(1));
    EXPECT_EQ(boolAt(second.all().at(0), kApplicationInfoFrontmostKey), true);
    EXPECT_EQ(recorder.all().size(), 3u);
    EXPECT_FALSE(recorder.offQueue || second.offQueue);
}

TEST_F(X11WindowSystemTest, LayoutHasOneElementPerOwnerWithLevelsFromTypeAndState) {
    auto monitor = system_->makeMainDisplayLayoutMonitor();
    auto recorder = std::make_shared<LayoutRecorder>();
    monitor->addObserver(recorder);
    EXPECT_EQ(monitor->currentLayout().elementCount(), 0u);

    uint32_t a = window(alpha_->pid());
    ASSERT_TRUE(recorder->waitForLevels({1}));
    // The application's own dialog and menu do not make it share the screen.
    window(alpha_->pid(), {"_NET_WM_WINDOW_TYPE_DIALOG"});
    window(alpha_->pid(), {"_NET_WM_WINDOW_TYPE_POPUP_MENU"});
    EXPECT_EQ(levelsOf(layoutNow()), (std::vector<int32_t>{1}));
    // The desktop's furniture, hidden windows and windows off the screen are
    // not elements.
    window(getpid(), {"_NET_WM_WINDOW_TYPE_DOCK"});
    window(getpid(), {"_NET_WM_WINDOW_TYPE_DESKTOP"});
    window(beta_->pid(), {}, {"_NET_WM_STATE_HIDDEN"});
    TestWindowOptions offscreen;
    offscreen.x = -5000;
    offscreen.pid = uint32_t(beta_->pid());
    client_->createWindow(offscreen);
    EXPECT_EQ(levelsOf(layoutNow()), (std::vector<int32_t>{1}));

    // Another application's window takes the screen.
    uint32_t b = window(beta_->pid());
    ASSERT_TRUE(recorder->waitForLevels({1, 1}));
    EXPECT_EQ(ownersOf(monitor->currentLayout()),
              (std::vector<std::string>{"org.example.alpha", "org.example.beta"}));
    // Raising the application's window puts its element on top.
    client_->raise(a);
    EXPECT_EQ(ownersOf(layoutNow()),
              (std::vector<std::string>{"org.example.beta", "org.example.alpha"}));
    // A window type change turns the other application into a dialog.
    client_->setTypes(b, {"_NET_WM_WINDOW_TYPE_DIALOG"});
    ASSERT_TRUE(recorder->waitForLevels({2, 1}));

    // Windows of other owners that share the screen, one element each (the
    // override-redirect popup sets no _NET_WM_PID: the X server names this
    // process as its owner).
    auto gamma = BundledProcess::start(dir_.path(), "Gamma", "org.example.gamma");
    auto delta = BundledProcess::start(dir_.path(), "Delta", "org.example.delta");
    ASSERT_TRUE(gamma && delta);
    window(gamma->pid(), {}, {"_NET_WM_STATE_ABOVE"});
    window(delta->pid(), {"_NET_WM_WINDOW_TYPE_NOTIFICATION"});
    TestWindowOptions popup;
    popup.overrideRedirect = true;
    popup.width = popup.height = 50;
    uint32_t popupWindow = client_->createWindow(popup);
    ASSERT_TRUE(recorder->waitForLevels({2, 1, 3, 4, 5}));
    client_->destroy(popupWindow);

    // A screen locker (override-redirect over the whole screen) and a
    // fullscreen window take the screen.
    TestWindowOptions locker;
    locker.overrideRedirect = true;
    locker.width = 1280;
    locker.height = 800;
    uint32_t lockerWindow = client_->createWindow(locker);
    ASSERT_TRUE(recorder->waitForLevels({2, 1, 3, 4, 1}));
    client_->destroy(lockerWindow);
    client_->setStates(b, {"_NET_WM_STATE_FULLSCREEN"});
    client_->raise(b);
    ASSERT_TRUE(recorder->waitForLevels({1, 3, 4, 1}));

    // Unmapped: gone.
    client_->unmap(b);
    ASSERT_TRUE(recorder->waitForLevels({1, 3, 4}));

    // A property change that changes nothing delivers nothing: no layout is
    // delivered twice in a row.
    client_->setPid(a, uint32_t(alpha_->pid()));
    client_->map(b);
    ASSERT_TRUE(recorder->waitForLevels({1, 3, 4, 1}));
    auto all = recorder->all();
    for (size_t i = 1; i < all.size(); ++i) EXPECT_FALSE(all[i] == all[i - 1]) << i;
    EXPECT_FALSE(recorder->offQueue);

    // Removed observers and invalidated monitors hear nothing more.
    size_t seen = all.size();
    monitor->removeObserver(recorder.get());
    auto second = std::make_shared<LayoutRecorder>();
    auto other = system_->makeMainDisplayLayoutMonitor();
    other->addObserver(second);
    client_->unmap(b);
    ASSERT_TRUE(second->waitForLevels({1, 3, 4}));
    monitor->addObserver(recorder);
    monitor->invalidate();
    EXPECT_EQ(monitor->currentLayout().elementCount(), 0u);
    client_->map(b);
    ASSERT_TRUE(second->waitForLevels({1, 3, 4, 1}));
    EXPECT_EQ(recorder->all().size(), seen);
}

TEST_F(X11WindowSystemTest, ClientsInsideWindowManagerFramesAndUntrustedOwners) {
    // A reparenting window manager: a frame without properties holding the
    // client, which carries WM_STATE and the owner.
    TestWindowOptions frameSpec;
    uint32_t frame = client_->createWindow(frameSpec, false);
    TestWindowOptions clientSpec;
    clientSpec.parent = frame;
    clientSpec.pid = uint32_t(alpha_->pid());
    uint32_t inner = client_->createWindow(clientSpec);
    client_->setWmState(inner, 1);
    client_->map(frame);
    client_->setActiveWindow(inner);

    const DisplayLayoutElement alpha{1, inner, alpha_->pid(), "org.example.alpha"};
    EXPECT_EQ(layoutNow().elements, std::vector{alpha});
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), "org.example.alpha");

    // Iconified by the window manager (frame still mapped): not shown.
    client_->setWmState(inner, 3);
    EXPECT_EQ(layoutNow().elementCount(), 0u);
    EXPECT_FALSE(system_->applicationState("org.example.alpha").isForeground());
    client_->setWmState(inner, 1);
    EXPECT_EQ(layoutNow().elementCount(), 1u);

    // An owner claimed by a client of another machine is no local process.
    TestWindowOptions remote;
    remote.pid = uint32_t(beta_->pid());
    remote.clientMachine = "elsewhere.example.org";
    const DisplayLayoutElement stranger{1, client_->createWindow(remote), -1, ""};
    EXPECT_EQ(layoutNow().elements, (std::vector{alpha, stranger}));
    EXPECT_FALSE(system_->applicationState("org.example.beta").isForeground());
}

TEST_F(X11WindowSystemTest, FloodsAndCrowdsCostBoundedWork) {
    uint32_t a = window(alpha_->pid());
    uint32_t b = window(beta_->pid());
    ASSERT_TRUE(system_->synchronize());

    // A client switching the active window as fast as it can: scans stay
    // within the rescan interval's budget, and the end state is right.
    uint64_t scansBefore = system_->scanCount();
    auto start = std::chrono::steady_clock::now();
    constexpr int kSwitches = 50000;
    client_->cycleActiveWindow({b, a}, kSwitches);
    ASSERT_TRUE(system_->synchronize());
    uint64_t scans = system_->scanCount() - scansBefore;
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LE(double(scans), double(elapsed / kX11MinRescanInterval) + kX11RescanBurst + 2)
        << scans << " scans in " << std::chrono::duration<double>(elapsed).count() << " s";
    EXPECT_EQ(system_->frontmostApplicationBundleIdentifier(), "org.example.alpha");

    // More top-levels than one scan reads: the topmost ones are seen.
    TestWindowOptions tiny;
    tiny.width = tiny.height = 1;
    client_->createUnmappedWindows(tiny, int(kX11MaxScannedWindows) + 10);
    uint32_t top = window(beta_->pid());
    auto layout = layoutNow();
    ASSERT_FALSE(layout.elements.empty());
    EXPECT_EQ(layout.elements.back().bundleIdentifier, "org.example.beta");
    // Beta's first window lies below the crowd, beyond what a scan reads.
    EXPECT_EQ(layout.elements.back().identifier, top);
}

TEST_F(X11WindowSystemTest, ALostServerEmptiesTheLayoutAndForegroundState) {
    auto server = startServerOrExplain();
    ASSERT_TRUE(server);
    auto client = X11TestClient::connect(server->displayName()).valueOr(nullptr);
    ASSERT_TRUE(client);
    auto system = X11WindowSystem::connect(server->displayName()).valueOr(nullptr);
    ASSERT_TRUE(system);
    TestWindowOptions options;
    options.pid = uint32_t(alpha_->pid());
    uint32_t w = client->createWindow(options);
    client->setActiveWindow(w);
    ASSERT_TRUE(system->synchronize());
    auto monitor = system->makeMainDisplayLayoutMonitor();
    auto recorder = std::make_shared<LayoutRecorder>();
    monitor->addObserver(recorder);
    EXPECT_EQ(monitor->currentLayout().elementCount(), 1u);

    const std::string display = server->displayName();
    server->stop();
    ASSERT_TRUE(recorder->waitForLevels({}));
    EXPECT_FALSE(system->synchronize(1s));
    EXPECT_FALSE(system->isConnected());
    EXPECT_EQ(system->frontmostApplicationBundleIdentifier(), std::nullopt);
    EXPECT_FALSE(system->applicationState("org.example.alpha").isForeground());

    // The server comes back (a restarted session): tracking resumes.
    auto restarted = XvfbServer::start(1280, 800, 30s, display);
    ASSERT_TRUE(restarted) << restarted.error().message();
    server = std::move(*restarted);
    client = X11TestClient::connect(display).valueOr(nullptr);
    ASSERT_TRUE(client);
    client->setActiveWindow(client->createWindow(options));
    ASSERT_TRUE(sv::test::eventually([&] { return system->synchronize(1s); }, 20s));
    ASSERT_TRUE(recorder->waitForLevels({1}));
    EXPECT_EQ(system->frontmostApplicationBundleIdentifier(), "org.example.alpha");
}

// (A screen backend named synthetic overrides a reachable server: the
// synthetic window system's test.)
TEST_F(X11WindowSystemTest, AutomaticChoiceTakesAReachableServer) {
    {
        sv::test::ScopedEnv env{{"DISPLAY", server_->displayName()},
                                {"SORVEL_SCREEN_BACKEND", std::nullopt}};
        auto backend = makeUiBackend().valueOr(nullptr);
        ASSERT_TRUE(backend);
        EXPECT_EQ(backend->name(), "x11");
    }
    {
        // A named display whose server is not up yet is still the desktop:
        // tracked once it answers, never replaced by a synthetic display.
        sv::test::ScopedEnv env{{"DISPLAY", ":9999"}, {"SORVEL_SCREEN_BACKEND", std::nullopt}};
        EXPECT_FALSE(X11WindowSystem::serverAnswers());
        auto waiting = makeUiBackend().valueOr(nullptr);
        ASSERT_TRUE(waiting);
        EXPECT_EQ(waiting->name(), "x11");
        EXPECT_FALSE(waiting->synchronize(1s));
        EXPECT_EQ(waiting->frontmostApplicationBundleIdentifier(), std::nullopt);
    }
    {
        sv::test::ScopedEnv env{{"DISPLAY", std::nullopt}, {"SORVEL_SCREEN_BACKEND", std::nullopt}};
        EXPECT_EQ(makeUiBackend().value()->name(), "synthetic");
        auto refused = makeUiBackend(UiBackendKind::X11);
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error(),
                  Error::make(kUIErrorDomain, kUIErrorNoDisplay, "DISPLAY is not set"));
    }
}

}  // namespace
