// Whole recordings through the synthetic screen, the synthetic audio
// sources and the real movie writer, judged from the finished movie: the
// frame stamps drawn by the synthetic screen say when each frame was
// captured, so the movie's timeline can be checked frame by frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <future>
#include <thread>

#include "platform/audio/host_clock.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/screen/frame_stamp.h"
#include "platform/screen/synthetic_screen.h"
#include "session/recording_session.h"
#include "support/movie_store.h"
#include "support/store_manager.h"
#include "tests/media/media_test_util.h"

namespace sv {
namespace {

using namespace std::chrono_literals;
constexpr double kFrame = 1.0 / 60;

struct StampedFrame {
    FrameStamp stamp;
    double movieTime;
    double captureTime() const { return HostClock::toSeconds(stamp.hostTime); }
};

// The movie's video frames with the stamps read back from their pixels.
std::vector<StampedFrame> readFrames(const std::string& path, int* unreadable) {
    std::vector<StampedFrame> frames;
    testing::decodeTrack(path, -1, [&](const AVFrame& f, double t) {
        if (t < -1e-6) return;  // hidden by the edit list
        auto stamp = readFrameStamp(f.data[0], f.width, f.height, f.linesize[0]);
        if (!stamp) return void(++*unreadable);
        frames.push_back({*stamp, t});
    });
    return frames;
}

class SessionEndToEndTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        setProcessAudioBackend(std::make_shared<SyntheticAudioBackend>());
        SVReachability::setFlagsProvider(
            [](const std::string&) -> std::optional<uint32_t> { return std::nullopt; });
    }
    void SetUp() override {
        MovieStore::shared().setHomeDirectory(home.path());
        MovieStore::shared()._srSetupTempDirectory();
        display->addLayer({kContext, 4242, "org.sorvel.tests.game", 0, 0, 0, 640, 360});
        setProcessScreenBackend(std::make_shared<SyntheticScreenBackend>(display));
        session->setContextIDs({kContext});
        session->setWindowSize({640, 360});
        session->setFrontmostPIDForAudioTap(4242);
        session->setMicrophoneEnabled(true);
    }
    void TearDown() override { SVCaptureManager::sharedManager()->stopAllCapture(); }

    // Starts the session and waits for its first frame.
    void start() {
        session->setRecording(true);
        test::awaitOnce<>(
            [&](std::function<void()> done) { session->startSessionWithHandler(done); });
    }
    // Lets the recording run for `seconds`: the screen and the audio sources
    // are paced by the host clock, so a recording takes its own length.
    static void run(double seconds) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }
    std::string finish() {
        auto url =
            test::awaitOnce<std::optional<URL>>([&](std::function<void(std::optional<URL>)> done) {
                session->finishSessionWithHandler([done](std::optional<URL> u, OptionalError e) {
                    EXPECT_FALSE(e);
                    done(u);
                });
            });
        return url ? url->path : std::string();
    }

    static constexpr uint32_t kContext = 41;
    test::TempDir home;
    std::shared_ptr<SyntheticDisplay> display =
        std::make_shared<SyntheticDisplay>(SyntheticDisplay::Options{640, 360, 0});
    std::shared_ptr<SVRecordingSession> session =
        SVRecordingSession::initWithBundleID("org.sorvel.tests.game");
};

// Checks that the frames are in capture order without duplicates and that
// the movie's clock runs with the capture clock except across pauses, where
// it moves on by one frame. Returns the seconds of video the capture covered.
double checkTimeline(const std::vector<StampedFrame>& frames, int pauses) {
    EXPECT_GT(frames.size(), 10u);
    double covered = kFrame;
    int jumps = 0;
    for (size_t i = 1; i < frames.size(); ++i) {
        const auto& a = frames[i - 1];
        const auto& b = frames[i];
        EXPECT_LT(a.stamp.frameIndex, b.stamp.frameIndex) << "at movie frame " << i;
        const double captured = b.captureTime() - a.captureTime();
        const double shown = b.movieTime - a.movieTime;
        if (captured > 0.25) {  // a pause
            ++jumps;
            EXPECT_NEAR(shown, kFrame, 1e-3) << "the gap stays in the movie";
            covered += kFrame;
        } else {
            EXPECT_NEAR(shown, captured, 1e-3) << "at movie frame " << i;
            covered += captured;
        }
    }
    EXPECT_EQ(jumps, pauses);
    return covered;
}

TEST_F(SessionEndToEndTest, PauseAndResumeMakeOneContinuousMovie) {
    start();
    run(1.0);
    session->pauseSession();
    run(0.8);
    session->resumeSessionWithContextID(kContext);
    run(1.0);
    const std::string path = finish();
    ASSERT_FALSE(path.empty());

    int unreadable = 0;
    auto frames = readFrames(path, &unreadable);
    EXPECT_EQ(unreadable, 0);
    const double covered = checkTimeline(frames, 1);
    EXPECT_NEAR(covered, 2.0, 0.2);  // what was recorded, without the pause
    testing::MovieInfo info = testing::probeMovie(path);
    ASSERT_EQ(info.streams.size(), 3u);
    EXPECT_NEAR(info.streams[0].duration, covered, kFrame + 1e-3);
    // The pause is cut out of the sound as well: the microphone ends with the
    // picture instead of a pause later, and its whole-second clicks sound
    // with the frames captured at those seconds, before and after the pause.
    EXPECT_NEAR(info.streams[2].duration, covered, 0.15);
    const std::vector<double> mic = testing::decodeAudio(path, 2);
    int clicks = 0;
    for (size_t i = 0; i < mic.size(); ++i) {
        if (std::fabs(mic[i]) < 0.6) continue;
        const double t = double(i) / 44100;
        auto f = std::upper_bound(frames.begin(), frames.end(), t,
                                  [](double v, const StampedFrame& x) { return v < x.movieTime; });
        if (f == frames.begin()) continue;
        --f;
        const double captured = f->captureTime() + (t - f->movieTime);
        EXPECT_NEAR(captured, std::round(captured), 0.025) << "click at movie time " << t;
        ++clicks;
        i += 44100 / 2;  // one click per second
    }
    EXPECT_GE(clicks, 1);
}

TEST_F(SessionEndToEndTest, RotatedSystemRecordingCarriesItsDisplayMatrix) {
    display->setSize(360, 640);  // a portrait display turned a quarter
    display->setTransformFlags(kScreenTransformRotate);
    session->setSystemRecording(true);
    session->setWindowSize({360, 640});
    start();
    run(1.0);
    const std::string path = finish();
    testing::MovieInfo info = testing::probeMovie(path);
    ASSERT_EQ(info.streams.size(), 3u);
    EXPECT_EQ(info.streams[0].width, 360);
    EXPECT_EQ(info.streams[0].height, 640);
    ASSERT_TRUE(info.streams[0].displayMatrix);
    const auto& m = *info.streams[0].displayMatrix;
    EXPECT_EQ(std::vector<int32_t>(m.begin(), m.begin() + 5),
              (std::vector<int32_t>{0, 65536, 0, -65536, 0}));
    int unreadable = 0;
    checkTimeline(readFrames(path, &unreadable), 0);
    EXPECT_EQ(unreadable, 0);
}

TEST_F(SessionEndToEndTest, MicrophoneSwitchedOffLeavesTimedSilence) {
    start();
    const uint64_t first = HostClock::now();
    run(1.0);
    session->setMicrophoneEnabled(false);
    const double off = HostClock::toSeconds(HostClock::now() - first);
    run(1.0);
    const std::string path = finish();
    testing::MovieInfo info = testing::probeMovie(path);
    ASSERT_EQ(info.streams.size(), 3u);
    EXPECT_NEAR(info.streams[2].duration, info.streams[0].duration, 0.15);
    const std::vector<double> mic = testing::decodeAudio(path, 2);
    auto rms = [&](double from, double to) {
        double sum = 0;
        const size_t a = size_t(from * 44100), b = std::min(mic.size(), size_t(to * 44100));
        for (size_t i = a; i < b; ++i) sum += mic[i] * mic[i];
        return b > a ? std::sqrt(sum / double(b - a)) : -1.0;
    };
    EXPECT_GT(rms(0.2, off - 0.2), 0.05);
    EXPECT_LT(rms(off + 0.2, info.streams[2].duration - 0.1), 1e-3);
    EXPECT_GE(rms(off + 0.2, info.streams[2].duration - 0.1), 0.0);  // present, not missing
}

TEST_F(SessionEndToEndTest, AfterAMediaServicesResetNoFrameIsWrittenAgain) {
    struct Delegate : SVRecordingSessionDelegate {
        std::promise<int64_t> code;
        void recordingSessionStoppedWithError(const Error& e) override { code.set_value(e.code); }
    };
    auto delegate = std::make_shared<Delegate>();
    session->setDelegate(delegate);
    start();
    display->injectFailure(SyntheticScreenFailure::MediaServicesReset);
    auto code = delegate->code.get_future();
    ASSERT_EQ(code.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(code.get(), -5804);
    EXPECT_FALSE(session->isRecording());

    // Started again, the session runs (its start handler sees the first
    // frame) but writes none.
    start();
    run(0.3);
    auto result = test::awaitOnce<OptionalError>([&](std::function<void(OptionalError)> done) {
        session->finishSessionWithHandler([done](std::optional<URL>, OptionalError e) { done(e); });
    });
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, -5803);
}

}  // namespace
}  // namespace sv
