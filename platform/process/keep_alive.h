// The keep-alive transaction: while one is open, the process must not end for
// idleness. Counted: every beginTransaction() needs one endTransaction().
//
// A daemon started on demand by systemd socket activation may end itself
// after a quiet period with no open transaction and nothing busy (no open
// connection); a daemon started any other way runs until it is stopped, and
// idle exit is never armed. Thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

namespace sv {

class Timer;

class KeepAlive {
  public:
    static KeepAlive& shared();

    void beginTransaction();
    // An end without a matching begin is logged and ignored.
    void endTransaction();
    long openTransactionCount() const;

    // True when systemd passed this process its listening sockets
    // (LISTEN_PID is ours and LISTEN_FDS > 0).
    static bool startedBySocketActivation();

    // Checks once a second on the main queue; when no transaction is open and
    // `busy` answers false for `quiet` in a row, calls `onIdle` once (on the
    // main queue). Only for a process started by socket activation; returns
    // false (and arms nothing) otherwise.
    bool armIdleExit(std::chrono::milliseconds quiet, std::function<bool()> busy,
                     std::function<void()> onIdle);
    void disarmIdleExit();

  private:
    mutable std::mutex mutex_;
    long count_ = 0;
    std::shared_ptr<Timer> idleTimer_;
};

}  // namespace sv
