// SVCaptureManager on the synthetic backend: the microphone's did-start and
// observation rules, sample routing, the reset of all capture, and the
// application audio tap (start-time gate, gap filling after a resume, stale
// buffers of a stopped tap, stop without a tap).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>

#include "capture/capture_manager.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/host_clock.h"
#include "platform/log.h"
#include "tests/audio/audio_analysis.h"
#include "tests/audio/counting_backend.h"
#include "tests/support/test_util.h"

using namespace std::chrono_literals;

namespace sv {
namespace {

// Collects samples from a handler, noting whether each ran on `queue`.
struct SampleSink : test::Collected<std::shared_ptr<SampleBuffer>> {
    explicit SampleSink(std::shared_ptr<DispatchQueue> q = nullptr) : queue(std::move(q)) {}
    SVCaptureManager::SampleHandler handler() {
        return [this](const std::shared_ptr<SampleBuffer>& s) {
            if (queue && !queue->isCurrent()) wrongQueue = true;
            add(s);
        };
    }
    std::shared_ptr<DispatchQueue> queue;
    std::atomic<bool> wrongQueue{false};
};

std::shared_ptr<SyntheticAudioBackend> fastBackend() {
    // 20× real time: a 0.65 s tap buffer every 33 ms.
    return std::make_shared<SyntheticAudioBackend>(SyntheticAudioBackend::Options{.speed = 20});
}

// Bytes of one tap buffer (57344) and its frames.
constexpr uint64_t kTapBufferBytes = 57344;
constexpr int64_t kTapBufferFrames = 28672;

// Measured where no whole-second click of the synthetic sources falls.
double frequencyOf(const std::shared_ptr<SampleBuffer>& s) {
    return testing::zeroCrossingFrequency(
        testing::withoutClicks(testing::pcm16Samples(*s), 44100,
                               HostClock::fromMediaTime(s->presentationTime())),
        44100);
}

TEST(CaptureManager, MicrophoneDidStartRulesAndRouting) {
    auto m = SVCaptureManager::make(fastBackend());
    EXPECT_TRUE(m->sessionSampleBufferQueue()->isSerial());  // samples stay in order
    SampleSink first(m->sessionSampleBufferQueue()), second;
    int firstStarts = 0, secondStarts = 0;
    m->startMicrophoneCaptureWithOutput(first.handler(), [&] { ++firstStarts; });
    EXPECT_EQ(AudioSession::sharedInstance().category(), AudioSessionCategory::Record);
    EXPECT_EQ(AudioSession::sharedInstance().categoryOptions(), 1u);
    // The session started running inside the call: the closure ran once and
    // the observation is gone.
    EXPECT_EQ(firstStarts, 1);
    EXPECT_TRUE(m->isRecordingMicrophone());
    EXPECT_TRUE(m->sessionInProgress());
    auto session = m->captureSession();
    ASSERT_TRUE(session && session->isRunning());
    EXPECT_EQ(session->observationCount("running"), 0u);
    EXPECT_FALSE(m->micDidStartHandler());

    // Starting twice changes nothing and never calls the second closure.
    m->startMicrophoneCaptureWithOutput(second.handler(), [&] { ++secondStarts; });
    EXPECT_EQ(secondStarts, 0);
    EXPECT_EQ(m->captureSession(), session);
    ASSERT_TRUE(first.waitFor(3));
    EXPECT_EQ(second.size(), 0u);
    // The session's samples, passed on whole and in order on the session's
    // queue (what they hold is the capture session's test).
    const auto samples = first.all();
    testing::expectContiguous(samples, 1024.0 / 44100, 1e-6);

    // Detaching the microphone keeps the session running and the handler.
    m->stopMicrophoneCapture();
    EXPECT_FALSE(m->isRecordingMicrophone());
    EXPECT_TRUE(session->isRunning());
    EXPECT_TRUE(m->microphoneOutputHandler());

    // A start while the session runs calls the closure before it returns; a
    // null output keeps the old handler.
    bool calledInside = false;
    m->startMicrophoneCaptureWithOutput(nullptr, [&] { calledInside = true; });
    EXPECT_TRUE(calledInside);
    size_t before = first.size();
    EXPECT_TRUE(first.waitFor(before + 2));

    // stopAllCapture returns everything to idle, a running tap included.
    m->setCaptureStartTime(MediaTime::make(5, 1));
    m->setLastAudioDate(std::chrono::system_clock::now());
    m->setCameraOutputHandler(second.handler());
    Semaphore started;
    m->startAppAudioCaptureForProcessID(77, second.handler(), [&] { started.signal(); });
    ASSERT_TRUE(started.waitFor(3s));
    m->stopAllCapture();
    EXPECT_FALSE(first.wrongQueue);
    // {session, microphone, its handler, camera handler, tap handler, start time, last audio}
    EXPECT_EQ((std::vector<bool>{m->sessionInProgress(), m->isRecordingMicrophone(),
                                 bool(m->microphoneOutputHandler()), bool(m->cameraOutputHandler()),
                                 bool(m->appAudioOutputHandler()), m->captureStartTime().isValid(),
                                 bool(m->lastAudioDate())}),
              std::vector<bool>(7, false));
    EXPECT_EQ(m->captureSession(), session);
    EXPECT_FALSE(session->isRunning());
    SVCaptureManager::audioDispatchQueue()->sync([&] { EXPECT_FALSE(m->audioRecorderQueue()); });

    // A camera output routes to the camera handler; a foreign output is dropped.
    SampleSink mic, camera;
    m->setMicrophoneOutputHandler(mic.handler());
    m->setCameraOutputHandler(camera.handler());
    auto video = VideoDataOutput::make();
    m->setCaptureSessionVideoDataOutput(video);
    auto sample = samples.front();
    m->captureOutputDidOutputSampleBuffer(video, sample, nullptr);
    m->captureOutputDidOutputSampleBuffer(AudioDataOutput::make(), sample, nullptr);
    m->captureOutputDidOutputSampleBuffer(nullptr, sample, nullptr);
    EXPECT_EQ(mic.size(), 0u);
    EXPECT_EQ(camera.all(), std::vector{sample});  // passed on unchanged
}

TEST(CaptureManager, DidStartFollowsTheSessionNotTheDevice) {
    // Without a device the session still starts; with a device but no
    // server it never runs, and the did-start closure waits on an observation.
    for (bool server : {true, false}) {
        SCOPED_TRACE(server);
        auto m = SVCaptureManager::make(std::make_shared<SyntheticAudioBackend>(
            SyntheticAudioBackend::Options{.hasMicrophone = !server, .serverAvailable = server}));
        bool called = false;
        m->startMicrophoneCaptureWithOutput(nullptr, [&] { called = true; });
        EXPECT_EQ(called, server);
        EXPECT_EQ(bool(m->captureDeviceAudioInput()), !server);
        EXPECT_TRUE(m->captureSessionAudioDataOutput());
        EXPECT_EQ(bool(m->micDidStartHandler()), !server);
        EXPECT_EQ(m->captureSession()->observationCount("running"), server ? 0u : 1u);
        // Stopping removes the observation; later removal errors are swallowed.
        m->stopAllCapture();
        EXPECT_EQ(m->captureSession()->observationCount("running"), 0u);
        EXPECT_EQ(called, server);
    }
}

TEST(CaptureManager, CaptureSessionStartStopAndLogs) {
    log::Capture logs;
    auto m = SVCaptureManager::make(fastBackend());
    m->stopCaptureSession();   // nothing in progress: only logs
    m->stopAppAudioCapture();  // no tap: nothing at all
    m->stopAppAudioCapture();
    EXPECT_EQ(logs.count("SVCaptureManager: stopDeviceCaptureSessionWithFinishHandler"), 1u);
    EXPECT_EQ(logs.lines().size(), 1u);
    EXPECT_FALSE(m->captureSession());

    m->startCaptureSession();
    auto session = m->captureSession();
    ASSERT_TRUE(session);
    m->startCaptureSession();
    EXPECT_EQ(m->captureSession(), session);
    EXPECT_EQ(logs.count("SVCaptureManager: startCaptureSession"), 2u);

    m->stopCaptureSession();
    EXPECT_FALSE(m->sessionInProgress());
    EXPECT_EQ(m->captureSession(), session);  // kept, stopped
    m->startCaptureSession();
    EXPECT_NE(m->captureSession(), session);  // replaced by a new one

    m->startMicrophoneCaptureWithOutput(nullptr, nullptr);
    m->stopMicrophoneCapture();
    m->stopMicrophoneCapture();
    EXPECT_EQ(logs.count("SVCaptureManager: setAudioCaptureEnabled: YES"), 1u);
    EXPECT_EQ(logs.count("SVCaptureManager: setAudioCaptureEnabled: NO"), 1u);
    m->stopAllCapture();
}

TEST(CaptureManager, TapWaitsForTheStartTimeThenDelivers) {
    log::Capture logs;
    auto counting = std::make_shared<testing::CountingBackend>(fastBackend());
    auto m = SVCaptureManager::make(counting);
    SampleSink sink(SVCaptureManager::audioDispatchQueue());
    Semaphore started;
    m->startAppAudioCaptureForProcessID(1234, sink.handler(), [&] { started.signal(); });
    ASSERT_TRUE(started.waitFor(3s));
    for (const char* step :
         {"Created Audio Tap Queue Input", "Successfully set Audio Tap Queue to PID",
          "Successfully started Audio Tap Queue Recording"})
        EXPECT_TRUE(logs.contains(std::string("SVRecordingManager: startAudioCapture: ") + step));
    EXPECT_EQ(logs.countContaining("startAudioCapture error"), 0u);

    // Without a start time every buffer is recycled at once: eight buffers'
    // worth of audio passes, and nothing (not even a task still queued)
    // reaches the handler.
    ASSERT_TRUE(counting->waitForBytes(8 * kTapBufferBytes, 10s));
    SVCaptureManager::audioDispatchQueue()->sync([] {});
    EXPECT_EQ(sink.size(), 0u);
    m->setCaptureStartTime(HostClock::toMediaTime(HostClock::now()));
    ASSERT_TRUE(sink.waitFor(4));
    EXPECT_FALSE(sink.wrongQueue);
    // Recycled, not held back: the first buffer delivered is not the first
    // one filled. (A loaded machine may hand over a later buffer late, so
    // which one it is says nothing.)
    const int64_t firstFrame =
        (int64_t(HostClock::fromMediaTime(sink.all().front()->presentationTime())) -
         int64_t(*counting->firstHostTime())) *
        44100 / HostClock::kTicksPerSecond;
    EXPECT_GE(firstFrame, kTapBufferFrames - 1);

    SVCaptureManager::audioDispatchQueue()->sync([&] {
        auto state = m->audioRecorderQueue();
        ASSERT_TRUE(state);
        EXPECT_EQ(state->bufferByteSize, 57344u);
        EXPECT_GE(state->currentPacket, 4 * 28672);
        EXPECT_TRUE(state->running);
    });
    // A second of packets up to that cap: at 8 kHz, and for a format without a
    // fixed packet size (its largest packet, none known: no buffer).
    AudioStreamFormat vbr = AudioStreamFormat::pcm16(8000, 1, true);
    EXPECT_EQ(SVCaptureManager::_tapBufferByteSize(vbr, 0), 16000u);
    vbr.bytesPerPacket = 0;
    EXPECT_EQ(SVCaptureManager::_tapBufferByteSize(vbr, 3), 24000u);
    EXPECT_EQ(SVCaptureManager::_tapBufferByteSize(vbr, 0), 0u);
    m->stopAppAudioCapture();
    EXPECT_EQ(
        (std::vector<size_t>{
            logs.count("SVRecordingManager:stopAudioCapture: Audio Tap Queue successfully stopped"),
            logs.count("SVRecordingManager: Audio Tap Queue buffer released"),
            logs.count("SVRecordingManager: Audio Tap Queue has been disposed")}),
        (std::vector<size_t>{1, 3, 1}));
    EXPECT_GE(
        logs.count("SVRecordingManager: HandleInputBuffer: Successfully enqueued the audio buffer"),
        4u);

    auto samples = sink.all();
    // A buffer or more apart, in whole frames: more where a loaded machine
    // gave a buffer back late and the tap skipped what had no buffer.
    for (size_t i = 1; i < samples.size(); ++i) {
        const double frames =
            subtract(samples[i]->presentationTime(), samples[i - 1]->presentationTime()).seconds() *
            44100;
        EXPECT_GE(frames, 28672 - 1e-3) << i;
        EXPECT_NEAR(frames, std::round(frames), 1e-3) << i;
    }
    for (auto& sample : samples) {
        EXPECT_EQ(sample->numSamples(), 28672);
        EXPECT_EQ(sample->dataLength(), 57344u);
        EXPECT_EQ(sample->audioFormat(), m->audioBasicDescription());
        EXPECT_NEAR(frequencyOf(sample), syntheticToneFrequencyForProcess(1234), 1.0);
    }
    // The output closure and did-start closure stay after a stop.
    EXPECT_TRUE(m->appAudioOutputHandler());
    EXPECT_TRUE(m->appTapDidStartHandler());
}

// A wall clock the test sets.
struct FakeClock {
    std::mutex mutex;
    Date now = Date(std::chrono::seconds(1'700'000'000));
    SVCaptureManager::DateSource source() {
        return [this] {
            std::lock_guard lock(mutex);
            return now;
        };
    }
};

// A resume after a gap fills it with silence; one without a gap, or after
// stopAllCapture, adds none.
TEST(CaptureManager, ResumeFillsOnlyAGapWithSilence) {
    FakeClock clock;
    auto counting = std::make_shared<testing::CountingBackend>(fastBackend());
    auto m = SVCaptureManager::make(counting, clock.source());
    log::Capture logs;
    const char* const gapLine = "gap since last audio tap, filling with empty sample buffer";
    m->setCaptureStartTime(MediaTime::make(1, 1));
    m->setLastAudioDate(clock.now - 500ms);
    SampleSink sink;
    m->resumeAppAudioCaptureForProcessID(55, sink.handler());
    EXPECT_TRUE(m->resumed());
    ASSERT_TRUE(sink.waitFor(3));
    m->stopAppAudioCapture();
    EXPECT_FALSE(m->resumed());
    EXPECT_EQ(logs.count(gapLine), 1u);

    auto samples = sink.all();
    const auto& silence = samples[0];
    const auto bytes = silence->dataBlock()->bytes();
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), Bytes(44100, 0));
    EXPECT_EQ(
        std::make_tuple(silence->numSamples(), silence->presentationTime(), silence->duration()),
        std::make_tuple(int64_t(22050), MediaTime::zero(), MediaTime::make(22050, 44100)));
    EXPECT_FALSE(silence->decodeTime().isValid());
    EXPECT_EQ(silence->sampleSizes(), std::vector<size_t>{2});
    // Then the buffers themselves, and no second silence.
    for (size_t i = 1; i < samples.size(); ++i) EXPECT_EQ(samples[i]->numSamples(), 28672);
    // lastAudioDate: when the delivered audio runs out.
    EXPECT_EQ(m->lastAudioDate(),
              clock.now + std::chrono::duration_cast<Date::duration>(
                              std::chrono::duration<double>(28672.0 / 44100.0)));

    m->setLastAudioDate(clock.now + 1s);  // the first buffer arrives early: gap <= 0
    SampleSink noGap;
    m->resumeAppAudioCaptureForProcessID(56, noGap.handler());
    ASSERT_TRUE(noGap.waitFor(2));
    m->stopAppAudioCapture();
    EXPECT_FALSE(m->resumed());
    for (auto& s : noGap.all()) EXPECT_EQ(s->numSamples(), 28672);

    // stopAllCapture clears lastAudioDate and the start time: no silence, and
    // nothing until a new start time.
    m->stopAllCapture();
    SampleSink after;
    const uint64_t before = counting->bytes();
    m->resumeAppAudioCaptureForProcessID(57, after.handler());
    ASSERT_TRUE(counting->waitForBytes(before + 4 * kTapBufferBytes, 10s));
    SVCaptureManager::audioDispatchQueue()->sync([] {});
    EXPECT_EQ(after.size(), 0u);
    m->setCaptureStartTime(MediaTime::make(2, 1));
    ASSERT_TRUE(after.waitFor(2));
    m->stopAllCapture();
    for (auto& s : after.all()) EXPECT_EQ(s->numSamples(), 28672);
    EXPECT_EQ(logs.count(gapLine), 1u);  // the first resume's
}

// A refused stop is logged and the tap dropped all the same (torn down once
// no task refers to it). The old tap then still counts as running: only the
// identity test keeps its queued buffers from being delivered.
TEST(CaptureManager, BuffersOfAStoppedTapNeverReachTheNextTap) {
    for (bool stopFails : {false, true}) {
        SCOPED_TRACE(stopFails ? "stop refused" : "stop succeeded");
        log::Capture logs;
        auto backend = fastBackend();
        auto counting = std::make_shared<testing::CountingBackend>(backend);
        auto m = SVCaptureManager::make(counting);
        m->setCaptureStartTime(MediaTime::make(1, 1));
        const int32_t pidA = 3001, pidB = 3002;
        SampleSink a, b;
        Semaphore startedA;
        m->startAppAudioCaptureForProcessID(pidA, a.handler(), [&] { startedA.signal(); });
        ASSERT_TRUE(startedA.waitFor(3s));
        ASSERT_TRUE(a.waitFor(1));

        // Occupy the tap queue while A fills its three buffers, so that their
        // tasks wait behind; then stop A from that same task (a sync call on
        // the current queue runs inline), ahead of them, and start B behind
        // them. A's queued buffers then meet a manager whose tap is no longer A.
        size_t aAtStop = 0;
        SVCaptureManager::audioDispatchQueue()->sync([&] {
            // Three buffers' worth of audio fills every buffer A has.
            EXPECT_TRUE(counting->waitForBytes(counting->bytes() + 3 * kTapBufferBytes, 10s));
            backend->setFailTapStop(stopFails);
            m->stopAppAudioCapture();
            backend->setFailTapStop(false);
            EXPECT_FALSE(m->audioRecorderQueue());
            EXPECT_EQ(
                logs.count("SVRecordingManager:stopAudioCapture:error: -66607", log::Level::Error),
                stopFails ? 1u : 0u);
            if (stopFails) {
                EXPECT_EQ(logs.count("SVRecordingManager: Audio Tap Queue has been disposed"), 0u);
            }
            aAtStop = a.size();
            m->startAppAudioCaptureForProcessID(pidB, b.handler(), nullptr);
        });
        ASSERT_TRUE(b.waitFor(3));
        m->stopAllCapture();
        EXPECT_EQ(a.size(), aAtStop) << "a buffer of the stopped tap was delivered";
        for (auto& s : b.all())
            EXPECT_NEAR(frequencyOf(s), syntheticToneFrequencyForProcess(pidB), 1.0);
        EXPECT_EQ(backend->openSources(), 0);
    }
}

TEST(CaptureManager, TapThatCannotStartLogsAndNeverCallsDidStart) {
    auto m = SVCaptureManager::make(fastBackend());
    log::Capture logs;
    std::atomic<bool> started{false};
    m->setCaptureStartTime(MediaTime::make(1, 1));
    m->startAppAudioCaptureForProcessID(
        -1, [](auto&) {}, [&] { started = true; });
    SVCaptureManager::audioDispatchQueue()->sync([] {});
    // Binding fails, then the start: both logged, and the start went on.
    for (const char* status : {"-50", "-66604"})
        EXPECT_EQ(logs.count(std::string("SVRecordingManager: startAudioCapture error: ") + status,
                             log::Level::Error),
                  1u);
    EXPECT_TRUE(logs.contains(
        "SVRecordingManager: startAudioCapture: Successfully started Audio Tap Queue Recording"));
    // Disposing of the queue runs whatever it still had to report, and the
    // sync after it whatever that posted: the did-start closure came by then
    // if it ever would.
    m->stopAppAudioCapture();
    SVCaptureManager::audioDispatchQueue()->sync([] {});
    EXPECT_EQ(logs.count("SVRecordingManager: Audio Tap Queue has been disposed"), 1u);
    EXPECT_FALSE(started);
}

}  // namespace
}  // namespace sv
