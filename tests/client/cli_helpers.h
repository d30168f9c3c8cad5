// Running `sorvel` commands as child processes in the client tests: with a
// given standard input, or on a pseudo-terminal the test types into.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace sv::test {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Starts `argv` with `extraEnv` added, standard input from `stdinFile`
// (/dev/null when empty) and standard output and error to `outputFile`.
// The environment with `extra` ("NAME=value") replacing variables of the
// same name.
inline std::vector<std::string> environmentWith(const std::vector<std::string>& extra) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        std::string name = entry.substr(0, entry.find('=') + 1);
        bool replaced = false;
        for (const auto& x : extra) replaced = replaced || x.compare(0, name.size(), name) == 0;
        if (!replaced) env.push_back(entry);
    }
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

inline pid_t spawnWithInput(const std::vector<std::string>& argv,
                            const std::vector<std::string>& extraEnv, const std::string& stdinFile,
                            const std::string& outputFile) {
    std::vector<std::string> env = environmentWith(extraEnv);
    std::vector<char*> a, en;
    for (const auto& s : argv) a.push_back(const_cast<char*>(s.c_str()));
    a.push_back(nullptr);
    for (const auto& s : env) en.push_back(const_cast<char*>(s.c_str()));
    en.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, stdinFile.empty() ? "/dev/null" : stdinFile.c_str(),
                                     O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, a[0], &fa, nullptr, a.data(), en.data());
    posix_spawn_file_actions_destroy(&fa);
    return rc == 0 ? pid : -1;
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
        auto end = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < end) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                drain();
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            drain(std::chrono::milliseconds(20));
        }
        return -1;
    }

  private:
    pid_t pid_ = -1;
    int master_ = -1;
    std::string output_;
};

}  // namespace sv::test
