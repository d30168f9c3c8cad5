#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "platform/dispatch.h"
#include "platform/media/media_settings.h"
#include "platform/media/movie_exporter.h"
#include "tests/media/media_test_util.h"

namespace sv::media {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;
using Status = MovieExporter::Status;

class MovieExporterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/sv-export-test-XXXXXX";
        dir = mkdtemp(tmpl);
    }
    void TearDown() override {
        if (!getenv("SV_KEEP")) fs::remove_all(dir);
    }

    // 3 s of 64x64 video at 30 fps with a key frame every 30 frames.
    std::string writeSource() {
        const std::string path = dir + "/src.mp4";
        auto writer = MovieFileWriter::create(URL::fileURLWithPath(path), FileType::MPEG4);
        auto video = MovieWriterInput::create(
            MediaType::Video,
            Value{{kVideoCodecKey, kVideoCodecH264},
                  {kVideoWidthKey, 64},
                  {kVideoHeightKey, 64},
                  {kVideoCompressionPropertiesKey,
                   {{kVideoMaxKeyFrameIntervalKey, 30}, {kVideoExpectedSourceFrameRateKey, 30}}}});
        video->setTransform(AffineTransform::scale(-1, 1));
        writer->addInput(video);
        writer->setMetadata({std::make_shared<MovieMetadataItem>(MovieMetadataItem{
            kMetadataKeyContentIdentifier, "com.example.x", kMetadataKeySpaceMovie})});
        writer->startWriting();
        writer->startSessionAtSourceTime(MediaTime::make(0, 30));
        SurfacePool pool(64, 64);
        for (int i = 0; i < 90; ++i) {
            for (int k = 0; k < 10000 && !video->isReadyForMoreMediaData(); ++k) usleep(500);
            video->appendSampleBuffer(makeFrame(pool, i, MediaTime::make(i, 30)));
        }
        Semaphore done;
        writer->finishWriting([&] { done.signal(); });
        done.wait();
        return path;
    }

    Status run(const std::shared_ptr<MovieExporter>& e) {
        Semaphore done;
        std::atomic<int> calls{0};
        e->exportAsynchronously([&] {
            ++calls;
            done.signal();
        });
        done.wait();
        usleep(10000);
        EXPECT_EQ(calls.load(), 1);
        return e->status();
    }
    std::string dir;
};

TEST_F(MovieExporterTest, ExactStartBetweenKeyFramesKeepsTransformAndTags) {
    auto src = writeSource();
    auto asset = MovieAsset::assetWithURL(URL::fileURLWithPath(src));
    ASSERT_TRUE(asset->isReadable());
    EXPECT_NEAR(asset->duration().seconds(), 3.0, 0.05);
    EXPECT_FALSE(MovieExporter::create(asset, "SVMovieExportPresetHighest"));
    auto e = MovieExporter::create(asset, MovieExporter::kPresetPassthrough);
    EXPECT_EQ(e->status(), Status::Unknown);
    const std::string out = dir + "/cut.mp4";
    e->setOutputURL(URL::fileURLWithPath(out));
    e->setTimeRange(MediaTime::make(40, 30), MediaTime::make(30, 30));  // frames 40..69
    EXPECT_EQ(run(e), Status::Completed);

    // Exact at both ends: the start lies between key frames (0 and 30), and
    // the end between a reference frame and the reordered frames using it.
    auto video = decodeVideo(out);
    ASSERT_EQ(video.indices.size(), 30u);
    EXPECT_NEAR(video.times.front(), 0.0, 1e-3);
    for (size_t i = 0; i < video.indices.size(); ++i) EXPECT_EQ(video.indices[i], int(40 + i));
    MovieInfo info = probeMovie(out);
    EXPECT_NEAR(info.duration, 1.0, 0.002);
    ASSERT_TRUE(info.streams[0].displayMatrix);
    EXPECT_EQ((*info.streams[0].displayMatrix)[0], -65536);
    EXPECT_EQ(info.tags["org.sorvel.content-identifier"], "com.example.x");
}

TEST_F(MovieExporterTest, FailureAndCancellation) {
    auto missing = MovieAsset::assetWithURL(URL::fileURLWithPath(dir + "/none.mp4"));
    EXPECT_FALSE(missing->isReadable());
    EXPECT_FALSE(missing->duration().isValid());
    auto e = MovieExporter::create(missing, MovieExporter::kPresetPassthrough);
    e->setOutputURL(URL::fileURLWithPath(dir + "/o.mp4"));
    EXPECT_EQ(run(e), Status::Failed);
    ASSERT_TRUE(e->error());
    EXPECT_EQ(e->error()->code, AVERROR(ENOENT));

    auto src = MovieAsset::assetWithURL(URL::fileURLWithPath(writeSource()));
    auto empty = MovieExporter::create(src, MovieExporter::kPresetPassthrough);
    empty->setOutputURL(URL::fileURLWithPath(dir + "/o.mp4"));
    empty->setTimeRange(MediaTime::make(2, 1), MediaTime::make(-1, 1));
    EXPECT_EQ(run(empty), Status::Failed);
    EXPECT_FALSE(fs::exists(dir + "/o.mp4"));

    auto cancelled = MovieExporter::create(src, MovieExporter::kPresetPassthrough);
    cancelled->setOutputURL(URL::fileURLWithPath(dir + "/o.mp4"));
    cancelled->cancelExport();
    EXPECT_EQ(run(cancelled), Status::Cancelled);
    EXPECT_FALSE(fs::exists(dir + "/o.mp4"));
}

}  // namespace
}  // namespace sv::media
