#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

#include "platform/dispatch.h"
#include "platform/sample_buffer.h"
#include "platform/shared_surface.h"

namespace sv {
namespace {

TEST(SharedSurface, CreateSealAndImportReadOnly) {
    auto created = SharedSurface::create(1601, 901, PixelFormat::BGRA);
    ASSERT_TRUE(created) << created.error().description();
    auto s = *created;
    EXPECT_EQ(s->bytesPerRow() % 64, 0u);
    EXPECT_GE(s->bytesPerRow(), 1601u * 4);
    s->mutableRow(900)[1600 * 4] = 0x5a;
    int seals = fcntl(s->fd(), F_GET_SEALS);
    EXPECT_TRUE(seals & F_SEAL_GROW);
    EXPECT_TRUE(seals & F_SEAL_SHRINK);
    EXPECT_NE(ftruncate(s->fd(), 16), 0);  // nobody can shrink it under a reader

    auto importedResult = SharedSurface::importDescriptor(s->duplicateFd(), s->descriptor());
    ASSERT_TRUE(importedResult) << importedResult.error().description();
    auto imported = *importedResult;
    EXPECT_TRUE(imported->isReadOnly());
    EXPECT_EQ(imported->mutableData(), nullptr);
    EXPECT_EQ(imported->row(900)[1600 * 4], 0x5a);  // same pages, not a copy
    s->mutableRow(0)[0] = 7;
    EXPECT_EQ(imported->data()[0], 7);
    EXPECT_NE(imported->surfaceID(), s->surfaceID());
}

TEST(SharedSurface, ImportRefusesDescriptorsThatDoNotFit) {
    auto s = SharedSurface::create(64, 64).value();
    SurfaceDescriptor tooTall = s->descriptor();
    tooTall.height = 65;
    auto refused = SharedSurface::importDescriptor(s->duplicateFd(), tooTall);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().domain, kSurfaceErrorDomain);
    EXPECT_EQ(refused.error().code, kSurfaceErrorBadDescriptor);
    EXPECT_NE(refused.error().message().find("smaller"), std::string::npos);

    SurfaceDescriptor narrowRows = s->descriptor();
    narrowRows.bytesPerRow = 10;
    EXPECT_FALSE(SharedSurface::importDescriptor(s->duplicateFd(), narrowRows));

    // An unsealed memfd could be truncated under the reader.
    int raw = memfd_create("unsealed", MFD_CLOEXEC);
    ASSERT_GE(raw, 0);
    ASSERT_EQ(ftruncate(raw, 64 * 256), 0);
    refused = SharedSurface::importDescriptor(raw, s->descriptor());
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message().find("sealed"), std::string::npos);

    EXPECT_FALSE(SharedSurface::importDescriptor(-1, s->descriptor()));
    for (auto [width, height] : {std::pair{0, 10}, std::pair{20000, 10}}) {
        auto tooBig = SharedSurface::create(width, height);
        ASSERT_FALSE(tooBig) << width;
        EXPECT_EQ(tooBig.error().code, kSurfaceErrorSizeOutOfRange) << width;
    }
}

TEST(SurfacePool, ReusesSurfacesNobodyReferences) {
    SurfacePool pool(320, 240, PixelFormat::BGRA, 2);
    uint64_t firstID;
    {
        auto a = pool.acquire().value();
        auto b = pool.acquire().value();
        ASSERT_TRUE(a && b);
        firstID = a->surfaceID();
        EXPECT_EQ(pool.allocatedCount(), 2u);
    }
    EXPECT_EQ(pool.freeCount(), 2u);
    auto c = pool.acquire().value();
    auto d = pool.acquire().value();
    EXPECT_EQ(pool.allocatedCount(), 2u);
    EXPECT_TRUE(c->surfaceID() == firstID || d->surfaceID() == firstID);
    auto keep = c;  // still referenced: not handed out again
    c.reset();
    auto e = pool.acquire().value();
    EXPECT_NE(e->surfaceID(), keep->surfaceID());
    EXPECT_EQ(pool.allocatedCount(), 3u);
}

TEST(SurfacePool, SurfacesOutliveThePool) {
    std::shared_ptr<SharedSurface> held;
    {
        SurfacePool pool(16, 16);
        held = pool.acquire().value();
    }
    ASSERT_TRUE(held);
    held->mutableRow(15)[0] = 1;  // still mapped; freed when `held` goes
}

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
