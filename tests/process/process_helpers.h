// Starting and reaping helper processes in tests.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace sv::test {

// The environment with `extra` ("NAME=value") replacing variables of the
// same name.
inline std::vector<std::string> environmentWith(const std::vector<std::string>& extra) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e, name = entry.substr(0, entry.find('=') + 1);
        bool replaced = false;
        for (const auto& x : extra) replaced = replaced || x.compare(0, name.size(), name) == 0;
        if (!replaced) env.push_back(entry);
    }
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

// Starts `argv[0]` with `argv` and the environment with `extraEnv`, standard
// input from `inputFile`, standard output and error to `outputFile` when
// given (emptied first unless `append`), every signal at its default and
// unblocked, as a login shell or the service manager starts it: a process
// must not pass only because the test ignores a signal. Returns the pid or
// -1.
inline pid_t spawnProcess(const std::vector<std::string>& argv,
                          const std::vector<std::string>& extraEnv = {},
                          const std::string& outputFile = {},
                          const std::string& inputFile = "/dev/null", bool append = false) {
    std::vector<std::string> env = environmentWith(extraEnv);
    std::vector<char*> a, en;
    for (const auto& s : argv) a.push_back(const_cast<char*>(s.c_str()));
    a.push_back(nullptr);
    for (const auto& s : env) en.push_back(const_cast<char*>(s.c_str()));
    en.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, inputFile.c_str(), O_RDONLY, 0);
    if (!outputFile.empty()) {
        posix_spawn_file_actions_addopen(&fa, 1, outputFile.c_str(),
                                         O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0600);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
    }
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, a[0], &fa, &attr, a.data(), en.data());
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&fa);
    return rc == 0 ? pid : -1;
}

inline bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Exit status of `pid`, or -1 (after SIGKILL) when it did not end in time;
// 128 + signal number when a signal ended it. Waits on a pidfd for the exit
// (a plain blocking wait on kernels without pidfds).
inline int waitForExit(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    int status = 0;
    if (int fd = int(syscall(SYS_pidfd_open, pid, 0)); fd >= 0) {
        const auto end = std::chrono::steady_clock::now() + timeout;
        int ready = 0;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            pollfd exited{fd, POLLIN, 0};
            ready = poll(&exited, 1, int(std::max<int64_t>(left.count(), 0)));
            if (ready >= 0 || errno != EINTR) break;
        }
        close(fd);
        if (ready <= 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
    }
    if (waitpid(pid, &status, 0) != pid) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

inline size_t openDescriptorCount() {
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
}

// Polls `pred` until it holds or the timeout passes: for state that only
// polling can observe (files, other processes); state of this process is
// better waited for on a condition.
template <typename P>
bool eventually(P pred, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto end = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Watches `pred` for the whole `window` and returns false as soon as it holds:
// how a test shows that something does not happen (an event that comes late
// within the window is still caught, unlike a look after a sleep).
template <typename P>
bool stays(P pred, std::chrono::milliseconds window) {
    return !eventually(pred, window);
}

inline std::string makeTempDir(const char* prefix) {
    std::string t = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + "/" +
                    prefix + "XXXXXX";
    return mkdtemp(t.data()) ? t : std::string();
}

}  // namespace sv::test
