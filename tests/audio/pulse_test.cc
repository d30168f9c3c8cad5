// The PulseAudio backend against a private server: the microphone records
// the default (sine) source, and the tap records exactly the playback streams
// of one process, including streams it opens after the tap started.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/audio/audio_tap_queue.h"
#include "platform/audio/capture_session.h"
#include "platform/audio/pulse_audio.h"
#include "platform/audio/testing/private_pulse_server.h"
#include "platform/host_clock.h"
#include "tests/audio/audio_analysis.h"
#include "tests/process/process_helpers.h"

using namespace std::chrono_literals;

namespace sv {
namespace {

constexpr double kSineSourceHz = 700.0;
constexpr AudioStreamFormat kTapFormat = AudioStreamFormat::pcm16(44100.0, 1, true);

class PulseTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        auto started = testing::PrivatePulseServer::start({kSineSourceHz});
        if (started)
            server_ = started->release();
        else
            whyNot_ = new std::string(started.error().message());
    }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    void SetUp() override {
        if (!server_ && testing::PrivatePulseServer::required())
            FAIL() << "cannot start a private PulseAudio server: " << *whyNot_;
        if (!server_) GTEST_SKIP() << "cannot start a private PulseAudio server: " << *whyNot_;
        backend_ = std::make_shared<PulseAudioBackend>(server_->address());
    }

    static testing::PrivatePulseServer* server_;
    static std::string* whyNot_;
    std::shared_ptr<PulseAudioBackend> backend_;
};
testing::PrivatePulseServer* PulseTest::server_ = nullptr;
std::string* PulseTest::whyNot_ = nullptr;

struct Collector : CaptureDataOutputSampleBufferDelegate {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::shared_ptr<SampleBuffer>> samples;
    std::vector<uint64_t> arrivals;
    void captureOutputDidOutputSampleBuffer(const std::shared_ptr<CaptureOutput>&,
                                            const std::shared_ptr<SampleBuffer>& s,
                                            const std::shared_ptr<CaptureConnection>&) override {
        std::lock_guard lock(mutex);
        samples.push_back(s);
        arrivals.push_back(HostClock::now());
        cv.notify_all();
    }
};

TEST_F(PulseTest, MicrophoneRecordsTheDefaultSource) {
    auto session = CaptureSession::make(backend_);
    auto input = CaptureDeviceInput::make(defaultCaptureDeviceForAudio(backend_));
    ASSERT_TRUE(input);
    ASSERT_TRUE(session->canAddInput(input));
    session->addInput(input);
    auto output = AudioDataOutput::make();
    auto collector = std::make_shared<Collector>();
    output->setSampleBufferDelegate(collector, DispatchQueue::serial("test.mic"));
    session->addOutput(output);
    session->startRunning();
    ASSERT_TRUE(session->isRunning());
    {
        std::unique_lock lock(collector->mutex);
        ASSERT_TRUE(
            collector->cv.wait_for(lock, 5s, [&] { return collector->samples.size() >= 45; }));
    }
    session->stopRunning();
    std::lock_guard lock(collector->mutex);
    auto& samples = collector->samples;
    std::vector<double> all;
    // Contiguous from the first sample on: the first reads wait for the
    // server's timing instead of being stamped without it.
    const size_t settled = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        EXPECT_EQ(samples[i]->numSamples(), 1024);
        if (i > settled) {
            double step =
                subtract(samples[i]->presentationTime(), samples[i - 1]->presentationTime())
                    .seconds();
            EXPECT_NEAR(step, 1024.0 / 44100.0, 0.003) << "sample " << i;
        }
        if (i > settled) {
            // Stamped in the past, not long before delivery.
            double age = HostClock::toSeconds(collector->arrivals[i]) -
                         samples[i]->presentationTime().seconds();
            EXPECT_GT(age, 0.0);
            EXPECT_LT(age, 1.5);  // generous: loaded CI machines
        }
        if (i >= 5) {
            auto x = testing::pcm16Samples(*samples[i]);
            all.insert(all.end(), x.begin(), x.end());
        }
    }
    EXPECT_NEAR(testing::zeroCrossingFrequency(all, 44100), kSineSourceHz, 3.0);
}

// A tap of one process with four 0.1 s buffers, collecting what it hands
// over until stopped.
class TapRun {
  public:
    TapRun(const std::shared_ptr<AudioBackend>& backend, pid_t pid) {
        EXPECT_EQ(AudioTapQueue::create(
                      backend, kTapFormat,
                      [this](AudioTapQueueBuffer* b, const AudioTimeStamp& ts, uint32_t n,
                             const AudioStreamPacketDescription*) {
                          EXPECT_EQ(n, 4410u);
                          {
                              std::lock_guard lock(mutex_);
                              buffers_.emplace_back(
                                  ts, testing::pcm16Samples(static_cast<uint8_t*>(b->audioData),
                                                            b->audioDataByteSize, kTapFormat));
                              arrivals_.push_back(HostClock::now());
                          }
                          cv_.notify_all();
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

    // Waits until `n` buffers have arrived (0.1 s of audio each; generous
    // time for a loaded machine).
    bool waitForBuffers(size_t n) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, 30s, [&] { return buffers_.size() >= n; });
    }
    size_t count() {
        std::lock_guard lock(mutex_);
        return buffers_.size();
    }
    void stop() {
        if (queue_) {
            EXPECT_EQ(queue_->dispose(true), 0);
        }
        queue_.reset();
    }

    // After stop().
    const std::vector<std::pair<AudioTimeStamp, std::vector<double>>>& buffers() const {
        return buffers_;
    }
    const std::vector<uint64_t>& arrivals() const { return arrivals_; }
    std::vector<double> concat(size_t from, size_t to) const {
        std::vector<double> all;
        for (size_t i = from; i < std::min(to, buffers_.size()); ++i)
            all.insert(all.end(), buffers_[i].second.begin(), buffers_[i].second.end());
        return all;
    }

  private:
    std::shared_ptr<AudioTapQueue> queue_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::pair<AudioTimeStamp, std::vector<double>>> buffers_;
    std::vector<uint64_t> arrivals_;
};

TEST_F(PulseTest, TapRecordsOnlyTheTappedProcess) {
    pid_t a = server_->playTones({440}, 6.0);
    pid_t b = server_->playTones({880}, 6.0);
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    // Both streams exist before the tap starts.
    EXPECT_TRUE(server_->waitForPlaybackStreams(a, 1, 10s));
    EXPECT_TRUE(server_->waitForPlaybackStreams(b, 1, 10s));
    TapRun run(backend_, a);
    EXPECT_TRUE(run.waitForBuffers(16));
    run.stop();
    testing::PrivatePulseServer::reap(a);
    testing::PrivatePulseServer::reap(b);

    const auto& buffers = run.buffers();
    ASSERT_GE(buffers.size(), 16u);
    // The first buffers may predate the monitor streams.
    auto x = run.concat(4, buffers.size());
    EXPECT_GT(testing::toneAmplitude(x, 44100, 440), 0.15);
    EXPECT_LT(testing::toneAmplitude(x, 44100, 880), 0.002);

    for (size_t i = 1; i < buffers.size(); ++i) {
        // Contiguous: each stamp is the previous plus 0.1 s, within a few ms.
        double step = double(buffers[i].first.hostTime - buffers[i - 1].first.hostTime) / 1e9;
        EXPECT_NEAR(step, 0.1, 0.003) << "buffer " << i;
        double age = double(run.arrivals()[i] - buffers[i].first.hostTime) / 1e9;
        EXPECT_GT(age, 0.1);  // the whole buffer was recorded before delivery
        EXPECT_LT(age, 1.5);  // generous: loaded CI machines
    }
}

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
    // last half second of two more seconds holds both tones.
    EXPECT_TRUE(run.waitForBuffers(run.count() + 20));
    run.stop();
    testing::PrivatePulseServer::reap(p);

    const size_t n = run.buffers().size();
    ASSERT_GE(n, 25u);
    EXPECT_LT(testing::rms(run.concat(0, 5)), 0.001) << "silence before the process plays";
    auto after = run.concat(n - 5, n);
    EXPECT_GT(testing::toneAmplitude(after, 44100, 440), 0.15);
    EXPECT_GT(testing::toneAmplitude(after, 44100, 660), 0.15);
}

TEST_F(PulseTest, TapOfAProcessThatPlaysNothingIsSilent) {
    pid_t other = server_->playTones({523}, 4.0);
    ASSERT_GT(other, 0);
    EXPECT_TRUE(server_->waitForPlaybackStreams(other, 1, 10s));
    TapRun run(backend_, getpid());
    EXPECT_TRUE(run.waitForBuffers(6));
    run.stop();
    testing::PrivatePulseServer::reap(other);
    ASSERT_GE(run.buffers().size(), 6u);
    EXPECT_LT(testing::rms(run.concat(0, run.buffers().size())), 0.0005);
}

// The server crashes in the middle of a recording and comes back: both
// sources go on with silence on an unbroken timeline, nothing reports a
// failure, the backend tells of the loss and the return, the microphone
// records sound again, and a new recording opens at once.
TEST(PulseBackend, SourcesOutliveTheirServerWithSilenceAndRecordAgain) {
    auto started = testing::PrivatePulseServer::start({kSineSourceHz});
    if (!started && testing::PrivatePulseServer::required()) FAIL() << started.error().message();
    if (!started)
        GTEST_SKIP() << "cannot start a private PulseAudio server: " << started.error().message();
    auto server = std::move(*started);
    auto backend = std::make_shared<PulseAudioBackend>(server->address());
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<bool> states;
    backend->setServerStateHandler([&](bool available) {
        std::lock_guard lock(mutex);
        states.push_back(available);
        cv.notify_all();
    });
    auto waitFor = [&](auto condition) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, 30s, condition);
    };

    pid_t player = server->playTones({440}, 60.0);
    ASSERT_GT(player, 0);
    ASSERT_TRUE(server->waitForPlaybackStreams(player, 1, 10s));
    TapRun tap(backend, player);
    auto session = CaptureSession::make(backend);
    session->addInput(CaptureDeviceInput::make(defaultCaptureDeviceForAudio(backend)));
    auto output = AudioDataOutput::make();
    auto mic = std::make_shared<Collector>();
    output->setSampleBufferDelegate(mic, DispatchQueue::serial("test.mic"));
    session->addOutput(output);
    session->startRunning();
    ASSERT_TRUE(session->isRunning());
    ASSERT_TRUE(tap.waitForBuffers(5));
    auto micCount = [&] {
        std::lock_guard lock(mic->mutex);
        return mic->samples.size();
    };
    auto waitForMic = [&](size_t n) {
        std::unique_lock lock(mic->mutex);
        return mic->cv.wait_for(lock, 30s, [&] { return mic->samples.size() >= n; });
    };
    ASSERT_TRUE(waitForMic(20));

    server->killServer();
    const uint64_t killedAt = HostClock::now();
    ASSERT_TRUE(waitFor([&] { return !states.empty(); }));
    // A second and a half of recording without a server.
    const size_t micAtLoss = micCount(), tapAtLoss = tap.count();
    ASSERT_TRUE(waitForMic(micAtLoss + 65));
    ASSERT_TRUE(tap.waitForBuffers(tapAtLoss + 15));
    const size_t micBeforeReturn = micCount(), tapBeforeReturn = tap.count();

    auto restarted = server->restart();
    ASSERT_TRUE(restarted) << restarted.error().message();
    ASSERT_TRUE(waitFor([&] { return states.size() >= 2; }));
    // Sound again within a few seconds of the return.
    auto soundSince = [&](size_t from) {
        std::lock_guard lock(mic->mutex);
        std::vector<double> x;
        for (size_t i = from; i < mic->samples.size(); ++i) {
            auto s = testing::pcm16Samples(*mic->samples[i]);
            x.insert(x.end(), s.begin(), s.end());
        }
        return testing::rms(x) > 0.05;
    };
    EXPECT_TRUE(
        test::eventually([&] { return soundSince(micCount() > 20 ? micCount() - 20 : 0); }, 30s));
    session->stopRunning();
    tap.stop();
    testing::PrivatePulseServer::reap(player);
    EXPECT_EQ(states, (std::vector<bool>{false, true}));

    // Unbroken timelines from before the loss until the return.
    {
        std::lock_guard lock(mic->mutex);
        for (size_t i = 5; i < micBeforeReturn; ++i) {
            double step = subtract(mic->samples[i]->presentationTime(),
                                   mic->samples[i - 1]->presentationTime())
                              .seconds();
            EXPECT_NEAR(step, 1024.0 / 44100.0, 0.003) << "microphone sample " << i;
            const bool afterLoss = HostClock::fromMediaTime(mic->samples[i]->presentationTime()) >
                                   killedAt + 200'000'000;
            if (afterLoss && i + 1 < micBeforeReturn) {
                EXPECT_EQ(testing::rms(testing::pcm16Samples(*mic->samples[i])), 0.0) << i;
            }
        }
    }
    const auto& buffers = tap.buffers();
    for (size_t i = 1; i < tapBeforeReturn; ++i) {
        double step = double(buffers[i].first.hostTime - buffers[i - 1].first.hostTime) / 1e9;
        EXPECT_NEAR(step, 0.1, 0.003) << "tap buffer " << i;
    }
    EXPECT_LT(testing::rms(tap.concat(tapBeforeReturn - 5, tapBeforeReturn)), 0.0005);

    // The next recording on the same backend starts at once.
    auto next = CaptureSession::make(backend);
    next->addInput(CaptureDeviceInput::make(defaultCaptureDeviceForAudio(backend)));
    auto nextMic = std::make_shared<Collector>();
    auto nextOutput = AudioDataOutput::make();
    nextOutput->setSampleBufferDelegate(nextMic, DispatchQueue::serial("test.mic2"));
    next->addOutput(nextOutput);
    next->startRunning();
    EXPECT_TRUE(next->isRunning());
    std::unique_lock lock(nextMic->mutex);
    EXPECT_TRUE(nextMic->cv.wait_for(lock, 30s, [&] { return nextMic->samples.size() >= 10; }));
    lock.unlock();
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
