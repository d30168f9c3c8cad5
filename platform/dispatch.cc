#include "platform/dispatch.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <asio/bind_executor.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>

namespace sv {
namespace {

thread_local std::vector<const DispatchQueue*> tCurrent;

struct CurrentScope {
    explicit CurrentScope(const DispatchQueue* q) { tCurrent.push_back(q); }
    ~CurrentScope() { tCurrent.pop_back(); }
};

// A fixed set of threads running one io_context. Never destroyed: queues may
// be used by threads that outlive static destruction.
class Pool {
  public:
    Pool(const char* name, unsigned threads, int niceness) {
        for (unsigned i = 0; i < threads; ++i) {
            std::thread([this, name, niceness, i] {
                char buf[16];
                std::snprintf(buf, sizeof buf, "%.10s-%u", name, i);
                pthread_setname_np(pthread_self(), buf);
                if (niceness != 0)
                    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), niceness);
                io_.run();
            }).detach();
        }
    }
    asio::io_context& io() { return io_; }

  private:
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_{io_.get_executor()};
};

Pool& pool(QueuePriority p) {
    static Pool* def =
        new Pool("sv-default", std::max(8u, 2 * std::thread::hardware_concurrency()), 0);
    static Pool* bg = new Pool("sv-bg", 2, 10);
    return p == QueuePriority::Background ? *bg : *def;
}

struct MainLoopState {
    asio::io_context io;
    std::unique_ptr<asio::executor_work_guard<asio::io_context::executor_type>> guard =
        std::make_unique<asio::executor_work_guard<asio::io_context::executor_type>>(
            io.get_executor());
    std::atomic<bool> running{false};
};

MainLoopState& mainLoop() {
    static MainLoopState* s = new MainLoopState;
    return *s;
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label, bool serial, asio::any_io_executor executor)
    : label_(std::move(label)), serial_(serial), executor_(std::move(executor)) {}

std::shared_ptr<DispatchQueue> DispatchQueue::serial(std::string label, QueuePriority priority) {
    return std::make_shared<DispatchQueue>(std::move(label), true,
                                           asio::make_strand(pool(priority).io()));
}

std::shared_ptr<DispatchQueue> DispatchQueue::global(QueuePriority priority) {
    static auto* def = new std::shared_ptr<DispatchQueue>(std::make_shared<DispatchQueue>(
        "org.sorvel.global.default", false, pool(QueuePriority::Default).io().get_executor()));
    static auto* bg = new std::shared_ptr<DispatchQueue>(
        std::make_shared<DispatchQueue>("org.sorvel.global.background", false,
                                        pool(QueuePriority::Background).io().get_executor()));
    return priority == QueuePriority::Background ? *bg : *def;
}

std::shared_ptr<DispatchQueue> DispatchQueue::main() {
    static auto* q = new std::shared_ptr<DispatchQueue>(
        std::make_shared<DispatchQueue>("org.sorvel.main", true, mainLoop().io.get_executor()));
    return *q;
}

DispatchQueue* DispatchQueue::current() {
    return tCurrent.empty() ? nullptr : const_cast<DispatchQueue*>(tCurrent.back());
}

bool DispatchQueue::isCurrent() const {
    return std::find(tCurrent.begin(), tCurrent.end(), this) != tCurrent.end();
}

void DispatchQueue::async(Task task) {
    // The task keeps its queue alive, so current() never names a dead queue.
    asio::post(executor_, [self = shared_from_this(), t = std::move(task)] {
        CurrentScope scope(self.get());
        t();
    });
}

void DispatchQueue::sync(Task task) {
    if (serial_ && isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto fut = done.get_future();
    asio::post(executor_, [this, &task, &done] {
        CurrentScope scope(this);
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    fut.get();
}

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay, Task task) {
    auto timer = std::make_shared<asio::steady_timer>(executor_, delay);
    timer->async_wait(
        [self = shared_from_this(), timer, t = std::move(task)](const std::error_code& ec) {
            if (ec) return;
            CurrentScope scope(self.get());
            t();
        });
}

void MainRunLoop::run() {
    auto& s = mainLoop();
    if (s.io.stopped()) s.io.restart();
    s.running = true;
    s.io.run();
    s.running = false;
}

void MainRunLoop::runFor(std::chrono::nanoseconds duration) {
    auto& s = mainLoop();
    if (s.io.stopped()) s.io.restart();
    s.running = true;
    s.io.run_for(duration);
    s.running = false;
}

void MainRunLoop::stop() {
    mainLoop().io.stop();
}
bool MainRunLoop::isRunning() {
    return mainLoop().running;
}

struct Timer::Impl : std::enable_shared_from_this<Timer::Impl> {
    std::shared_ptr<DispatchQueue> queue;
    // A strand of its own, so that cancel() and the handler never touch the
    // timer object at once even on a concurrent queue.
    asio::strand<asio::any_io_executor> strand;
    asio::steady_timer timer;
    std::chrono::nanoseconds interval;
    std::function<void()> handler;
    std::atomic<bool> cancelled{false};

    Impl(std::shared_ptr<DispatchQueue> q, std::chrono::nanoseconds iv, std::function<void()> h)
        : queue(std::move(q)),
          strand(queue->executor()),
          timer(strand),
          interval(iv),
          handler(std::move(h)) {}

    void arm(std::chrono::nanoseconds delay) {
        timer.expires_after(delay);
        timer.async_wait([self = shared_from_this()](const std::error_code& ec) {
            if (ec || self->cancelled) return;
            {
                CurrentScope scope(self->queue.get());
                self->handler();
            }
            if (self->interval.count() > 0 && !self->cancelled) self->arm(self->interval);
        });
    }
};

std::shared_ptr<Timer> Timer::schedule(std::shared_ptr<DispatchQueue> queue,
                                       std::chrono::nanoseconds delay,
                                       std::chrono::nanoseconds interval,
                                       std::function<void()> handler) {
    auto impl = std::make_shared<Impl>(std::move(queue), interval, std::move(handler));
    // Arm on the queue's executor so the timer object is only touched there.
    asio::post(impl->strand, [impl, delay] {
        if (!impl->cancelled) impl->arm(delay);
    });
    return std::shared_ptr<Timer>(new Timer(std::move(impl)));
}

Timer::~Timer() {
    cancel();
}

void Timer::cancel() {
    if (!impl_ || impl_->cancelled.exchange(true)) return;
    asio::post(impl_->strand, [impl = impl_] { impl->timer.cancel(); });
}

void Semaphore::signal() {
    // Notify under the lock: a waiter that wakes may destroy the semaphore as
    // soon as it can take the lock.
    std::lock_guard lock(mutex_);
    ++count_;
    cv_.notify_one();
}

void Semaphore::wait() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [this] { return count_ > 0; });
    --count_;
}

bool Semaphore::waitFor(std::chrono::nanoseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, timeout, [this] { return count_ > 0; })) return false;
    --count_;
    return true;
}

}  // namespace sv
