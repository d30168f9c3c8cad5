// One sorveld of a test's own: a temporary root holding its home (the movie
// store under home/Library/Sorvel/), its runtime directory (the service
// sockets) and its log; started there, ready once its shell channel answers
// a call, stopped at the end. Tests, their helper processes and benchmarks
// use it alike, so a daemon is started, waited for and collected one way.
//
// Threads: one object belongs to the thread that made it (the test's).
// start() makes the run directory the IPC runtime directory of this
// process, so clients made afterwards in the test reach this daemon.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace sv::test {

class PrivateDaemon {
  public:
    struct Options {
        // Arguments after the runtime directory, home and log level.
        std::vector<std::string> args;
        // "NAME=value" added to the daemon's environment.
        std::vector<std::string> env;
        // How long start() waits for the first answer.
        std::chrono::milliseconds answerTimeout = std::chrono::seconds(30);
    };

    // Makes the temporary root (named after `prefix`) and its directories;
    // starts nothing.
    explicit PrivateDaemon(const char* prefix = "sv-daemon-");
    // Kills a daemon still running and removes the root, unless keep() was
    // called.
    ~PrivateDaemon();
    PrivateDaemon(const PrivateDaemon&) = delete;
    PrivateDaemon& operator=(const PrivateDaemon&) = delete;

    // Starts `executable` (sorveld) and waits until it answers on its shell
    // channel. False when it could not be started or did not answer in time
    // (it is then left running for the test to inspect or stop).
    bool start(const std::string& executable, Options options);
    bool start(const std::string& executable) { return start(executable, Options{}); }
    // True once a call on the shell channel gets its reply within `timeout`.
    bool answers(std::chrono::milliseconds timeout) const;

    // Sends `signal` and waits for the exit; the exit status (128 + signal
    // number when a signal ended it), or -1 after a SIGKILL when it did not
    // end within `timeout`.
    int stop(int signal = 15, std::chrono::milliseconds timeout = std::chrono::seconds(20));
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }
    // Forgets the process (for a test that waited for it by other means).
    void release() { pid_ = -1; }

    // Keeps the root at destruction and says where it is (for a failed test).
    void keep();

    std::string log() const;
    size_t logCount(const std::string& line) const;
    // Waits until the log holds `line` at least `count` times.
    bool logged(const std::string& line, size_t count = 1,
                std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

    // The environment a client process needs to reach this daemon.
    std::vector<std::string> clientEnvironment() const;

    const std::string root, home, run, store, logPath;

  private:
    pid_t pid_ = -1;
    bool keep_ = false;
};

}  // namespace sv::test
