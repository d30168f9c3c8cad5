#include <gtest/gtest.h>

#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "movie/movie_writer.h"
#include "platform/log.h"
#include "support/movie_store.h"
#include "tests/movie/movie_test_util.h"

namespace sv {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;

constexpr double kFps = 10;

// One 60 s recording (64x64 at 10 fps, both audio tracks) shared by the cases.
class TrimTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = new std::string(makeTempDir());
        source = new std::string(*dir + "/source.mp4");
        auto writer = SVMovieWriter::initWithWindowSize({64, 64}, *source, nullptr);
        startWriter(writer);
        SurfacePool pool(64, 64);
        FeedOptions o;
        o.seconds = 60;
        o.fps = kFps;
        feed(writer, pool, o);
        ASSERT_TRUE(finishWriter(writer));
    }
    static void TearDownTestSuite() {
        if (!getenv("SV_KEEP")) fs::remove_all(*dir);
        delete dir;
        delete source;
    }

    // Runs a trim and checks that the handler is called exactly once.
    std::optional<URL> trim(const std::string& from, double start, double end,
                            const std::string& to) {
        auto writer = SVMovieWriter::initWithWindowSize({64, 64}, from, nullptr);
        Semaphore done;
        std::atomic<int> calls{0};
        std::optional<URL> result;
        writer->trimMovieWithURL(URL::fileURLWithPath(from), start, end, URL::fileURLWithPath(to),
                                 [&](std::optional<URL> url) {
                                     result = url;
                                     ++calls;
                                     done.signal();
                                 });
        done.wait();
        usleep(20000);
        EXPECT_EQ(calls.load(), 1);
        return result;
    }

    static std::string* dir;
    static std::string* source;
};
std::string* TrimTest::dir = nullptr;
std::string* TrimTest::source = nullptr;

TEST_F(TrimTest, CutsWholeSecondsAndStartsAtTheRightFrame) {
    const std::string out = *dir + "/trimmed.mp4";
    std::ofstream(out) << "an older file";  // replaced
    log::Capture capture;
    auto url = trim(*source, 2.4, 3.6, out);  // from 2 s, lasting 54 s
    ASSERT_TRUE(url);
    EXPECT_EQ(url->path, out);
    EXPECT_TRUE(capture.contains("SVMovieWriter: Export Trim succeeded"));

    MovieInfo info = probeMovie(out);
    ASSERT_TRUE(info.ok);
    ASSERT_EQ(info.streams.size(), 3u);
    EXPECT_NEAR(info.duration, 54.0, 0.1);
    for (const auto& s : info.streams) {
        EXPECT_NEAR(s.startTime, 0.0, 1.0 / kFps);
        EXPECT_NEAR(s.duration, 54.0, 0.15);
    }
    // 2 s lies between key frames (every 12 s here): the lead-in from the
    // key frame at 0 is hidden, so the first frame shown is frame 20.
    auto video = decodeVideo(out);
    ASSERT_EQ(video.indices.size(), 540u);
    EXPECT_EQ(video.indices.front(), 20);
    EXPECT_NEAR(video.times.front(), 0.0, 1e-3);
    EXPECT_EQ(video.indices.back(), 559);
    EXPECT_TRUE(fs::exists(*source));  // the source stays
}

TEST_F(TrimTest, SubHalfSecondsRoundToTheWholeMovie) {
    const std::string out = *dir + "/whole.mp4";
    ASSERT_TRUE(trim(*source, 0.4, 0.4, out));
    MovieInfo info = probeMovie(out);
    EXPECT_NEAR(info.duration, 60.0, 0.1);
    auto video = decodeVideo(out);
    EXPECT_EQ(video.indices.size(), 600u);
}

TEST_F(TrimTest, FailuresCallTheHandlerOnceWithNothing) {
    log::Capture capture;
    const std::string out = *dir + "/none.mp4";
    EXPECT_FALSE(trim(*source, 29.5, 31, out));  // nothing left (30 + 31 s)
    EXPECT_FALSE(fs::exists(out));
    EXPECT_EQ(capture.countContaining("SVMovieWriter: Export Trim Video Failed, due to error: "),
              1u);

    EXPECT_FALSE(trim(*dir + "/missing.mp4", 1, 1, out));
    std::ofstream(*dir + "/text.mp4") << "not a movie at all";
    EXPECT_FALSE(trim(*dir + "/text.mp4", 1, 1, out));
    EXPECT_FALSE(trim(*source, std::nan(""), 1, out));
    EXPECT_EQ(capture.countContaining("SVMovieWriter: Export Trim Video Failed, due to error: "),
              4u);
}

#ifdef SV_SORVEL_PATH
struct CommandResult {
    int status = -1;
    std::string output;
};

CommandResult runSorvel(const std::string& args) {
    CommandResult r;
    std::string cmd = std::string(SV_SORVEL_PATH) + " trim " + args + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[512];
    while (size_t n = fread(buf, 1, sizeof buf, p)) r.output.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

TEST_F(TrimTest, CommandLineTool) {
    const std::string out = *dir + "/cli.mp4";
    auto ok = runSorvel(*source + " --start 2.4 --end 3.6 -o " + out);
    EXPECT_EQ(ok.status, 0) << ok.output;
    EXPECT_NE(ok.output.find(out), std::string::npos);
    EXPECT_NEAR(probeMovie(out).duration, 54.0, 0.1);

    auto missing = runSorvel(*dir + "/nope.mp4 --start 1 --end 1 -o " + out);
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("No such file or directory"), std::string::npos);
    std::ofstream(*dir + "/notes.txt") << "hello";
    auto text = runSorvel(*dir + "/notes.txt --start 1 --end 1 -o " + out);
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.output.find("is not a movie"), std::string::npos);
    auto nothing = runSorvel(*source + " --start 30 --end 30.5 -o " + out);
    EXPECT_EQ(nothing.status, 1);
    EXPECT_NE(nothing.output.find("leaves nothing"), std::string::npos);
    EXPECT_EQ(runSorvel(*source + " --start -1 --end 1 -o " + out).status, 2);
    EXPECT_EQ(runSorvel(*source + " --start 1 --end 1 -o " + *source).status, 1);
    EXPECT_TRUE(fs::exists(*source));
}
#endif

}  // namespace
}  // namespace sv
