// Owners of the objects xcb hands out: a connection (disconnected on
// destruction) and replies, errors and events (malloc'ed by xcb, freed on
// destruction). Move-only, like the objects they own. For code that links
// xcb; the header itself adds no dependency.
// Threads: an owner belongs to one thread at a time; an xcb connection may be
// used from several threads (xcb locks it).
#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>
#include <mutex>

namespace sv {

struct XcbConnectionDeleter {
    void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};
using XcbConnection = std::unique_ptr<xcb_connection_t, XcbConnectionDeleter>;

struct XcbFreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
// A reply, error or event of type T.
template <typename T>
using XcbReply = std::unique_ptr<T, XcbFreeDeleter>;

// xcb_connect for a process with threads: libxcb reads the X authority
// through libXau, which keeps the file's name in a static buffer, so two
// connections made at once race on it. Every connection a threaded process
// makes goes through here, one at a time. Any thread; blocks while another
// connection is being made.
inline xcb_connection_t* connectXcbSerialized(const char* displayName, int* screenNumber) {
    static std::mutex* connecting = new std::mutex;  // never destroyed: detached threads use it
    std::lock_guard lock(*connecting);
    return xcb_connect(displayName, screenNumber);
}

}  // namespace sv
