// The X11 screen backend: screen capture on an X server through xcb.
//
// Mirror mode reads the root window (MIT-SHM GetImage when the server is on
// this machine, plain GetImage otherwise) and draws the pointer in from the
// XFixes cursor image. Clone mode treats each layer context identifier as an
// X window identifier: the windows are redirected with Composite (automatic
// redirection, so the screen looks the same), each frame reads every cloned
// window's own pixmap and composes them in stacking order onto black, in the
// bounding box of the windows that are shown: the picture is the windows at
// their own size, following them as they move, and no other window, even one
// lying on top of a cloned one, ever reaches a frame. The pointer is not
// drawn in clone mode: where it is tells something about the windows that
// are left out. The picture (the root window in mirror mode, the box in clone
// mode) is fitted into the controller's pixel size with libyuv keeping its
// aspect: centred, black bars where it does not fill the frame.
//
// Failures: a cloned window that does not exist or is destroyed makes the
// controller deliver didFailWithStatus(kScreenCaptureSourceGone) once. A
// cloned window that is unmapped (minimised, on another workspace) only
// pauses: while none of the clone set is shown the last picture is repeated
// (nothing is delivered before the first). A lost connection to the X server
// delivers MediaServicesWereReset once. A controller started again after
// either reconnects.
//
// A server that accepts the connection but does not answer (stopped, hung)
// counts as unreachable after two seconds; a controller whose server stops
// answering in the middle of a frame delivers nothing more, but stopping and
// releasing it never wait for the server.
//
// Each controller has its own connection, used only on its delivery thread;
// the backend's own connection answers displaySize(). Presentation times are
// the host time at which the frame's image was requested.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/screen/screen_backend.h"

struct xcb_connection_t;

namespace sv {

// xcb_connect for everyone in the process: it reads the X authority file
// through libXau, whose file name lookup is not thread-safe, so connections
// are opened one at a time. Same arguments and result as xcb_connect.
xcb_connection_t* connectToXServer(const char* displayName, int* screenNumber);

class X11ScreenBackend final : public ScreenBackend {
  public:
    struct Options {
        // Off: pixels always come through the socket, as with a remote
        // server (for tests and measurements).
        bool sharedMemory = true;
        // A server that cannot be reached yet (not started, a new login)
        // still makes a backend: its controllers connect when they start
        // and report a media-services reset while it is away, and
        // displaySize() is 0x0 until it has answered once.
        bool waitForServer = false;
    };
    // Connects to `displayName` (empty: $DISPLAY) and checks that the root
    // window's pixels are 32-bit BGRX, the only layout captured. An error
    // (kScreenErrorDomain) when the server cannot be reached or is unsuitable.
    static Result<std::shared_ptr<X11ScreenBackend>> connect(const std::string& displayName);
    static Result<std::shared_ptr<X11ScreenBackend>> connect(const std::string& displayName,
                                                             Options options);
    ~X11ScreenBackend() override;

    std::string name() const override { return "x11"; }
    bool isDesktop() const override { return true; }
    std::shared_ptr<ScreenCaptureController> makeCaptureController(
        WindowSize frameSize, MediaTime minimumFrameInterval) override;
    std::shared_ptr<DisplayMirroringService> mirroringService() override;
    // The root window's size; the last size known while the server is away.
    WindowSize displaySize() const override;

    const std::string& displayName() const;
    // Whether pixels come through shared memory (MIT-SHM 1.2 on a server of
    // this machine) rather than through the socket.
    bool usesSharedMemory() const;

    struct Impl;
    explicit X11ScreenBackend(std::unique_ptr<Impl> impl);

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace sv
