#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/dispatch.h"
#include "platform/sample_buffer.h"

namespace sv {
namespace {

// A producer acquires frames and hands them to consumers on other queues,
// which drop them there: surfaces must come back to the pool without races,
// and the pool never grows beyond what is in flight.
TEST(SurfacePoolThreads, ReleaseOnOtherThreadsReturnsToPool) {
    SurfacePool pool(128, 64, PixelFormat::BGRA, 4096);
    auto consumerA = DispatchQueue::serial("org.sorvel.test.consumerA");
    auto consumerB = DispatchQueue::serial("org.sorvel.test.consumerB");
    std::atomic<int> inFlight{0}, maxInFlight{0};
    for (int i = 0; i < 2000; ++i) {
        auto surface = pool.acquire().value();
        ASSERT_TRUE(surface);
        surface->mutableRow(0)[0] = static_cast<uint8_t>(i);
        auto frame = SampleBuffer::makeVideo(surface, MediaTime::make(i, 60));
        surface.reset();
        int now = ++inFlight;
        int prev = maxInFlight;
        while (now > prev && !maxInFlight.compare_exchange_weak(prev, now)) {
        }
        auto& q = (i % 2) ? consumerA : consumerB;
        q->async([frame, &inFlight]() mutable {
            frame.reset();
            --inFlight;
        });
        if (i % 64 == 0) consumerA->sync([] {}), consumerB->sync([] {});
    }
    consumerA->sync([] {});
    consumerB->sync([] {});
    EXPECT_LE(pool.allocatedCount(), size_t(maxInFlight) + 1);
    EXPECT_GE(pool.freeCount(), 1u);
}

}  // namespace
}  // namespace sv
