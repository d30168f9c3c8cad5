// The delivery machinery that every screen backend's controller shares: one
// delivery thread per controller, absolute host-clock deadlines, the weak
// delegate, the stop guarantees of screen_capture.h, failure delivery and the
// bound on frames in flight. A backend supplies only a FrameSource, which
// fills a pooled surface for a deadline.
//
// Internal to platform/screen; the rest of the system sees
// ScreenCaptureController.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

#include "platform/screen/screen_capture.h"
#include "platform/shared_surface.h"

namespace sv {

struct CaptureFailure {
    enum class Kind { Failed, Preempted, MediaServicesReset };
    Kind kind = Kind::Failed;
    int32_t status = kScreenCaptureNoError;  // for Failed
};

struct GrabRequest {
    uint64_t deadline = 0;    // host time the frame is due
    uint64_t frameIndex = 0;  // the index the frame carries if it is delivered
};

struct GrabResult {
    // Null: nothing to deliver for this deadline (mirroring ended, a
    // transient miss); the next deadline is tried as usual.
    std::shared_ptr<SharedSurface> surface;
    uint64_t presentationTime = 0;  // host ticks
    uint32_t transformFlags = 0;
    // Capture failed for good: delivered once, then the controller stops.
    std::optional<CaptureFailure> failure;
};

// What a backend does per frame. Owned by its controller and shared with the
// delivery thread, which may outlive the controller by one frame when the
// controller is destroyed from inside a delegate call.
class FrameSource {
  public:
    virtual ~FrameSource() = default;
    // On the delivery thread only, never concurrently. Fills a surface of
    // `pool` (the controller's pixel size) or reports why it cannot.
    virtual GrabResult grab(const GrabRequest& request, SurfacePool& pool) = 0;
    // From any thread, when the controller goes away: a grab blocked on
    // something outside the process (a display server) returns soon. The
    // source is not used afterwards.
    virtual void interrupt() {}
};

class PacedCaptureController final : public ScreenCaptureController {
  public:
    // At most this many frames of one controller are held by consumers at
    // once; while they hold more, deadlines pass without a frame instead of
    // the pool growing.
    static constexpr size_t kMaxFramesInFlight = 16;
    // The longest the destructor waits for a grab that does not return; the
    // thread is then left to finish on its own (it owns what it uses).
    static constexpr std::chrono::seconds kReleaseTimeout{3};

    PacedCaptureController(WindowSize frameSize, MediaTime minimumFrameInterval,
                           std::shared_ptr<FrameSource> source);
    ~PacedCaptureController() override;

    void setDelegate(std::weak_ptr<ScreenCaptureControllerDelegate> delegate) override;
    void startCapture() override;
    void stopCapture() override;
    bool isCapturing() const override;

    // From any thread: a running controller delivers `failure` once on its
    // delivery thread and stops; a stopped one ignores it.
    void injectFailure(CaptureFailure failure);

    // The interval the controller paces by: the one asked for, or 1/60 s
    // when that is not a positive time, limited to [1 ms, 10 s].
    static MediaTime sanitizedInterval(MediaTime interval);
    // Host time of deadline `n` of a run that began at `start`: start +
    // n * interval, exact to the nanosecond for any n (no accumulated error).
    static uint64_t deadline(uint64_t start, uint64_t n, MediaTime interval);

    struct Core;

  private:
    std::shared_ptr<Core> core_;
    std::thread thread_;  // created by the first start, guarded by core_'s mutex
};

}  // namespace sv
