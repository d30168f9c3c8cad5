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
#include "platform/audio/host_clock.h"
#include "platform/audio/pulse_audio.h"
#include "platform/audio/testing/private_pulse_server.h"
#include "tests/audio/audio_analysis.h"

using namespace std::chrono_literals;

namespace sv {
namespace {

constexpr double kSineSourceHz = 700.0;
constexpr AudioStreamFormat kTapFormat = AudioStreamFormat::pcm16(44100.0, 1, true);

class PulseTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        std::string why;
        server_ = testing::PrivatePulseServer::start({kSineSourceHz}, &why).release();
        if (!server_) whyNot_ = new std::string(why);
    }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    void SetUp() override {
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
    // The first reads may still see the stream's latency settle.
    const size_t settled = 4;
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

// Runs a tap on `pid` for `duration` with 0.1 s buffers.
struct TapRun {
    std::vector<std::pair<AudioTimeStamp, std::vector<double>>> buffers;
    std::vector<uint64_t> arrivals;
};

TapRun tapProcess(const std::shared_ptr<AudioBackend>& backend, pid_t pid,
                  std::chrono::milliseconds duration) {
    TapRun run;
    std::mutex mutex;
    std::shared_ptr<AudioTapQueue> queue;
    EXPECT_EQ(AudioTapQueue::create(
                  backend, kTapFormat,
                  [&](AudioTapQueueBuffer* b, const AudioTimeStamp& ts, uint32_t n,
                      const AudioStreamPacketDescription*) {
                      EXPECT_EQ(n, 4410u);
                      {
                          std::lock_guard lock(mutex);
                          run.buffers.emplace_back(
                              ts, testing::pcm16Samples(static_cast<uint8_t*>(b->audioData),
                                                        b->audioDataByteSize, kTapFormat));
                          run.arrivals.push_back(HostClock::now());
                      }
                      queue->enqueueBuffer(b);
                  },
                  0, &queue),
              0);
    if (!queue) return run;
    EXPECT_EQ(queue->setProcessID(pid), 0);
    for (int i = 0; i < 4; ++i) {
        AudioTapQueueBuffer* b = nullptr;
        EXPECT_EQ(queue->allocateBuffer(8820, &b), 0);
        queue->enqueueBuffer(b);
    }
    EXPECT_EQ(queue->start(), 0);
    std::this_thread::sleep_for(duration);
    EXPECT_EQ(queue->dispose(true), 0);
    std::lock_guard lock(mutex);
    return run;
}

std::vector<double> concat(const TapRun& run, size_t from, size_t to) {
    std::vector<double> all;
    for (size_t i = from; i < std::min(to, run.buffers.size()); ++i)
        all.insert(all.end(), run.buffers[i].second.begin(), run.buffers[i].second.end());
    return all;
}

TEST_F(PulseTest, TapRecordsOnlyTheTappedProcess) {
    pid_t a = server_->playTones({440}, 4.0);
    pid_t b = server_->playTones({880}, 4.0);
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    std::this_thread::sleep_for(300ms);  // both streams exist before the tap starts
    TapRun run = tapProcess(backend_, a, 1800ms);
    testing::PrivatePulseServer::reap(a);
    testing::PrivatePulseServer::reap(b);

    ASSERT_GE(run.buffers.size(), 12u);
    // The first buffers may predate the monitor streams.
    auto x = concat(run, 4, run.buffers.size());
    EXPECT_GT(testing::toneAmplitude(x, 44100, 440), 0.15);
    EXPECT_LT(testing::toneAmplitude(x, 44100, 880), 0.002);

    for (size_t i = 1; i < run.buffers.size(); ++i) {
        // Contiguous: each stamp is the previous plus 0.1 s, within a few ms.
        double step =
            double(run.buffers[i].first.hostTime - run.buffers[i - 1].first.hostTime) / 1e9;
        EXPECT_NEAR(step, 0.1, 0.003) << "buffer " << i;
        double age = double(run.arrivals[i] - run.buffers[i].first.hostTime) / 1e9;
        EXPECT_GT(age, 0.1);  // the whole buffer was recorded before delivery
        EXPECT_LT(age, 1.5);  // generous: loaded CI machines
    }
}

TEST_F(PulseTest, TapFollowsStreamsOpenedLaterAndMixesThem) {
    // The process opens its streams (440 Hz and 660 Hz) 0.7 s after the tap
    // starts; a fresh stream on an idle sink may take up to a second to flow.
    pid_t p = server_->playTones({440, 660}, 3.0, 700);
    ASSERT_GT(p, 0);
    TapRun run = tapProcess(backend_, p, 2800ms);
    testing::PrivatePulseServer::reap(p);

    ASSERT_GE(run.buffers.size(), 24u);
    auto before = concat(run, 0, 5);
    EXPECT_LT(testing::rms(before), 0.001) << "silence before the process plays";
    auto after = concat(run, run.buffers.size() - 5, run.buffers.size());
    EXPECT_GT(testing::toneAmplitude(after, 44100, 440), 0.15);
    EXPECT_GT(testing::toneAmplitude(after, 44100, 660), 0.15);
}

TEST_F(PulseTest, TapOfAProcessThatPlaysNothingIsSilent) {
    pid_t other = server_->playTones({523}, 2.0);
    TapRun run = tapProcess(backend_, getpid(), 700ms);
    testing::PrivatePulseServer::reap(other);
    ASSERT_GE(run.buffers.size(), 4u);
    EXPECT_LT(testing::rms(concat(run, 0, run.buffers.size())), 0.0005);
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
