// The PipeWire side of the portal screen backend: one video stream of a
// portal session, opened on the descriptor the portal hands out, whose
// BGRx/BGRA pictures are copied once into pooled surfaces and left in a
// FrameBox for the controller's delivery thread. Internal to platform/screen
// (platform/screen/portal_screen.h is the service).
//
// Buffers: the stream offers DMA-BUF pictures of the linear layout or the
// driver's implicit one (modifiers LINEAR and INVALID; the producer, which
// allocates them, chooses), which are mapped and read by the CPU, and
// shared memory (memfd or plain memory) after them. A producer that has no
// DMA-BUFs of those layouts gives shared memory; DMA-BUFs that cannot be
// mapped make the stream renegotiate without them.
// Untested here: reading a real GPU's DMA-BUF (the test machines have no
// render node: a test producer hands memfds through PipeWire as DMA-BUFs,
// and the private desktop's compositor casts shared memory), and whether an
// implicit layout maps as linear pixels (drivers' scanout buffers usually
// do; others would record scrambled pictures).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/error.h"
#include "platform/media_time.h"
#include "platform/screen/paced_capture.h"
#include "platform/shared_surface.h"
#include "platform/unique_fd.h"

namespace sv {

// What PipeWire's loop thread hands to the delivery thread. Shared by both.
struct FrameBox {
    std::mutex mutex;
    std::shared_ptr<SharedSurface> latest;
    uint64_t arrival = 0;  // host time the latest picture was captured (or arrived)
    uint64_t sequence = 0;
    uint32_t transformFlags = 0;
    std::optional<CaptureFailure> ended;  // the stream is over

    void end(CaptureFailure failure) {
        std::lock_guard lock(mutex);
        if (!ended) ended = failure;
    }
};

class PipeWireStream {
  public:
    // Connects to the portal's PipeWire remote (`remote`, owned from here
    // on) and to its node `node`, asking for BGRx/BGRA pictures of about
    // `width` x `height` at the rate of `interval`; pictures are fitted into
    // surfaces of exactly that size. The stream's end, a lost connection
    // and unusable pictures are put into `box` as its `ended` failure. An
    // error (kScreenErrorDomain) when PipeWire refuses to start.
    static Result<std::unique_ptr<PipeWireStream>> open(UniqueFd remote, uint32_t node,
                                                        int32_t width, int32_t height,
                                                        MediaTime interval,
                                                        std::shared_ptr<FrameBox> box);
    // Stops the loop thread; nothing is put into the box afterwards. On
    // the owner's thread, never on the loop thread.
    virtual ~PipeWireStream() = default;

  protected:
    PipeWireStream() = default;
};

}  // namespace sv
