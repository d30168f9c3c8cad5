// A screen backend whose controllers the test drives frame by frame: frames
// and failures reach the delegate on the calling thread, as on a delivery
// thread, and a stop from another thread waits for a delivery in progress,
// as the platform's controllers do.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/screen/screen_backend.h"
#include "platform/screen/synthetic_screen.h"

namespace sv::testing {

class FakeController : public ScreenCaptureController {
  public:
    FakeController(WindowSize size, MediaTime interval) : ScreenCaptureController(size, interval) {}

    void setDelegate(std::weak_ptr<ScreenCaptureControllerDelegate> d) override {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(d);
    }
    void startCapture() override {
        std::lock_guard lock(mutex_);
        if (!capturing_ && startsAreLate) ++lateStarts;
        capturing_ = true;
        stopRequested_ = false;
        cv_.notify_all();
    }
    void stopCapture() override {
        std::unique_lock lock(mutex_);
        capturing_ = false;
        stopRequested_ = true;
        cv_.notify_all();
        if (deliveringThread_ != std::this_thread::get_id())  // not from inside a delivery
            cv_.wait(lock, [&] { return deliveringThread_ == std::thread::id(); });
    }
    bool isCapturing() const override {
        std::lock_guard lock(mutex_);
        return capturing_;
    }
    bool waitFor(const std::function<bool()>& condition) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(30), condition);
    }
    bool waitCapturing() {
        return waitFor([&] { return capturing_; });
    }

    // One frame to the delegate while capturing. With `holdUntilStop` the
    // delivery begins, then waits for a stop request before it goes on.
    void deliver(const std::shared_ptr<SampleBuffer>& frame, uint32_t flags = 0,
                 bool holdUntilStop = false) {
        run(true, holdUntilStop, [&](ScreenCaptureControllerDelegate& d) {
            d.screenCaptureControllerDidReceiveSampleBuffer(*this, frame, flags);
        });
    }
    // A failure, as from the delivery thread or (`fromElsewhere`) another one.
    void fail(SyntheticScreenFailure failure, bool fromElsewhere = false) {
        run(
            false, false,
            [&](ScreenCaptureControllerDelegate& d) {
                if (failure == SyntheticScreenFailure::Failed)
                    d.screenCaptureControllerDidFailWithStatus(*this, kScreenCaptureGrabFailed);
                else if (failure == SyntheticScreenFailure::Preempted)
                    d.screenCaptureControllerWasPreempted(*this);
                else
                    d.screenCaptureControllerMediaServicesWereReset(*this);
            },
            fromElsewhere);
    }
    bool waitDelivering() {
        return waitFor([&] { return deliveringThread_ != std::thread::id(); });
    }

    std::atomic<int> lateStarts{0};          // starts while startsAreLate
    std::atomic<bool> startsAreLate{false};  // set by a test between a stop and a start

  private:
    void run(bool needsCapture, bool hold,
             const std::function<void(ScreenCaptureControllerDelegate&)>& call,
             bool fromElsewhere = false) {
        std::unique_lock lock(mutex_);
        auto d = delegate_.lock();
        if (!d || (needsCapture && !capturing_)) return;
        if (!fromElsewhere) deliveringThread_ = std::this_thread::get_id();
        cv_.notify_all();
        if (hold) cv_.wait(lock, [&] { return stopRequested_; });
        lock.unlock();
        call(*d);
        lock.lock();
        if (!fromElsewhere) deliveringThread_ = {};
        cv_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::weak_ptr<ScreenCaptureControllerDelegate> delegate_;
    bool capturing_ = false, stopRequested_ = false;
    std::thread::id deliveringThread_;
};

class FakeScreenBackend : public ScreenBackend {
  public:
    std::string name() const override { return "fake"; }
    std::shared_ptr<ScreenCaptureController> makeCaptureController(WindowSize size,
                                                                   MediaTime interval) override {
        std::lock_guard lock(mutex_);
        return controller_ = std::make_shared<FakeController>(size, interval);
    }
    std::shared_ptr<DisplayMirroringService> mirroringService() override { return mirroring; }
    WindowSize displaySize() const override { return {1334, 750}; }
    bool isDesktop() const override { return desktop; }
    std::atomic<bool> desktop{false};
    // The controller made last.
    std::shared_ptr<FakeController> controller() const {
        std::lock_guard lock(mutex_);
        return controller_;
    }

    const std::shared_ptr<BasicDisplayMirroringService> mirroring =
        std::make_shared<BasicDisplayMirroringService>();

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<FakeController> controller_;
};

}  // namespace sv::testing
