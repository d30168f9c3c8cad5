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

TEST(Log, RateLimitWritesABurstPerIntervalThenSaysHowManyItHeldBack) {
    using namespace std::chrono_literals;
    auto now = log::RateLimit::Clock::time_point{};
    log::RateLimit limit(3, 10s, [&] { return now; });
    log::Capture capture;
    for (int i = 0; i < 1000; ++i) log::error(limit, "ipc: dropped message %i", i);
    EXPECT_EQ(capture.lines().size(), 3u);
    EXPECT_TRUE(capture.contains("ipc: dropped message 2", log::Level::Error));

    now += 9s;  // still the same interval
    log::error(limit, "ipc: dropped message %i", 1000);
    EXPECT_EQ(capture.lines().size(), 3u);

    now += 1s;  // a new interval: the summary first, then the line
    log::error(limit, "ipc: dropped message %i", 1001);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[3].text, "suppressed 998 lines like: ipc: dropped message %i");
    EXPECT_EQ(lines[3].level, log::Level::Error);
    EXPECT_EQ(lines[4].text, "ipc: dropped message 1001");

    // Debug lines count only while debug logging is on.
    capture.clear();
    log::RateLimit quiet(1, 10s, [&] { return now; });
    log::debug(quiet, "hidden");
    log::setDebugEnabled(true);
    log::debug(quiet, "shown");
    log::debug(quiet, "held back");
    log::setDebugEnabled(false);
    EXPECT_EQ(capture.lines().size(), 1u);
    EXPECT_TRUE(capture.contains("shown", log::Level::Debug));
}

}  // namespace
}  // namespace sv
