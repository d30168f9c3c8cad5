#include "platform/screen/paced_capture.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>

#include "platform/host_clock.h"
#include "platform/log.h"
#include "platform/sample_buffer.h"

namespace sv {

__extension__ typedef unsigned __int128 u128;

int32_t ScreenCaptureController::evenPixelLength(float length) {
    constexpr int32_t kMaxLength = 16384;  // the largest SharedSurface side
    if (!(length >= 2.0f)) return 2;       // also NaN
    if (length >= float(kMaxLength)) return kMaxLength;
    auto n = int32_t(length);
    return n + (n & 1);
}

MediaTime PacedCaptureController::sanitizedInterval(MediaTime interval) {
    if (!interval.isValid() || interval.value <= 0) return MediaTime::make(1, 60);
    double seconds = interval.seconds();
    if (seconds < 0.001) return MediaTime::make(1, 1000);
    if (seconds > 10.0) return MediaTime::make(10, 1);
    return MediaTime::make(interval.value, interval.timescale);
}

uint64_t PacedCaptureController::deadline(uint64_t start, uint64_t n, MediaTime interval) {
    // n * value / timescale seconds in ticks, rounded to the nearest tick.
    u128 num = u128(n) * u128(uint64_t(interval.value)) * u128(HostClock::kTicksPerSecond);
    auto ts = u128(uint32_t(interval.timescale));
    return start + uint64_t((num + ts / 2) / ts);
}

namespace {

// The smallest n whose deadline lies after `now`.
uint64_t firstDeadlineAfter(uint64_t start, uint64_t now, MediaTime interval) {
    if (now < start) return 0;
    u128 elapsed = u128(now - start) * u128(uint32_t(interval.timescale));
    u128 per = u128(uint64_t(interval.value)) * u128(HostClock::kTicksPerSecond);
    auto n = uint64_t(elapsed / per);
    while (PacedCaptureController::deadline(start, n, interval) <= now) ++n;
    return n;
}

std::chrono::steady_clock::time_point steadyPoint(uint64_t hostTime) {
    // steady_clock is CLOCK_MONOTONIC, the host clock's source.
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(hostTime));
}

}  // namespace

struct PacedCaptureController::Core {
    Core(MediaTime frameInterval, std::shared_ptr<FrameSource> frameSource, int32_t width,
         int32_t height)
        : interval(frameInterval),
          intervalTicks(deadline(0, 1, frameInterval)),
          source(std::move(frameSource)),
          pool(width, height, PixelFormat::BGRA, kMaxFramesInFlight) {}

    const MediaTime interval;
    const uint64_t intervalTicks;
    const std::shared_ptr<FrameSource> source;
    SurfacePool pool;

    std::mutex mutex;
    std::condition_variable cv;
    // Everything below is guarded by `mutex`.
    bool running = false;
    bool quit = false;
    bool delivering = false;  // a delegate call is in progress
    uint64_t generation = 0;  // grows with every start and stop
    uint64_t runStart = 0;    // host time of the current run's first deadline
    std::optional<CaptureFailure> pendingFailure;
    std::weak_ptr<ScreenCaptureControllerDelegate> delegate;
    ScreenCaptureController* owner = nullptr;  // cleared by the controller's destructor
    std::thread::id threadID;
    bool finished = false;   // the delivery thread has left run()
    uint64_t delivered = 0;  // frames delivered since creation: the next frame index
    bool droppingForConsumers = false;
    uint64_t droppedForConsumers = 0;

    void run();
    void loop(std::unique_lock<std::mutex>& lock);
    bool poolExhausted();
    void deliverFailure(std::unique_lock<std::mutex>& lock, const CaptureFailure& failure);
};

bool PacedCaptureController::Core::poolExhausted() {
    // The pool keeps every returned surface (its free list holds up to
    // kMaxFramesInFlight), so allocated - free is what consumers hold.
    size_t allocated = pool.allocatedCount();
    size_t free = pool.freeCount();
    bool exhausted = free == 0 && allocated >= kMaxFramesInFlight;
    if (exhausted && !droppingForConsumers) {
        log::error("Screen capture: consumers hold %lu frames; skipping frames until they let go",
                   uint64_t(allocated));
        droppingForConsumers = true;
    }
    if (exhausted) ++droppedForConsumers;
    if (!exhausted && droppingForConsumers) {
        log::info("Screen capture: frames flow again after %lu skipped", droppedForConsumers);
        droppingForConsumers = false;
        droppedForConsumers = 0;
    }
    return exhausted;
}

void PacedCaptureController::Core::deliverFailure(std::unique_lock<std::mutex>& lock,
                                                  const CaptureFailure& failure) {
    auto d = delegate.lock();
    ScreenCaptureController* controller = owner;
    if (!d || !controller) return;
    delivering = true;
    lock.unlock();
    switch (failure.kind) {
        case CaptureFailure::Kind::Failed:
            d->screenCaptureControllerDidFailWithStatus(*controller, failure.status);
            break;
        case CaptureFailure::Kind::Preempted:
            d->screenCaptureControllerWasPreempted(*controller);
            break;
        case CaptureFailure::Kind::MediaServicesReset:
            d->screenCaptureControllerMediaServicesWereReset(*controller);
            break;
    }
    // Dropped outside the lock: the delegate's destructor may destroy the
    // controller, which takes the lock.
    d.reset();
    lock.lock();
    delivering = false;
    cv.notify_all();
}

void PacedCaptureController::Core::run() {
    pthread_setname_np(pthread_self(), "sv-screen");
    std::unique_lock lock(mutex);
    loop(lock);
    finished = true;
    cv.notify_all();
}

void PacedCaptureController::Core::loop(std::unique_lock<std::mutex>& lock) {
    uint64_t gen = 0, n = 0, start = 0;
    for (;;) {
        if (quit) return;
        if (pendingFailure) {
            CaptureFailure failure = *pendingFailure;
            pendingFailure.reset();
            if (running) {
                running = false;
                ++generation;
                deliverFailure(lock, failure);
            }
            continue;
        }
        if (!running) {
            cv.wait(lock);
            continue;
        }
        if (gen != generation) {
            gen = generation;
            start = runStart;
            n = 0;
        }
        const uint64_t due = deadline(start, n, interval);
        uint64_t now = HostClock::now();
        if (now < due) {
            // Stop, start, a failure or the deadline: all re-examined above.
            cv.wait_until(lock, steadyPoint(due));
            continue;
        }
        if (now >= due + intervalTicks / 2) {
            // Woken too late for this deadline: skip to the next one rather
            // than deliver a burst of late frames.
            n = firstDeadlineAfter(start, now, interval);
            continue;
        }
        ++n;
        if (delegate.expired() || poolExhausted()) continue;

        GrabRequest request{due, delivered};
        lock.unlock();
        GrabResult result = source->grab(request, pool);
        lock.lock();
        if (quit || gen != generation || !running) continue;  // stopped or restarted meanwhile
        if (result.failure) {
            running = false;
            ++generation;
            deliverFailure(lock, *result.failure);
            continue;
        }
        if (!result.surface) continue;

        auto d = delegate.lock();
        ScreenCaptureController* controller = owner;
        if (!d || !controller) continue;
        auto sample = SampleBuffer::makeVideo(
            std::move(result.surface),
            {SampleTimingInfo{interval, HostClock::toMediaTime(result.presentationTime),
                              MediaTime::invalid()}});
        ++delivered;
        delivering = true;
        lock.unlock();
        d->screenCaptureControllerDidReceiveSampleBuffer(*controller, sample,
                                                         result.transformFlags);
        sample.reset();
        d.reset();
        lock.lock();
        delivering = false;
        cv.notify_all();
    }
}

PacedCaptureController::PacedCaptureController(WindowSize frameSize, MediaTime minimumFrameInterval,
                                               std::shared_ptr<FrameSource> source)
    : ScreenCaptureController(frameSize, sanitizedInterval(minimumFrameInterval)) {
    core_ = std::make_shared<Core>(this->minimumFrameInterval(), std::move(source), pixelWidth(),
                                   pixelHeight());
    core_->owner = this;
}

PacedCaptureController::~PacedCaptureController() {
    stopCapture();
    std::unique_lock lock(core_->mutex);
    core_->quit = true;
    core_->owner = nullptr;
    core_->cv.notify_all();
    const bool onDeliveryThread = std::this_thread::get_id() == core_->threadID;
    lock.unlock();
    core_->source->interrupt();
    if (!thread_.joinable()) return;
    // Destroyed from inside a delegate call: the thread finishes that call,
    // sees `quit` and ends by itself; it holds the core, never `this`.
    if (onDeliveryThread) {
        thread_.detach();
        return;
    }
    // A source stuck outside the process (a display server that stopped
    // answering) must not hang whoever releases the controller.
    lock.lock();
    if (core_->cv.wait_for(lock, kReleaseTimeout, [&] { return core_->finished; })) {
        lock.unlock();
        thread_.join();
    } else {
        log::error("Screen capture: the frame source does not return; leaving its thread behind");
        thread_.detach();
    }
}

void PacedCaptureController::setDelegate(std::weak_ptr<ScreenCaptureControllerDelegate> delegate) {
    std::lock_guard lock(core_->mutex);
    core_->delegate = std::move(delegate);
}

void PacedCaptureController::startCapture() {
    std::lock_guard lock(core_->mutex);
    if (core_->running || core_->quit) return;
    if (!thread_.joinable()) {
        try {
            thread_ = std::thread([core = core_] { core->run(); });
        } catch (const std::system_error& e) {
            log::error("Screen capture: cannot start the delivery thread: %@", e.what());
            return;
        }
        core_->threadID = thread_.get_id();
    }
    core_->running = true;
    ++core_->generation;
    core_->runStart = HostClock::now();
    core_->pendingFailure.reset();
    core_->cv.notify_all();
}

void PacedCaptureController::stopCapture() {
    std::unique_lock lock(core_->mutex);
    if (core_->running) {
        core_->running = false;
        ++core_->generation;
        core_->pendingFailure.reset();
        core_->cv.notify_all();
    }
    // Also after a failure stopped the controller by itself: its delegate
    // call may still be running.
    if (std::this_thread::get_id() == core_->threadID) return;
    core_->cv.wait(lock, [&] { return !core_->delivering; });
}

bool PacedCaptureController::isCapturing() const {
    std::lock_guard lock(core_->mutex);
    return core_->running;
}

void PacedCaptureController::injectFailure(CaptureFailure failure) {
    std::lock_guard lock(core_->mutex);
    if (!core_->running) return;
    core_->pendingFailure = failure;
    core_->cv.notify_all();
}

}  // namespace sv
