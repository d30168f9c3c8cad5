// SVRecordingSession driven frame by frame through a fake screen controller,
// with the synthetic audio backend behind the shared capture manager and the
// real movie writer.
#include "session/recording_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <regex>
#include <thread>

#include "platform/audio/synthetic_audio.h"
#include "platform/log.h"
#include "support/movie_store.h"
#include "support/store_manager.h"
#include "tests/media/media_test_util.h"
#include "tests/session/fake_screen.h"

namespace sv {
namespace {

using namespace std::chrono_literals;
using testing::FakeController;
using testing::hostTime;

struct DelegateRecorder : SVRecordingSessionDelegate {
    void recordingSessionStoppedWithError(const Error& error) override {
        std::lock_guard lock(mutex);
        errors.push_back(error);
    }
    std::vector<Error> list() {
        std::lock_guard lock(mutex);
        return errors;
    }
    std::mutex mutex;
    std::vector<Error> errors;
};

struct Finished {
    std::optional<URL> url;
    OptionalError error;
};

std::shared_ptr<AppExtension> fakeExtension() {
    // The session only tests a broadcast extension's presence.
    static int token;
    return std::shared_ptr<AppExtension>(std::shared_ptr<void>(),
                                         reinterpret_cast<AppExtension*>(&token));
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::seconds timeout = 30s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

std::shared_ptr<SyntheticAudioBackend> gAudio;

class RecordingSessionTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        gAudio = std::make_shared<SyntheticAudioBackend>();
        setProcessAudioBackend(gAudio);
        SVReachability::setFlagsProvider(
            [](const std::string&) -> std::optional<uint32_t> { return std::nullopt; });
    }
    void SetUp() override {
        MovieStore::shared().setHomeDirectory(home.path());
        MovieStore::shared()._srSetupTempDirectory();
        setProcessScreenBackend(screen);
    }
    void TearDown() override { SVCaptureManager::sharedManager()->stopAllCapture(); }

    std::shared_ptr<SVRecordingSession> makeSession() {
        auto s = SVRecordingSession::initWithBundleID("org.sorvel.tests.game");
        s->setContextIDs({7, 9});
        s->setWindowSize({64, 64});
        s->setDelegate(delegate);
        return s;
    }
    // Starts `s` as the manager does and waits until its screen capture runs.
    std::shared_ptr<FakeController> start(const std::shared_ptr<SVRecordingSession>& s,
                                          std::function<void()> handler = {}) {
        s->setRecording(true);
        s->startSessionWithHandler(std::move(handler));
        EXPECT_TRUE(waitUntil([&] { return screen->controller() != nullptr; }));
        auto c = screen->controller();
        EXPECT_TRUE(c && c->waitCapturing(true));
        return c;
    }
    std::shared_ptr<SampleBuffer> frame(double seconds) {
        return testing::makeFrame(pool, frameIndex++, hostTime(seconds));
    }
    // Frames at 30 fps from host second 100, each once the writer takes more.
    void record(const std::shared_ptr<SVRecordingSession>& s, double seconds) {
        auto c = start(s);
        auto w = s->movieWriter();
        for (int i = 0; i < seconds * 30; ++i) {
            waitUntil([&] {
                return w->fileWriterStatus() != 1 || w->videoInput()->isReadyForMoreMediaData();
            });
            c->deliver(frame(100 + i / 30.0));
        }
    }
    Finished finish(const std::shared_ptr<SVRecordingSession>& s, double startClip = 0,
                    double endClip = 0) {
        return test::awaitOnce<Finished>([&](std::function<void(Finished)> done) {
            s->finishSessionWithStartClipDuration(
                startClip, endClip, [done](std::optional<URL> url, OptionalError error) {
                    done({url, error});
                });
        });
    }
    void cleanup(const std::shared_ptr<SVRecordingSession>& s) {
        test::awaitOnce<>(
            [&](std::function<void()> done) { s->finishAndCleanupSessionFilesWithHandler(done); });
    }

    test::TempDir home;
    std::shared_ptr<testing::FakeScreenBackend> screen =
        std::make_shared<testing::FakeScreenBackend>();
    std::shared_ptr<DelegateRecorder> delegate = std::make_shared<DelegateRecorder>();
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
    const std::string store = MovieStore::shared()._srTempPath();
    ASSERT_EQ(store.back(), '/');
    const std::pair<const char*, const char*> cases[] = {{"com.example.a", "My Game"},
                                                         {"com.example.b", "AC_DC"},
                                                         {"com.example.c", ""},
                                                         {"com.example.unknown", "(null)"}};
    for (const auto& [bundleID, name] : cases) {
        auto s = SVRecordingSession::initWithBundleID(bundleID);
        EXPECT_EQ(s->outputPath(), store + "/" + name + ".mp4");
        EXPECT_EQ(s->trimmedOutputURL().path, store + "/" + name + "_trimmed.mp4");
    }
    // While broadcasting: a fragment name with the time and the fragment number.
    auto s = SVRecordingSession::initWithBundleID("com.example/a");
    s->enableBroadcastWithExtension(fakeExtension(), 0, std::nullopt);
    EXPECT_TRUE(std::regex_match(
        s->outputPath(), std::regex(store + "/SVMovie_com\\.example_a_[0-9]+\\.[0-9]{6}_1\\.mp4")))
        << s->outputPath();
    EXPECT_EQ(s->trimmedOutputPath(), store + "/(null)_trimmed.mp4");
}

TEST_F(RecordingSessionTest, StartCompletesOnTheFirstFrameOnItsThread) {
    auto s = makeSession();
    std::atomic<int> calls{0};
    std::thread::id where;
    auto c = start(s, [&] {
        ++calls;
        where = std::this_thread::get_id();
    });
    EXPECT_EQ(screen->mirroring->cloneMirroringMode(), kCloneMirroringModeClone);
    EXPECT_EQ(screen->mirroring->layerContextsToClone(), (std::set<uint32_t>{7, 9}));
    EXPECT_EQ(c->frameSize(), (WindowSize{64, 64}));
    EXPECT_EQ(c->minimumFrameInterval(), MediaTime::make(1, 60));
    EXPECT_EQ(s->movieWriter()->outputPath(), s->outputPath());
    EXPECT_EQ(calls, 0);

    std::thread delivery([&] { c->deliver(frame(1.0)); });
    const auto deliveryID = delivery.get_id();
    delivery.join();
    c->deliver(frame(1.1));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(where, deliveryID);

    Finished f = finish(s);
    ASSERT_TRUE(f.url);
    EXPECT_FALSE(f.error);
    EXPECT_EQ(*f.url, s->outputURL());
    EXPECT_EQ(testing::probeMovie(f.url->path).streams.size(), 3u);
    EXPECT_FALSE(c->isCapturing());
    EXPECT_EQ(screen->mirroring->cloneMirroringMode(), kCloneMirroringModeEnded);
    EXPECT_FALSE(s->isRecording());
}

TEST_F(RecordingSessionTest, PausesAreCutOutOfTheMovie) {
    auto s = makeSession();
    auto c = start(s);
    auto w = s->movieWriter();
    c->deliver(frame(10.000));
    c->deliver(frame(10.016));
    s->pauseSession();
    EXPECT_TRUE(s->isPaused());
    EXPECT_FALSE(c->isCapturing());
    EXPECT_EQ(screen->mirroring->cloneMirroringMode(), kCloneMirroringModeEnded);

    log::Capture log;
    s->pauseSession();  // already paused: nothing
    EXPECT_FALSE(log.contains("SVRecordingSession: pauseSession"));
    s->screenCaptureControllerDidReceiveSampleBuffer(*c, frame(12.0), 0);  // late frame
    EXPECT_TRUE(log.contains("session is paused discard sample"));

    s->resumeSessionWithContextID(11);
    ASSERT_TRUE(c->waitCapturing(true));
    s->resumeSessionWithContextID(12);  // not paused: nothing
    EXPECT_EQ(s->contextIDs(), std::vector<uint32_t>{11});
    EXPECT_EQ(screen->mirroring->layerContextsToClone(), std::set<uint32_t>{11});
    EXPECT_EQ(screen->controllerCount(), 1u);
    // The first frame takes the last time before the pause, so the writer
    // drops it; the next follows on.
    c->deliver(frame(15.000));
    EXPECT_TRUE(
        log.contains("discarding video sample buffer due to timestamp earlier than previous"));
    c->deliver(frame(15.016));
    EXPECT_EQ(w->lastVideoPresentationTime(), hostTime(10.032));
    EXPECT_EQ(s->sampleTimeOffset(), MediaTime::make(4984000000, 1000000000));

    // A second pause adds its gap.
    s->pauseSession();
    s->resumeSessionWithContextID(11);
    ASSERT_TRUE(c->waitCapturing(true));
    c->deliver(frame(30.000));
    c->deliver(frame(30.016));
    EXPECT_EQ(w->lastVideoPresentationTime(), hostTime(10.048));

    Finished f = finish(s);
    EXPECT_FALSE(s->lastSampleTimestamp().isValid());
    EXPECT_EQ(s->sampleTimeOffset(), MediaTime::zero());
    ASSERT_TRUE(f.url);
    // In order, without the paused or duplicate frames, 16 ms apart.
    auto video = testing::decodeVideo(f.url->path);
    const std::vector<int> expected = {0, 1, 4, 6};
    ASSERT_GE(video.indices.size(), 3u);
    for (size_t i = 0; i < video.indices.size(); ++i) {
        EXPECT_EQ(video.indices[i], expected[i]);
        EXPECT_NEAR(video.times[i], 0.016 * double(i), 1e-3);
    }
}

TEST_F(RecordingSessionTest, ResumeBeforeAnyFrameStartsTheMovieAtZero) {
    auto s = makeSession();
    auto c = start(s);
    s->pauseSession();
    s->resumeSessionWithContextID(7);
    ASSERT_TRUE(c->waitCapturing(true));
    c->deliver(frame(7.5));
    EXPECT_EQ(s->movieWriter()->lastVideoPresentationTime(), MediaTime::make(0, 1000000000));
    cleanup(s);
}

TEST_F(RecordingSessionTest, MicrophoneOffIsTimedSilenceAndAudioFollowsTheGaps) {
    auto s = makeSession();
    s->setMicrophoneEnabled(true);
    auto c = start(s);
    auto w = s->movieWriter();
    auto mic = s->_microphoneOutputRoute();
    const auto format = AudioStreamFormat::float32(48000, 2);
    auto sample = [&](double t) {
        auto block = std::make_shared<DataBlock>(std::vector<uint8_t>(480 * 8, 0x3f));
        return SampleBuffer::makeAudio(block, format, 480, hostTime(t));
    };
    auto silent = [](const std::shared_ptr<SampleBuffer>& a) {
        auto bytes = a->dataBlock()->bytes();
        return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; });
    };
    auto a = sample(1.0);
    mic(a);
    EXPECT_FALSE(silent(a));
    EXPECT_EQ(w->lastAudio2PresentationTime(), hostTime(1.0));
    s->setMicrophoneEnabled(false);
    auto b = sample(1.01);
    mic(b);
    EXPECT_TRUE(silent(b));
    EXPECT_EQ(w->lastAudio2PresentationTime(), hostTime(1.01));

    // Paused: dropped untouched. After the resume, audio waits for the first
    // frame to measure the gap and then moves back by it like the video.
    c->deliver(frame(1.0));
    s->pauseSession();
    auto p = sample(1.02);
    mic(p);
    EXPECT_FALSE(silent(p));
    s->resumeSessionWithContextID(7);
    ASSERT_TRUE(c->waitCapturing(true));
    mic(sample(3.0));
    EXPECT_EQ(w->lastAudio2PresentationTime(), hostTime(1.01));
    c->deliver(frame(5.0));
    mic(sample(5.5));
    EXPECT_EQ(w->lastAudio2PresentationTime(), hostTime(1.5));
    cleanup(s);
}

TEST_F(RecordingSessionTest, StartChainTapThenMicrophoneThenScreen) {
    const char* tap =
        "SVRecordingManager: startAudioCapture: Successfully started Audio Tap Queue Recording";
    auto position = [](const log::Capture& log, const std::string& text) {
        auto lines = log.lines();
        auto it = std::find_if(lines.begin(), lines.end(), [&](auto& l) { return l.text == text; });
        return it == lines.end() ? -1 : int(it - lines.begin());
    };
    auto s = makeSession();
    for (int variant = 0; variant < 3; ++variant) {
        SCOPED_TRACE(variant);
        log::Capture log;
        s->setFrontmostPIDForAudioTap(variant == 2 ? 0 : 4242);
        s->setMicrophoneEnabled(variant != 1);
        start(s);
        const int screenAt = position(log, "starting screen capture");
        ASSERT_GE(screenAt, 0);
        if (variant == 0) {
            EXPECT_LT(position(log, tap), position(log, "starting mic capture"));
            EXPECT_LT(position(log, "starting mic capture"), screenAt);
        } else {
            // No microphone when it is off, nor without a process to tap.
            EXPECT_EQ(position(log, "starting mic capture"), -1);
            EXPECT_EQ(position(log, tap) >= 0, variant == 1);
        }
        EXPECT_EQ(SVCaptureManager::sharedManager()->isRecordingMicrophone(), variant == 0);
        EXPECT_EQ(finish(s).error->code, -5803);  // no frame was written
        EXPECT_TRUE(waitUntil([] { return gAudio->openSources() == 0; }));
    }
}

TEST_F(RecordingSessionTest, FinishTrimsOnlyWithBothDurations) {
    auto s = makeSession();
    record(s, 10);
    Finished whole = finish(s, 5.0, 0.0);
    ASSERT_TRUE(whole.url);
    EXPECT_EQ(*whole.url, s->outputURL());
    EXPECT_NEAR(testing::probeMovie(whole.url->path).duration, 10.0, 0.1);

    record(s, 10);
    Finished trimmed = finish(s, 5.0, 3.0);
    ASSERT_TRUE(trimmed.url);
    EXPECT_EQ(*trimmed.url, s->trimmedOutputURL());
    EXPECT_NEAR(testing::probeMovie(trimmed.url->path).duration, 2.0, 0.1);
    EXPECT_TRUE(std::filesystem::exists(s->outputPath()));  // both stay in the store

    // Nothing left to keep after trimming: the whole movie comes back.
    record(s, 4);
    Finished tooShort = finish(s, 5.0, 3.0);
    ASSERT_TRUE(tooShort.url);
    EXPECT_EQ(*tooShort.url, s->outputURL());
    EXPECT_NEAR(testing::probeMovie(tooShort.url->path).duration, 4.0, 0.1);

    // Clean-up removes the movie, also after it was finished.
    cleanup(s);
    EXPECT_FALSE(std::filesystem::exists(s->outputPath()));
}

TEST_F(RecordingSessionTest, CleanupStopsAndRemovesTheMovieOnTheStoreQueue) {
    auto s = makeSession();
    record(s, 0.5);
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
    // Finishing afterwards does nothing: the handler is never called.
    s->finishSessionWithHandler([](std::optional<URL>, OptionalError) { FAIL(); });
}

TEST_F(RecordingSessionTest, ScreenFailuresStopTheSessionAndTellTheDelegate) {
    auto s = makeSession();
    auto c = start(s);
    c->deliver(frame(1.0));
    c->fail(SyntheticScreenFailure::Failed);
    EXPECT_FALSE(s->isRecording());
    EXPECT_FALSE(c->isCapturing());
    EXPECT_EQ(s->movieWriter()->fileWriterStatus(), 1);  // left unfinished for the manager
    start(s);
    c->fail(SyntheticScreenFailure::Preempted);
    s->stopWithError(_svUserErrorForCode(-5800));  // not recording: nothing
    auto errors = delegate->list();
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].code, -5804);
    EXPECT_EQ(errors[0].localizedDescription(), "Failed during recording");
    EXPECT_EQ(errors[1].code, -5800);
    EXPECT_EQ(errors[1].domain, kSVRecordingErrorDomain);
}

TEST_F(RecordingSessionTest, MediaServicesResetDropsEveryLaterFrameAlsoAfterARestart) {
    auto s = makeSession();
    auto c = start(s);
    auto w = s->movieWriter();
    c->deliver(frame(1.0));
    c->fail(SyntheticScreenFailure::MediaServicesReset);
    ASSERT_EQ(delegate->list().size(), 1u);
    EXPECT_EQ(delegate->list()[0].code, -5804);
    EXPECT_FALSE(s->isRecording());
    s->screenCaptureControllerDidReceiveSampleBuffer(*c, frame(1.1), 0);
    EXPECT_EQ(w->lastVideoPresentationTime(), hostTime(1.0));

    std::atomic<int> started{0};
    EXPECT_EQ(start(s, [&] { ++started; }), c);
    c->deliver(frame(2.0));
    c->deliver(frame(2.1));
    EXPECT_EQ(started, 1);
    EXPECT_FALSE(s->movieWriter()->lastVideoPresentationTime().isValid());
    EXPECT_EQ(finish(s).error->code, -5803);
}

// The reset arrives while a frame is being delivered on another thread and
// the controller's stop waits for that delivery, which needs the session's
// lock: the session must not hold it while stopping.
TEST_F(RecordingSessionTest, MediaServicesResetDuringADeliveryDoesNotDeadlock) {
    auto s = makeSession();
    auto c = start(s);
    auto held = frame(1.0);
    std::thread delivery([&] { c->deliver(held, 0, true); });
    ASSERT_TRUE(c->waitDelivering());
    auto reset = std::async(std::launch::async,
                            [c] { c->fail(SyntheticScreenFailure::MediaServicesReset, false); });
    if (reset.wait_for(30s) != std::future_status::ready) {
        ADD_FAILURE() << "deadlock";
        std::quick_exit(1);
    }
    delivery.join();
    EXPECT_FALSE(s->movieWriter()->lastVideoPresentationTime().isValid());
}

TEST_F(RecordingSessionTest, StopDuringTheStartChainNeverLeavesCaptureRunning) {
    auto s = makeSession();
    s->setFrontmostPIDForAudioTap(4242);
    s->setMicrophoneEnabled(true);
    for (int i = 0; i < 48; ++i) {
        if (auto c = screen->controller()) c->markStopped(false);
        s->setRecording(true);
        s->startSessionWithHandler({});
        // Stop at different points of the chain.
        if (i % 3 == 1) waitUntil([&] { return s->movieWriter() != nullptr; });
        if (i % 3 == 2)
            waitUntil([&] { return SVCaptureManager::sharedManager()->isRecordingMicrophone(); });
        finish(s);
        if (auto c = screen->controller()) c->markStopped(true);
    }
    SVCaptureManager::audioDispatchQueue()->sync([] {});
    auto c = screen->controller();
    ASSERT_TRUE(c);
    EXPECT_EQ(c->lateStarts(), 0);
    EXPECT_FALSE(c->isCapturing());
    EXPECT_FALSE(SVCaptureManager::sharedManager()->isRecordingMicrophone());
    EXPECT_EQ(gAudio->openSources(), 0);
}

TEST_F(RecordingSessionTest, RetargetingAudioOnlyInSystemRecordings) {
    log::Capture log;
    auto s = makeSession();
    s->setFrontmostPIDForAudioTap(5);
    s->updateAudioCaptureToProcessWithPID(-1);  // not recording
    s->setRecording(true);
    s->updateAudioCaptureToProcessWithPID(-1);  // an application recording
    EXPECT_EQ(s->frontmostPIDForAudioTap(), 5);
    EXPECT_EQ(log.count("updateAudioCaptureToProcessWithPID:-1"), 2u);
    EXPECT_FALSE(log.contains("stopping audio capture"));

    s->setSystemRecording(true);
    s->updateAudioCaptureToProcessWithPID(77);
    EXPECT_EQ(s->frontmostPIDForAudioTap(), 77);
    EXPECT_TRUE(waitUntil([] { return gAudio->openSources() == 1; }));
    s->updateAudioCaptureToProcessWithPID(-1);
    EXPECT_EQ(s->frontmostPIDForAudioTap(), -1);
    EXPECT_TRUE(log.contains("invalid pid stopping audio capture"));
    EXPECT_EQ(gAudio->openSources(), 0);
}

TEST_F(RecordingSessionTest, SystemRecordingsAreUprightApplicationRecordingsAsCaptured) {
    auto s = makeSession();
    s->setSystemRecording(true);
    s->setWindowSize({1334, 750});
    auto c = start(s);
    EXPECT_EQ(screen->mirroring->cloneMirroringMode(), kCloneMirroringModeMirror);
    EXPECT_EQ(c->frameSize(), (WindowSize{1334, 750}));
    EXPECT_EQ(s->movieWriter()->windowSize(), (WindowSize{750, 1334}));
    c->deliver(frame(1.0), kScreenTransformRotate);
    EXPECT_EQ(s->movieWriter()->videoInput()->transform(), _affineTransformFromTransformFlags(4));
    cleanup(s);

    s->setSystemRecording(false);
    s->setWindowSize({1920, 1080});
    EXPECT_EQ(s->windowSize(), (WindowSize{1600, 900}));
    EXPECT_EQ(s->originalWindowSize(), (WindowSize{1920, 1080}));
    start(s);
    EXPECT_EQ(s->movieWriter()->windowSize(), (WindowSize{1600, 900}));
    c->deliver(frame(2.0), kScreenTransformRotate);
    EXPECT_TRUE(s->movieWriter()->videoInput()->transform().isIdentity());
    cleanup(s);
}

TEST_F(RecordingSessionTest, BroadcastSeamsKeepTheirFields) {
    auto s = makeSession();
    EXPECT_FALSE(s->enableBroadcastWithExtension(fakeExtension(), 1, Value::object()));
    EXPECT_EQ(s->broadcastProcessMode(), 1);
    EXPECT_EQ(s->broadcastFragmentIndex(), 1);
    // Samples for an extension: no movie, a 30 fps controller, and finish
    // answers at once.
    auto c = start(s);
    EXPECT_EQ(c->minimumFrameInterval(), MediaTime::make(1, 30));
    EXPECT_FALSE(s->movieWriter());
    c->deliver(frame(1.0));
    Finished f = finish(s);
    EXPECT_FALSE(f.url);
    EXPECT_FALSE(f.error);

    s->enableBroadcastWithExtension(fakeExtension(), 7, std::nullopt);
    EXPECT_EQ(s->broadcastProcessMode(), 0);
    s->disableBroadcast();
    EXPECT_FALSE(s->broadcastExtension());
    EXPECT_FALSE(s->broadcastConfiguration());
}

}  // namespace
}  // namespace sv
