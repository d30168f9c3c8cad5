// The audio platform services on the synthetic backend: host clock,
// observation, capture session and the audio tap queue.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <set>

#include "platform/audio/audio_tap_queue.h"
#include "platform/audio/capture_session.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/host_clock.h"
#include "tests/audio/audio_analysis.h"
#include "tests/audio/counting_backend.h"
#include "tests/support/test_util.h"

using namespace std::chrono_literals;

namespace sv {
namespace {

struct RecordingObserver : KeyValueObserver {
    std::vector<std::pair<std::string, KeyValueChange>> changes;
    bool removeSelf = false;
    void observeValueForKeyPath(const std::string& keyPath, Observable& object,
                                const KeyValueChange& change, void*) override {
        changes.emplace_back(keyPath, change);
        if (removeSelf) {
            EXPECT_TRUE(object.removeObserver(this, keyPath));
        }
    }
};

TEST(Observation, RegistrationRemovalAndErrors) {
    auto session = CaptureSession::make(std::make_shared<SyntheticAudioBackend>());
    auto observer = std::make_shared<RecordingObserver>();
    EXPECT_EQ(session->removeObserver(observer.get(), "running").error().code,
              kObservationErrorNotRegistered);

    session->addObserver(observer, "running",
                         KeyValueObservingOptionNew | KeyValueObservingOptionOld, nullptr);
    session->startRunning();
    ASSERT_EQ(observer->changes.size(), 1u);
    EXPECT_EQ(observer->changes[0].second.newValue, Value(true));
    EXPECT_EQ(observer->changes[0].second.oldValue, Value(false));

    // An observer may remove itself from inside the callback.
    observer->removeSelf = true;
    session->stopRunning();
    EXPECT_EQ(observer->changes.size(), 2u);
    EXPECT_EQ(session->observationCount("running"), 0u);
    EXPECT_EQ(session->removeObserver(observer.get(), "running").error().code,
              kObservationErrorNotRegistered);

    // A released observer is skipped.
    auto gone = std::make_shared<RecordingObserver>();
    session->addObserver(gone, "running", 0, nullptr);
    gone.reset();
    session->startRunning();
    EXPECT_EQ(session->observationCount("running"), 0u);
    session->stopRunning();

    // A session whose input's server does not answer stays stopped, and its
    // observers hear nothing (one without inputs, above, runs regardless).
    auto silent = std::make_shared<SyntheticAudioBackend>(
        SyntheticAudioBackend::Options{.serverAvailable = false});
    auto stuck = CaptureSession::make(silent);
    stuck->addInput(CaptureDeviceInput::make(silent->defaultAudioDevice()));
    observer = std::make_shared<RecordingObserver>();
    stuck->addObserver(observer, "running", 0, nullptr);
    stuck->startRunning();
    EXPECT_FALSE(stuck->isRunning());
    EXPECT_TRUE(observer->changes.empty());
}

struct Delegate : CaptureDataOutputSampleBufferDelegate,
                  test::Collected<std::shared_ptr<SampleBuffer>> {
    std::shared_ptr<DispatchQueue> expectedQueue;
    std::atomic<bool> wrongQueue{false};
    void captureOutputDidOutputSampleBuffer(const std::shared_ptr<CaptureOutput>&,
                                            const std::shared_ptr<SampleBuffer>& sample,
                                            const std::shared_ptr<CaptureConnection>&) override {
        if (!expectedQueue->isCurrent()) wrongQueue = true;
        add(sample);
    }
};

TEST(CaptureSession, InputsOutputsAndDelivery) {
    auto backend = std::make_shared<SyntheticAudioBackend>(
        SyntheticAudioBackend::Options{.microphoneFrequency = 1000.0});
    auto session = CaptureSession::make(backend);
    auto device = defaultCaptureDeviceForAudio(backend);
    ASSERT_TRUE(device);
    auto input = CaptureDeviceInput::make(device);
    ASSERT_TRUE(input);
    EXPECT_FALSE(CaptureDeviceInput::make(nullptr));
    EXPECT_TRUE(session->canAddInput(input));
    session->addInput(input);
    EXPECT_FALSE(session->canAddInput(input));
    EXPECT_FALSE(session->canAddInput(CaptureDeviceInput::make(device)));  // same device

    auto output = AudioDataOutput::make();
    auto delegate = std::make_shared<Delegate>();
    delegate->expectedQueue = DispatchQueue::serial("test.delivery");
    output->setSampleBufferDelegate(delegate, delegate->expectedQueue);
    EXPECT_TRUE(session->canAddOutput(output));
    EXPECT_FALSE(session->canAddOutput(VideoDataOutput::make()));
    session->addOutput(output);
    EXPECT_FALSE(session->canAddOutput(output));

    session->startRunning();
    EXPECT_TRUE(session->isRunning());
    ASSERT_TRUE(delegate->waitFor(8));
    session->stopRunning();
    EXPECT_FALSE(session->isRunning());
    EXPECT_EQ(backend->openSources(), 0);
    EXPECT_FALSE(delegate->wrongQueue);

    const auto samples = delegate->all();
    // Contiguous on the host clock, to the nanosecond.
    testing::expectContiguous(samples, 1024.0 / 44100.0, 2e-9);
    for (const auto& s : samples) {
        EXPECT_EQ(s->numSamples(), 1024);
        EXPECT_EQ(s->audioFormat(), AudioDataOutput::kFormat);
        EXPECT_EQ(s->duration(), MediaTime::make(1024, 44100));
    }
    const auto all = testing::pcm16Samples(samples);
    // Measured where no whole-second click falls.
    auto clean = testing::withoutClicks(
        all, 44100, HostClock::fromMediaTime(samples.front()->presentationTime()));
    EXPECT_GE(clean.size(), all.size() / 3);
    EXPECT_NEAR(testing::zeroCrossingFrequency(clean, 44100), 1000.0, 2.0);
    // Stamps are on the host clock: the newest is not in the future.
    EXPECT_LE(HostClock::fromMediaTime(samples.back()->presentationTime()), HostClock::now());
}

TEST(SyntheticAudio, ClicksAtEveryWholeSecondOfTheSampleHostTime) {
    // 20x real time: about 2.5 s of samples, so at least two seconds start.
    auto backend =
        std::make_shared<SyntheticAudioBackend>(SyntheticAudioBackend::Options{.speed = 20});
    for (bool tap : {false, true}) {
        const AudioStreamFormat format =
            tap ? AudioStreamFormat::pcm16(44100, 1, true) : AudioStreamFormat::float32(48000, 2);
        std::mutex mutex;
        std::condition_variable cv;
        std::vector<double> x;  // first channel
        uint64_t start = 0;
        auto sink = [&](std::span<const uint8_t> bytes, uint64_t hostTime) {
            std::lock_guard lock(mutex);
            if (x.empty()) start = hostTime;
            EXPECT_EQ(hostTime, start + HostClock::ticksForFrames(x.size(), format.sampleRate));
            for (size_t off = 0; off + format.bytesPerFrame <= bytes.size();
                 off += format.bytesPerFrame) {
                if (tap) {
                    x.push_back(testing::pcm16Samples(&bytes[off], 2, format)[0]);
                } else {
                    float f;
                    std::memcpy(&f, &bytes[off], 4);
                    x.push_back(f);
                }
            }
            cv.notify_all();
        };
        int32_t status = -1;
        auto source = tap ? backend->openProcessTap(4242, format, sink, nullptr, &status)
                          : backend->openDevice(*backend->defaultAudioDevice(), format, sink,
                                                nullptr, &status);
        ASSERT_EQ(status, 0);
        {
            std::unique_lock lock(mutex);
            ASSERT_TRUE(cv.wait_for(lock, 10s, [&] { return x.size() > 2.5 * format.sampleRate; }));
        }
        source.reset();
        // Above the tone's amplitude exactly in the clicks, and in every one.
        const double rate = format.sampleRate;
        std::set<uint64_t> seconds;
        for (size_t i = 0; i < x.size(); ++i) {
            const uint64_t t = start + HostClock::ticksForFrames(i, rate);
            const bool inClick = t % 1'000'000'000 < uint64_t(kSyntheticClickMilliseconds * 1e6);
            if (std::abs(x[i]) > 0.3) {
                EXPECT_TRUE(inClick) << "loud sample outside a click at " << t;
                seconds.insert(t / 1'000'000'000);
            }
            EXPECT_LE(std::abs(x[i]), 1.0);
        }
        const uint64_t first = start / 1'000'000'000 + 1,
                       last = (start + HostClock::ticksForFrames(x.size(), rate)) / 1'000'000'000;
        ASSERT_GE(last, first + 1);
        for (uint64_t k = first; k < last; ++k)
            EXPECT_TRUE(seconds.count(k)) << "no click at " << k;
    }
}

// What an audio tap queue hands over (its time stamp, bytes and packet
// count); recycles every buffer.
struct TapBuffer {
    AudioTimeStamp time;
    std::vector<uint8_t> bytes;
    uint32_t packets;
};
struct TapRecorder : test::Collected<TapBuffer> {
    std::shared_ptr<AudioTapQueue> queue;
    test::Collected<bool> running;

    AudioTapQueue::InputCallback callback() {
        return [this](AudioTapQueueBuffer* b, const AudioTimeStamp& ts, uint32_t n,
                      const AudioStreamPacketDescription* descs) {
            EXPECT_EQ(descs, nullptr);
            auto* p = static_cast<uint8_t*>(b->audioData);
            add({ts, std::vector<uint8_t>(p, p + b->audioDataByteSize), n});
            queue->enqueueBuffer(b);
        };
    }
};

constexpr AudioStreamFormat kTapFormat = AudioStreamFormat::pcm16(44100.0, 1, true);

TEST(AudioTapQueue, FillsBuffersWithTheProcessToneStampedOnTheHostClock) {
    auto backend =
        std::make_shared<SyntheticAudioBackend>(SyntheticAudioBackend::Options{.speed = 20});
    TapRecorder rec;
    ASSERT_EQ(AudioTapQueue::create(backend, kTapFormat, rec.callback(), 0, &rec.queue), 0);
    EXPECT_EQ(rec.queue->start(), kAudioNoProcessError);  // not bound to a process yet
    EXPECT_EQ(rec.queue->setProcessID(4242), 0);
    AudioStreamFormat format;
    ASSERT_EQ(rec.queue->getStreamFormat(&format), 0);
    EXPECT_EQ(format, kTapFormat);
    uint32_t maxPacket = 0;
    EXPECT_EQ(rec.queue->getMaximumPacketSize(&maxPacket), 0);
    EXPECT_EQ(maxPacket, 2u);

    AudioTapQueue::ListenerToken token = 0;
    ASSERT_EQ(rec.queue->addRunningListener([&rec](bool r) { rec.running.add(r); }, &token), 0);
    AudioTapQueueBuffer* buffers[3];
    for (auto& b : buffers) {
        ASSERT_EQ(rec.queue->allocateBuffer(8820, &b), 0);
        ASSERT_EQ(rec.queue->enqueueBuffer(b), 0);
    }
    EXPECT_EQ(rec.queue->enqueueBuffer(buffers[0]), kAudioBufferInUseError);
    ASSERT_EQ(rec.queue->start(), 0);
    ASSERT_TRUE(rec.waitFor(6));
    ASSERT_EQ(rec.queue->stop(true), 0);
    const size_t delivered = rec.size();
    EXPECT_EQ(rec.running.all(), (std::vector<bool>{true, false}));
    EXPECT_EQ(backend->openSources(), 0);  // the recording itself is gone
    // No callback after stop: a restart records from frame 0 again, and its
    // buffers come after anything the first run could still have delivered.
    ASSERT_EQ(rec.queue->start(), 0);
    ASSERT_TRUE(rec.waitFor(delivered + 1));
    ASSERT_EQ(rec.queue->stop(true), 0);
    const auto got = rec.all();
    EXPECT_EQ(got[delivered].time.sampleTime, 0.0) << "a callback after stop";
    EXPECT_EQ(rec.running.all(), (std::vector<bool>{true, false, true, false}));

    // Stamped on the host clock at the sample time, to the nanosecond. A
    // callback that gives its buffer back late (a loaded machine) leaves a
    // gap in the sample time, not a wrong stamp; the tone is measured on the
    // longest run without one.
    EXPECT_EQ(got[0].time.sampleTime, 0.0);
    std::vector<double> run, longest;
    uint64_t runStart = 0, longestStart = 0;
    for (size_t i = 0; i < delivered; ++i) {
        const auto& [ts, bytes, packets] = got[i];
        EXPECT_EQ(bytes.size(), 8820u);  // filled to the byte size
        EXPECT_EQ(packets, 4410u);
        EXPECT_NEAR(double(ts.hostTime - got[0].time.hostTime), ts.sampleTime * 1e9 / 44100, 2);
        if (i == 0 || ts.sampleTime != got[i - 1].time.sampleTime + 4410) {
            EXPECT_GT(i == 0 ? 1.0 : ts.sampleTime - got[i - 1].time.sampleTime, 0.0);
            run.clear();
            runStart = ts.hostTime;
        }
        auto x = testing::pcm16Samples(bytes.data(), bytes.size(), kTapFormat);
        run.insert(run.end(), x.begin(), x.end());
        if (run.size() > longest.size()) longest = run, longestStart = runStart;
    }
    auto clean = testing::withoutClicks(longest, 44100, longestStart);
    EXPECT_GE(clean.size(), longest.size() / 3);
    EXPECT_NEAR(testing::zeroCrossingFrequency(clean, 44100),
                syntheticToneFrequencyForProcess(4242), 1.0);

    EXPECT_EQ(rec.queue->freeBuffer(buffers[0]), 0);
    EXPECT_EQ(rec.queue->freeBuffer(buffers[0]), kAudioInvalidBufferError);
    EXPECT_EQ(rec.queue->removeRunningListener(token), 0);
    EXPECT_EQ(rec.queue->removeRunningListener(token), kAudioParamError);
    EXPECT_EQ(rec.queue->dispose(true), 0);
    EXPECT_EQ(rec.queue->start(), kAudioDisposedError);
    EXPECT_EQ(rec.queue->enqueueBuffer(buffers[1]), kAudioDisposedError);
    EXPECT_EQ(backend->openSources(), 0);
}

TEST(AudioTapQueue, RejectsBadArgumentsDropsAudioWithoutBuffersAndDisposesFromItsCallback) {
    auto backend =
        std::make_shared<SyntheticAudioBackend>(SyntheticAudioBackend::Options{.speed = 20});
    TapRecorder rec;
    std::shared_ptr<AudioTapQueue> q;
    EXPECT_EQ(
        AudioTapQueue::create(backend, AudioStreamFormat::float32(44100, 1), rec.callback(), 0, &q),
        kAudioUnsupportedFormatError);
    EXPECT_EQ(AudioTapQueue::create(backend, kTapFormat, nullptr, 0, &q), kAudioParamError);
    EXPECT_EQ(AudioTapQueue::create(nullptr, kTapFormat, rec.callback(), 0, &q), kAudioParamError);
    EXPECT_FALSE(q);

    auto counting = std::make_shared<testing::CountingBackend>(backend);
    ASSERT_EQ(AudioTapQueue::create(counting, kTapFormat, rec.callback(), 0, &rec.queue), 0);
    EXPECT_EQ(rec.queue->setProcessID(0), kAudioParamError);
    AudioTapQueueBuffer* b = nullptr;
    EXPECT_EQ(rec.queue->allocateBuffer(0, &b), kAudioParamError);
    EXPECT_EQ(rec.queue->allocateBuffer(kAudioTapQueueMaxBufferBytes + 1, &b), kAudioParamError);
    AudioTapQueueBuffer foreign(16, nullptr);
    EXPECT_EQ(rec.queue->enqueueBuffer(&foreign), kAudioInvalidBufferError);

    // Running without any enqueued buffer: the audio is dropped, nothing
    // arrives, nothing breaks; the first buffer enqueued later starts with
    // the audio of its time, not with what was dropped.
    ASSERT_EQ(rec.queue->setProcessID(7), 0);
    ASSERT_EQ(rec.queue->start(), 0);
    ASSERT_TRUE(counting->waitForBytes(10 * 882, 5s));
    ASSERT_EQ(rec.queue->allocateBuffer(882, &b), 0);
    ASSERT_EQ(rec.queue->enqueueBuffer(b), 0);
    ASSERT_TRUE(rec.waitFor(2));
    EXPECT_GE(rec.all().front().time.sampleTime, 10.0 * 441);
    // Dispose first: the callback reads rec.queue until dispose returns.
    EXPECT_EQ(rec.queue->dispose(true), 0);
    rec.queue.reset();
    EXPECT_EQ(backend->openSources(), 0);

    // Disposing of a queue from its own callback is safe.
    std::shared_ptr<AudioTapQueue> queue;
    std::atomic<int> calls{0};
    std::promise<void> done;
    // Released with the callback, that is once the queue's thread has ended:
    // an event after any further call the callback could get.
    struct Released {
        std::promise<void> promise;
        ~Released() { promise.set_value(); }
    };
    auto released = std::make_shared<Released>();
    auto callbackReleased = released->promise.get_future();
    ASSERT_EQ(AudioTapQueue::create(
                  backend, kTapFormat,
                  [&, released](AudioTapQueueBuffer*, const AudioTimeStamp&, uint32_t,
                                const AudioStreamPacketDescription*) {
                      if (calls++ == 0) {
                          EXPECT_EQ(queue->dispose(true), 0);
                          done.set_value();
                      }
                  },
                  0, &queue),
              0);
    released.reset();
    queue->setProcessID(9);
    for (int i = 0; i < 2; ++i) {
        queue->allocateBuffer(882, &b);
        queue->enqueueBuffer(b);
    }
    ASSERT_EQ(queue->start(), 0);
    ASSERT_EQ(done.get_future().wait_for(3s), std::future_status::ready);
    queue.reset();
    ASSERT_EQ(callbackReleased.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(backend->openSources(), 0);
}

}  // namespace
}  // namespace sv
