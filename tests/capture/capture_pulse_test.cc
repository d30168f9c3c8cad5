// SVCaptureManager on a private PulseAudio server, end to end: the
// microphone records the default source and the application audio tap
// records the tapped process only, in contiguous 57344-byte buffers.
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>

#include "capture/capture_manager.h"
#include "platform/audio/pulse_audio.h"
#include "platform/audio/testing/private_pulse_server.h"
#include "platform/host_clock.h"
#include "tests/audio/audio_analysis.h"

using namespace std::chrono_literals;

namespace sv {
namespace {

TEST(CaptureManagerPulse, MicrophoneAndTapOfOneProcess) {
    auto started = testing::PrivatePulseServer::start({.sineFrequency = 700});
    if (!started && testing::PrivatePulseServer::required())
        FAIL() << "cannot start a private PulseAudio server: " << started.error().message();
    if (!started)
        GTEST_SKIP() << "cannot start a private PulseAudio server: " << started.error().message();
    auto server = std::move(*started);
    auto m = SVCaptureManager::make(std::make_shared<PulseAudioBackend>(server->address()));

    pid_t tapped = server->playTones({440}, 8.0);
    pid_t other = server->playTones({880}, 8.0);
    ASSERT_GT(tapped, 0);
    ASSERT_GT(other, 0);
    EXPECT_TRUE(server->waitForPlaybackStreams(tapped, 1, 10s));
    EXPECT_TRUE(server->waitForPlaybackStreams(other, 1, 10s));

    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::shared_ptr<SampleBuffer>> mic, app;
    std::vector<uint64_t> appArrivals;
    std::promise<void> tapStarted, micStarted;
    m->startAppAudioCaptureForProcessID(
        tapped,
        [&](const std::shared_ptr<SampleBuffer>& s) {
            std::lock_guard lock(mutex);
            app.push_back(s);
            appArrivals.push_back(HostClock::now());
            arrived.notify_all();
        },
        [&] { tapStarted.set_value(); });
    ASSERT_EQ(tapStarted.get_future().wait_for(3s), std::future_status::ready);
    m->startMicrophoneCaptureWithOutput(
        [&](const std::shared_ptr<SampleBuffer>& s) {
            std::lock_guard lock(mutex);
            mic.push_back(s);
        },
        [&] { micStarted.set_value(); });
    ASSERT_EQ(micStarted.get_future().wait_for(3s), std::future_status::ready);
    // As the first video frame would.
    m->setCaptureStartTime(HostClock::toMediaTime(HostClock::now()));
    {
        // Four tap buffers: about 2.6 s of audio.
        std::unique_lock lock(mutex);
        EXPECT_TRUE(arrived.wait_for(lock, 30s, [&] { return app.size() >= 4; }));
    }
    m->stopAllCapture();
    testing::PrivatePulseServer::reap(tapped);
    testing::PrivatePulseServer::reap(other);

    std::lock_guard lock(mutex);
    ASSERT_GE(app.size(), 4u);
    std::vector<double> x;
    for (size_t i = 0; i < app.size(); ++i) {
        EXPECT_EQ(app[i]->dataLength(), 57344u);
        EXPECT_EQ(app[i]->numSamples(), 28672);
        if (i > 0) {
            double step =
                subtract(app[i]->presentationTime(), app[i - 1]->presentationTime()).seconds();
            EXPECT_NEAR(step, 28672.0 / 44100.0, 0.003);
        }
        double age = HostClock::toSeconds(appArrivals[i]) - app[i]->presentationTime().seconds();
        EXPECT_GT(age, 28672.0 / 44100.0);
        EXPECT_LT(age, 28672.0 / 44100.0 + 1.0);
        if (i > 0) {
            auto y = testing::pcm16Samples(*app[i]);
            x.insert(x.end(), y.begin(), y.end());
        }
    }
    EXPECT_GT(testing::toneAmplitude(x, 44100, 440), 0.15);
    EXPECT_LT(testing::toneAmplitude(x, 44100, 880), 0.002);

    ASSERT_GE(mic.size(), 20u);
    std::vector<double> y;
    for (size_t i = 5; i < mic.size(); ++i) {
        auto z = testing::pcm16Samples(*mic[i]);
        y.insert(y.end(), z.begin(), z.end());
    }
    EXPECT_NEAR(testing::zeroCrossingFrequency(y, 44100), 700.0, 3.0);
}

}  // namespace
}  // namespace sv
