#include <gtest/gtest.h>

#include <sys/wait.h>

#include <filesystem>
#include <fstream>

#include "platform/log.h"
#include "tests/movie/movie_test_util.h"

namespace sv {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;

// One 60 s recording (64x64 at 10 fps, both audio tracks, mirrored and
// tagged) shared by the cases.
class TrimTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = new TempDir;
        source = *dir / "source.mp4";
        auto info = std::make_shared<SVStoreInfo>();
        info->bundleID = "com.example.x";
        ASSERT_TRUE(writeStampedMovie(source, steadyFrames(600, kSecond / 10),
                                      {.width = 64,
                                       .height = 64,
                                       .picture = StampedMovieOptions::Picture::Indexed,
                                       .transform = AffineTransform::scale(-1, 1),
                                       .frameInterval = kSecond / 10,
                                       .info = info}));
    }
    static void TearDownTestSuite() { delete dir; }

    // Runs a trim and checks that the handler is called exactly once.
    static std::optional<URL> trim(const std::string& from, double start, double end,
                                   const std::string& to) {
        auto writer = SVMovieWriter::initWithWindowSize({64, 64}, from, nullptr);
        return awaitOnce<std::optional<URL>>([&](std::function<void(std::optional<URL>)> done) {
            writer->trimMovieWithURL(URL::fileURLWithPath(from), start, end,
                                     URL::fileURLWithPath(to), done);
        });
    }

    static TempDir* dir;
    static std::string source;
};
TempDir* TrimTest::dir = nullptr;
std::string TrimTest::source;

TEST_F(TrimTest, CutsWholeSecondsAndStartsAtTheRightFrame) {
    const std::string out = *dir / "trimmed.mp4";
    std::ofstream(out) << "an older file";  // replaced
    log::Capture capture;
    auto url = trim(source, 2.4, 3.6, out);  // from 2 s, lasting 54 s
    ASSERT_TRUE(url);
    EXPECT_EQ(url->path, out);
    EXPECT_TRUE(capture.contains("SVMovieWriter: Export Trim succeeded"));

    auto info = probeMovie(out);
    ASSERT_EQ(info.tracks.size(), 3u);
    EXPECT_NEAR(info.duration, 54.0, 0.1);
    for (const auto& s : info.tracks) {
        EXPECT_NEAR(s.startTime, 0.0, 0.1);
        EXPECT_NEAR(s.duration, 54.0, 0.15);
    }
    // 2 s lies between key frames (every 12 s here): the lead-in from the
    // key frame at 0 is hidden, so the first frame shown is frame 20.
    auto video = decodeVideo(out);
    ASSERT_EQ(video.indices.size(), 540u);
    EXPECT_EQ(video.indices.front(), 20);
    EXPECT_NEAR(video.times.front(), 0.0, 1e-3);
    EXPECT_EQ(video.indices.back(), 559);
    EXPECT_TRUE(fs::exists(source));  // the source stays
    // The transform and the tags go with the cut.
    ASSERT_TRUE(info.tracks[0].displayMatrix);
    EXPECT_EQ((*info.tracks[0].displayMatrix)[0], -65536);
    EXPECT_EQ(info.tags["org.sorvel.content-identifier"], "com.example.x");

    // Under half a second at each end rounds to nothing cut.
    ASSERT_TRUE(trim(source, 0.4, 0.4, out));
    EXPECT_NEAR(probeMovie(out).duration, 60.0, 0.1);
    EXPECT_EQ(decodeVideo(out).indices.size(), 600u);
}

TEST_F(TrimTest, FailuresCallTheHandlerOnceWithNothing) {
    log::Capture capture;
    const std::string out = *dir / "none.mp4";
    std::ofstream(*dir / "text.mp4") << "not a movie at all";
    EXPECT_FALSE(trim(source, 29.5, 31, out));  // nothing left (30 + 31 s)
    EXPECT_FALSE(fs::exists(out));
    EXPECT_FALSE(trim(*dir / "missing.mp4", 1, 1, out));
    EXPECT_FALSE(trim(*dir / "text.mp4", 1, 1, out));
    EXPECT_FALSE(trim(source, std::nan(""), 1, out));
    EXPECT_EQ(capture.countContaining("SVMovieWriter: Export Trim Video Failed, due to error: "),
              4u);
}

#ifdef SV_SORVEL_PATH
TEST_F(TrimTest, CommandLineTool) {
    const std::string out = *dir / "cli.mp4";
    std::ofstream(*dir / "notes.txt") << "hello";
    struct Case {
        std::string args;
        int status;
        std::string output;
    } cases[] = {{source + " --start 2.4 --end 3.6 -o " + out, 0, out},
                 {*dir / "nope.mp4 --start 1 --end 1 -o " + out, 1, "No such file or directory"},
                 {*dir / "notes.txt --start 1 --end 1 -o " + out, 1, "is not a movie"},
                 {source + " --start 30 --end 30.5 -o " + out, 1, "leaves nothing"},
                 {source + " --start -1 --end 1 -o " + out, 2, ""},
                 {source + " --start 1 --end 1 -o " + source, 1, ""}};
    for (const auto& c : cases) {
        std::string output;
        FILE* p = popen((std::string(SV_SORVEL_PATH) + " trim " + c.args + " 2>&1").c_str(), "r");
        ASSERT_TRUE(p);
        char buf[512];
        while (size_t n = fread(buf, 1, sizeof buf, p)) output.append(buf, n);
        int st = pclose(p);
        EXPECT_EQ(WIFEXITED(st) ? WEXITSTATUS(st) : -1, c.status) << c.args << "\n" << output;
        EXPECT_NE(output.find(c.output), std::string::npos) << c.args << "\n" << output;
        if (c.status == 0) {
            EXPECT_NEAR(probeMovie(out).duration, 54.0, 0.1);
        }
    }
    EXPECT_TRUE(fs::exists(source));
}
#endif

}  // namespace
}  // namespace sv
