#include <gtest/gtest.h>

#include <filesystem>

#include "platform/media/movie_exporter.h"
#include "tests/media/media_test_util.h"

namespace sv::media {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;
using Status = MovieExporter::Status;

class MovieExporterTest : public ::testing::Test {
  protected:
    // 3 s of 64x64 video at 30 fps with a key frame every 30 frames. (The
    // transform and tags that go with a cut are the trim tests' question: a
    // trim is this export.)
    static void SetUpTestSuite() {
        dir = new TempDir;
        VideoWriter w(*dir / "src.mp4", 64, 64,
                      {{kVideoMaxKeyFrameIntervalKey, 30}, {kVideoExpectedSourceFrameRateKey, 30}});
        w.start(0);
        SurfacePool pool(64, 64);
        for (int i = 0; i < 90; ++i) w.append(*w.video, makeFrame(pool, i, MediaTime::make(i, 30)));
        w.finish();
    }
    static void TearDownTestSuite() { delete dir; }

    // An exporter of `src` to out.mp4; run() waits for its single completion.
    static std::shared_ptr<MovieExporter> exporter(const std::string& src) {
        auto e = MovieExporter::create(MovieAsset::assetWithURL(URL::fileURLWithPath(*dir / src)),
                                       MovieExporter::kPresetPassthrough);
        e->setOutputURL(URL::fileURLWithPath(*dir / "out.mp4"));
        return e;
    }
    static Status run(const std::shared_ptr<MovieExporter>& e) {
        awaitOnce<>([&](std::function<void()> done) { e->exportAsynchronously(done); });
        return e->status();
    }
    static TempDir* dir;
};
TempDir* MovieExporterTest::dir = nullptr;

TEST_F(MovieExporterTest, ExactCutBetweenKeyFramesAndAmidReorderedFrames) {
    auto e = exporter("src.mp4");
    e->setTimeRange(MediaTime::make(40, 30), MediaTime::make(30, 30));  // frames 40..69
    EXPECT_EQ(run(e), Status::Completed);
    // Exact at both ends: the start lies between key frames (0 and 30), and
    // the end between a reference frame and the reordered frames using it.
    auto video = decodeVideo(*dir / "out.mp4");
    ASSERT_EQ(video.indices.size(), 30u);
    EXPECT_NEAR(video.times.front(), 0.0, 1e-3);
    for (size_t i = 0; i < video.indices.size(); ++i) EXPECT_EQ(video.indices[i], int(40 + i));
    EXPECT_NEAR(probeMovie(*dir / "out.mp4").duration, 1.0, 0.002);
}

TEST_F(MovieExporterTest, FailureAndCancellation) {
    fs::remove(*dir / "out.mp4");
    auto asset = MovieAsset::assetWithURL(URL::fileURLWithPath(*dir / "src.mp4"));
    ASSERT_TRUE(asset->isReadable());
    EXPECT_NEAR(asset->duration().seconds(), 3.0, 0.05);
    EXPECT_FALSE(MovieExporter::create(asset, "SVMovieExportPresetHighest"));
    EXPECT_EQ(exporter("src.mp4")->status(), Status::Unknown);
    auto missing = MovieAsset::assetWithURL(URL::fileURLWithPath(*dir / "none.mp4"));
    EXPECT_FALSE(missing->isReadable());
    EXPECT_FALSE(missing->duration().isValid());
    auto e = exporter("none.mp4");
    EXPECT_EQ(run(e), Status::Failed);
    ASSERT_TRUE(e->error());
    EXPECT_EQ(e->error()->code, AVERROR(ENOENT));

    auto empty = exporter("src.mp4");
    empty->setTimeRange(MediaTime::make(2, 1), MediaTime::make(-1, 1));
    EXPECT_EQ(run(empty), Status::Failed);
    auto cancelled = exporter("src.mp4");
    cancelled->cancelExport();
    EXPECT_EQ(run(cancelled), Status::Cancelled);
    EXPECT_FALSE(fs::exists(*dir / "out.mp4"));
}

}  // namespace
}  // namespace sv::media
