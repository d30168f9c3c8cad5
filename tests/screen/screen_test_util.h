// Helpers of the screen tests: a delegate that records what a controller
// delivers and lets the test wait for it, pixel access and a ticker that
// proves time has passed without sleeping.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/host_clock.h"
#include "platform/screen/frame_stamp.h"
#include "platform/screen/screen_backend.h"
#include "platform/screen/screen_capture.h"
#include "platform/screen/synthetic_screen.h"
#include "tests/support/test_util.h"

namespace sv::test {

using namespace std::chrono_literals;
constexpr auto kWait = 20s;  // generous: only a failing test waits this long

// The BGRA pixel at (x, y) as 0xAARRGGBB.
inline uint32_t pixelAt(const SharedSurface& s, int32_t x, int32_t y) {
    const uint8_t* p = s.row(y) + size_t(x) * 4;
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The frame's stamp, read back through a luma plane as a decoder would see it.
inline std::optional<FrameStamp> stampOf(const SharedSurface& s) {
    std::vector<uint8_t> luma(size_t(s.width()) * size_t(s.height()));
    for (int32_t y = 0; y < s.height(); ++y)
        for (int32_t x = 0; x < s.width(); ++x) {
            const uint8_t* p = s.row(y) + size_t(x) * 4;
            luma[size_t(y) * size_t(s.width()) + size_t(x)] =
                uint8_t((29 * p[0] + 150 * p[1] + 77 * p[2]) >> 8);
        }
    return readFrameStamp(luma.data(), s.width(), s.height(), s.width());
}

struct ReceivedFrame {
    uint64_t presentationTime = 0;  // host ticks
    MediaTime duration;
    uint32_t transformFlags = 0;
    std::thread::id thread;
    int32_t width = 0, height = 0;
    uint64_t surfaceID = 0;
};

// What a controller delivered: every frame, and the samples of the last
// `keep` frames (their surfaces stay out of the pool while kept).
class Recorder : public ScreenCaptureControllerDelegate, public Collected<ReceivedFrame> {
  public:
    explicit Recorder(size_t keep = 1) : keep_(keep) {}

    // Called on the delivery thread inside the frame callback, after the
    // frame has been recorded.
    std::function<void(ScreenCaptureController&, const std::shared_ptr<SampleBuffer>&)> onFrame;
    std::function<void(ScreenCaptureController&)> onFailure;

    void screenCaptureControllerDidReceiveSampleBuffer(ScreenCaptureController& controller,
                                                       const std::shared_ptr<SampleBuffer>& sample,
                                                       uint32_t flags) override {
        if (keep_ > 0) {
            std::lock_guard lock(samplesMutex_);
            samples_.push_back(sample);
            if (samples_.size() > keep_) samples_.erase(samples_.begin());
        }
        const auto& image = sample->imageBuffer();
        add({HostClock::fromMediaTime(sample->presentationTime()), sample->duration(), flags,
             std::this_thread::get_id(), image ? image->width() : 0, image ? image->height() : 0,
             image ? image->surfaceID() : 0});
        if (onFrame) onFrame(controller, sample);
    }
    void screenCaptureControllerDidFailWithStatus(ScreenCaptureController& c,
                                                  int32_t status) override {
        failure(c, status);
    }
    void screenCaptureControllerWasPreempted(ScreenCaptureController& c) override {
        failure(c, kPreempted);
    }
    void screenCaptureControllerMediaServicesWereReset(ScreenCaptureController& c) override {
        failure(c, kReset);
    }

    size_t frameCount() const { return size(); }
    std::vector<ReceivedFrame> frames() const { return all(); }
    bool waitForFrames(size_t n) { return waitFor(n, kWait); }
    std::shared_ptr<SampleBuffer> lastSample() const {
        std::lock_guard lock(samplesMutex_);
        return samples_.empty() ? nullptr : samples_.back();
    }
    void dropSamples() {
        std::lock_guard lock(samplesMutex_);
        samples_.clear();
    }
    // Waits for a kept frame that satisfies `pred` and returns it.
    std::shared_ptr<SampleBuffer> waitForFrame(
        const std::function<bool(const SharedSurface&)>& pred) {
        std::shared_ptr<SampleBuffer> found;
        waitForItems(
            [&](const std::vector<ReceivedFrame>&) {
                std::lock_guard lock(samplesMutex_);
                for (auto& s : samples_)
                    if (s->imageBuffer() && pred(*s->imageBuffer())) found = s;
                return found != nullptr;
            },
            kWait);
        return found;
    }

    // Failures in order: the status of a failure, or kPreempted or kReset.
    static constexpr int64_t kPreempted = INT64_MIN, kReset = INT64_MIN + 1;
    std::vector<int32_t> failedStatuses() const {
        std::vector<int32_t> statuses;
        for (auto [status, thread] : failures_.all())
            if (status != kPreempted && status != kReset) statuses.push_back(int32_t(status));
        return statuses;
    }
    int preempted() const { return count(kPreempted); }
    int resets() const { return count(kReset); }
    size_t failureCount() const { return failures_.size(); }
    bool waitForFailures(size_t n) { return failures_.waitFor(n, kWait); }
    std::thread::id failureThread() const {
        auto all = failures_.all();
        return all.empty() ? std::thread::id() : all.back().second;
    }

  private:
    void failure(ScreenCaptureController& c, int64_t status) {
        failures_.add({status, std::this_thread::get_id()});
        if (onFailure) onFailure(c);
    }
    int count(int64_t kind) const {
        auto all = failures_.all();
        return int(std::count_if(all.begin(), all.end(), [&](auto& f) { return f.first == kind; }));
    }

    const size_t keep_;
    mutable std::mutex samplesMutex_;
    std::vector<std::shared_ptr<SampleBuffer>> samples_;
    Collected<std::pair<int64_t, std::thread::id>> failures_;
};

using Pred = std::function<bool(const SharedSurface&)>;
inline Pred allOf(std::vector<Pred> preds) {
    return [=](const SharedSurface& s) {
        return std::all_of(preds.begin(), preds.end(), [&](const Pred& p) { return p(s); });
    };
}

// A 60 Hz controller of `backend`, not started yet, delivering to a new
// `recorder` that keeps `keep` frames.
inline std::shared_ptr<ScreenCaptureController> makeRecorded(ScreenBackend& backend,
                                                             WindowSize size,
                                                             std::shared_ptr<Recorder>& recorder,
                                                             size_t keep = 1) {
    recorder = std::make_shared<Recorder>(keep);
    auto c = backend.makeCaptureController(size, MediaTime::make(1, 60));
    c->setDelegate(recorder);
    return c;
}

// A controller of a display of its own, delivering at 60 Hz: waiting for it
// to deliver n more frames proves that n deadlines have passed without the
// test sleeping for a guessed time.
class Ticker {
  public:
    Ticker() {
        backend_->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
        controller_ = backend_->makeCaptureController({64, 32}, MediaTime::make(1, 60));
        controller_->setDelegate(recorder_);
        controller_->startCapture();
    }
    ~Ticker() { controller_->stopCapture(); }
    // Waits until `n` more frames have passed.
    bool pass(size_t n) { return recorder_->waitForFrames(recorder_->frameCount() + n); }

  private:
    std::shared_ptr<SyntheticScreenBackend> backend_ = std::make_shared<SyntheticScreenBackend>();
    std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>(0);
    std::shared_ptr<ScreenCaptureController> controller_;
};

}  // namespace sv::test
