// Ending the main run loop on SIGTERM and SIGINT: the signals are caught by
// the main loop's own executor, so the loop returns normally and teardown
// runs on the main thread.
#pragma once

#include <functional>

namespace sv {

// Installs the handling once; `before`, when given, runs on the main queue
// just before the run loop is stopped (with the signal number).
void stopMainRunLoopOnTerminationSignals(std::function<void(int signal)> before = nullptr);

}  // namespace sv
