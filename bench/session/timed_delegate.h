// A screen capture delegate for benchmarks that stands between the capture
// controller and a recording session and times the session's handling of
// each frame.
//
// Threads: the controller calls the delegate methods on its delivery thread;
// switches(), times() and failedStatus() may be called from any thread.
#pragma once

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "bench/bench_util.h"
#include "session/recording_session.h"

namespace sv::bench {

class TimedDelegate : public ScreenCaptureControllerDelegate {
  public:
    TimedDelegate(std::shared_ptr<SVRecordingSession> session, size_t expectedFrames)
        : session_(std::move(session)) {
        ms_.reserve(expectedFrames);
        cpuMs_.reserve(expectedFrames);
    }
    void screenCaptureControllerDidReceiveSampleBuffer(ScreenCaptureController& controller,
                                                       const std::shared_ptr<SampleBuffer>& sample,
                                                       uint32_t flags) override {
        rusage u0{}, u1{};
        getrusage(RUSAGE_THREAD, &u0);
        const double cpu0 = threadCpuSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        session_->screenCaptureControllerDidReceiveSampleBuffer(controller, sample, flags);
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                .count();
        const double cpuMs = (threadCpuSeconds() - cpu0) * 1e3;
        getrusage(RUSAGE_THREAD, &u1);
        std::lock_guard lock(mutex_);
        ms_.push_back(ms);
        cpuMs_.push_back(cpuMs);
        // Why a slow frame was slow: it blocked (a lock, a full queue) or
        // it was preempted by another thread of the machine.
        if (u1.ru_nvcsw > u0.ru_nvcsw) ++blocked_;
        if (u1.ru_nivcsw > u0.ru_nivcsw) ++preempted_;
    }
    void screenCaptureControllerDidFailWithStatus(ScreenCaptureController& c,
                                                  int32_t status) override {
        std::fprintf(stderr, "bench: screen capture failed (%d)\n", status);
        failedStatus_.store(status);
        session_->screenCaptureControllerDidFailWithStatus(c, status);
    }
    void screenCaptureControllerWasPreempted(ScreenCaptureController& c) override {
        session_->screenCaptureControllerWasPreempted(c);
    }
    void screenCaptureControllerMediaServicesWereReset(ScreenCaptureController& c) override {
        std::fprintf(stderr, "bench: the screen's media services were reset\n");
        session_->screenCaptureControllerMediaServicesWereReset(c);
    }
    // Frames during whose handling the thread blocked, or was preempted.
    std::pair<size_t, size_t> switches() {
        std::lock_guard lock(mutex_);
        return {blocked_, preempted_};
    }
    // Wall-clock and thread-CPU milliseconds of each frame's handling.
    std::pair<std::vector<double>, std::vector<double>> times() {
        std::lock_guard lock(mutex_);
        return {ms_, cpuMs_};
    }
    // The status of a capture failure, 0 while there was none.
    int32_t failedStatus() const { return failedStatus_.load(); }

  private:
    std::shared_ptr<SVRecordingSession> session_;
    std::mutex mutex_;
    std::vector<double> ms_, cpuMs_;
    size_t blocked_ = 0, preempted_ = 0;
    std::atomic<int32_t> failedStatus_{0};
};

}  // namespace sv::bench
