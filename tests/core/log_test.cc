#include <gtest/gtest.h>

#include "platform/log.h"
#include "platform/media_time.h"

namespace sv {
namespace {

TEST(Log, PlaceholdersRenderAsTheSystemQuotesThem) {
    EXPECT_EQ(log::format("accepted client connection PID: %d", 4242),
              "accepted client connection PID: 4242");
    EXPECT_EQ(log::format("%i", int64_t(1) << 33), "0");  // %i is 32-bit
    EXPECT_EQ(log::format("%li", int64_t(1) << 33), "8589934592");
    EXPECT_EQ(log::format("%f", 1700000000.25), "1700000000.250000");
    EXPECT_EQ(log::format("%@/%@.mp4", std::string("/home/u/Library/Sorvel/"), "My Game"),
              "/home/u/Library/Sorvel//My Game.mp4");
    EXPECT_EQ(log::format("time %@", MediaTime::make(3, 2)), "time {3/2 = 1.500}");
    EXPECT_EQ(log::format("%@", std::shared_ptr<MediaTime>()), "(null)");
    EXPECT_EQ(log::format("100%% %@"), "100% (null)");  // missing argument
    EXPECT_EQ(log::format("dict %@", Value{{"a", 1}}), "dict {\"a\":1}");
    EXPECT_EQ(log::format("odd %y %i", 3), "odd %y 3");
}

TEST(Log, CaptureSeesLevelsAndDebugOnlyWhenEnabled) {
    log::Capture capture;
    log::info("SVRecordingManager: cache delete purge callback");
    log::error("error creating temp directory");
    log::debug("hidden %i", 1);
    log::setDebugEnabled(true);
    log::debug("shown %i", 2);
    log::setDebugEnabled(false);
    log::console("error: %@", "x");
    EXPECT_TRUE(
        capture.contains("SVRecordingManager: cache delete purge callback", log::Level::Default));
    EXPECT_TRUE(capture.contains("error creating temp directory", log::Level::Error));
    EXPECT_FALSE(capture.contains("hidden 1"));
    EXPECT_TRUE(capture.contains("shown 2", log::Level::Debug));
    EXPECT_TRUE(capture.contains("error: x", log::Level::Console));
    EXPECT_EQ(capture.countContaining("callback"), 1u);
}

}  // namespace
}  // namespace sv
