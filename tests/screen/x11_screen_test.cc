// The X11 screen backend against a private Xvfb with real client windows:
// what mirror and clone mode show, the pointer, windows that go away, a
// server that goes away or stops answering, and the automatic choice of a
// server that does not answer.
// Xvfb's output cannot rotate, so the RandR orientation is checked through
// its mapping alone.
#include <gtest/gtest.h>
#include <xcb/randr.h>

#include <cstring>

#include <signal.h>

#include <cstdlib>
#include <thread>

#include "platform/screen/testing/xvfb_server.h"
#include "platform/screen/x11_screen.h"
#include "platform/xcb_handles.h"
#include "tests/screen/screen_test_util.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

using test::allOf;
using test::pixelAt;
using test::Recorder;
using test::Ticker;
using testing::XTestWindow;
using testing::XvfbServer;

constexpr uint32_t kRed = 0xC03020;   // window A
constexpr uint32_t kBlue = 0x2040C0;  // window B, lying on top of A
constexpr uint32_t opaque(uint32_t rgb) {
    return 0xFF000000u | rgb;
}

class X11ScreenTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!XvfbServer::available()) {
            if (const char* ci = std::getenv("CI"); ci && std::string(ci) == "true")
                FAIL() << "Xvfb is missing; scripts/install-deps.sh installs it";
            GTEST_SKIP() << "Xvfb is not installed: the X11 backend is not tested here "
                            "(scripts/install-deps.sh installs it)";
        }
        auto started = XvfbServer::start(1600, 900);
        ASSERT_TRUE(started) << started.error().message();
        server = std::move(*started);
        auto connected = X11ScreenBackend::connect(server->displayName());
        ASSERT_TRUE(connected) << connected.error().message();
        backend = *connected;
    }

    // Windows A and B of two clients; B overlaps A's lower right part.
    void makeWindows() {
        auto madeA = XTestWindow::create(server->displayName(), 100, 100, 600, 400, kRed);
        ASSERT_TRUE(madeA) << madeA.error().message();
        a = std::move(*madeA);
        auto madeB = XTestWindow::create(server->displayName(), 400, 300, 600, 400, kBlue);
        ASSERT_TRUE(madeB) << madeB.error().message();
        b = std::move(*madeB);
    }

    std::shared_ptr<ScreenCaptureController> make(WindowSize size, size_t keep = 1) {
        return test::makeRecorded(*backend, size, recorder, keep);
    }

    void checkMirrorAndClone();

    std::unique_ptr<XvfbServer> server;
    std::shared_ptr<X11ScreenBackend> backend;
    std::unique_ptr<XTestWindow> a, b;
    std::shared_ptr<Recorder> recorder;
};

using test::Pred;
// Scaling may move a flat colour by a step or two of a channel.
bool near(uint32_t a, uint32_t b) {
    for (int shift = 0; shift < 32; shift += 8)
        if (std::abs(int((a >> shift) & 0xFF) - int((b >> shift) & 0xFF)) > 4) return false;
    return true;
}
Pred shows(int32_t x, int32_t y, uint32_t color) {
    return [=](const SharedSurface& s) { return near(pixelAt(s, x, y), color); };
}
// Pixels of a square around (x, y) that are not `color`.
int otherPixels(const SharedSurface& s, int32_t x, int32_t y, int32_t radius, uint32_t color) {
    int n = 0;
    for (int32_t j = y - radius; j <= y + radius; ++j)
        for (int32_t i = x - radius; i <= x + radius; ++i)
            if (!near(pixelAt(s, i, j), color)) ++n;
    return n;
}

TEST_F(X11ScreenTest, MirrorShowsOverlappingWindowsAndThePointerCloneOnlyTheClonedWindow) {
    ASSERT_NO_FATAL_FAILURE(makeWindows());
    // Pixels through shared memory, and through the socket as from a
    // remote server.
    EXPECT_TRUE(backend->usesSharedMemory());
    {
        SCOPED_TRACE("shared memory");
        ASSERT_NO_FATAL_FAILURE(checkMirrorAndClone());
    }
    auto socketOnly = X11ScreenBackend::connect(server->displayName(), {.sharedMemory = false});
    ASSERT_TRUE(socketOnly) << socketOnly.error().message();
    backend = *socketOnly;
    EXPECT_FALSE(backend->usesSharedMemory());
    a->raise();
    b->raise();
    SCOPED_TRACE("socket");
    checkMirrorAndClone();
}

void X11ScreenTest::checkMirrorAndClone() {
    EXPECT_EQ(backend->displaySize(), (WindowSize{1600, 900}));
    EXPECT_EQ(backend->name(), "x11");
    // The pointer rests on B, away from A.
    a->warpPointer(900, 600);
    auto mirroring = backend->mirroringService();
    mirroring->setCloneMirroringMode(kCloneMirroringModeMirror);

    // Mirror at the display's size: A, B over A, and the pointer over B.
    auto controller = make({1600, 900});
    controller->startCapture();
    auto frame =
        recorder->waitForFrame(allOf({shows(200, 200, opaque(kRed)), shows(500, 350, opaque(kBlue)),
                                      shows(900, 400, opaque(kBlue))}));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->imageBuffer()->width(), 1600);
    EXPECT_GT(otherPixels(*frame->imageBuffer(), 905, 605, 6, opaque(kBlue)), 0)
        << "no pointer drawn";
    controller->stopCapture();

    // Clone A: B lies on top of A but is left out, and so are the root
    // window and the pointer. A (600x400) is the picture at its own size,
    // fitted undistorted into the 800x450 frame: 675x450 from x = 62, black
    // bars beside it.
    mirroring->setLayerContextsToClone({a->id()});
    mirroring->setCloneMirroringMode(kCloneMirroringModeClone);
    controller = make({800, 450});
    controller->startCapture();
    frame =
        recorder->waitForFrame(allOf({shows(70, 5, opaque(kRed)), shows(730, 445, opaque(kRed)),
                                      shows(400, 300, opaque(kRed)),  // under B
                                      shows(55, 200, 0xFF000000), shows(745, 200, 0xFF000000)}));
    ASSERT_TRUE(frame) << "clone mode did not show A alone at its own aspect";
    const SharedSurface& s = *frame->imageBuffer();
    EXPECT_EQ(s.width(), 800);
    for (int32_t y = 0; y < s.height(); ++y)
        for (int32_t x = 0; x < s.width(); ++x)
            ASSERT_LT((pixelAt(s, x, y) & 0xFF), 0x60u) << "a pixel of B at " << x << "," << y;

    // Cloning B too: the picture is the box around both (900x600 from
    // (100,100), 0.75 in the frame), B on top again (stacking order), the
    // corner neither covers black, still no pointer.
    mirroring->setLayerContextsToClone({a->id(), b->id()});
    frame =
        recorder->waitForFrame(allOf({shows(400, 225, opaque(kBlue)), shows(100, 100, opaque(kRed)),
                                      shows(700, 400, opaque(kBlue)), shows(650, 50, 0xFF000000)}));
    ASSERT_TRUE(frame);
    EXPECT_EQ(otherPixels(*frame->imageBuffer(), 662, 375, 5, opaque(kBlue)), 0);
    // Raising A puts it on top; A moved over B makes the box A's alone
    // again (the picture follows the windows).
    a->raise();
    ASSERT_TRUE(recorder->waitForFrame(shows(400, 225, opaque(kRed))));
    a->move(400, 300);
    ASSERT_TRUE(recorder->waitForFrame(allOf(
        {shows(730, 445, opaque(kRed)), shows(70, 5, opaque(kRed)), shows(55, 200, 0xFF000000)})));
    a->move(100, 100);
    controller->stopCapture();
}

TEST_F(X11ScreenTest, HiddenClonedWindowPausesItsPictureOnlyADestroyedOneFails) {
    ASSERT_NO_FATAL_FAILURE(makeWindows());
    auto mirroring = backend->mirroringService();
    mirroring->setLayerContextsToClone({a->id()});
    mirroring->setCloneMirroringMode(kCloneMirroringModeClone);
    auto controller = make({600, 400});
    controller->startCapture();
    ASSERT_TRUE(recorder->waitForFrame(shows(300, 200, opaque(kRed))));

    // Unmapped (minimised, another workspace): the last picture repeats at
    // the frame rate, no failure; mapped again, it shows again.
    a->unmap();
    size_t frames = recorder->frameCount();
    ASSERT_TRUE(recorder->waitForFrames(frames + 10));
    EXPECT_EQ(recorder->failureCount(), 0u);
    EXPECT_TRUE(recorder->waitForFrame(shows(300, 200, opaque(kRed))));
    a->map();
    frames = recorder->frameCount();
    ASSERT_TRUE(recorder->waitForFrames(frames + 2));
    EXPECT_TRUE(controller->isCapturing());

    a->destroy();
    ASSERT_TRUE(recorder->waitForFailures(1));
    EXPECT_EQ(recorder->failedStatuses(), std::vector<int32_t>{kScreenCaptureSourceGone});
    EXPECT_FALSE(controller->isCapturing());
    Ticker ticker;
    ASSERT_TRUE(ticker.pass(6));
    EXPECT_EQ(recorder->failureCount(), 1u);
    EXPECT_EQ(recorder->resets(), 0);

    // A window hidden from the start gives no picture until it shows.
    b->unmap();
    mirroring->setLayerContextsToClone({b->id()});
    controller = make({600, 400});
    controller->startCapture();
    ASSERT_TRUE(ticker.pass(6));
    EXPECT_EQ(recorder->frameCount(), 0u);
    b->map();
    ASSERT_TRUE(recorder->waitForFrame(shows(300, 200, opaque(kBlue))));
    controller->stopCapture();

    // A window that never existed fails at the first frame; so does a set
    // of more windows than any application has, without a round trip each.
    struct Case {
        std::set<uint32_t> ids;
        int32_t status;
    };
    std::set<uint32_t> many;
    for (uint32_t id = 1; id <= 100'000; ++id) many.insert(id);
    many.insert(b->id());
    for (Case c :
         {Case{{0x7FFFF0u}, kScreenCaptureSourceGone}, Case{many, kScreenCaptureGrabFailed}}) {
        mirroring->setLayerContextsToClone(c.ids);
        controller = make({800, 450});
        controller->startCapture();
        ASSERT_TRUE(recorder->waitForFailures(1));
        EXPECT_EQ(recorder->failedStatuses(), std::vector<int32_t>{c.status});
        EXPECT_EQ(recorder->frameCount(), 0u);
    }
}

// A system recording of one RandR monitor: the monitor's name atom as the
// only identifier shows that part of the screen alone; identifiers that name
// no monitor show the whole screen; a monitor that goes away ends it.
TEST_F(X11ScreenTest, MirrorOfOneMonitor) {
    ASSERT_NO_FATAL_FAILURE(makeWindows());
    xcb_connection_t* c = a->connection();
    const char* name = "SV-RIGHT";
    XcbReply<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr));
    ASSERT_TRUE(atom);
    // Declared as a user would (libxcb's SetMonitor request is malformed
    // for a monitor without outputs).
    auto xrandr = [&](const std::string& args) {
        return std::system(("DISPLAY=" + server->displayName() + " xrandr " + args).c_str());
    };
    if (xrandr("--version >/dev/null 2>&1") != 0) {
        if (const char* ci = std::getenv("CI"); ci && std::string(ci) == "true")
            FAIL() << "xrandr is missing; scripts/install-deps.sh installs it";
        GTEST_SKIP() << "xrandr is not installed";
    }
    ASSERT_EQ(xrandr("--setmonitor SV-RIGHT 800/211x900/238+800+0 none"), 0);
    auto mirroring = backend->mirroringService();
    mirroring->setLayerContextsToClone({atom->atom});
    mirroring->setCloneMirroringMode(kCloneMirroringModeMirror);
    auto controller = make({800, 900});
    controller->startCapture();
    // B's right part at the monitor's left, the root beyond it, none of A.
    auto frame = recorder->waitForFrame(
        allOf({shows(100, 400, opaque(kBlue)), shows(500, 100, 0xFF000000)}));
    ASSERT_TRUE(frame) << "the monitor alone was not shown";
    const SharedSurface& s = *frame->imageBuffer();
    EXPECT_EQ(s.width(), 800);
    for (int32_t y = 0; y < s.height(); y += 4)
        for (int32_t x = 0; x < s.width(); x += 4)
            ASSERT_FALSE(near(pixelAt(s, x, y), opaque(kRed)))
                << "a pixel of A at " << x << "," << y;

    ASSERT_EQ(xrandr("--delmonitor SV-RIGHT"), 0);
    ASSERT_TRUE(recorder->waitForFailures(1));
    EXPECT_EQ(recorder->failedStatuses(), std::vector<int32_t>{kScreenCaptureSourceGone});

    // Identifiers that name no monitor: the whole screen.
    mirroring->setLayerContextsToClone({a->id()});
    controller = make({1600, 900});
    controller->startCapture();
    EXPECT_TRUE(recorder->waitForFrame(shows(200, 200, opaque(kRed))));
    controller->stopCapture();
}

TEST_F(X11ScreenTest, LostServerIsMediaServicesResetOnce) {
    backend->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
    auto controller = make({800, 450});
    controller->startCapture();
    ASSERT_TRUE(recorder->waitForFrames(2));
    server->stop();
    ASSERT_TRUE(recorder->waitForFailures(1));
    EXPECT_EQ(recorder->resets(), 1);
    EXPECT_FALSE(controller->isCapturing());
    Ticker ticker;
    ASSERT_TRUE(ticker.pass(6));
    EXPECT_EQ(recorder->failureCount(), 1u);
    // Still away when started again: reported again, nothing hangs.
    controller->startCapture();
    ASSERT_TRUE(recorder->waitForFailures(2));
    EXPECT_EQ(recorder->resets(), 2);
    EXPECT_EQ(backend->displaySize(), (WindowSize{1600, 900}));  // the last size known

    // A backend made while the server is away (a service started before the
    // session's X server) records once the server is there.
    const std::string display = server->displayName();
    auto unreachable = X11ScreenBackend::connect(display, {});
    ASSERT_FALSE(unreachable);
    EXPECT_EQ(unreachable.error().domain, kScreenErrorDomain);
    EXPECT_EQ(unreachable.error().code, kScreenErrorCannotConnect);
    backend = X11ScreenBackend::connect(display, {.waitForServer = true}).valueOr(nullptr);
    ASSERT_TRUE(backend);
    backend->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
    auto restarted = XvfbServer::start(1600, 900, std::chrono::seconds(30), display);
    ASSERT_TRUE(restarted) << restarted.error().message();
    server = std::move(*restarted);
    auto late = make({800, 450});
    late->startCapture();
    ASSERT_TRUE(recorder->waitForFrames(2));
    EXPECT_EQ(recorder->failureCount(), 0u);
    late->stopCapture();
}

// Runs `fn` on a thread of its own; false when it has not returned in time.
bool returnsInTime(std::function<void()> fn) {
    auto done = std::make_shared<Semaphore>();
    std::thread([fn = std::move(fn), done] {
        fn();
        done->signal();
    }).detach();
    return done->waitFor(test::kWait);
}

TEST_F(X11ScreenTest, ServerThatStopsAnsweringHangsNobody) {
    backend->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
    auto controller = make({800, 450});
    controller->startCapture();
    ASSERT_TRUE(recorder->waitForFrames(2));
    ASSERT_EQ(kill(server->pid(), SIGSTOP), 0);
    struct Resume {
        pid_t pid;
        ~Resume() { kill(pid, SIGCONT); }
    } resume{server->pid()};
    Ticker ticker;
    ASSERT_TRUE(ticker.pass(6));  // the controller now waits for a reply

    EXPECT_TRUE(returnsInTime([&] { controller->stopCapture(); }));
    EXPECT_TRUE(returnsInTime([&] { controller.reset(); }));
    // Choosing a backend gives up waiting for the server in time and keeps
    // it as the display to record once it answers.
    test::ScopedEnv env{{"SORVEL_SCREEN_BACKEND", std::nullopt},
                        {"DISPLAY", server->displayName()}};
    std::shared_ptr<ScreenBackend> chosen;
    EXPECT_TRUE(returnsInTime([&] { chosen = makeScreenBackend().valueOr(nullptr); }));
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->name(), "x11");
    // A new controller cannot reach it: reported as lost, once.
    auto fresh = make({800, 450});
    fresh->startCapture();
    ASSERT_TRUE(recorder->waitForFailures(1));
    EXPECT_EQ(recorder->resets(), 1);
    EXPECT_TRUE(returnsInTime([&] { fresh.reset(); }));
}

}  // namespace
}  // namespace sv
