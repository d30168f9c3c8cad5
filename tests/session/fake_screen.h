// A screen backend whose controllers the test drives frame by frame: frames
// and failures are delivered on the calling thread as a controller's
// delivery thread would deliver them, and a stop waits for a delivery in
// progress on another thread, as the platform's controllers do.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/screen/screen_backend.h"
#include "platform/screen/synthetic_screen.h"

namespace sv::testing {

class FakeController : public ScreenCaptureController {
  public:
    FakeController(WindowSize size, MediaTime interval) : ScreenCaptureController(size, interval) {}

    void setDelegate(std::weak_ptr<ScreenCaptureControllerDelegate> delegate) override {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
    }
    void startCapture() override {
        std::lock_guard lock(mutex_);
        if (capturing_) return;
        capturing_ = true;
        stopRequested_ = false;
        ++starts_;
        if (stopMark_) ++lateStarts_;
        cv_.notify_all();
    }
    void stopCapture() override {
        std::unique_lock lock(mutex_);
        capturing_ = false;
        stopRequested_ = true;
        cv_.notify_all();
        // From inside a delivery the caller is the delivery itself.
        if (deliveringThread_ != std::this_thread::get_id())
            cv_.wait(lock, [&] { return !delivering_; });
    }
    bool isCapturing() const override {
        std::lock_guard lock(mutex_);
        return capturing_;
    }
    bool waitCapturing(bool capturing, std::chrono::seconds timeout = std::chrono::seconds(30)) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return capturing_ == capturing; });
    }
    int starts() const {
        std::lock_guard lock(mutex_);
        return starts_;
    }
    // Starts while the mark is on are counted as late.
    void markStopped(bool on) {
        std::lock_guard lock(mutex_);
        stopMark_ = on;
    }
    int lateStarts() const {
        std::lock_guard lock(mutex_);
        return lateStarts_;
    }

    // One frame to the delegate; false (nothing delivered) while stopped.
    // With `holdUntilStop` the delivery begins and then waits until a stop
    // is requested before it reaches the delegate.
    bool deliver(const std::shared_ptr<SampleBuffer>& frame, uint32_t flags = 0,
                 bool holdUntilStop = false) {
        return run(
            [&](ScreenCaptureControllerDelegate& d) {
                d.screenCaptureControllerDidReceiveSampleBuffer(*this, frame, flags);
            },
            holdUntilStop, true);
    }
    // A failure to the delegate, as from the delivery thread (`asDelivery`)
    // or from some other thread.
    void fail(SyntheticScreenFailure failure, bool asDelivery = true) {
        run(
            [&](ScreenCaptureControllerDelegate& d) {
                switch (failure) {
                    case SyntheticScreenFailure::Failed:
                        d.screenCaptureControllerDidFailWithStatus(*this, kScreenCaptureGrabFailed);
                        break;
                    case SyntheticScreenFailure::Preempted:
                        d.screenCaptureControllerWasPreempted(*this);
                        break;
                    case SyntheticScreenFailure::MediaServicesReset:
                        d.screenCaptureControllerMediaServicesWereReset(*this);
                        break;
                }
            },
            false, asDelivery);
    }
    // Waits until a delivery is in progress (held).
    bool waitDelivering() {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(30), [&] { return delivering_; });
    }

  private:
    bool run(const std::function<void(ScreenCaptureControllerDelegate&)>& call, bool hold,
             bool needsCapture) {
        std::unique_lock lock(mutex_);
        if (needsCapture && !capturing_) return false;
        auto d = delegate_.lock();
        if (!d) return false;
        const bool mark = !delivering_;
        if (mark) {
            delivering_ = true;
            deliveringThread_ = std::this_thread::get_id();
            cv_.notify_all();
        }
        if (hold) cv_.wait(lock, [&] { return stopRequested_; });
        lock.unlock();
        call(*d);
        lock.lock();
        if (mark) {
            delivering_ = false;
            deliveringThread_ = {};
            cv_.notify_all();
        }
        return true;
    }

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::weak_ptr<ScreenCaptureControllerDelegate> delegate_;
    bool capturing_ = false, stopRequested_ = false, delivering_ = false;
    std::thread::id deliveringThread_;
    int starts_ = 0, lateStarts_ = 0;
    bool stopMark_ = false;
};

class FakeScreenBackend : public ScreenBackend {
  public:
    std::string name() const override { return "fake"; }
    std::shared_ptr<ScreenCaptureController> makeCaptureController(WindowSize size,
                                                                   MediaTime interval) override {
        auto c = std::make_shared<FakeController>(size, interval);
        std::lock_guard lock(mutex_);
        controllers_.push_back(c);
        return c;
    }
    std::shared_ptr<DisplayMirroringService> mirroringService() override { return mirroring; }
    WindowSize displaySize() const override { return {1334, 750}; }

    std::shared_ptr<FakeController> controller() const {
        std::lock_guard lock(mutex_);
        return controllers_.empty() ? nullptr : controllers_.back();
    }
    size_t controllerCount() const {
        std::lock_guard lock(mutex_);
        return controllers_.size();
    }

    const std::shared_ptr<BasicDisplayMirroringService> mirroring =
        std::make_shared<BasicDisplayMirroringService>();

  private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<FakeController>> controllers_;
};

}  // namespace sv::testing
