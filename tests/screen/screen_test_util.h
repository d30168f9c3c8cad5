// Helpers of the screen tests: a delegate that records what a controller
// delivers and lets the test wait for it, pixel access and a ticker that
// proves time has passed without sleeping.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/host_clock.h"
#include "platform/screen/frame_stamp.h"
#include "platform/screen/screen_capture.h"
#include "platform/screen/synthetic_screen.h"

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

class Recorder : public ScreenCaptureControllerDelegate {
  public:
    // Keep the samples of the last `keep` frames (their surfaces stay out of
    // the pool while kept).
    explicit Recorder(size_t keep = 1) : keep_(keep) {}

    // Called on the delivery thread inside the frame callback, after the
    // frame has been recorded.
    std::function<void(ScreenCaptureController&, const std::shared_ptr<SampleBuffer>&)> onFrame;
    std::function<void(ScreenCaptureController&)> onFailure;

    void screenCaptureControllerDidReceiveSampleBuffer(ScreenCaptureController& controller,
                                                       const std::shared_ptr<SampleBuffer>& sample,
                                                       uint32_t flags) override {
        {
            std::lock_guard lock(mutex_);
            const auto& image = sample->imageBuffer();
            frames_.push_back({HostClock::fromMediaTime(sample->presentationTime()),
                               sample->duration(), flags, std::this_thread::get_id(),
                               image ? image->width() : 0, image ? image->height() : 0,
                               image ? image->surfaceID() : 0});
            if (keep_ > 0) {
                samples_.push_back(sample);
                if (samples_.size() > keep_) samples_.erase(samples_.begin());
            }
        }
        cv_.notify_all();
        if (onFrame) onFrame(controller, sample);
    }
    void screenCaptureControllerDidFailWithStatus(ScreenCaptureController& c,
                                                  int32_t status) override {
        failure(c, [&] { failedStatuses_.push_back(status); });
    }
    void screenCaptureControllerWasPreempted(ScreenCaptureController& c) override {
        failure(c, [&] { ++preempted_; });
    }
    void screenCaptureControllerMediaServicesWereReset(ScreenCaptureController& c) override {
        failure(c, [&] { ++resets_; });
    }

    size_t frameCount() const {
        std::lock_guard lock(mutex_);
        return frames_.size();
    }
    std::vector<ReceivedFrame> frames() const {
        std::lock_guard lock(mutex_);
        return frames_;
    }
    std::shared_ptr<SampleBuffer> lastSample() const {
        std::lock_guard lock(mutex_);
        return samples_.empty() ? nullptr : samples_.back();
    }
    void dropSamples() {
        std::lock_guard lock(mutex_);
        samples_.clear();
    }
    std::vector<int32_t> failedStatuses() const {
        std::lock_guard lock(mutex_);
        return failedStatuses_;
    }
    int preempted() const {
        std::lock_guard lock(mutex_);
        return preempted_;
    }
    int resets() const {
        std::lock_guard lock(mutex_);
        return resets_;
    }
    size_t failureCount() const {
        std::lock_guard lock(mutex_);
        return failedStatuses_.size() + size_t(preempted_) + size_t(resets_);
    }
    std::thread::id failureThread() const {
        std::lock_guard lock(mutex_);
        return failureThread_;
    }

    bool waitForFrames(size_t n) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, kWait, [&] { return frames_.size() >= n; });
    }
    bool waitForFailures(size_t n) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, kWait, [&] {
            return failedStatuses_.size() + size_t(preempted_) + size_t(resets_) >= n;
        });
    }
    // Waits for a delivered frame that satisfies `pred` (tested on the
    // delivery thread's sample as it arrives) and returns it.
    std::shared_ptr<SampleBuffer> waitForFrame(
        const std::function<bool(const SharedSurface&)>& pred) {
        std::unique_lock lock(mutex_);
        std::shared_ptr<SampleBuffer> found;
        cv_.wait_for(lock, kWait, [&] {
            for (auto& s : samples_)
                if (s->imageBuffer() && pred(*s->imageBuffer())) found = s;
            return found != nullptr;
        });
        return found;
    }

  private:
    template <typename F>
    void failure(ScreenCaptureController& c, F&& record) {
        {
            std::lock_guard lock(mutex_);
            record();
            failureThread_ = std::this_thread::get_id();
        }
        cv_.notify_all();
        if (onFailure) onFailure(c);
    }

    const size_t keep_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<ReceivedFrame> frames_;
    std::vector<std::shared_ptr<SampleBuffer>> samples_;
    std::vector<int32_t> failedStatuses_;
    int preempted_ = 0;
    int resets_ = 0;
    std::thread::id failureThread_;
};

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
