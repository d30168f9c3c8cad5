#include "platform/process/termination_signals.h"

#include <csignal>

#include <asio/signal_set.hpp>

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {

void stopMainRunLoopOnTerminationSignals(std::function<void(int)> before) {
    // Never destroyed: the set must outlive the main loop.
    static asio::signal_set* signals = nullptr;
    if (signals) return;
    signals = new asio::signal_set(DispatchQueue::main()->executor(), SIGTERM, SIGINT);
    signals->async_wait([before = std::move(before)](const std::error_code& ec, int signal) {
        if (ec) return;
        log::info("received signal %i; stopping", signal);
        if (before) before(signal);
        MainRunLoop::stop();
    });
}

}  // namespace sv
