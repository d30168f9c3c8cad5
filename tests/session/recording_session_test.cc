// SVRecordingSession driven frame by frame through a fake screen controller,
// with the synthetic audio backend behind the shared capture manager and the
// real movie writer; then whole recordings through the synthetic screen and
// audio sources, judged by the movie inspector (the frame stamps and the
// clicks say when each frame and each second of sound was captured).
#include "session/recording_session.h"
#include "session/sample_timing.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <thread>

#include "platform/audio/synthetic_audio.h"
#include "platform/host_clock.h"
#include "platform/log.h"
#include "platform/screen/frame_stamp.h"
#include "platform/screen/screen_backend.h"
#include "platform/screen/synthetic_screen.h"
#include "support/movie_store.h"
#include "support/store_manager.h"
#include "tests/audio/audio_analysis.h"
#include "tests/movie/movie_test_util.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

// An extension of the test program in a bundle of its own under `root`; its
// role is the last component of its identifier (tests/extension). Without
// `sampleBuffer` it asks for movie fragments.
std::shared_ptr<AppExtension> testExtension(const test::TempDir& root, const std::string& role,
                                            bool sampleBuffer = true) {
    std::filesystem::create_directories(root / role);
    std::filesystem::create_symlink(TEST_EXTENSION, root / (role + "/extension"));
    std::ofstream(root / (role + "/bundle.json"))
        << R"({"identifier": "com.example.test.)" << role
        << R"(", "extension": {"point": "org.sorvel.broadcast-services", "executable": )"
        << R"("extension")"
        << (sampleBuffer ? R"(, "attributes": {"SVBroadcastProcessMode": )"
                           R"("SVBroadcastProcessModeSampleBuffer"})"
                         : "")
        << "}}";
    return AppExtension::extensionWithBundlePath(root / role);
}

using namespace std::chrono_literals;
using testing::hostTime;
using testing::inspect;

// A screen backend whose controllers the test drives frame by frame: frames
// and failures reach the delegate on the calling thread, as on a delivery
// thread, and a stop from another thread waits for a delivery in progress,
// as the platform's controllers do.
class FakeController : public ScreenCaptureController {
  public:
    FakeController(WindowSize size, MediaTime interval) : ScreenCaptureController(size, interval) {}

    void setDelegate(std::weak_ptr<ScreenCaptureControllerDelegate> d) override {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(d);
    }
    void startCapture() override {
        std::lock_guard lock(mutex_);
        if (!capturing_ && startsAreLate) ++lateStarts;
        capturing_ = true;
        stopRequested_ = false;
        cv_.notify_all();
    }
    void stopCapture() override {
        std::unique_lock lock(mutex_);
        capturing_ = false;
        stopRequested_ = true;
        cv_.notify_all();
        if (deliveringThread_ != std::this_thread::get_id())  // not from inside a delivery
            cv_.wait(lock, [&] { return deliveringThread_ == std::thread::id(); });
    }
    bool isCapturing() const override {
        std::lock_guard lock(mutex_);
        return capturing_;
    }
    bool waitFor(const std::function<bool()>& condition) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(30), condition);
    }
    bool waitCapturing() {
        return waitFor([&] { return capturing_; });
    }

    // One frame to the delegate while capturing. With `holdUntilStop` the
    // delivery begins, then waits for a stop request before it goes on.
    void deliver(const std::shared_ptr<SampleBuffer>& frame, uint32_t flags = 0,
                 bool holdUntilStop = false) {
        run(true, holdUntilStop, [&](ScreenCaptureControllerDelegate& d) {
            d.screenCaptureControllerDidReceiveSampleBuffer(*this, frame, flags);
        });
    }
    // A failure, as from the delivery thread or (`fromElsewhere`) another one.
    void fail(SyntheticScreenFailure failure, bool fromElsewhere = false) {
        run(
            false, false,
            [&](ScreenCaptureControllerDelegate& d) {
                if (failure == SyntheticScreenFailure::Failed)
                    d.screenCaptureControllerDidFailWithStatus(*this, kScreenCaptureGrabFailed);
                else if (failure == SyntheticScreenFailure::Preempted)
                    d.screenCaptureControllerWasPreempted(*this);
                else
                    d.screenCaptureControllerMediaServicesWereReset(*this);
            },
            fromElsewhere);
    }
    bool waitDelivering() {
        return waitFor([&] { return deliveringThread_ != std::thread::id(); });
    }

    std::atomic<int> lateStarts{0};          // starts while startsAreLate
    std::atomic<bool> startsAreLate{false};  // set by a test between a stop and a start

  private:
    void run(bool needsCapture, bool hold,
             const std::function<void(ScreenCaptureControllerDelegate&)>& call,
             bool fromElsewhere = false) {
        std::unique_lock lock(mutex_);
        auto d = delegate_.lock();
        if (!d || (needsCapture && !capturing_)) return;
        if (!fromElsewhere) deliveringThread_ = std::this_thread::get_id();
        cv_.notify_all();
        if (hold) cv_.wait(lock, [&] { return stopRequested_; });
        lock.unlock();
        call(*d);
        lock.lock();
        if (!fromElsewhere) deliveringThread_ = {};
        cv_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::weak_ptr<ScreenCaptureControllerDelegate> delegate_;
    bool capturing_ = false, stopRequested_ = false;
    std::thread::id deliveringThread_;
};

class FakeScreenBackend : public ScreenBackend {
  public:
    std::string name() const override { return "fake"; }
    std::shared_ptr<ScreenCaptureController> makeCaptureController(WindowSize size,
                                                                   MediaTime interval) override {
        std::lock_guard lock(mutex_);
        return controller_ = std::make_shared<FakeController>(size, interval);
    }
    std::shared_ptr<DisplayMirroringService> mirroringService() override { return mirroring; }
    WindowSize displaySize() const override { return {1334, 750}; }
    bool isDesktop() const override { return desktop; }
    std::atomic<bool> desktop{false};
    // The controller made last.
    std::shared_ptr<FakeController> controller() const {
        std::lock_guard lock(mutex_);
        return controller_;
    }

    const std::shared_ptr<BasicDisplayMirroringService> mirroring =
        std::make_shared<BasicDisplayMirroringService>();

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<FakeController> controller_;
};

// The errors the session stopped with, each with the movie it kept.
struct Errors : SVRecordingSessionDelegate,
                test::Collected<std::pair<int64_t, std::optional<URL>>> {
    void recordingSessionStoppedWithError(const Error& e,
                                          const std::optional<URL>& movie) override {
        add({e.code, movie});
    }
    std::vector<int64_t> list() {
        std::vector<int64_t> codes;
        for (const auto& [code, movie] : all()) codes.push_back(code);
        return codes;
    }
};

struct Finished {
    std::optional<URL> url;
    OptionalError error;
};

std::shared_ptr<SyntheticAudioBackend> gAudio = std::make_shared<SyntheticAudioBackend>();

class RecordingSessionTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        setProcessAudioBackend(gAudio);
        SVReachability::setFlagsProvider([](const std::string&) { return std::nullopt; });
    }
    void SetUp() override {
        MovieStore::shared().setHomeDirectory(home.path());
        MovieStore::shared()._srSetupTempDirectory();
        setProcessScreenBackend(screen);
        s->setContextIDs({7, 9});
        s->setWindowSize({64, 64});
        s->setDelegate(errors);
    }
    void TearDown() override { SVCaptureManager::sharedManager()->stopAllCapture(); }

    // Starts `s` as the manager does and waits until its screen capture runs
    // (on a controller of its own: a stop releases the last one).
    std::shared_ptr<FakeController> start(std::function<void()> handler = {}) {
        const auto previous = screen->controller();
        s->setRecording(true);
        s->startSessionWithHandler(std::move(handler));
        EXPECT_TRUE(test::eventually(
            [&] { return screen->controller() != nullptr && screen->controller() != previous; },
            30s));
        EXPECT_TRUE(screen->controller()->waitCapturing());
        return screen->controller();
    }
    std::shared_ptr<SampleBuffer> frame(double seconds) {
        return testing::makeFrame(pool, frameIndex++, hostTime(seconds));
    }
    // Frames at 30 fps from host second 100, each once the writer takes more.
    void record(double seconds) {
        auto c = start();
        auto w = s->movieWriter();
        for (int i = 0; i < seconds * 30; ++i) {
            test::eventually(
                [&] {
                    return w->fileWriterStatus() != 1 || !w->videoInput() ||
                           w->videoInput()->isReadyForMoreMediaData();
                },
                30s);
            c->deliver(frame(100 + i / 30.0));
        }
    }
    Finished finish(double startClip = 0, double endClip = 0) {
        return test::awaitOnce<Finished>([&](std::function<void(Finished)> done) {
            s->finishSessionWithStartClipDuration(startClip, endClip,
                                                  [done](std::optional<URL> u, OptionalError e) {
                                                      done({u, e});
                                                  });
        });
    }
    // Invalid without a writer (a failure finished and released it).
    MediaTime lastWritten() {
        auto w = s->movieWriter();
        return w ? w->lastVideoPresentationTime() : MediaTime::invalid();
    }

    test::TempDir home;
    std::shared_ptr<FakeScreenBackend> screen = std::make_shared<FakeScreenBackend>();
    std::shared_ptr<Errors> errors = std::make_shared<Errors>();
    std::shared_ptr<SVRecordingSession> s =
        SVRecordingSession::initWithBundleID("org.sorvel.tests.game");
    SurfacePool pool{64, 64};
    int frameIndex = 0;
};

TEST_F(RecordingSessionTest, MovieNamesStayInsideTheStore) {
    test::TempDir apps;
    test::writeFile(apps / "a/bundle.json",
                    R"({"identifier": "com.example.a", "name": "My Game"})");
    test::writeFile(apps / "b/bundle.json", R"({"identifier": "com.example.b", "name": "AC/DC"})");
    test::writeFile(apps / "c/bundle.json", R"({"identifier": "com.example.c"})");
    test::ScopedEnv env{{"SORVEL_BUNDLE_PATH", apps.path()}, {"XDG_DATA_HOME", home.path()}};
    auto language = test::languageEnv("en");
    const std::string store = MovieStore::shared()._srTempPath();  // ends in "/"
    for (auto [id, name] : {std::pair{"com.example.a", "My Game"},
                            {"com.example.b", "AC_DC"},
                            {"com.example.c", ""},
                            {"com.example.unknown", "(null)"}}) {
        auto session = SVRecordingSession::initWithBundleID(id);
        EXPECT_EQ(session->outputPath(), store + "/" + name + ".mp4");
        EXPECT_EQ(session->trimmedOutputURL().path, store + "/" + name + "_trimmed.mp4");
    }
    auto session = SVRecordingSession::initWithBundleID("com.example/a");
    auto upload = testExtension(apps, "upload", false);
    std::filesystem::remove(apps / "upload/extension");  // it ends before answering
    session->enableBroadcastWithExtension(upload, 0, {});
    EXPECT_TRUE(
        std::regex_match(session->outputPath(),
                         std::regex(store + "/SVMovie_com\\.example_a_[0-9]+\\.[0-9]{6}_1\\.mp4")));
}

TEST_F(RecordingSessionTest, StartCompletesOnTheFirstFrameOnItsThread) {
    std::atomic<int> calls{0};
    std::thread::id where;
    auto c = start([&] {
        ++calls;
        where = std::this_thread::get_id();
    });
    EXPECT_EQ(screen->mirroring->cloneMirroringMode(), kCloneMirroringModeClone);
    EXPECT_EQ(screen->mirroring->layerContextsToClone(), (std::set<uint32_t>{7, 9}));
    EXPECT_EQ(c->frameSize(), (WindowSize{64, 64}));
    EXPECT_EQ(c->minimumFrameInterval(), MediaTime::make(1, 60));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(s->progress().recordedSeconds, 0.0);  // nothing written yet
    std::thread delivery([&] { c->deliver(frame(1.0)); });
    const auto deliveryThread = delivery.get_id();
    delivery.join();
    c->deliver(frame(1.1));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(where, deliveryThread);

    Finished f = finish();
    EXPECT_EQ(f.url, s->outputURL());
    EXPECT_FALSE(f.error);
    EXPECT_EQ(testing::probeMovie(f.url->path).tracks.size(), 3u);
    EXPECT_FALSE(c->isCapturing());
    EXPECT_EQ(screen->mirroring->cloneMirroringMode(), kCloneMirroringModeEnded);
    // The controller and its frame surfaces go with the recording.
    EXPECT_FALSE(s->screenCaptureController());
}

TEST_F(RecordingSessionTest, PausesAreCutOutOfTheMovie) {
    auto c = start();
    c->deliver(frame(10.000));
    c->deliver(frame(10.016));
    s->pauseSession();
    EXPECT_FALSE(c->isCapturing());
    log::Capture log;
    s->pauseSession();  // already paused: nothing
    EXPECT_FALSE(log.contains("SVRecordingSession: pauseSession"));
    s->screenCaptureControllerDidReceiveSampleBuffer(*c, frame(12.0), 0);  // late frame
    EXPECT_TRUE(log.contains("session is paused discard sample"));

    s->resumeSessionWithContextID(11);
    s->resumeSessionWithContextID(12);  // not paused: nothing
    ASSERT_TRUE(c->waitCapturing());
    EXPECT_EQ(screen->controller(), c);
    EXPECT_EQ(screen->mirroring->layerContextsToClone(), std::set<uint32_t>{11});
    // The first frame takes the last time before the pause (so the writer
    // drops it), the next follows on.
    c->deliver(frame(15.000));
    EXPECT_TRUE(
        log.contains("discarding video sample buffer due to timestamp earlier than previous"));
    c->deliver(frame(15.016));
    EXPECT_EQ(lastWritten(), hostTime(10.032));
    // A second pause adds its gap.
    s->pauseSession();
    s->resumeSessionWithContextID(11);
    ASSERT_TRUE(c->waitCapturing());
    c->deliver(frame(30.000));
    c->deliver(frame(30.016));
    EXPECT_EQ(lastWritten(), hostTime(10.048));

    Finished f = finish();
    EXPECT_FALSE(s->lastSampleTimestamp().isValid());
    EXPECT_EQ(s->sampleTimeOffset(), MediaTime::zero());
    // In order, without the paused or duplicate frames, 16 ms apart.
    auto video = testing::decodeVideo(f.url->path);
    ASSERT_GE(video.indices.size(), 3u);
    for (size_t i = 0; i < video.indices.size(); ++i) {
        EXPECT_EQ(video.indices[i], (std::vector<int>{0, 1, 4, 6})[i]);
        EXPECT_NEAR(video.times[i] - video.times[0], 0.016 * double(i), 1e-3);
    }
}

// A pause while the start chain still sets up the movie writer keeps the
// writer: the resume records into it and the stop hands over the movie.
TEST_F(RecordingSessionTest, APauseBeforeTheWriterIsReadyKeepsTheRecording) {
    s->setRecording(true);
    s->startSessionWithHandler({});
    s->pauseSession();  // the writer is set up on the store's queue meanwhile
    ASSERT_TRUE(test::eventually([&] { return s->movieWriter() != nullptr; }, 30s));
    s->resumeSessionWithContextID(7);
    ASSERT_TRUE(test::eventually([&] { return screen->controller() != nullptr; }, 30s));
    auto c = screen->controller();
    ASSERT_TRUE(c->waitCapturing());
    for (int i = 0; i < 4; ++i) c->deliver(frame(20 + i / 30.0));
    Finished f = finish();
    EXPECT_FALSE(f.error);
    ASSERT_TRUE(f.url);
    EXPECT_GE(testing::decodeVideo(f.url->path).indices.size(), 2u);
}

TEST_F(RecordingSessionTest, StartChainTapThenMicrophoneThenScreen) {
    const std::string tap =
        "SVRecordingManager: startAudioCapture: Successfully started Audio Tap Queue Recording";
    for (int variant = 0; variant < 3; ++variant) {
        SCOPED_TRACE(variant);
        log::Capture log;
        auto at = [&](const std::string& text) {
            auto lines = log.lines();
            for (size_t i = 0; i < lines.size(); ++i)
                if (lines[i].text == text) return int(i);
            return -1;
        };
        s->setFrontmostPIDForAudioTap(variant == 2 ? 0 : 4242);
        s->setMicrophoneEnabled(variant != 1);
        start();
        const int screenAt = at("starting screen capture");
        ASSERT_GE(screenAt, 0);
        if (variant == 0) {
            EXPECT_LT(at(tap), at("starting mic capture"));
            EXPECT_LT(at("starting mic capture"), screenAt);
        } else {  // no microphone when it is off, nor without a process to tap
            EXPECT_EQ(at("starting mic capture"), -1);
            EXPECT_EQ(at(tap) >= 0, variant == 1);
        }
        EXPECT_EQ(SVCaptureManager::sharedManager()->isRecordingMicrophone(), variant == 0);
        EXPECT_EQ(finish().error->code, -5803);  // no frame was written
        EXPECT_TRUE(test::eventually([] { return gAudio->openSources() == 0; }, 30s));
    }
}

TEST_F(RecordingSessionTest, FinishTrimsOnlyWithBothDurationsAndCleanupRemoves) {
    record(10);
    Finished whole = finish(5.0, 0.0);
    EXPECT_EQ(whole.url, s->outputURL());
    EXPECT_NEAR(testing::probeMovie(whole.url->path).duration, 10.0, 0.1);
    record(10);
    Finished trimmed = finish(5.0, 3.0);
    EXPECT_EQ(trimmed.url, s->trimmedOutputURL());
    EXPECT_NEAR(testing::probeMovie(trimmed.url->path).duration, 2.0, 0.1);
    EXPECT_TRUE(std::filesystem::exists(s->outputPath()));  // both stay
    // Nothing would be left, or no time span at all: the movie comes whole.
    record(4);
    EXPECT_EQ(finish(5.0, 3.0).url, s->outputURL());
    record(1);
    EXPECT_EQ(finish(INFINITY, 1e300).url, s->outputURL());

    // Clean-up while recording stops capture and removes the movie, on the
    // store's queue; a finish afterwards is not answered.
    record(0.5);
    std::atomic<bool> onStoreQueue{false};
    test::awaitOnce<>([&](std::function<void()> done) {
        s->finishAndCleanupSessionFilesWithHandler([&, done] {
            onStoreQueue = DispatchQueue::global(QueuePriority::Background)->isCurrent();
            done();
        });
    });
    EXPECT_TRUE(onStoreQueue);
    EXPECT_FALSE(s->isRecording());
    EXPECT_FALSE(screen->controller()->isCapturing());
    EXPECT_FALSE(std::filesystem::exists(s->outputPath()));
    // Nothing to finish: the handler is refused at once, never kept.
    auto called = std::make_shared<std::atomic<bool>>(false);
    EXPECT_FALSE(s->finishSessionWithHandler(
        [called](std::optional<URL>, OptionalError) { called->store(true); }));
    EXPECT_EQ(called.use_count(), 1);
    EXPECT_FALSE(*called);
}

// A failed capture keeps what was recorded: the delegate gets the error with
// the finished movie (nothing when no frame was written).
TEST_F(RecordingSessionTest, ScreenFailuresStopTheSessionAndKeepTheMovie) {
    record(1.5);
    auto c = screen->controller();
    c->fail(SyntheticScreenFailure::Failed);
    EXPECT_FALSE(s->isRecording());
    EXPECT_FALSE(c->isCapturing());
    ASSERT_TRUE(errors->waitFor(1, 30s));
    auto movie = errors->all()[0].second;
    ASSERT_TRUE(movie);
    EXPECT_NEAR(testing::probeMovie(movie->path).duration, 1.5, 0.1);
    c = start();
    c->fail(SyntheticScreenFailure::Preempted);
    s->stopWithError(_svUserErrorForCode(-5800));  // not recording: nothing
    ASSERT_TRUE(errors->waitFor(2, 30s));
    EXPECT_EQ(errors->list(), (std::vector<int64_t>{-5804, -5800}));
    EXPECT_FALSE(errors->all()[1].second);
}

TEST_F(RecordingSessionTest, MediaServicesResetStopsAPhoneSessionForGoodNotADesktopOne) {
    auto c = start();
    c->deliver(frame(1.0));
    c->fail(SyntheticScreenFailure::MediaServicesReset);
    ASSERT_TRUE(errors->waitFor(1, 30s));
    EXPECT_EQ(errors->list(), std::vector<int64_t>{-5804});
    std::atomic<int> started{0};
    c = start([&] { ++started; });
    c->deliver(frame(2.0));
    c->deliver(frame(2.1));
    EXPECT_EQ(started, 1);  // the start completes, but no frame is written
    EXPECT_FALSE(lastWritten().isValid());
    EXPECT_EQ(finish().error->code, -5803);

    // On a desktop the display server came back: the next recording writes.
    screen->desktop = true;
    c = start();
    c->deliver(frame(3.0));
    EXPECT_EQ(lastWritten(), hostTime(3.0));
    EXPECT_FALSE(finish().error);
}

// The reset arrives while a frame is being delivered on another thread, and
// the controller's stop waits for that delivery, which needs the session's
// lock: the session must not hold it while stopping.
TEST_F(RecordingSessionTest, MediaServicesResetDuringADeliveryDoesNotDeadlock) {
    auto c = start();
    auto held = frame(1.0);
    std::thread delivery([&] { c->deliver(held, 0, true); });
    ASSERT_TRUE(c->waitDelivering());
    auto reset = std::async(std::launch::async,
                            [c] { c->fail(SyntheticScreenFailure::MediaServicesReset, true); });
    if (reset.wait_for(30s) != std::future_status::ready) {
        ADD_FAILURE() << "deadlock";
        std::quick_exit(1);
    }
    delivery.join();
    EXPECT_FALSE(lastWritten().isValid());
}

TEST_F(RecordingSessionTest, StopDuringTheStartChainNeverLeavesCaptureRunning) {
    s->setFrontmostPIDForAudioTap(4242);
    s->setMicrophoneEnabled(true);
    for (int i = 0; i < 48; ++i) {
        if (auto c = screen->controller()) c->startsAreLate = false;
        s->setRecording(true);
        s->startSessionWithHandler({});
        if (i % 3 == 1) test::eventually([&] { return s->movieWriter() != nullptr; }, 30s);
        if (i % 3 == 2)
            test::eventually(
                [] { return SVCaptureManager::sharedManager()->isRecordingMicrophone(); }, 30s);
        finish();
        if (auto c = screen->controller()) c->startsAreLate = true;
    }
    SVCaptureManager::audioDispatchQueue()->sync([] {});
    ASSERT_TRUE(screen->controller());
    EXPECT_EQ(screen->controller()->lateStarts, 0);
    EXPECT_FALSE(screen->controller()->isCapturing());
    EXPECT_FALSE(SVCaptureManager::sharedManager()->isRecordingMicrophone());
    EXPECT_EQ(gAudio->openSources(), 0);
}

TEST_F(RecordingSessionTest, RetargetingAudioOnlyInRecordingSystemRecordings) {
    log::Capture log;
    s->setFrontmostPIDForAudioTap(5);
    s->updateAudioCaptureToProcessWithPID(-1);  // not recording
    s->setRecording(true);
    s->updateAudioCaptureToProcessWithPID(-1);  // an application recording
    EXPECT_EQ(s->frontmostPIDForAudioTap(), 5);
    EXPECT_EQ(log.count("updateAudioCaptureToProcessWithPID:-1"), 2u);
    EXPECT_FALSE(log.contains("stopping audio capture"));
    s->setSystemRecording(true);
    s->updateAudioCaptureToProcessWithPID(77);
    EXPECT_TRUE(test::eventually([] { return gAudio->openSources() == 1; }, 30s));
    s->updateAudioCaptureToProcessWithPID(-1);
    EXPECT_EQ(s->frontmostPIDForAudioTap(), -1);
    EXPECT_TRUE(log.contains("invalid pid stopping audio capture"));
    EXPECT_EQ(gAudio->openSources(), 0);
}

TEST_F(RecordingSessionTest, OrientationSizesAndHostileSizes) {
    // A small display records portrait, turned by the frame's flags.
    s->setSystemRecording(true);
    s->setWindowSize({1334, 750});
    auto c = start();
    EXPECT_EQ(screen->mirroring->cloneMirroringMode(), kCloneMirroringModeMirror);
    EXPECT_EQ(s->movieWriter()->windowSize(), (WindowSize{750, 1334}));
    c->deliver(frame(1.0), kScreenTransformRotate);
    EXPECT_EQ(s->movieWriter()->videoInput()->transform(), _affineTransformFromTransformFlags(4));
    finish();
    // An application recording is limited in size and never turned.
    s->setSystemRecording(false);
    s->setWindowSize({1920, 1080});
    EXPECT_EQ(s->originalWindowSize(), (WindowSize{1920, 1080}));
    start();
    EXPECT_EQ(s->movieWriter()->windowSize(), (WindowSize{1600, 900}));
    c->deliver(frame(2.0), kScreenTransformRotate);
    EXPECT_TRUE(s->movieWriter()->videoInput()->transform().isIdentity());
    finish();
    // No size at all records the display's; a sliver keeps two pixels.
    for (WindowSize bad : {WindowSize{NAN, 64}, {INFINITY, -INFINITY}, {-5, 0}, {64, 0.25f}}) {
        s->setWindowSize(bad);
        EXPECT_EQ(s->windowSize(), (WindowSize{1334, 750}));
    }
    s->setWindowSize({1e30f, 1});
    EXPECT_EQ(s->windowSize(), (WindowSize{1600, 2}));
}

// Service information as the session's delegate gets it: over the live link
// (sample-buffer mode) or with each fragment's answer (upload mode).
struct Infos : Errors {
    void broadcastSessionLinkDidUpdateServiceInfo(const Value& info) override { infos.add(info); }
    void broadcastSessionDidUpdateServiceInfo(const Value& info) override { infos.add(info); }
    // The reports holding `key`, once `n` of them came (within 30 s).
    std::vector<Value> reports(const char* key, size_t n) {
        auto holding = [key](const std::vector<Value>& all) {
            std::vector<Value> found;
            std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                         [key](const Value& i) { return i.contains(key); });
            return found;
        };
        infos.waitForItems([&](const std::vector<Value>& all) { return holding(all).size() >= n; },
                           30s);
        return holding(infos.all());
    }
    test::Collected<Value> infos;
};

// Sample-buffer mode through a real processing extension: the actions in
// order with the user info, every frame as the capture's own surface mapped
// in the extension with the time it was captured at (not moved by the
// pause), audio with its time and exactly its bytes, audio in more than one
// buffer skipped; the extension's service information reaches the delegate;
// no movie is written and the finish ends the extension.
TEST_F(RecordingSessionTest, SampleBufferBroadcastsHandOverEveryPayloadWithItsOriginalTimes) {
    auto delegate = std::make_shared<Infos>();
    s->setDelegate(delegate);
    test::TempDir bundles;
    auto extension = testExtension(bundles, "sample");
    ASSERT_TRUE(extension);
    EXPECT_FALSE(s->enableBroadcastWithExtension(extension, 1, Value{{"room", "a"}}));
    ASSERT_EQ(s->broadcastProcessMode(), 1);
    ASSERT_TRUE(s->broadcastUploadExtensionProxy());
    auto c = start();  // after the extension acknowledged the start
    EXPECT_EQ(c->minimumFrameInterval(), MediaTime::make(1, 30));
    EXPECT_FALSE(s->movieWriter());
    c->deliver(frame(1.0));
    s->pauseSession();
    s->resumeSessionWithContextID(7);
    ASSERT_TRUE(c->waitCapturing());
    c->deliver(frame(5.0));
    const auto mono = AudioStreamFormat::pcm16(48000, 1, false);
    auto split = AudioStreamFormat::pcm16(48000, 2, false);
    split.formatFlags |= AudioStreamFormat::kFlagIsNonInterleaved;
    split.bytesPerFrame = split.bytesPerPacket = 2;
    auto route = s->_appAudioOutputRoute();
    route(SampleBuffer::makeAudio(std::make_shared<DataBlock>(480 * 4), split, 480,
                                  hostTime(5.2)));            // one buffer per channel
    route(testing::makeTone(mono, 0, 48000, hostTime(5.3)));  // 96000 bytes: in two parts
    EXPECT_EQ(finish().url, std::nullopt);

    auto actions = delegate->reports("action", 4);
    ASSERT_EQ(actions.size(), 4u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(actions[i]["action"], i + 1);
    EXPECT_EQ(actions[0]["userInfo"], (Value{{"room", "a"}}));
    auto frames = delegate->reports("video", 2);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0]["video"], 1.0);
    EXPECT_EQ(frames[1]["video"], 5.0) << "the paused gap is not cut out for the extension";
    EXPECT_EQ(frames[0]["timescale"], 1000000000);
    EXPECT_EQ(frames[0]["width"], 64);
    EXPECT_EQ(frames[0]["pixel"], 16) << "the frame's own pixels, mapped";
    auto audio = delegate->reports("audio", 2);
    ASSERT_EQ(audio.size(), 2u) << "audio in two buffers is skipped";
    EXPECT_EQ(audio[0]["time"], 5.3);
    EXPECT_EQ(audio[0]["bytes"], 65536);
    EXPECT_EQ(audio[0]["samples"], 32768);
    EXPECT_EQ(audio[0]["rate"], 48000.0);
    EXPECT_NEAR(audio[1]["time"].get<double>(), 5.3 + 32768 / 48000.0, 1e-9) << "joined";
    EXPECT_EQ(audio[1]["samples"], 48000 - 32768);
    EXPECT_FALSE(s->broadcastUploadExtensionProxy());
    EXPECT_TRUE(test::eventually([&] { return extension->pidForRunningProcess() < 0; }, 10s));
    EXPECT_TRUE(delegate->list().empty());
}

// A link that never comes up is given up after the bounded wait (the session
// then records without broadcast); a slow extension loses frames instead of
// holding up the capture; an extension killed mid-broadcast stops the
// session with -5808.
TEST_F(RecordingSessionTest, ALinkThatFailsOrLagsOrBreaksNeverHoldsUpTheSession) {
    test::TempDir bundles;
    auto mute = testExtension(bundles, "mute");
    SVRecordingSession::setBroadcastLinkWait(300ms);
    s->enableBroadcastWithExtension(mute, 1, std::nullopt);
    SVRecordingSession::setBroadcastLinkWait(kDefaultBroadcastLinkWait);
    EXPECT_EQ(s->broadcastProcessMode(), 0);
    EXPECT_FALSE(s->broadcastExtension());
    EXPECT_TRUE(test::eventually([&] { return mute->pidForRunningProcess() < 0; }, 10s));

    auto slow = testExtension(bundles, "slow");
    s->enableBroadcastWithExtension(slow, 1, std::nullopt);
    auto proxy = s->broadcastUploadExtensionProxy();
    ASSERT_TRUE(proxy);
    auto c = start();
    for (int i = 0; i < 40; ++i) c->deliver(frame(1.0 + i / 30.0));
    const auto stats = proxy->statistics();
    EXPECT_EQ(stats.videoSent + stats.videoDropped, 40u);
    EXPECT_GE(stats.videoDropped, 40u - 2 * SVBroadcastExtensionProxy::kMaxVideoPayloadsInFlight);
    EXPECT_EQ(s->progress().framesDropped, int64_t(stats.videoDropped));
    EXPECT_EQ(stats.videoBytesCopied, 0u) << "frames cross as surfaces";

    const pid_t pid = slow->pidForRunningProcess();
    ASSERT_GT(pid, 0);
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_TRUE(test::eventually([&] { return !errors->list().empty(); }, 30s));
    EXPECT_EQ(errors->list(), std::vector<int64_t>{kSVRecordingErrorBroadcast});
    EXPECT_FALSE(s->isRecording());
    EXPECT_FALSE(s->broadcastUploadExtensionProxy());
}

// Upload mode through a real extension process: fragments rotate after the
// clip duration (a frame exactly that long after the fragment's first one
// stays in it), each reaches the extension with its file and the finished
// flag, a configuration the extension returns changes the clip duration at
// once, service information reaches the delegate, and every fragment file
// is removed once its request completed.
TEST_F(RecordingSessionTest, UploadBroadcastsRotateFragmentsAndTakeTheExtensionsAnswers) {
    auto delegate = std::make_shared<Infos>();
    s->setDelegate(delegate);
    test::TempDir bundles;
    auto extension = testExtension(bundles, "config", false);
    ASSERT_TRUE(extension);
    auto configuration = std::make_shared<SVBroadcastConfiguration>();
    configuration->setClipDuration(1.0);
    s->setBroadcastConfiguration(configuration);
    s->enableBroadcastWithExtension(extension, 0, Value{{"nextClipDuration", 0.5}});

    auto c = start();
    double t = 100.0;
    auto deliverUntil = [&](double end) {
        for (; t <= end + 1e-6; t += 1.0 / 30) c->deliver(frame(t));
    };
    deliverUntil(101.0);  // exactly 1.0 s after the first frame: still fragment 1
    EXPECT_EQ(s->broadcastFragmentIndex(), 1);
    deliverUntil(101.04);
    EXPECT_EQ(s->broadcastFragmentIndex(), 2);
    ASSERT_TRUE(delegate->infos.waitFor(1, 30s));  // fragment 1 answered: clip duration 0.5 now
    deliverUntil(102.6);                           // new fragments at 101.567 and 102.1
    EXPECT_EQ(s->broadcastFragmentIndex(), 4);
    Finished f = finish();
    EXPECT_FALSE(f.url || f.error);
    ASSERT_TRUE(delegate->infos.waitFor(4, 30s));
    const auto infos = delegate->infos.all();
    ASSERT_EQ(infos.size(), 4u);
    // Answers come in the order the extension finished them: one of the
    // four fragments, the last, was marked finished.
    int finished = 0;
    for (size_t i = 0; i < 4; ++i) {
        finished += infos[i]["finished"] == "1";
        EXPECT_GT(infos[i]["bytes"].get<int64_t>(), 0) << i;
    }
    EXPECT_EQ(finished, 1);
    EXPECT_TRUE(test::eventually(
        [&] {
            for (const auto& e :
                 std::filesystem::directory_iterator(MovieStore::shared()._srTempPath()))
                if (e.path().filename().string().rfind("SVMovie_", 0) == 0) return false;
            return true;
        },
        10s));
    EXPECT_TRUE(delegate->list().empty());
}

// The timing arithmetic on its own: re-timed frames, the orientation
// transforms, the size limit and the movie size of whole-display recordings.
TEST(SampleTiming, RetimedCopySharesTheImageAndReplacesEveryEntry) {
    auto surface = SharedSurface::create(16, 16).value();
    auto source =
        SampleBuffer::makeVideo(surface, {{MediaTime::make(1, 60), hostTime(5.0), hostTime(4.9)},
                                          {MediaTime::make(1, 30), hostTime(5.1), hostTime(5.0)}});
    auto copy = _copySampleBufferFromSourceBuffer(source, hostTime(1.0));
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->imageBuffer(), surface);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(copy->timingEntries()[i].presentationTimeStamp, hostTime(1.0));
        EXPECT_FALSE(copy->timingEntries()[i].decodeTimeStamp.isValid());
        EXPECT_EQ(copy->timingEntries()[i].duration, source->timingEntries()[i].duration);
    }
    EXPECT_EQ(source->presentationTime(), hostTime(5.0));
}

TEST(SampleTiming, TransformFlagsGiveTheTableExactly) {
    const float c = std::cos(kQuarterTurn);  // about -4.37e-8
    ASSERT_LT(std::fabs(c), 1e-7f);
    ASSERT_NE(c, 0.0f);
    struct Row {
        uint32_t flags;
        float a, b, c, d;
    } rows[] = {
        {0, 1, 0, 0, 1},  {1, 1, 0, 0, -1}, {2, -1, 0, 0, 1},   {3, -1, 0, 0, -1},
        {4, c, 1, -1, c}, {5, c, 1, 1, -c}, {6, -c, -1, -1, c}, {7, -c, -1, 1, -c},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.flags);
        const AffineTransform t = _affineTransformFromTransformFlags(r.flags);
        // Exact float equality: the movie stores these values as computed.
        EXPECT_EQ(t, (AffineTransform{r.a, r.b, r.c, r.d, 0, 0}));
        // Bits other than the three are ignored.
        EXPECT_EQ(_affineTransformFromTransformFlags(r.flags | 0xfffffff8u), t);
    }
}

TEST(SampleTiming, SizeLimitAndMovieOrientation) {
    EXPECT_EQ(_maximumSizeWithSize({1080, 1920}), (WindowSize{900, 1600}));
    EXPECT_EQ(_maximumSizeWithSize({1334, 750}), (WindowSize{1334, 750}));
    EXPECT_EQ(_maximumSizeWithSize({1600, 1600}), (WindowSize{1600, 1600}));
    const WindowSize ipad = _maximumSizeWithSize({2732, 2048});
    EXPECT_EQ(ipad.width, 1600.0f);
    EXPECT_NEAR(ipad.height, 1199.41f, 0.01f);
    // Very wide: the height limit first, then the width.
    EXPECT_EQ(_maximumSizeWithSize({10000, 2000}), (WindowSize{1600, 320}));

    // Whole-display recordings: small displays portrait, large ones
    // landscape (either side of 2732 makes a display large).
    const WindowSize tall = _maximumSizeWithSize({2048, 2732});
    EXPECT_EQ(_movieSizeForWindowSize(ipad, {2732, 2048}, true), ipad);
    EXPECT_EQ(_movieSizeForWindowSize(tall, {2048, 2732}, true), ipad);
    EXPECT_EQ(_movieSizeForWindowSize({750, 1334}, {750, 1334}, true), (WindowSize{750, 1334}));
    EXPECT_EQ(_movieSizeForWindowSize({800, 800}, {800, 800}, true), (WindowSize{800, 800}));
    // Application recordings keep their size.
    EXPECT_EQ(_movieSizeForWindowSize({1334, 750}, {1334, 750}, false), (WindowSize{1334, 750}));
}

constexpr double kFrame = 1.0 / 60;

// Capture times (host seconds) of the movie's first and last frame.
std::pair<double, double> stampSpan(const std::string& path) {
    std::pair<double, double> span{-1, -1};
    auto reader = media::MovieReader::open(path).valueOr(nullptr);
    if (!reader) return span;
    (void)reader->decode(
        [&](const media::LumaFrame& f) {
            if (auto s = readFrameStamp(f.data, f.width, f.height, f.bytesPerRow)) {
                if (span.first < 0) span.first = HostClock::toSeconds(s->hostTime);
                span.second = HostClock::toSeconds(s->hostTime);
            }
            return true;
        },
        nullptr);
    return span;
}

// The session on the synthetic screen and audio sources.
class SessionEndToEndTest : public RecordingSessionTest {
  protected:
    void SetUp() override {
        RecordingSessionTest::SetUp();
        display->addLayer({kContext, 4242, "org.sorvel.tests.game", 0, 0, 0, 640, 360});
        setProcessScreenBackend(std::make_shared<SyntheticScreenBackend>(display));
        s->setContextIDs({kContext});
        s->setWindowSize({640, 360});
        s->setFrontmostPIDForAudioTap(4242);
        s->setMicrophoneEnabled(true);
    }
    // Starts the session and waits for its first frame; the host time of
    // its arrival.
    double startSynthetic() {
        s->setRecording(true);
        auto first = std::make_shared<std::atomic<uint64_t>>(0);
        test::awaitOnce<>([&](std::function<void()> done) {
            s->startSessionWithHandler([first, done] {
                first->store(HostClock::now());
                done();
            });
        });
        return HostClock::toSeconds(first->load());
    }
    // Lets the recording run for `seconds`: the screen and the audio sources
    // are paced by the host clock, so a recording takes its own length.
    static void run(double seconds) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }

    static constexpr uint32_t kContext = 41;
    std::shared_ptr<SyntheticDisplay> display =
        std::make_shared<SyntheticDisplay>(SyntheticDisplay::Options{640, 360, 0});
};

// One recording with a pause and the microphone switched off after it.
TEST_F(SessionEndToEndTest, PauseAndMicrophoneOffMakeOneContinuousMovie) {
    const double first = startSynthetic();
    run(1.5);
    s->pauseSession();
    run(0.8);
    s->resumeSessionWithContextID(kContext);
    run(1.0);
    const double offAt = HostClock::toSeconds(HostClock::now());
    s->setMicrophoneEnabled(false);
    run(1.0);
    const double stopped = HostClock::toSeconds(HostClock::now());
    const Finished finished = finish();
    ASSERT_TRUE(finished.url && !finished.error);
    const std::string path = finished.url->path;

    MovieInspection movie = inspect(path);
    ASSERT_TRUE(movie.stamps);
    const FrameStampReport& stamps = *movie.stamps;
    // Every frame the writer took is in the movie once, in order, readable;
    // a frame the screen delivered is missing only when the session counted
    // it as dropped (the encoder fell behind, as a debug build under load
    // may). The inspector leaves out a frame shown for under a millisecond
    // (one that the encoder had to move a tick past its predecessor).
    const auto progress = s->progress();
    EXPECT_GT(stamps.frames, 5);
    EXPECT_LE(stamps.frames, progress.framesWritten);
    EXPECT_GE(stamps.frames + 1, progress.framesWritten);
    EXPECT_LE(stamps.dropped, progress.framesDropped);
    EXPECT_EQ(std::tuple(stamps.unreadable, stamps.duplicates, stamps.outOfOrder),
              std::tuple(0, 0, 0));
    ASSERT_EQ(stamps.pauses.size(), 1u);
    const double paused = stamps.pauses[0].duration;  // until capture ran again
    EXPECT_GT(paused, 0.75);
    // The seconds recorded, from the first frame captured to the last
    // without the pause, are the seconds of video, to a frame; and they are
    // about what the test let run.
    ASSERT_EQ(movie.movie.tracks.size(), 3u);
    const double video = movie.movie.tracks[0].duration;
    const auto [firstCaptured, lastCaptured] = stampSpan(path);
    // Each deadline the screen skipped (a loaded machine) may move where the
    // pause begins or ends in the stamps by a frame.
    EXPECT_NEAR(video, lastCaptured - firstCaptured - paused + kFrame,
                kFrame * double(1 + stamps.late));
    EXPECT_NEAR(video, stopped - first - paused, 0.25);  // the test's own delays
    // The pause is cut out of the sound as well: the clicks of both tracks
    // sound with the frames of their second, before and after the pause, and
    // the microphone (silent once switched off) ends with the picture. (The
    // application's audio comes in 0.65 s buffers, of which the one open at
    // a stop is lost.)
    ASSERT_EQ(movie.audioSync.size(), 2u);
    for (const AudioSyncReport& sync : movie.audioSync) {
        SCOPED_TRACE(sync.track);
        EXPECT_LT(std::fabs(sync.maxOffset), 0.03);
        EXPECT_LT(movie.movie.tracks[size_t(sync.track)].duration, video + 0.15);
    }
    EXPECT_GE(movie.audioSync[1].matched, 1);
    const double micEnd = movie.movie.tracks[2].duration;
    EXPECT_NEAR(micEnd, video, 0.15);
    const std::vector<double> mic = testing::decodeAudio(path, 2);
    auto rmsBetween = [&](double from, double to) {  // -1: no samples there
        const auto a = long(from * 44100), b = std::min(long(mic.size()), long(to * 44100));
        return b > a ? testing::rms({mic.begin() + a, mic.begin() + b}) : -1.0;
    };
    const double off = offAt - first - paused;  // movie time of the switch
    EXPECT_GT(rmsBetween(0.2, off - 0.2), 0.05);
    EXPECT_LT(rmsBetween(off + 0.2, micEnd - 0.1), 1e-3);
    EXPECT_GE(rmsBetween(off + 0.2, micEnd - 0.1), 0.0);  // present, not missing
}

}  // namespace
}  // namespace sv
