// Owners of PulseAudio objects, shared by the backend and the test tools
// (platform/audio/testing). Move-only: each releases its object with the
// matching libpulse call, so no destructor frees by hand. An empty owner
// after a *_new call means the allocation failed; every caller turns that
// into an error. Not installed.
//
// Order matters when several are released together: a context or stream
// must be released while its main loop is stopped (or from the loop's own
// thread) and before the main loop itself.
#pragma once

#include <pulse/pulseaudio.h>

#include <memory>

namespace sv::pulse {

struct MainloopDeleter {
    void operator()(pa_mainloop* m) const { pa_mainloop_free(m); }
};
// Stops the loop's thread first (pa_threaded_mainloop_free does).
struct ThreadedMainloopDeleter {
    void operator()(pa_threaded_mainloop* m) const { pa_threaded_mainloop_free(m); }
};
// Disconnects a context (nothing to do for one that never connected) and
// drops this reference.
struct ContextDeleter {
    void operator()(pa_context* c) const {
        pa_context_disconnect(c);
        pa_context_unref(c);
    }
};
// Disconnects a stream and drops this reference; clear its callbacks first
// when they must not run for the disconnection.
struct StreamDeleter {
    void operator()(pa_stream* s) const {
        pa_stream_disconnect(s);
        pa_stream_unref(s);
    }
};
// Drops the reference only: cancel a running operation before when its
// callback must not run any more.
struct OperationDeleter {
    void operator()(pa_operation* o) const { pa_operation_unref(o); }
};
struct ProplistDeleter {
    void operator()(pa_proplist* p) const { pa_proplist_free(p); }
};

using Mainloop = std::unique_ptr<pa_mainloop, MainloopDeleter>;
using ThreadedMainloop = std::unique_ptr<pa_threaded_mainloop, ThreadedMainloopDeleter>;
using Context = std::unique_ptr<pa_context, ContextDeleter>;
using Stream = std::unique_ptr<pa_stream, StreamDeleter>;
using Operation = std::unique_ptr<pa_operation, OperationDeleter>;
using Proplist = std::unique_ptr<pa_proplist, ProplistDeleter>;

// A timer event of a main loop, freed through the loop's API (which must
// still exist when the owner is released).
class TimeEventDeleter {
  public:
    TimeEventDeleter() = default;
    explicit TimeEventDeleter(pa_mainloop_api* api) : api_(api) {}
    void operator()(pa_time_event* e) const {
        if (api_) api_->time_free(e);
    }

  private:
    pa_mainloop_api* api_ = nullptr;
};
using TimeEvent = std::unique_ptr<pa_time_event, TimeEventDeleter>;

}  // namespace sv::pulse
