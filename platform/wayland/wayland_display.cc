#include "platform/wayland/wayland_display.h"

#include <poll.h>
#include <wayland-client.h>

namespace sv {

void WaylandDisplayClose::operator()(wl_display* display) const {
    wl_display_disconnect(display);
}

bool roundtripUntil(wl_display* display, std::chrono::steady_clock::time_point deadline,
                    const RoundtripInterrupt& interrupt) {
    bool done = false;
    wl_callback* sync = wl_display_sync(display);
    if (!sync) return false;
    static const wl_callback_listener listener = {
        [](void* data, wl_callback*, uint32_t) { *static_cast<bool*>(data) = true; }};
    wl_callback_add_listener(sync, &listener, &done);
    while (!done) {
        bool failed = false;
        while (!failed && wl_display_prepare_read(display) != 0)
            failed = wl_display_dispatch_pending(display) < 0;
        if (failed) break;
        if (done) {  // answered by events already queued: nothing to wait for
            wl_display_cancel_read(display);
            break;
        }
        wl_display_flush(display);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (interrupt.keepWaiting && !interrupt.keepWaiting()) {
            wl_display_cancel_read(display);
            break;
        }
        pollfd p[2] = {{wl_display_get_fd(display), POLLIN, 0}, {interrupt.fd, POLLIN, 0}};
        const nfds_t count = interrupt.fd >= 0 ? 2 : 1;
        const int n = left > 0 ? ::poll(p, count, int(left)) : 0;
        if (n <= 0 || !(p[0].revents & (POLLIN | POLLERR | POLLHUP))) {
            wl_display_cancel_read(display);
            if (n > 0 && count == 2 && (p[1].revents & POLLIN)) continue;  // asked again above
            break;
        }
        if (wl_display_read_events(display) < 0 || wl_display_dispatch_pending(display) < 0) break;
    }
    wl_callback_destroy(sync);
    return done;
}

}  // namespace sv
