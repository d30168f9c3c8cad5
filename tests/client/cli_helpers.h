// Running `sorvel` commands on a pseudo-terminal the test types into (other
// children start through spawnProcess).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/process/process_helpers.h"

namespace sv::test {

// Whether `text` (a log, a command's output) holds `part`; a failure shows
// the whole text.
inline ::testing::AssertionResult has(const std::string& text, const std::string& part) {
    if (contains(text, part)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

// How often `part` occurs in `text`.
inline size_t countOf(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// spawnProcess with the arguments in the order some callers give them:
// standard input from `inputFile` (/dev/null when empty), output to
// `outputFile`.
inline pid_t spawnWithInput(const std::vector<std::string>& argv,
                            const std::vector<std::string>& extraEnv, const std::string& inputFile,
                            const std::string& outputFile) {
    return spawnProcess(argv, extraEnv, outputFile, inputFile.empty() ? "/dev/null" : inputFile);
}

// A child on a pseudo-terminal: what it writes is collected, keys are typed.
class PtyChild {
  public:
    PtyChild(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
        std::vector<std::string> env = environmentWith(extraEnv);
        // Prepared before fork: the child only calls exec.
        std::vector<char*> a, en;
        for (const auto& s : argv) a.push_back(const_cast<char*>(s.c_str()));
        a.push_back(nullptr);
        for (const auto& s : env) en.push_back(const_cast<char*>(s.c_str()));
        en.push_back(nullptr);
        pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            execve(a[0], a.data(), en.data());
            _exit(127);
        }
    }
    ~PtyChild() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (master_ >= 0) close(master_);
    }
    pid_t pid() const { return pid_; }
    void type(const std::string& keys) { (void)!write(master_, keys.data(), keys.size()); }
    // Reads what is there (waiting up to `wait` for the first bytes).
    const std::string& drain(std::chrono::milliseconds wait = std::chrono::milliseconds(0)) {
        pollfd p{master_, POLLIN, 0};
        int timeout = int(wait.count());
        while (poll(&p, 1, timeout) == 1) {
            char buf[4096];
            ssize_t n = read(master_, buf, sizeof buf);
            if (n <= 0) break;
            output_.append(buf, size_t(n));
            timeout = 0;
        }
        return output_;
    }
    // Exit status (as waitForExit counts it), reading the output meanwhile.
    int wait(std::chrono::seconds timeout) {
        int status = 0;
        auto ended = [&] {
            drain();
            return waitpid(pid_, &status, WNOHANG) == pid_;
        };
        if (!eventually(ended, timeout)) return -1;
        pid_ = -1;
        drain();
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    pid_t pid_ = -1;
    int master_ = -1;
    std::string output_;
};

}  // namespace sv::test
