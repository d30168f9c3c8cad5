// The purgeable-space service: a daemon registers four callbacks under a
// service name, and the storage side of the system asks it how much space it
// could free, tells it to purge, cancels, and calls it periodically. On Linux
// no system service calls them: the operating system's side reaches them
// through the daemon's shell channel, and startPeriodicCalls() makes the
// daemon run the periodic callback itself.
//
// Callbacks run on the thread that calls purgeableSpace()/purge()/...; the
// service adds no lock around them. Sizes are signed 64-bit byte counts,
// urgency a signed 32-bit level (0 lowest; 3 and up: storage is short).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace sv {

class Timer;

struct PurgeableSpaceCallbacks {
    std::function<int64_t(int32_t urgency)> purgeable;
    std::function<int64_t(int64_t amount, int32_t urgency)> purge;
    std::function<void()> cancel;
    std::function<int64_t(int64_t amount, int32_t urgency)> periodic;
};

class PurgeableSpaceService {
  public:
    static PurgeableSpaceService& shared();

    // Registers (or replaces) the callbacks of `serviceName`. The
    // registration lives as long as the process.
    void registerService(const std::string& serviceName, PurgeableSpaceCallbacks callbacks);
    bool isRegistered() const;
    std::string serviceName() const;

    // Call the registered callbacks; nullopt when nothing is registered.
    std::optional<int64_t> purgeableSpace(int32_t urgency);
    std::optional<int64_t> purge(int64_t amount, int32_t urgency);
    void cancelPurge();
    std::optional<int64_t> periodic(int64_t amount, int32_t urgency);

    // Runs the periodic callback every `interval` on the background queue.
    void startPeriodicCalls(std::chrono::nanoseconds interval);
    void stopPeriodicCalls();

  private:
    std::shared_ptr<PurgeableSpaceCallbacks> callbacks() const;
    mutable std::mutex mutex_;
    std::string name_;
    std::shared_ptr<PurgeableSpaceCallbacks> callbacks_;
    std::shared_ptr<Timer> timer_;
};

}  // namespace sv
