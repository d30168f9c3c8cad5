// Frame stamps through the real movie writer (H.264 Main, the writer's
// preset and bitrate) read back from every decoded frame.
#include <gtest/gtest.h>

#include "support/movie_store.h"
#include "tests/movie/stamped_movie.h"

namespace sv {
namespace {

using namespace sv::testing;

TEST(FrameStampMovie, EveryFrameReadsBackAfterH264) {
    TempDir dir;
    MovieStore::shared().setHomeDirectory(dir.path());
    struct Case {
        const char* name;
        StampedMovieOptions options;
        int frames;
    };
    StampedMovieOptions big{.width = 1600, .height = 900, .audio = false};
    StampedMovieOptions small{.width = 320, .height = 240, .audio = false};
    StampedMovieOptions scaled{.width = 1600,
                               .height = 1200,
                               .drawnSize = std::pair{2732, 2048},
                               .window = WindowSize{1600, 1199.41f},
                               .audio = false};
    for (const Case& c : {Case{"1600x900", big, 90}, Case{"320x240", small, 60},
                          Case{"2732x2048 to 1600x1200", scaled, 30}}) {
        SCOPED_TRACE(c.name);
        const auto script = steadyFrames(c.frames);
        auto url = writeStampedMovie(dir / "stamps.mp4", script, c.options);
        ASSERT_TRUE(url);
        std::vector<FrameStamp> read;
        int unreadable = 0;
        auto reader = media::MovieReader::open(url->path);
        ASSERT_TRUE(reader) << reader.error().message();
        ASSERT_TRUE((*reader)->decode(
            [&](const media::LumaFrame& f) {
                auto stamp = readFrameStamp(f.data, f.width, f.height, f.bytesPerRow);
                stamp ? read.push_back(*stamp) : void(++unreadable);
                return true;
            },
            nullptr));
        EXPECT_EQ(unreadable, 0);
        ASSERT_EQ(read.size(), script.size());
        for (size_t i = 0; i < read.size(); ++i) EXPECT_EQ(read[i], script[i].stamp) << i;
    }
}

}  // namespace
}  // namespace sv
