// Screen capture controllers on the synthetic backend: sizes, pacing,
// what mirror and clone mode show, the stop and failure contracts, the bound
// on frames held by consumers, the display's layers and the backend choice.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <set>

#include "platform/screen/paced_capture.h"
#include "tests/screen/screen_test_util.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

using test::pixelAt;
using test::Recorder;
using test::Ticker;

struct Rig {
    explicit Rig(SyntheticDisplay::Options options = {})
        : display(std::make_shared<SyntheticDisplay>(options)),
          backend(std::make_shared<SyntheticScreenBackend>(display)) {
        backend->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
    }
    // A new recorder and a controller delivering to it, not started yet:
    // set the recorder's hooks, then start.
    std::shared_ptr<ScreenCaptureController> make(WindowSize size, size_t keep = 1) {
        return test::makeRecorded(*backend, size, recorder, keep);
    }
    std::shared_ptr<ScreenCaptureController> start(WindowSize size, size_t keep = 1) {
        auto c = make(size, keep);
        c->startCapture();
        return c;
    }
    std::shared_ptr<SyntheticDisplay> display;
    std::shared_ptr<SyntheticScreenBackend> backend;
    std::shared_ptr<Recorder> recorder;
};

TEST(ScreenCaptureController, PixelSizesAndIntervals) {
    struct {
        float in;
        int32_t out;
    } cases[] = {{750.0f, 750}, {751.0f, 752}, {1199.41f, 1200},  {1.0f, 2},     {0.0f, 2},
                 {-40.0f, 2},   {NAN, 2},      {INFINITY, 16384}, {1e9f, 16384}, {16383.5f, 16384}};
    for (auto c : cases) EXPECT_EQ(ScreenCaptureController::evenPixelLength(c.in), c.out) << c.in;

    SyntheticScreenBackend backend;
    auto controller = backend.makeCaptureController({1199.41f, 751.0f}, MediaTime::make(1, 60));
    EXPECT_EQ(controller->frameSize(), (WindowSize{1199.41f, 751.0f}));
    EXPECT_EQ(std::make_pair(controller->pixelWidth(), controller->pixelHeight()),
              std::make_pair(1200, 752));

    // Intervals a peer could send that would spin or stall the thread.
    const std::pair<MediaTime, MediaTime> intervals[] = {
        {MediaTime::invalid(), MediaTime::make(1, 60)},
        {MediaTime::make(0, 60), MediaTime::make(1, 60)},
        {MediaTime::make(-1, 30), MediaTime::make(1, 60)},
        {MediaTime::make(1, 1'000'000), MediaTime::make(1, 1000)},
        {MediaTime::make(3600, 1), MediaTime::make(10, 1)}};
    for (auto [in, out] : intervals)
        EXPECT_EQ(PacedCaptureController::sanitizedInterval(in), out)
            << in.value << "/" << in.timescale;
    EXPECT_EQ(
        backend.makeCaptureController({64, 64}, MediaTime::make(1, 30))->minimumFrameInterval(),
        MediaTime::make(1, 30));

    // Deadlines are computed from the start, never accumulated: an hour of
    // 60 Hz frames ends exactly an hour later.
    const uint64_t start = 123'456'789;
    EXPECT_EQ(PacedCaptureController::deadline(start, 216'000, MediaTime::make(1, 60)),
              start + 3600 * uint64_t(HostClock::kTicksPerSecond));
    EXPECT_EQ(PacedCaptureController::deadline(start, 1, MediaTime::make(1, 60)),
              start + 16'666'667);
    EXPECT_EQ(PacedCaptureController::deadline(start, 3, MediaTime::make(1001, 30000)),
              start + 100'100'000);
}

TEST(ScreenCaptureController, FramesArePacedByDeadlinesOnOneDeliveryThreadAndRestartsGoOn) {
    Rig rig({.width = 640, .height = 360, .transformFlags = kScreenTransformRotate});
    auto controller = rig.make({320, 180});
    // A consumer that holds the delivery thread for a few deadlines gets no
    // burst of late frames afterwards: the missed deadlines are skipped.
    Ticker ticker;
    rig.recorder->onFrame = [&](ScreenCaptureController&, const auto&) {
        if (rig.recorder->frameCount() == 10) ticker.pass(4);
    };
    controller->startCapture();
    ASSERT_TRUE(rig.recorder->waitForFrames(30));
    // The orientation travels with every frame; reserved bits are dropped.
    rig.display->setTransformFlags(0xFF);
    EXPECT_EQ(rig.display->transformFlags(), 7u);
    ASSERT_TRUE(rig.recorder->waitForItems(
        [](const auto& all) { return all.back().transformFlags == 7u; }, test::kWait));
    controller->stopCapture();
    auto frames = rig.recorder->frames();
    EXPECT_EQ(std::make_tuple(frames[0].width, frames[0].height, frames[0].transformFlags),
              std::make_tuple(320, 180, uint32_t(kScreenTransformRotate)));
    EXPECT_GE(frames[10].presentationTime - frames[9].presentationTime,
              3 * uint64_t(HostClock::kTicksPerSecond) / 60);
    const MediaTime interval = MediaTime::make(1, 60);
    const uint64_t first = frames[0].presentationTime;
    uint64_t n = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(std::tie(frames[i].width, frames[i].height, frames[i].duration, frames[i].thread),
                  std::tie(frames[0].width, frames[0].height, interval, frames[0].thread));
        EXPECT_NE(frames[i].thread, std::this_thread::get_id());
        if (i == 0) continue;
        // Every frame sits on a deadline of the run (a skipped deadline only
        // leaves a gap), and time never goes backwards. The first frame may
        // itself be a later deadline of the run (a loaded machine woke the
        // thread late for the first): counted from it, deadlines can differ
        // from the run's by the rounding of one tick.
        ASSERT_GT(frames[i].presentationTime, frames[i - 1].presentationTime);
        while (PacedCaptureController::deadline(first, n, interval) + 1 <
               frames[i].presentationTime)
            ++n;
        const uint64_t due = PacedCaptureController::deadline(first, n, interval);
        EXPECT_LE(
            std::max(due, frames[i].presentationTime) - std::min(due, frames[i].presentationTime),
            1u);
    }
    // Frames come out of a pool: a consumer that lets go of each frame is
    // served by a handful of surfaces.
    std::set<uint64_t> surfaces;
    for (auto& f : frames) surfaces.insert(f.surfaceID);
    EXPECT_LE(surfaces.size(), 3u);

    // A restart continues the timeline, and the stamp carries the frame
    // index (counting from the controller's creation, across the restart)
    // and the presentation time.
    auto before = rig.recorder->lastSample();
    const size_t delivered = frames.size();
    controller->startCapture();
    ASSERT_TRUE(rig.recorder->waitForFrames(delivered + 3));
    controller->stopCapture();
    frames = rig.recorder->frames();
    EXPECT_GT(frames[delivered].presentationTime, frames[delivered - 1].presentationTime);
    auto stamp = test::stampOf(*before->imageBuffer());
    ASSERT_TRUE(stamp) << "no stamp in a synthetic frame";
    EXPECT_EQ(stamp->frameIndex, delivered - 1);
    EXPECT_EQ(stamp->hostTime, HostClock::fromMediaTime(before->presentationTime()));
    auto afterStamp = test::stampOf(*rig.recorder->lastSample()->imageBuffer());
    ASSERT_TRUE(afterStamp);
    EXPECT_EQ(afterStamp->frameIndex, rig.recorder->frameCount() - 1);
}

TEST(SyntheticScreen, MirrorShowsEverythingCloneOnlyTheClonedLayers) {
    Rig rig({.width = 1600, .height = 900});
    const uint32_t a = rig.display->makeContextID();
    ASSERT_TRUE(rig.display->addLayer({a, 100, "com.example.a", 0, 100, 100, 600, 400}));
    const uint32_t b = rig.display->makeContextID();
    ASSERT_NE(a, b);
    ASSERT_TRUE(rig.display->addLayer({b, 200, "com.example.b", 0, 400, 300, 600, 400}));
    const uint32_t colorA = syntheticLayerColor(a), colorB = syntheticLayerColor(b);
    ASSERT_NE(colorA, colorB);

    // A half-size controller: the layer geometry is scaled, so display
    // point (x, y) is frame point (x / 2, y / 2). The points lie in the
    // lower halves of the layers, away from their markers.
    auto controller = rig.start({800, 450});
    struct Probe {
        int32_t x, y;
    };
    const Probe aOnly{150, 230}, overlap{275, 230}, bOnly{450, 330}, outside{700, 60};
    auto shows = [](Probe p, uint32_t color) {
        return [=](const SharedSurface& s) { return pixelAt(s, p.x, p.y) == color; };
    };
    using test::allOf;
    auto mirror = rig.recorder->waitForFrame(
        allOf({shows(aOnly, colorA), shows(overlap, colorB), shows(bOnly, colorB),
               shows(outside, kSyntheticBackgroundColor)}));
    ASSERT_TRUE(mirror);
    EXPECT_EQ(mirror->imageBuffer()->width(), 800);

    // Cloning A: B lies on top of A but must not appear, nor the background.
    rig.backend->mirroringService()->setLayerContextsToClone({a});
    rig.backend->mirroringService()->setCloneMirroringMode(kCloneMirroringModeClone);
    auto clone = rig.recorder->waitForFrame(allOf(
        {shows(aOnly, colorA), shows(overlap, colorA), shows(bOnly, kSyntheticCloneBackgroundColor),
         shows(outside, kSyntheticCloneBackgroundColor)}));
    ASSERT_TRUE(clone);
    for (int32_t y = 0; y < 450; y += 3)
        for (int32_t x = 0; x < 800; x += 3)
            ASSERT_NE(pixelAt(*clone->imageBuffer(), x, y), colorB) << x << "," << y;

    // Cloning B as well brings it back on top; removing a layer removes it.
    rig.backend->mirroringService()->setLayerContextsToClone({a, b});
    ASSERT_TRUE(rig.recorder->waitForFrame(shows(overlap, colorB)));
    ASSERT_TRUE(rig.display->removeLayer(b));
    ASSERT_TRUE(rig.recorder->waitForFrame(shows(bOnly, kSyntheticCloneBackgroundColor)));
    controller->stopCapture();
}

TEST(SyntheticScreen, DrawingIsDeterministicAndFramesDiffer) {
    SyntheticDisplay display({.width = 1600, .height = 900});
    display.addLayer({7, 1, "a", 0, 0, 0, 1600, 900});
    display.addLayer({9, 2, "b", 0, 800, 450, 700, 400});
    SyntheticScene scene = display.scene(kCloneMirroringModeMirror, {});
    auto one = SharedSurface::create(800, 450).value(),
         two = SharedSurface::create(800, 450).value();
    ASSERT_TRUE(drawSyntheticFrame(*one, scene, {5, 1'000'000}));
    ASSERT_TRUE(drawSyntheticFrame(*two, scene, {5, 1'000'000}));
    EXPECT_EQ(std::memcmp(one->data(), two->data(), one->byteSize()), 0);
    ASSERT_TRUE(drawSyntheticFrame(*two, scene, {6, 1'016'667}));
    // The marker moved inside a layer, below any stamp rows.
    bool differs = false;
    for (int32_t y = 64; y < 450 && !differs; ++y)
        differs = std::memcmp(one->row(y), two->row(y), 800 * 4) != 0;
    EXPECT_TRUE(differs);
    // Mode 2 shows nothing; a clone set of unknown contexts shows black.
    EXPECT_TRUE(display.scene(kCloneMirroringModeEnded, {7}).layers.empty());
    EXPECT_TRUE(display.scene(kCloneMirroringModeClone, {42}).layers.empty());
    EXPECT_FALSE(display.scene(kCloneMirroringModeClone, {42}).showsBackground);
}

TEST(ScreenCaptureController, NoFramesWhileMirroringIsEnded) {
    Rig rig({.width = 320, .height = 180});
    auto mirroring = rig.backend->mirroringService();
    EXPECT_FALSE(mirroring->setCloneMirroringMode(1));
    EXPECT_FALSE(mirroring->setCloneMirroringMode(-3));
    EXPECT_EQ(mirroring->cloneMirroringMode(), kCloneMirroringModeMirror);

    auto controller = rig.start({160, 90});
    ASSERT_TRUE(rig.recorder->waitForFrames(2));
    mirroring->setCloneMirroringMode(kCloneMirroringModeEnded);
    const uint64_t endedAt = HostClock::now();
    Ticker ticker;
    ASSERT_TRUE(ticker.pass(12));
    const size_t during = rig.recorder->frameCount();
    ASSERT_TRUE(ticker.pass(12));
    EXPECT_EQ(rig.recorder->frameCount(), during);
    EXPECT_TRUE(controller->isCapturing());
    const uint64_t resumedAt = HostClock::now();
    mirroring->setCloneMirroringMode(kCloneMirroringModeMirror);
    ASSERT_TRUE(rig.recorder->waitForFrames(during + 2));
    controller->stopCapture();
    // At most the frame already in flight when mode 2 was set.
    size_t inGap = 0;
    for (auto& f : rig.recorder->frames())
        if (f.presentationTime > endedAt && f.presentationTime < resumedAt) ++inGap;
    EXPECT_LE(inGap, 1u);
}

TEST(ScreenCaptureController, StopGuaranteesAndLifetimesOfDelegateAndController) {
    Rig rig({.width = 320, .height = 180});
    Ticker ticker;

    // Stop from inside the frame callback returns at once, and nothing
    // follows.
    {
        auto controller = rig.make({160, 90});
        std::atomic<int> stopsInside{0};
        rig.recorder->onFrame = [&](ScreenCaptureController& c, const auto&) {
            if (rig.recorder->frameCount() == 3) {
                c.stopCapture();
                ++stopsInside;
            }
        };
        controller->startCapture();
        ASSERT_TRUE(rig.recorder->waitForFrames(3));
        ASSERT_TRUE(ticker.pass(6));
        EXPECT_EQ(stopsInside.load(), 1);
        EXPECT_EQ(rig.recorder->frameCount(), 3u);
        EXPECT_FALSE(controller->isCapturing());
    }

    // Stop from another thread waits for a callback in progress.
    {
        Semaphore entered, release;
        std::atomic<bool> inCallback{false};
        auto controller = rig.make({160, 90});
        rig.recorder->onFrame = [&](ScreenCaptureController&, const auto&) {
            inCallback = true;
            entered.signal();
            release.waitFor(test::kWait);
            inCallback = false;
        };
        controller->startCapture();
        ASSERT_TRUE(entered.waitFor(test::kWait));
        std::atomic<bool> stopped{false};
        std::thread stopper([&] {
            controller->stopCapture();
            EXPECT_FALSE(inCallback.load());
            stopped = true;
        });
        ASSERT_TRUE(ticker.pass(3));
        EXPECT_FALSE(stopped.load());  // still waiting for the callback
        release.signal();
        stopper.join();
        EXPECT_TRUE(stopped.load());
        const size_t after = rig.recorder->frameCount();
        ASSERT_TRUE(ticker.pass(6));
        EXPECT_EQ(rig.recorder->frameCount(), after);
        EXPECT_FALSE(controller->isCapturing());
        controller->stopCapture();  // stopping twice is harmless
    }

    // The delegate goes away while capturing: frames are dropped, nothing
    // crashes, and a new delegate picks up.
    auto controller = rig.start({160, 90});
    ASSERT_TRUE(rig.recorder->waitForFrames(2));
    std::weak_ptr<Recorder> weak = rig.recorder;
    rig.recorder.reset();
    ASSERT_TRUE(ticker.pass(4));
    EXPECT_TRUE(weak.expired());  // the controller held it only during a call
    auto next = std::make_shared<Recorder>();
    controller->setDelegate(next);
    ASSERT_TRUE(next->waitForFrames(2));
    controller->setDelegate({});
    ASSERT_TRUE(ticker.pass(2));
    controller.reset();

    // The controller is released from inside its own callback (its owner
    // lets go there, as a session being torn down would).
    struct Owner : Recorder {
        std::shared_ptr<ScreenCaptureController> controller;
        Semaphore released;
    };
    auto owner = std::make_shared<Owner>();
    owner->controller = rig.backend->makeCaptureController({160, 90}, MediaTime::make(1, 60));
    owner->onFrame = [raw = owner.get()](ScreenCaptureController&, const auto&) {
        if (raw->controller) {
            raw->controller.reset();
            raw->released.signal();
        }
    };
    owner->controller->setDelegate(owner);
    owner->controller->startCapture();
    ASSERT_TRUE(owner->released.waitFor(test::kWait));
    ASSERT_TRUE(ticker.pass(4));
    EXPECT_EQ(owner->frameCount(), 1u);
}

TEST(ScreenCaptureController, FailuresAreDeliveredOnceOnTheDeliveryThread) {
    Rig rig({.width = 320, .height = 180});
    Ticker ticker;
    struct Case {
        SyntheticScreenFailure failure;
        int32_t status;
        // What the delegate heard: {failed statuses, preemptions, resets}.
        std::tuple<std::vector<int32_t>, int, int> heard;
    };
    for (Case c : {Case{SyntheticScreenFailure::Failed,
                        kScreenCaptureSourceGone,
                        {{kScreenCaptureSourceGone}, 0, 0}},
                   Case{SyntheticScreenFailure::Preempted, 0, {{}, 1, 0}},
                   Case{SyntheticScreenFailure::MediaServicesReset, 0, {{}, 0, 1}}}) {
        SCOPED_TRACE(int(c.failure));
        auto controller = rig.make({160, 90});
        // The session stops the controller from inside the failure callback.
        rig.recorder->onFailure = [](ScreenCaptureController& ctl) { ctl.stopCapture(); };
        controller->startCapture();
        ASSERT_TRUE(rig.recorder->waitForFrames(2));
        rig.display->injectFailure(c.failure, c.status);
        ASSERT_TRUE(rig.recorder->waitForFailures(1));
        EXPECT_EQ(rig.recorder->failureThread(), rig.recorder->frames()[0].thread);
        EXPECT_FALSE(controller->isCapturing());
        const size_t frames = rig.recorder->frameCount();
        ASSERT_TRUE(ticker.pass(6));
        EXPECT_EQ(rig.recorder->failureCount(), 1u);
        EXPECT_EQ(rig.recorder->frameCount(), frames);
        EXPECT_EQ(std::make_tuple(rig.recorder->failedStatuses(), rig.recorder->preempted(),
                                  rig.recorder->resets()),
                  c.heard);
        // A stopped controller ignores failures; a restarted one delivers.
        rig.display->injectFailure(c.failure, c.status);
        controller->startCapture();
        ASSERT_TRUE(rig.recorder->waitForFrames(frames + 2));
        EXPECT_EQ(rig.recorder->failureCount(), 1u);
        controller->stopCapture();
    }
}

TEST(ScreenCaptureController, ConsumersThatHoldFramesCannotGrowThePool) {
    Rig rig({.width = 320, .height = 180});
    Ticker ticker;
    // Holds every frame, like a consumer that never reads.
    auto controller = rig.start({160, 90}, 1000);
    const size_t limit = PacedCaptureController::kMaxFramesInFlight;
    ASSERT_TRUE(rig.recorder->waitForFrames(limit));
    ASSERT_TRUE(ticker.pass(8));
    EXPECT_EQ(rig.recorder->frameCount(), limit);
    std::set<uint64_t> surfaces;
    for (auto& f : rig.recorder->frames()) surfaces.insert(f.surfaceID);
    EXPECT_EQ(surfaces.size(), limit);
    // Letting go makes frames flow again, from the same surfaces.
    rig.recorder->dropSamples();
    ASSERT_TRUE(rig.recorder->waitForFrames(limit + 4));
    controller->stopCapture();
    for (auto& f : rig.recorder->frames()) surfaces.insert(f.surfaceID);
    EXPECT_EQ(surfaces.size(), limit);
}

TEST(SyntheticDisplay, LayersObserversAndLimits) {
    SyntheticDisplay display;
    EXPECT_FALSE(display.setSize(0, 10));
    EXPECT_FALSE(display.setSize(10, 20000));
    EXPECT_TRUE(display.setSize(1334, 750));
    EXPECT_EQ(display.height(), 750);

    std::atomic<int> calls{0};
    std::vector<size_t> seen;
    uint64_t selfRemoving = 0;
    const uint64_t counting = display.addLayersObserver([&] {
        ++calls;
        seen.push_back(display.layers().size());  // may read the display
    });
    selfRemoving = display.addLayersObserver([&] { display.removeLayersObserver(selfRemoving); });

    EXPECT_FALSE(display.addLayer({0, 1, "x", 0, 0, 0, 10, 10}));
    EXPECT_FALSE(display.addLayer({5, 1, "x", 0, 0, 0, -1, 10}));
    EXPECT_EQ(calls.load(), 0);
    const uint32_t a = display.makeContextID(), b = display.makeContextID();
    EXPECT_NE(a, 0u);
    EXPECT_NE(a, b);
    ASSERT_TRUE(display.addLayer({a, 1, "a", 0, 0, 0, 100, 100}));
    ASSERT_TRUE(display.addLayer({b, 2, "b", 0, 50, 50, 100, 100}));
    // Replacing A moves it on top.
    ASSERT_TRUE(display.addLayer({a, 1, "a", 3, -50, -50, 100000, 100000}));
    auto layers = display.layers();
    ASSERT_EQ(layers.size(), 2u);
    EXPECT_EQ(layers[0].contextID, b);
    EXPECT_EQ(layers[1].contextID, a);
    EXPECT_EQ(layers[1].level, 3);
    EXPECT_FALSE(display.removeLayer(12345));
    EXPECT_TRUE(display.removeLayer(a));
    EXPECT_EQ(calls.load(), 4);
    EXPECT_EQ(seen, (std::vector<size_t>{1, 2, 2, 1}));
    // A layer far beyond the display is clipped, not drawn out of bounds.
    auto s = SharedSurface::create(64, 64).value();
    EXPECT_TRUE(drawSyntheticFrame(*s, display.scene(kCloneMirroringModeMirror, {}), {}));

    display.removeLayersObserver(counting);
    display.addLayer({a, 1, "a", 0, 0, 0, 1, 1});
    EXPECT_EQ(calls.load(), 4);
    // Identifiers in use are never handed out.
    for (int i = 0; i < 50; ++i) EXPECT_NE(display.makeContextID(), a);
}

TEST(ScreenBackend, ChoiceByNameEnvironmentAndReachability) {
    EXPECT_EQ(parseScreenBackendKind("x11"), ScreenBackendKind::X11);
    EXPECT_EQ(parseScreenBackendKind("synthetic"), ScreenBackendKind::Synthetic);
    EXPECT_EQ(parseScreenBackendKind("auto"), ScreenBackendKind::Automatic);
    EXPECT_EQ(parseScreenBackendKind("automatic"), ScreenBackendKind::Automatic);
    EXPECT_EQ(parseScreenBackendKind("X11 "), std::nullopt);
    EXPECT_EQ(parseScreenBackendKind(""), std::nullopt);

    {
        test::ScopedEnv env{{"SORVEL_SCREEN_BACKEND", std::nullopt}, {"DISPLAY", std::nullopt}};
        EXPECT_EQ(makeScreenBackend(ScreenBackendKind::Automatic).value()->name(), "synthetic");
        auto refused = makeScreenBackend(ScreenBackendKind::X11);
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().domain, kScreenErrorDomain);
        EXPECT_EQ(refused.error().code, kScreenErrorNoDisplay);
    }
    {
        // A display nobody serves yet is still the desktop: X11, waiting
        // for its server (never a synthetic display standing in for it).
        test::ScopedEnv env{{"SORVEL_SCREEN_BACKEND", std::nullopt}, {"DISPLAY", ":4077"}};
        auto waiting = makeScreenBackend(ScreenBackendKind::Automatic).valueOr(nullptr);
        ASSERT_TRUE(waiting);
        EXPECT_EQ(waiting->name(), "x11");
        EXPECT_EQ(waiting->displaySize(), (WindowSize{0, 0}));
        EXPECT_EQ(makeScreenBackend(ScreenBackendKind::X11).value()->name(), "x11");
    }
    {
        test::ScopedEnv env{{"SORVEL_SCREEN_BACKEND", "synthetic"}, {"DISPLAY", ":4077"}};
        EXPECT_EQ(makeScreenBackend().value()->name(), "synthetic");
        EXPECT_EQ(makeScreenBackend(ScreenBackendKind::Synthetic).value()->name(), "synthetic");
    }
    {
        test::ScopedEnv env{{"SORVEL_SCREEN_BACKEND", "nonsense"}, {"DISPLAY", std::nullopt}};
        EXPECT_EQ(makeScreenBackend().value()->name(), "synthetic");
    }
    auto mine = std::make_shared<SyntheticScreenBackend>();
    setProcessScreenBackend(mine);
    EXPECT_EQ(processScreenBackend(), mine);
    setProcessScreenBackend(nullptr);
}

}  // namespace
}  // namespace sv
