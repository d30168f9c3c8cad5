// Whole recordings through the synthetic screen, the synthetic audio
// sources and the real movie writer, judged by the movie inspector: the
// frame stamps drawn by the synthetic screen and the clicks of the synthetic
// audio say when each frame and each second of sound was captured.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

#include "movie/movie_inspector.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/host_clock.h"
#include "platform/media/movie_reader.h"
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

MovieInspection inspect(const std::string& path) {
    auto inspection = inspectMovie(path);
    EXPECT_TRUE(inspection) << inspection.error().message();
    return inspection.valueOr(MovieInspection{});
}

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

// Every frame the writer took is in the movie once, in order, readable; a
// frame the screen delivered is missing only when the session counted it as
// dropped (the encoder fell behind, as a debug build under load may).
void expectEveryFrameOnce(const FrameStampReport& stamps,
                          const SVRecordingSession::Progress& progress) {
    EXPECT_GT(stamps.frames, 5);
    // The inspector leaves out a frame shown for under a millisecond (one
    // that the encoder had to move a tick past its predecessor).
    EXPECT_LE(stamps.frames, progress.framesWritten);
    EXPECT_GE(stamps.frames + 1, progress.framesWritten);
    EXPECT_EQ(stamps.unreadable, 0);
    EXPECT_LE(stamps.dropped, progress.framesDropped);
    EXPECT_EQ(stamps.duplicates, 0);
    EXPECT_EQ(stamps.outOfOrder, 0);
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

    // Starts the session and waits for its first frame; the host time of
    // its arrival.
    double start() {
        session->setRecording(true);
        auto first = std::make_shared<std::atomic<uint64_t>>(0);
        test::awaitOnce<>([&](std::function<void()> done) {
            session->startSessionWithHandler([first, done] {
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

// One recording with a pause and the microphone switched off after it.
TEST_F(SessionEndToEndTest, PauseAndMicrophoneOffMakeOneContinuousMovie) {
    const double first = start();
    run(1.5);
    session->pauseSession();
    run(0.8);
    session->resumeSessionWithContextID(kContext);
    run(1.0);
    const double offAt = HostClock::toSeconds(HostClock::now());
    session->setMicrophoneEnabled(false);
    run(1.0);
    const double stopped = HostClock::toSeconds(HostClock::now());
    const std::string path = finish();
    ASSERT_FALSE(path.empty());

    MovieInspection movie = inspect(path);
    ASSERT_TRUE(movie.stamps);
    const FrameStampReport& stamps = *movie.stamps;
    expectEveryFrameOnce(stamps, session->progress());
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
    auto rms = [&](double from, double to) {
        double sum = 0;
        const size_t a = size_t(from * 44100), b = std::min(mic.size(), size_t(to * 44100));
        for (size_t i = a; i < b; ++i) sum += mic[i] * mic[i];
        return b > a ? std::sqrt(sum / double(b - a)) : -1.0;
    };
    const double off = offAt - first - paused;  // movie time of the switch
    EXPECT_GT(rms(0.2, off - 0.2), 0.05);
    EXPECT_LT(rms(off + 0.2, micEnd - 0.1), 1e-3);
    EXPECT_GE(rms(off + 0.2, micEnd - 0.1), 0.0);  // present, not missing
}

}  // namespace
}  // namespace sv
