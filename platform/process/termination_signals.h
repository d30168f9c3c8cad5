// Ending the main run loop on SIGTERM and SIGINT: the signals are caught by
// the main loop's own executor, so the loop returns normally and teardown
// runs on the main thread.
#pragma once

#include <chrono>
#include <functional>

namespace sv {

// Installs the handling once; `before`, when given, runs on the main queue
// just before the run loop is stopped (with the signal number).
void stopMainRunLoopOnTerminationSignals(std::function<void(int signal)> before = nullptr);

// Installs the handling once, for work that must end before the process
// does: on the first signal `finish` runs on the main queue with a `done`
// that it (or whatever it starts) calls once, on any thread; the run loop
// stops when `done` is called or `bound` has passed, whichever comes first.
void stopMainRunLoopOnTerminationSignalsAfter(
    std::function<void(int signal, std::function<void()> done)> finish,
    std::chrono::milliseconds bound);

}  // namespace sv
