// Screen capture controller: the source of screen frames for one recording.
//
// A controller is made by a ScreenBackend (platform/screen/screen_backend.h)
// for a frame size and a minimum interval between frames. What it captures
// is decided by the backend's DisplayMirroringService at each frame: in
// mirror mode the whole display, in clone mode only the layers of the
// contexts being cloned, and nothing while mirroring is ended.
//
// Frames: each frame is a video SampleBuffer whose pixels are a pooled BGRA
// SharedSurface of exactly pixelWidth() x pixelHeight() (a source of another
// size is scaled into it without distortion: X11 fits it with black bars),
// with one timing entry: presentation time = the capture
// instant on the host clock (HostClock, timescale 1e9), duration = the
// minimum frame interval. Frames are paced by absolute deadlines on the host
// clock (start + n * interval), so the rate does not drift; a deadline that
// has already passed is skipped rather than delivered late in a burst.
// The surface returns to the pool when the last holder drops the sample;
// holders must not write to it. At most 16 frames of a controller can be
// held at once: while consumers hold that many, deadlines pass without a
// frame. The first frame of a run is due at once.
//
// Threads and lifetime:
// - Every delegate call (frames and the three failures) arrives on the
//   controller's own delivery thread, one at a time, never concurrently.
// - The delegate is held weakly; a call whose delegate is gone is dropped.
// - startCapture()/stopCapture()/setDelegate() may be called from any thread.
// - Once stopCapture() returns, no delegate call is running or will start,
//   except that stopCapture() called from inside a delegate call (on the
//   delivery thread) returns at once without waiting for that call, which
//   is the caller itself. So a caller that holds a lock which its frame
//   callback also takes must release it before stopping from another
//   thread. Stopping never waits for the display source itself (a display
//   server that stopped answering).
// - The destructor stops capture the same way; it may run on the delivery
//   thread (the last owner lets go inside a callback).
// - A failure callback ends the run: the controller is stopped when it
//   arrives (isCapturing() is false) and delivers nothing more until
//   started again.
// - A stopped controller may be started again (a resumed recording reuses
//   its controller); frames of the new run continue the host-clock timeline.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/geometry.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"

namespace sv {

// Transform flags delivered with each frame: how the display is oriented
// relative to its natural (portrait) orientation. Other bits are reserved.
enum ScreenTransformFlags : uint32_t {
    kScreenTransformFlipY = 1,   // mirror the y axis
    kScreenTransformFlipX = 2,   // mirror the x axis
    kScreenTransformRotate = 4,  // rotated by a quarter turn
};

// Status codes passed to screenCaptureControllerDidFailWithStatus.
enum ScreenCaptureStatus : int32_t {
    kScreenCaptureNoError = 0,
    kScreenCaptureSourceGone = -67001,          // a cloned window or the display went away
    kScreenCaptureGrabFailed = -67002,          // the source refused to hand out pixels
    kScreenCaptureSurfaceUnavailable = -67003,  // no surface for the frame (memory, descriptors)
    kScreenCaptureUserDeclined = -67004         // the user cancelled the desktop's sharing dialog
};

class ScreenCaptureController;

class ScreenCaptureControllerDelegate {
  public:
    virtual ~ScreenCaptureControllerDelegate() = default;
    // A captured frame and its transform flags (ScreenTransformFlags). The
    // sample stays valid after the call for as long as the delegate holds it.
    virtual void screenCaptureControllerDidReceiveSampleBuffer(
        ScreenCaptureController& controller, const std::shared_ptr<SampleBuffer>& sampleBuffer,
        uint32_t transformFlags) = 0;
    // Capture failed for good (status: ScreenCaptureStatus or the backend's
    // own code). No frame follows until the controller is started again.
    virtual void screenCaptureControllerDidFailWithStatus(ScreenCaptureController& controller,
                                                          int32_t status) = 0;
    // Another client took the display over. No frame follows until the
    // controller is started again.
    virtual void screenCaptureControllerWasPreempted(ScreenCaptureController& controller) = 0;
    // The platform's media services (for X11: the connection to the X
    // server) were lost and rebuilt. No frame follows until the controller is
    // started again.
    virtual void screenCaptureControllerMediaServicesWereReset(
        ScreenCaptureController& controller) = 0;
};

class ScreenCaptureController {
  public:
    virtual ~ScreenCaptureController() = default;

    // The size asked for at creation and the pixel size of delivered frames:
    // each side truncated to an integer and rounded up to an even number
    // (750.0 -> 750, 751.0 -> 752, 1199.41 -> 1200), at least 2.
    WindowSize frameSize() const { return frameSize_; }
    int32_t pixelWidth() const { return pixelWidth_; }
    int32_t pixelHeight() const { return pixelHeight_; }
    // The shortest time between two frames (1/60 s for a recording, 1/30 s
    // for a broadcast): the interval asked for, or 1/60 s when that was not
    // a positive time, brought into [1 ms, 10 s].
    MediaTime minimumFrameInterval() const { return minimumFrameInterval_; }

    // nullptr (or an expired pointer) means no delegate: frames are dropped.
    virtual void setDelegate(std::weak_ptr<ScreenCaptureControllerDelegate> delegate) = 0;
    // Starts delivering frames; does nothing while capturing.
    virtual void startCapture() = 0;
    // Stops delivering; see the header comment for what it guarantees.
    // Does nothing while stopped.
    virtual void stopCapture() = 0;
    virtual bool isCapturing() const = 0;

    // Each side of a size as delivered frames have it (at most 16384).
    static int32_t evenPixelLength(float length);

  protected:
    ScreenCaptureController(WindowSize frameSize, MediaTime minimumFrameInterval)
        : frameSize_(frameSize),
          pixelWidth_(evenPixelLength(frameSize.width)),
          pixelHeight_(evenPixelLength(frameSize.height)),
          minimumFrameInterval_(minimumFrameInterval) {}

  private:
    WindowSize frameSize_;
    int32_t pixelWidth_;
    int32_t pixelHeight_;
    MediaTime minimumFrameInterval_;
};

}  // namespace sv
