// The portal screen backend: screen capture on a Wayland desktop through the
// desktop portal's org.freedesktop.portal.ScreenCast interface (sd-bus on
// the user's session bus) and the PipeWire stream it hands out (libpipewire).
//
// A controller's first frame of a run opens a portal session on the
// controller's delivery thread: CreateSession, SelectSources (a monitor; a
// window in clone mode, an application's recording, where the portal offers
// windows),
// Start (the portal's own dialog is the user's consent for what is shared),
// then OpenPipeWireRemote and a PipeWire stream of BGRx/BGRA shared-memory
// buffers at the controller's size and frame rate. Every portal call and
// every answer is time-bounded (Options); a portal that is missing or does
// not answer is an error, never a hang. The session asks for persistence
// (persist mode 2): the restore token the portal gives back is kept in
// Options::restoreTokenPath and offered at the next session, so a user who
// allowed once is not asked at every recording.
//
// Frames: each PipeWire buffer is copied once, on PipeWire's loop thread,
// into a pooled BGRA surface of the controller's pixel size (fitted keeping
// its aspect, black bars as with X11), stamped with the compositor's capture
// time (CLOCK_MONOTONIC, the host clock) when the buffer carries a plausible
// one, else the host time it arrived. The stream is damage driven: at deadlines where nothing new
// arrived the last picture is delivered again, stamped with the deadline, so
// the recording keeps its frame rate. The stream's transform metadata
// becomes the frame's transform flags.
//
// Failures, each delivered once, after which the session is closed and the
// next start opens a new one:
// - the user cancels the portal's dialog: didFailWithStatus(
//   kScreenCaptureUserDeclined);
// - the portal refuses (any other answer, no answer in time, no portal):
//   didFailWithStatus(kScreenCaptureGrabFailed);
// - the stream ends or the portal closes the session (the compositor went
//   away, the user stopped sharing): didFailWithStatus(
//   kScreenCaptureSourceGone);
// - the session bus or the PipeWire connection is lost:
//   MediaServicesWereReset.
//
// Threads: each controller has its own bus connection, used only on its
// delivery thread, and its own PipeWire thread loop; stopping or releasing a
// controller never waits for the portal longer than a tenth of a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/screen/screen_backend.h"

namespace sv {

class PortalScreenBackend final : public ScreenBackend {
  public:
    struct Options {
        // The session bus; empty: $DBUS_SESSION_BUS_ADDRESS, else
        // $XDG_RUNTIME_DIR/bus.
        std::string busAddress;
        // Where the portal's restore token is kept; empty: not kept (the
        // portal asks at every session).
        std::string restoreTokenPath;
        // Each method call, and each answer that needs no user.
        std::chrono::milliseconds callTimeout{5000};
        // The answer to Start, which may wait for the user's choice.
        std::chrono::milliseconds consentTimeout{120000};
    };

    // Connects to the session bus and checks that a ScreenCast portal
    // answers there within callTimeout; an error (kScreenErrorDomain,
    // kScreenErrorCannotConnect) otherwise.
    static Result<std::shared_ptr<PortalScreenBackend>> connect(Options options);
    ~PortalScreenBackend() override;

    // $STATE_DIRECTORY (a service's state directory) when set, else
    // $XDG_STATE_HOME/sorvel, else $HOME/.local/state/sorvel; the file
    // "screencast-restore-token" in it. Empty without any of them.
    static std::string defaultRestoreTokenPath();

    std::string name() const override { return "portal"; }
    bool isDesktop() const override { return true; }
    std::shared_ptr<ScreenCaptureController> makeCaptureController(
        WindowSize frameSize, MediaTime minimumFrameInterval) override;
    std::shared_ptr<DisplayMirroringService> mirroringService() override;
    // The size of the last stream the portal gave (kept beside the restore
    // token); before any, the largest output of the compositor named by
    // $WAYLAND_DISPLAY (asked within callTimeout); 0x0 without either.
    WindowSize displaySize() const override;

    // The ScreenCast portal's version, as read at connect().
    uint32_t portalVersion() const;

    struct Impl;
    explicit PortalScreenBackend(std::shared_ptr<Impl> impl);

  private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace sv
