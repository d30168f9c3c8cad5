#include "platform/process/termination_signals.h"

#include <atomic>
#include <csignal>
#include <memory>

#include <asio/signal_set.hpp>

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {

namespace {

// Waits for the first SIGTERM or SIGINT on the main queue, once per process.
void onFirstTerminationSignal(std::function<void(int)> handler) {
    // Never destroyed: the set must outlive the main loop.
    static asio::signal_set* signals = nullptr;
    if (signals) return;
    signals = new asio::signal_set(DispatchQueue::main()->executor(), SIGTERM, SIGINT);
    signals->async_wait([handler = std::move(handler)](const std::error_code& ec, int signal) {
        if (ec) return;
        log::info("received signal %i; stopping", signal);
        handler(signal);
    });
}

}  // namespace

void stopMainRunLoopOnTerminationSignals(std::function<void(int)> before) {
    onFirstTerminationSignal([before = std::move(before)](int signal) {
        if (before) before(signal);
        MainRunLoop::stop();
    });
}

void stopMainRunLoopOnTerminationSignalsAfter(
    std::function<void(int signal, std::function<void()> done)> finish,
    std::chrono::milliseconds bound) {
    onFirstTerminationSignal([finish = std::move(finish), bound](int signal) {
        auto stopped = std::make_shared<std::atomic<bool>>(false);
        auto stop = [stopped] {
            if (!stopped->exchange(true)) DispatchQueue::main()->async([] { MainRunLoop::stop(); });
        };
        DispatchQueue::main()->asyncAfter(bound, [stop, stopped] {
            if (!stopped->load()) log::error("the work before ending took too long; ending anyway");
            stop();
        });
        if (finish)
            finish(signal, stop);
        else
            stop();
    });
}

}  // namespace sv
