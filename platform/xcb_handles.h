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

}  // namespace sv
