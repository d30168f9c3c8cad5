#include "client/cli/cli_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace sv::cli {
namespace {

// Written by the signal handler, read by the loop that asked for signals;
// lives as long as the process (never closed).
int gSignalPipe[2] = {-1, -1};

void onTerminationSignal(int signal) {
    int saved = errno;
    unsigned char s = static_cast<unsigned char>(signal);
    if (gSignalPipe[1] >= 0) (void)!write(gSignalPipe[1], &s, 1);
    errno = saved;
}

bool makePipe(int fds[2]) {
    return pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0;
}

}  // namespace

MainLoop::MainLoop() {
    int fds[2];
    if (!makePipe(fds)) std::abort();
    wake_[0].reset(fds[0]);
    wake_[1].reset(fds[1]);
}

MainLoop::~MainLoop() {
    {
        std::lock_guard lock(mutex_);
        finished_ = true;
        tasks_.clear();
    }
}

void MainLoop::post(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    tasks_.push_back(std::move(task));
    (void)!write(wake_[1].get(), "x", 1);
}

uint64_t MainLoop::after(Clock::duration delay, std::function<void()> task) {
    uint64_t id = nextTimer_++;
    timers_.push_back(Timer{id, Clock::now() + delay, std::move(task)});
    return id;
}

void MainLoop::cancel(uint64_t timer) {
    std::erase_if(timers_, [timer](const Timer& t) { return t.id == timer; });
}

void MainLoop::watch(int fd, std::function<void()> onReadable) {
    unwatch(fd);
    watches_.push_back(Watch{fd, std::move(onReadable)});
}

void MainLoop::unwatch(int fd) {
    std::erase_if(watches_, [fd](const Watch& w) { return w.fd == fd; });
}

void MainLoop::handleTerminationSignals(std::function<void(int)> handler) {
    signalHandler_ = std::move(handler);
    if (gSignalPipe[0] < 0 && !makePipe(gSignalPipe)) std::abort();
    struct sigaction sa {};
    sa.sa_handler = onTerminationSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(s, &sa, nullptr);
    watch(gSignalPipe[0], [this] {
        unsigned char s;
        while (read(gSignalPipe[0], &s, 1) == 1)
            if (signalHandler_) signalHandler_(s);
    });
}

void MainLoop::quit(int status) {
    if (!status_) status_ = status;
}

int MainLoop::run() {
    int status = runUntilQuit();
    // Tasks and timers left over hold what they would have touched (often
    // this loop): drop them now, and take no more.
    std::deque<std::function<void()>> left;
    {
        std::lock_guard lock(mutex_);
        finished_ = true;
        left.swap(tasks_);
    }
    timers_.clear();
    watches_.clear();
    signalHandler_ = nullptr;
    return status;
}

int MainLoop::runUntilQuit() {
    while (!status_) {
        int timeout = -1;
        if (!timers_.empty()) {
            auto next = std::min_element(timers_.begin(), timers_.end(), [](auto& a, auto& b) {
                            return a.when < b.when;
                        })->when;
            auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
            timeout = int(std::clamp<long long>(ms, 0, 60000));
        }
        std::vector<pollfd> fds{{wake_[0].get(), POLLIN, 0}};
        for (const auto& w : watches_) fds.push_back({w.fd, POLLIN, 0});
        int n = poll(fds.data(), fds.size(), timeout);
        if (n < 0 && errno != EINTR) break;

        char buf[64];
        while (read(wake_[0].get(), buf, sizeof buf) > 0) {
        }
        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard lock(mutex_);
            tasks.swap(tasks_);
        }
        for (auto& t : tasks) {
            t();
            if (status_) return *status_;
        }
        auto now = Clock::now();
        std::vector<Timer> due;
        for (auto it = timers_.begin(); it != timers_.end();) {
            if (it->when <= now) {
                due.push_back(std::move(*it));
                it = timers_.erase(it);
            } else {
                ++it;
            }
        }
        std::sort(due.begin(), due.end(), [](auto& a, auto& b) { return a.when < b.when; });
        for (auto& t : due) {
            t.task();
            if (status_) return *status_;
        }
        for (size_t i = 1; n > 0 && i < fds.size(); ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            // The callback may change the watch list: look the fd up again.
            auto it = std::find_if(watches_.begin(), watches_.end(),
                                   [&](const Watch& w) { return w.fd == fds[i].fd; });
            if (it == watches_.end()) continue;
            auto callback = it->onReadable;
            callback();
            if (status_) return *status_;
        }
    }
    return status_.value_or(1);
}

// ---------------------------------------------------------------------------

namespace {

// The terminal's settings before raw mode, for the restore paths that run
// outside the RawTerminal object (exit, Ctrl-Z).
struct SavedTerminal {
    int fd = -1;
    termios original{};
    termios raw{};
} gTerminal;

void restoreTerminal() {
    if (gTerminal.fd >= 0) tcsetattr(gTerminal.fd, TCSADRAIN, &gTerminal.original);
}

void onStop(int) {
    int saved = errno;
    restoreTerminal();
    signal(SIGTSTP, SIG_DFL);
    raise(SIGTSTP);
    errno = saved;
}

void onContinue(int) {
    int saved = errno;
    if (gTerminal.fd >= 0) {
        tcsetattr(gTerminal.fd, TCSADRAIN, &gTerminal.raw);
        signal(SIGTSTP, onStop);
    }
    errno = saved;
}

}  // namespace

RawTerminal::RawTerminal(int fd) : fd_(fd) {
    // A background job that touched the terminal would be stopped (SIGTTOU).
    if (!isatty(fd) || gTerminal.fd >= 0 || tcgetpgrp(fd) != getpgrp()) return;
    termios t{};
    if (tcgetattr(fd, &t) != 0) return;
    gTerminal.original = t;
    t.c_lflag &= ~tcflag_t(ICANON | ECHO);  // ISIG stays: Ctrl-C is still SIGINT
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    gTerminal.raw = t;
    if (tcsetattr(fd, TCSADRAIN, &t) != 0) return;
    gTerminal.fd = fd;
    active_ = true;
    static bool registered = false;
    if (!registered) {
        registered = true;
        std::atexit(restoreTerminal);
    }
    signal(SIGTSTP, onStop);
    signal(SIGCONT, onContinue);
}

RawTerminal::~RawTerminal() {
    if (!active_) return;
    signal(SIGTSTP, SIG_DFL);
    signal(SIGCONT, SIG_DFL);
    restoreTerminal();
    gTerminal.fd = -1;
}

}  // namespace sv::cli
