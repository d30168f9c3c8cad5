// SVCaptureManager on a private PulseAudio server, end to end: the
// microphone records the default source and the application audio tap
// records the tapped process only, in 57344-byte buffers.
#include <gtest/gtest.h>

#include "capture/capture_manager.h"
#include "platform/audio/pulse_audio.h"
#include "platform/audio/testing/private_pulse_server.h"
#include "platform/host_clock.h"
#include "tests/audio/audio_analysis.h"
#include "tests/support/test_util.h"

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

    test::Collected<std::shared_ptr<SampleBuffer>> mic, app;
    test::Collected<uint64_t> appArrivals;
    test::Collected<bool> didStart;
    m->startAppAudioCaptureForProcessID(
        tapped,
        [&](const std::shared_ptr<SampleBuffer>& s) {
            appArrivals.add(HostClock::now());
            app.add(s);
        },
        [&] { didStart.add(true); });
    ASSERT_TRUE(didStart.waitFor(1, 3s));
    m->startMicrophoneCaptureWithOutput([&](const auto& s) { mic.add(s); },
                                        [&] { didStart.add(true); });
    ASSERT_TRUE(didStart.waitFor(2, 3s));
    // As the first video frame would.
    m->setCaptureStartTime(HostClock::toMediaTime(HostClock::now()));
    EXPECT_TRUE(app.waitFor(4, 30s));  // about 2.6 s of audio
    m->stopAllCapture();
    testing::PrivatePulseServer::reap(tapped);
    testing::PrivatePulseServer::reap(other);

    const auto samples = app.all();
    const auto arrivals = appArrivals.all();
    ASSERT_GE(samples.size(), 4u);
    // A buffer or more apart (a loaded machine may give one back late, and
    // the tap skips what had no buffer), each stamped in the past.
    for (size_t i = 0; i < samples.size(); ++i) {
        EXPECT_EQ(samples[i]->dataLength(), 57344u);
        EXPECT_EQ(samples[i]->numSamples(), 28672);
        if (i > 0) {
            EXPECT_GE(subtract(samples[i]->presentationTime(), samples[i - 1]->presentationTime())
                          .seconds(),
                      28672.0 / 44100.0 - 0.003)
                << i;
        }
        double age = HostClock::toSeconds(arrivals[i]) - samples[i]->presentationTime().seconds();
        EXPECT_GT(age, 28672.0 / 44100.0);
        EXPECT_LT(age, 28672.0 / 44100.0 + 5.0);  // generous: loaded machines
    }
    // The tapped process's tone in its loudest buffer (underruns of a starved
    // player are silence), the other process's nowhere.
    double loudest = 0;
    for (const auto& s : samples)
        loudest = std::max(loudest, testing::toneAmplitude(testing::pcm16Samples(*s), 44100, 440));
    EXPECT_GT(loudest, 0.15);
    EXPECT_LT(testing::toneAmplitude(testing::pcm16Samples(samples, 1), 44100, 880), 0.002);

    ASSERT_GE(mic.size(), 20u);
    EXPECT_NEAR(testing::zeroCrossingFrequency(testing::pcm16Samples(mic.all(), 5), 44100), 700.0,
                3.0);
}

}  // namespace
}  // namespace sv
