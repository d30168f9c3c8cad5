// The PulseAudio backend against a private server: the microphone records
// the default (sine) source, and the tap records exactly the playback streams
// of one process, including streams it opens after the tap started.
#include <gtest/gtest.h>

#include <chrono>

#include "platform/audio/audio_tap_queue.h"
#include "platform/audio/capture_session.h"
#include "platform/audio/pulse_audio.h"
#include "platform/audio/testing/private_pulse_server.h"
#include "platform/host_clock.h"
#include "tests/audio/audio_analysis.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace std::chrono_literals;

namespace sv {
namespace {

constexpr double kSineSourceHz = 700.0;
constexpr AudioStreamFormat kTapFormat = AudioStreamFormat::pcm16(44100.0, 1, true);
// Delivered audio is stamped in the past, but not this many seconds: a
// stamp that old is wrong, while a loaded machine may well deliver a second
// or two late.
constexpr double kStaleAfter = 5.0;

// One server for the suite; a test that breaks its server starts its own.
class PulseTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { started_ = testing::PrivatePulseServer::start({kSineSourceHz}); }
    static void TearDownTestSuite() { started_.reset(); }
    void SetUp() override {
        if (!*started_ && testing::PrivatePulseServer::required())
            FAIL() << "cannot start a private PulseAudio server: " << started_->error().message();
        if (!*started_)
            GTEST_SKIP() << "cannot start a private PulseAudio server: "
                         << started_->error().message();
        server_ = started_->value().get();
        backend_ = std::make_shared<PulseAudioBackend>(server_->address());
    }

    static inline std::optional<Result<std::unique_ptr<testing::PrivatePulseServer>>> started_;
    testing::PrivatePulseServer* server_ = nullptr;
    std::shared_ptr<PulseAudioBackend> backend_;
};

// Microphone samples, with the host time each reached the delegate.
struct Collector : CaptureDataOutputSampleBufferDelegate,
                   test::Collected<std::shared_ptr<SampleBuffer>> {
    test::Collected<uint64_t> arrivals;
    void captureOutputDidOutputSampleBuffer(const std::shared_ptr<CaptureOutput>&,
                                            const std::shared_ptr<SampleBuffer>& s,
                                            const std::shared_ptr<CaptureConnection>&) override {
        arrivals.add(HostClock::now());
        add(s);
    }
};

// A capture session recording the backend's default microphone into a
// collector.
std::pair<std::shared_ptr<CaptureSession>, std::shared_ptr<Collector>> startMicrophone(
    const std::shared_ptr<AudioBackend>& backend) {
    auto session = CaptureSession::make(backend);
    auto input = CaptureDeviceInput::make(defaultCaptureDeviceForAudio(backend));
    EXPECT_TRUE(input && session->canAddInput(input));
    session->addInput(input);
    auto output = AudioDataOutput::make();
    auto collector = std::make_shared<Collector>();
    output->setSampleBufferDelegate(collector, DispatchQueue::serial("test.mic"));
    session->addOutput(output);
    session->startRunning();
    EXPECT_TRUE(session->isRunning());
    return {session, collector};
}

// A tap of one process with four 0.1 s buffers, collecting what it hands
// over (with the host time of each arrival) until stopped.
struct TapBuffer {
    AudioTimeStamp time;
    std::vector<double> samples;
    uint64_t arrival;
};
class TapRun : public test::Collected<TapBuffer> {
  public:
    TapRun(const std::shared_ptr<AudioBackend>& backend, pid_t pid) {
        EXPECT_EQ(AudioTapQueue::create(
                      backend, kTapFormat,
                      [this](AudioTapQueueBuffer* b, const AudioTimeStamp& ts, uint32_t n,
                             const AudioStreamPacketDescription*) {
                          EXPECT_EQ(n, 4410u);
                          add({ts,
                               testing::pcm16Samples(static_cast<uint8_t*>(b->audioData),
                                                     b->audioDataByteSize, kTapFormat),
                               HostClock::now()});
                          queue_->enqueueBuffer(b);
                      },
                      0, &queue_),
                  0);
        if (!queue_) return;
        EXPECT_EQ(queue_->setProcessID(pid), 0);
        for (int i = 0; i < 4; ++i) {
            AudioTapQueueBuffer* b = nullptr;
            EXPECT_EQ(queue_->allocateBuffer(8820, &b), 0);
            queue_->enqueueBuffer(b);
        }
        EXPECT_EQ(queue_->start(), 0);
    }
    ~TapRun() { stop(); }

    // 0.1 s of audio each; generous time for a loaded machine.
    bool waitForBuffers(size_t n) { return waitFor(n, 30s); }
    void stop() {
        if (queue_) {
            EXPECT_EQ(queue_->dispose(true), 0);
        }
        queue_.reset();
    }
    // The tone's amplitude in the loudest buffer of [from, to): a loaded
    // machine may starve the player, and the silence of its underruns must
    // not count as the tone missing.
    double loudest(size_t from, size_t to, double hz) const {
        double loudest = 0;
        for (size_t i = from; i < to; ++i)
            loudest = std::max(loudest, testing::toneAmplitude(concat(i, i + 1), 44100, hz));
        return loudest;
    }
    std::vector<double> concat(size_t from, size_t to) const {
        std::vector<double> all;
        const auto buffers = this->all();
        for (size_t i = from; i < std::min(to, buffers.size()); ++i)
            all.insert(all.end(), buffers[i].samples.begin(), buffers[i].samples.end());
        return all;
    }

  private:
    std::shared_ptr<AudioTapQueue> queue_;
};

TEST_F(PulseTest, TapFollowsStreamsOpenedLaterAndMixesThem) {
    // The process opens its streams (440 Hz and 660 Hz) only once the tap
    // has recorded half a second of its silence.
    pid_t p = server_->playTonesOnSignal({440, 660}, 6.0);
    ASSERT_GT(p, 0);
    TapRun run(backend_, p);
    EXPECT_TRUE(run.waitForBuffers(5));
    testing::PrivatePulseServer::startPlaying(p);
    EXPECT_TRUE(server_->waitForPlaybackStreams(p, 2, 10s));
    // A fresh stream on an idle sink may take up to a second to flow: the
    // last second of two more seconds holds both tones.
    EXPECT_TRUE(run.waitForBuffers(run.size() + 20));
    run.stop();
    testing::PrivatePulseServer::reap(p);

    const size_t n = run.all().size();
    ASSERT_GE(n, 25u);
    EXPECT_LT(testing::rms(run.concat(0, 5)), 0.001) << "silence before the process plays";
    EXPECT_GT(run.loudest(n - 10, n, 440), 0.15);
    EXPECT_GT(run.loudest(n - 10, n, 660), 0.15);
}

// The tap of one process records only that process while the microphone
// records the default source. Then the server crashes and comes back: both
// sources go on with silence on an unbroken timeline, nothing reports a
// failure, the backend tells of the loss and the return, the microphone
// records sound again, and a new recording opens at once.
TEST(PulseBackend, TheTapRecordsItsProcessAndBothSourcesOutliveTheirServer) {
    auto started = testing::PrivatePulseServer::start({kSineSourceHz});
    if (!started && testing::PrivatePulseServer::required()) FAIL() << started.error().message();
    if (!started)
        GTEST_SKIP() << "cannot start a private PulseAudio server: " << started.error().message();
    auto server = std::move(*started);
    auto backend = std::make_shared<PulseAudioBackend>(server->address());
    test::Collected<bool> states;
    backend->setServerStateHandler([&](bool available) { states.add(available); });

    pid_t player = server->playTones({440}, 60.0), other = server->playTones({880}, 60.0);
    ASSERT_GT(player, 0);
    ASSERT_GT(other, 0);
    // Both streams exist before the tap starts.
    ASSERT_TRUE(server->waitForPlaybackStreams(player, 1, 10s));
    ASSERT_TRUE(server->waitForPlaybackStreams(other, 1, 10s));
    TapRun tap(backend, player);
    auto [session, mic] = startMicrophone(backend);  // meanwhile
    ASSERT_TRUE(tap.waitForBuffers(16));
    ASSERT_TRUE(mic->waitFor(45, 30s));
    // The first buffers may predate the monitor streams.
    EXPECT_GT(tap.loudest(4, 16, 440), 0.15);
    EXPECT_LT(testing::toneAmplitude(tap.concat(4, 16), 44100, 880), 0.002);

    server->killServer();
    const uint64_t killedAt = HostClock::now();
    ASSERT_TRUE(states.waitFor(1, 30s));
    // A second and a half of recording without a server.
    const size_t micAtLoss = mic->size(), tapAtLoss = tap.size();
    ASSERT_TRUE(mic->waitFor(micAtLoss + 65, 30s));
    ASSERT_TRUE(tap.waitForBuffers(tapAtLoss + 15));
    const size_t micBeforeReturn = mic->size(), tapBeforeReturn = tap.size();

    auto restarted = server->restart();
    ASSERT_TRUE(restarted) << restarted.error().message();
    ASSERT_TRUE(states.waitFor(2, 30s));
    // Sound again within a few seconds of the return.
    EXPECT_TRUE(mic->waitForItems(
        [](const testing::SampleList& s) {
            return testing::rms(testing::pcm16Samples(s, s.size() > 20 ? s.size() - 20 : 0)) > 0.05;
        },
        30s));
    session->stopRunning();
    tap.stop();
    testing::PrivatePulseServer::reap(player);
    testing::PrivatePulseServer::reap(other);
    EXPECT_EQ(states.all(), (std::vector<bool>{false, true}));

    // Unbroken timelines from the first sample (the first reads wait for the
    // server's timing instead of being stamped without it) until the return.
    const auto samples = mic->all();
    const auto arrivals = mic->arrivals.all();
    testing::expectContiguous(samples, 1024.0 / 44100.0, 0.003, 1, micBeforeReturn);
    EXPECT_NEAR(testing::zeroCrossingFrequency(testing::pcm16Samples(samples, 5, 45), 44100),
                kSineSourceHz, 3.0);
    for (size_t i = 0; i < 45; ++i) {
        EXPECT_EQ(samples[i]->numSamples(), 1024);
        // Stamped in the past, not long before delivery.
        double age = HostClock::toSeconds(arrivals[i]) - samples[i]->presentationTime().seconds();
        EXPECT_GT(age, 0.0);
        EXPECT_LT(age, kStaleAfter);
    }
    for (size_t i = 5; i + 1 < micBeforeReturn; ++i)
        if (HostClock::fromMediaTime(samples[i]->presentationTime()) > killedAt + 200'000'000) {
            EXPECT_EQ(testing::rms(testing::pcm16Samples(*samples[i])), 0.0) << i;
        }
    const auto buffers = tap.all();
    for (size_t i = 1; i < tapBeforeReturn; ++i) {
        // Within 10 ms: a loaded machine delays the silence of a lost server.
        double step = double(buffers[i].time.hostTime - buffers[i - 1].time.hostTime) / 1e9;
        EXPECT_NEAR(step, 0.1, 0.01) << "tap buffer " << i;
        if (i >= 16) continue;
        // Before the loss each stamp follows the sample time, and the whole
        // buffer was recorded before delivery.
        EXPECT_NEAR(step, (buffers[i].time.sampleTime - buffers[i - 1].time.sampleTime) / 44100,
                    0.003);
        double age = double(buffers[i].arrival - buffers[i].time.hostTime) / 1e9;
        EXPECT_GT(age, 0.1);
        EXPECT_LT(age, kStaleAfter);
    }
    EXPECT_LT(testing::rms(tap.concat(tapBeforeReturn - 5, tapBeforeReturn)), 0.0005);

    // The next recording on the same backend starts at once.
    auto [next, nextMic] = startMicrophone(backend);
    EXPECT_TRUE(nextMic->waitFor(10, 30s));
    next->stopRunning();
}

TEST(PulseBackend, UnreachableServerFailsWithStatus) {
    PulseAudioBackend backend("unix:/nonexistent/sv-no-server");
    int32_t status = 0;
    auto source = backend.openProcessTap(
        1, kTapFormat, [](auto, auto) {}, nullptr, &status);
    EXPECT_FALSE(source);
    EXPECT_EQ(status, kAudioServerUnavailableError);
    EXPECT_FALSE(backend.defaultAudioDevice());
}

}  // namespace
}  // namespace sv
