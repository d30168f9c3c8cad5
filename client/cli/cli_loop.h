// The main loop of the long-running `sorvel` commands (record,
// consent-agent): tasks posted from any thread, timers, readable
// descriptors and termination signals, all handled on the thread that runs
// the loop. Also the terminal's raw mode for single-key commands.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include <termios.h>

#include "platform/unique_fd.h"

namespace sv::cli {

class MainLoop {
  public:
    using Clock = std::chrono::steady_clock;

    MainLoop();
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    // Thread-safe; the task runs on the loop's thread. Posting to a loop
    // that has finished does nothing.
    void post(std::function<void()> task);
    // Loop thread only. Returns an id for cancel().
    uint64_t after(Clock::duration delay, std::function<void()> task);
    void cancel(uint64_t timer);
    // Calls `onReadable` whenever `fd` has input; loop thread only.
    void watch(int fd, std::function<void()> onReadable);
    void unwatch(int fd);
    // SIGINT, SIGTERM, SIGHUP and SIGQUIT no longer end the process; each
    // arrives here as its signal number, on the loop's thread.
    void handleTerminationSignals(std::function<void(int signal)> handler);

    // Runs until quit(); returns quit's status. A loop runs once: afterwards
    // it drops what is left and takes no more tasks.
    int run();
    void quit(int status);

  private:
    int runUntilQuit();
    struct Timer {
        uint64_t id;
        Clock::time_point when;
        std::function<void()> task;
    };
    struct Watch {
        int fd;
        std::function<void()> onReadable;
    };

    UniqueFd wake_[2];  // the self-pipe that wakes run(): read end, write end
    std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
    bool finished_ = false;
    std::vector<Timer> timers_;
    std::vector<Watch> watches_;
    uint64_t nextTimer_ = 1;
    std::optional<int> status_;
    std::function<void(int)> signalHandler_;
};

// Puts the terminal on `fd` into raw mode (no echo, keys one by one, Ctrl-C
// still a signal) while it exists, and restores it on destruction, at exit
// and before the process stops on Ctrl-Z. Does nothing for a descriptor that
// is not a terminal, or not this process's controlling terminal in the
// foreground.
class RawTerminal {
  public:
    explicit RawTerminal(int fd);
    ~RawTerminal();
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;
    bool active() const { return active_; }

  private:
    int fd_;
    bool active_ = false;
};

}  // namespace sv::cli
