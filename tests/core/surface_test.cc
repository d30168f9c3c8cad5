#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/shared_surface.h"

namespace sv {
namespace {

TEST(SharedSurface, CreateSealAndImportReadOnly) {
    std::string error;
    auto s = SharedSurface::create(1601, 901, PixelFormat::BGRA, &error);
    ASSERT_TRUE(s) << error;
    EXPECT_EQ(s->bytesPerRow() % 64, 0u);
    EXPECT_GE(s->bytesPerRow(), 1601u * 4);
    s->mutableRow(900)[1600 * 4] = 0x5a;
    int seals = fcntl(s->fd(), F_GET_SEALS);
    EXPECT_TRUE(seals & F_SEAL_GROW);
    EXPECT_TRUE(seals & F_SEAL_SHRINK);
    EXPECT_NE(ftruncate(s->fd(), 16), 0);  // nobody can shrink it under a reader

    auto imported = SharedSurface::importDescriptor(s->duplicateFd(), s->descriptor(), &error);
    ASSERT_TRUE(imported) << error;
    EXPECT_TRUE(imported->isReadOnly());
    EXPECT_EQ(imported->mutableData(), nullptr);
    EXPECT_EQ(imported->row(900)[1600 * 4], 0x5a);  // same pages, not a copy
    s->mutableRow(0)[0] = 7;
    EXPECT_EQ(imported->data()[0], 7);
    EXPECT_NE(imported->surfaceID(), s->surfaceID());
}

TEST(SharedSurface, ImportRefusesDescriptorsThatDoNotFit) {
    auto s = SharedSurface::create(64, 64);
    ASSERT_TRUE(s);
    SurfaceDescriptor tooTall = s->descriptor();
    tooTall.height = 65;
    std::string error;
    EXPECT_FALSE(SharedSurface::importDescriptor(s->duplicateFd(), tooTall, &error));
    EXPECT_NE(error.find("smaller"), std::string::npos);

    SurfaceDescriptor narrowRows = s->descriptor();
    narrowRows.bytesPerRow = 10;
    EXPECT_FALSE(SharedSurface::importDescriptor(s->duplicateFd(), narrowRows, &error));

    // An unsealed memfd could be truncated under the reader.
    int raw = memfd_create("unsealed", MFD_CLOEXEC);
    ASSERT_GE(raw, 0);
    ASSERT_EQ(ftruncate(raw, 64 * 256), 0);
    EXPECT_FALSE(SharedSurface::importDescriptor(raw, s->descriptor(), &error));
    EXPECT_NE(error.find("sealed"), std::string::npos);

    EXPECT_FALSE(SharedSurface::importDescriptor(-1, s->descriptor(), &error));
    EXPECT_FALSE(SharedSurface::create(0, 10));
    EXPECT_FALSE(SharedSurface::create(20000, 10));
}

TEST(SurfacePool, ReusesSurfacesNobodyReferences) {
    SurfacePool pool(320, 240, PixelFormat::BGRA, 2);
    uint64_t firstID;
    {
        auto a = pool.acquire();
        auto b = pool.acquire();
        ASSERT_TRUE(a && b);
        firstID = a->surfaceID();
        EXPECT_EQ(pool.allocatedCount(), 2u);
    }
    EXPECT_EQ(pool.freeCount(), 2u);
    auto c = pool.acquire();
    auto d = pool.acquire();
    EXPECT_EQ(pool.allocatedCount(), 2u);
    EXPECT_TRUE(c->surfaceID() == firstID || d->surfaceID() == firstID);
    auto keep = c;  // still referenced: not handed out again
    c.reset();
    auto e = pool.acquire();
    EXPECT_NE(e->surfaceID(), keep->surfaceID());
    EXPECT_EQ(pool.allocatedCount(), 3u);
}

TEST(SurfacePool, SurfacesOutliveThePool) {
    std::shared_ptr<SharedSurface> held;
    {
        SurfacePool pool(16, 16);
        held = pool.acquire();
    }
    ASSERT_TRUE(held);
    held->mutableRow(15)[0] = 1;  // still mapped; freed when `held` goes
}

}  // namespace
}  // namespace sv
