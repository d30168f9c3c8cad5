// What the service's Wayland clients share: the owner of a compositor
// connection and a round trip bounded in time, so that a compositor that
// stops answering never holds a thread.
//
// Threads: a display and its round trips belong to one thread at a time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

struct wl_display;

namespace sv {

struct WaylandDisplayClose {
    void operator()(wl_display* display) const;
};
// A compositor connection; disconnecting frees no proxy of it, so its
// owner destroys them first.
using WaylandDisplay = std::unique_ptr<wl_display, WaylandDisplayClose>;

// Lets another thread cut a round trip short: before each wait, and when
// `fd` (a descriptor the caller owns, e.g. an eventfd; -1 for none) has
// woken it, the round trip calls `keepWaiting` on its own thread, which
// consumes any wake-up and says whether to go on waiting.
struct RoundtripInterrupt {
    int fd = -1;
    std::function<bool()> keepWaiting;
};

// Sends one wl_display_sync and dispatches events until it is answered;
// true then. False when `deadline` passes first, the connection fails or
// the interrupt says to stop. Answers already read return at once, without
// waiting for the descriptor.
bool roundtripUntil(wl_display* display, std::chrono::steady_clock::time_point deadline,
                    const RoundtripInterrupt& interrupt = {});

}  // namespace sv
