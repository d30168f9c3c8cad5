#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/dispatch.h"

namespace sv {
namespace {
using namespace std::chrono_literals;

TEST(DispatchQueue, SerialQueueRunsInOrderOneAtATime) {
    auto q = DispatchQueue::serial("org.sorvel.test.serial");
    std::vector<int> order;
    std::atomic<int> inside{0};
    std::atomic<bool> overlap{false};
    for (int i = 0; i < 500; ++i) {
        q->async([&, i] {
            if (inside.fetch_add(1) != 0) overlap = true;
            order.push_back(i);
            inside.fetch_sub(1);
        });
    }
    q->sync([] {});
    EXPECT_FALSE(overlap);
    ASSERT_EQ(order.size(), 500u);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(order[i], i);
}

TEST(DispatchQueue, SyncFromOwnQueueRunsInlineAndCurrentIsTracked) {
    auto q = DispatchQueue::serial("org.sorvel.test.reentrant");
    bool inner = false;
    DispatchQueue* seen = nullptr;
    q->sync([&] {
        seen = DispatchQueue::current();
        EXPECT_TRUE(q->isCurrent());
        q->sync([&] { inner = true; });
    });
    EXPECT_TRUE(inner);
    EXPECT_EQ(seen, q.get());
    EXPECT_FALSE(q->isCurrent());
    EXPECT_EQ(DispatchQueue::current(), nullptr);
}

TEST(DispatchQueue, BlockedSerialQueueHoldsUpOnlyItself) {
    auto blocked = DispatchQueue::serial("org.sorvel.test.blocked");
    auto other = DispatchQueue::serial("org.sorvel.test.other");
    Semaphore release;
    blocked->async([&] { release.wait(); });
    Semaphore ran;
    other->async([&] { ran.signal(); });
    EXPECT_TRUE(ran.waitFor(5s));
    release.signal();
    blocked->sync([] {});
}

TEST(DispatchQueue, ConcurrentQueuesRunTasksInParallel) {
    auto q = DispatchQueue::global(QueuePriority::Default);
    Semaphore a, b;
    // Each task waits for the other: only parallel execution finishes both.
    q->async([&] { a.signal(); });
    q->async([&] {
        EXPECT_TRUE(a.waitFor(5s));
        b.signal();
    });
    EXPECT_TRUE(b.waitFor(5s));
}

TEST(Timer, OneShotRepeatingAndCancel) {
    auto q = DispatchQueue::serial("org.sorvel.test.timer");
    Semaphore fired;
    auto once = Timer::schedule(q, 10ms, 0ms, [&] { fired.signal(); });
    EXPECT_TRUE(fired.waitFor(5s));

    std::atomic<int> ticks{0};
    Semaphore three;
    auto repeating = Timer::schedule(q, 1ms, 2ms, [&] {
        if (++ticks == 3) three.signal();
    });
    EXPECT_TRUE(three.waitFor(5s));
    q->sync([&] { repeating->cancel(); });
    int after = ticks;
    // A marker timer on the same queue, due long after the next tick would
    // have been: a tick after the cancel would have run before it.
    Semaphore marked;
    auto marker = Timer::schedule(q, 30ms, 0ms, [&] { marked.signal(); });
    EXPECT_TRUE(marked.waitFor(5s));
    EXPECT_EQ(ticks, after);  // nothing starts after cancel on the timer's queue

    std::atomic<bool> never{false};
    auto cancelled = Timer::schedule(q, 20ms, 0ms, [&] { never = true; });
    cancelled.reset();  // destroying cancels
    auto laterMarker = Timer::schedule(q, 40ms, 0ms, [&] { marked.signal(); });
    EXPECT_TRUE(marked.waitFor(5s));
    EXPECT_FALSE(never);

    Semaphore later;
    q->asyncAfter(5ms, [&] { later.signal(); });
    EXPECT_TRUE(later.waitFor(5s));
}

TEST(Semaphore, CountsAndTimesOut) {
    Semaphore s(2);
    EXPECT_TRUE(s.waitFor(0ms));
    EXPECT_TRUE(s.waitFor(0ms));
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(s.waitFor(20ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    std::thread t([&] { s.signal(); });
    s.wait();
    t.join();
}

}  // namespace
}  // namespace sv
