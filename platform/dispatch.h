// Task queues on Asio: labelled serial queues (strands), two shared
// concurrent work queues (default and background priority), the main queue
// run by the main run loop, synchronous dispatch, timers, counting
// semaphores and once-only initialisation.
//
// Serial queues run their tasks one at a time in submission order, on the
// threads of the concurrent pool of their priority. A task may block (a
// modal alert waits for the user); the default pool is sized so that a few
// blocked serial queues do not starve the others.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <asio/any_io_executor.hpp>

namespace sv {

enum class QueuePriority { Default, Background };

class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
  public:
    using Task = std::function<void()>;

    // A new serial queue. The label names it in logs and thread dumps.
    static std::shared_ptr<DispatchQueue> serial(std::string label,
                                                 QueuePriority priority = QueuePriority::Default);
    // The shared concurrent work queue of a priority.
    static std::shared_ptr<DispatchQueue> global(QueuePriority priority = QueuePriority::Default);
    // The main queue; its tasks run on the thread inside MainRunLoop::run().
    static std::shared_ptr<DispatchQueue> main();

    // The innermost queue whose task is running on this thread, or nullptr.
    static DispatchQueue* current();

    const std::string& label() const { return label_; }
    bool isSerial() const { return serial_; }
    // True while a task of this queue runs on the calling thread.
    bool isCurrent() const;

    void async(Task task);
    // Runs `task` on the queue and waits for it. On a serial queue that is
    // already current the task runs inline instead of deadlocking.
    void sync(Task task);
    void asyncAfter(std::chrono::nanoseconds delay, Task task);

    // Executor for Asio objects (timers, sockets) whose handlers must run on
    // this queue.
    asio::any_io_executor executor() const { return executor_; }

    DispatchQueue(std::string label, bool serial, asio::any_io_executor executor);

  private:
    std::string label_;
    bool serial_;
    asio::any_io_executor executor_;
};

// The process's main run loop: runs the main queue on the calling thread.
class MainRunLoop {
  public:
    // Runs until stop(); returns after stop() or at once if stop() was
    // already requested since the last run.
    static void run();
    // Runs for at most `duration` or until stop(), whichever comes first.
    static void runFor(std::chrono::nanoseconds duration);
    static void stop();
    static bool isRunning();
};

// A one-shot or repeating timer whose handler runs on a queue. Destroying or
// cancelling it guarantees that the handler does not start again; a run that
// has already started finishes.
class Timer : public std::enable_shared_from_this<Timer> {
  public:
    static std::shared_ptr<Timer> schedule(std::shared_ptr<DispatchQueue> queue,
                                           std::chrono::nanoseconds delay,
                                           std::chrono::nanoseconds interval,
                                           std::function<void()> handler);
    ~Timer();
    void cancel();

    struct Impl;

  private:
    explicit Timer(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
};

class Semaphore {
  public:
    explicit Semaphore(long initial = 0) : count_(initial) {}
    void signal();
    void wait();
    // False when the timeout passed before a signal arrived.
    bool waitFor(std::chrono::nanoseconds timeout);

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    long count_;
};

// Once-only initialisation: `fn` runs exactly once per flag even when several
// threads arrive together; the others wait until it has finished.
using OnceFlag = std::once_flag;
template <typename F>
void dispatchOnce(OnceFlag& flag, F&& fn) {
    std::call_once(flag, std::forward<F>(fn));
}

}  // namespace sv
