#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "movie/movie_writer.h"
#include "platform/log.h"
#include "platform/media/media_settings.h"
#include "support/movie_store.h"
#include "tests/movie/movie_test_util.h"

namespace sv {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;

class MovieWriterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = makeTempDir();
        MovieStore::shared().setHomeDirectory(dir);
    }
    void TearDown() override {
        if (!getenv("SV_KEEP")) fs::remove_all(dir);
    }

    std::shared_ptr<SVStoreInfo> storeInfo() {
        auto info = std::make_shared<SVStoreInfo>();
        info->bundleID = "com.example.game";
        info->appName = "Example Game";
        info->author = "Example Studio";
        info->itemURL = "https://store.example.com/app/1";
        info->categories = std::vector<std::string>{"A", "B"};
        return info;
    }
    std::string path(const char* name) { return dir + "/" + name; }

    std::string dir;
};

const Value& compressionOf(const std::shared_ptr<SVMovieWriter>& w) {
    return w->videoInput()->outputSettings()[media::kVideoCompressionPropertiesKey];
}

TEST_F(MovieWriterTest, WritesThreeTracksWithMetadataTransformAndSync) {
    auto writer = SVMovieWriter::initWithWindowSize({751, 1333}, path("a.mp4"), storeInfo());
    startWriter(writer);
    ASSERT_TRUE(writer->fileWriter());
    EXPECT_EQ(writer->fileWriterStatus(), 0);

    SurfacePool pool(751, 1333);
    FeedOptions o;
    o.seconds = 0.5;
    o.audioLead = 0.3;  // audio before the first frame is cut
    o.firstTransform = AffineTransform::rotation(float(M_PI / 2));
    feed(writer, pool, o);
    auto url = finishWriter(writer);
    ASSERT_TRUE(url);
    EXPECT_EQ(url->path, path("a.mp4"));
    EXPECT_EQ(writer->fileWriterStatus(), 2);

    MovieInfo info = probeMovie(url->path);
    ASSERT_TRUE(info.ok);
    ASSERT_EQ(info.streams.size(), 3u);
    EXPECT_EQ(info.streams[0].codec, AV_CODEC_ID_H264);
    EXPECT_EQ(info.streams[0].profile, FF_PROFILE_H264_MAIN);
    EXPECT_EQ(info.streams[0].width, 752);
    EXPECT_EQ(info.streams[0].height, 1334);
    for (int i : {1, 2}) {
        EXPECT_EQ(info.streams[i].codec, AV_CODEC_ID_AAC);
        EXPECT_EQ(info.streams[i].profile, FF_PROFILE_AAC_LOW);
        EXPECT_EQ(info.streams[i].sampleRate, 44100);
        EXPECT_EQ(info.streams[i].channels, 2);
    }
    // The first frame's transform (a quarter turn), not the later ones.
    ASSERT_TRUE(info.streams[0].displayMatrix);
    const auto& m = *info.streams[0].displayMatrix;
    EXPECT_EQ(m[0], 0);
    EXPECT_EQ(m[1], 65536);
    EXPECT_EQ(m[3], -65536);
    EXPECT_EQ(m[4], 0);
    // All tracks start together: audio from before the first frame was cut.
    for (int i : {1, 2}) {
        EXPECT_NEAR(info.streams[i].startTime, info.streams[0].startTime, 1.0 / 30);
        EXPECT_NEAR(info.streams[i].duration, 0.5, 0.05);
    }
    EXPECT_NEAR(info.duration, 0.5, 0.05);

    EXPECT_EQ(info.tags["title"], "Example Game");
    EXPECT_EQ(info.tags["artist"], "Example Studio");
    EXPECT_EQ(info.tags["encoder"], "Sorvel");
    EXPECT_EQ(info.tags["description"], "https://store.example.com/app/1");
    EXPECT_EQ(info.tags["genre"], "A,B");
    EXPECT_EQ(info.tags["org.sorvel.content-identifier"], "com.example.game");

    auto decoded = decodeVideo(url->path);
    ASSERT_EQ(decoded.indices.size(), 15u);
    for (size_t i = 0; i < decoded.indices.size(); ++i) EXPECT_EQ(decoded.indices[i], int(i));
}

TEST_F(MovieWriterTest, MovieWithoutStoreInfoHasNoMetadata) {
    auto writer = SVMovieWriter::initWithWindowSize({64, 64}, path("b.mp4"), nullptr);
    EXPECT_FALSE(writer->assetMetadata());
    startWriter(writer);
    SurfacePool pool(64, 64);
    FeedOptions o;
    o.seconds = 0.2;
    feed(writer, pool, o);
    auto url = finishWriter(writer);
    ASSERT_TRUE(url);
    MovieInfo info = probeMovie(url->path);
    ASSERT_TRUE(info.ok);
    EXPECT_EQ(info.streams.size(), 3u);
    EXPECT_FALSE(info.tags.count("title"));
    EXPECT_FALSE(info.tags.count("genre"));
    EXPECT_FALSE(info.tags.count("org.sorvel.content-identifier"));
}

TEST_F(MovieWriterTest, TracksWithoutAudioStillExistInOrder) {
    auto writer = SVMovieWriter::initWithWindowSize({64, 64}, path("c.mp4"), nullptr);
    startWriter(writer);
    SurfacePool pool(64, 64);
    FeedOptions o;
    o.seconds = 0.2;
    o.audio = false;
    feed(writer, pool, o);
    auto url = finishWriter(writer);
    MovieInfo info = probeMovie(url->path);
    ASSERT_EQ(info.streams.size(), 3u);
    EXPECT_EQ(info.streams[0].type, AVMEDIA_TYPE_VIDEO);
    EXPECT_EQ(info.streams[1].type, AVMEDIA_TYPE_AUDIO);
    EXPECT_EQ(info.streams[2].type, AVMEDIA_TYPE_AUDIO);
}

TEST_F(MovieWriterTest, MetadataItems) {
    auto info = storeInfo();
    auto writer = SVMovieWriter::initWithWindowSize({64, 64}, path("m.mp4"), info);
    auto items = writer->assetMetadata();
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 6u);
    const char* keys[] = {media::kMetadataKeyTitle,
                          media::kMetadataKeyArtist,
                          media::kMetadataKeyContentIdentifier,
                          media::kMetadataKeyEncodedBy,
                          media::kMetadataKeyDescription,
                          media::kMetadataKeyGenre};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ((*items)[i]->key, keys[i]);
        EXPECT_EQ((*items)[i]->keySpace, media::kMetadataKeySpaceMovie);
    }
    EXPECT_EQ((*items)[3]->value, "Sorvel");
    EXPECT_EQ((*items)[5]->value, "A,B");
    info->categories.reset();
    info->appName.reset();
    items = writer->assetMetadata();
    EXPECT_FALSE((*items)[5]->value);  // a genre item without a value
    EXPECT_FALSE((*items)[0]->value);
}

TEST_F(MovieWriterTest, BitRateSizeAndCustomProperties) {
    struct Case {
        WindowSize size;
        int64_t bitRate;
        float width, height;
    } cases[] = {{{1600, 900}, 5000000, 1600, 900}, {{1599.9f, 900}, 3000000, 1600, 900},
                 {{900, 1600}, 5000000, 900, 1600}, {{751, 1333}, 3000000, 752, 1334},
                 {{750, 1334}, 3000000, 750, 1334}, {{751.9f, 10}, 3000000, 752, 10}};
    for (const auto& c : cases) {
        auto w = SVMovieWriter::initWithWindowSize(c.size, path("s.mp4"), nullptr);
        w->setupFileWriter();
        ASSERT_TRUE(w->videoInput());
        const Value& s = w->videoInput()->outputSettings();
        EXPECT_EQ(s[media::kVideoWidthKey].get<float>(), c.width);
        EXPECT_EQ(s[media::kVideoHeightKey].get<float>(), c.height);
        EXPECT_EQ(w->videoInput()->width(), int(c.width));
        EXPECT_EQ(compressionOf(w)[media::kVideoAverageBitRateKey], c.bitRate);
        EXPECT_EQ(compressionOf(w)[media::kVideoExpectedSourceFrameRateKey], 60);
        EXPECT_EQ(compressionOf(w)[media::kVideoMaxKeyFrameIntervalKey], 120);
        EXPECT_EQ(compressionOf(w)[media::kVideoProfileLevelKey], media::kH264MainAutoLevel);
    }

    // Custom properties win key by key; the others keep their defaults.
    log::Capture capture;
    auto config = std::make_shared<SVBroadcastConfiguration>();
    config->setVideoCompressionProperties(Value{{media::kVideoAverageBitRateKey, 1234567}});
    auto w = SVMovieWriter::initWithWindowSize({1600, 900}, path("s.mp4"), nullptr);
    w->setBroadcastConfig(config);
    w->setupFileWriter();
    EXPECT_TRUE(capture.contains("using custom video compression properties"));
    EXPECT_EQ(compressionOf(w)[media::kVideoAverageBitRateKey], 1234567);
    EXPECT_EQ(compressionOf(w)[media::kVideoExpectedSourceFrameRateKey], 60);
    EXPECT_EQ(compressionOf(w)[media::kVideoMaxKeyFrameIntervalKey], 120);
    EXPECT_EQ(compressionOf(w)[media::kVideoProfileLevelKey], media::kH264MainAutoLevel);
    EXPECT_EQ(w->audioInput1()->outputSettings()[media::kAudioEncoderBitRateKey], 128000);
}

TEST_F(MovieWriterTest, OrderingRuleByValueAlone) {
    log::Capture capture;
    // No file writer: samples still pass the ordering check and are recorded.
    auto w = SVMovieWriter::initWithWindowSize({64, 64}, path("o.mp4"), nullptr);
    SurfacePool pool(64, 64);
    w->appendVideoSampleBuffer(makeFrame(pool, 0, MediaTime::make(100, 1000)), {});
    EXPECT_EQ(w->lastVideoPresentationTime(), MediaTime::make(100, 1000));
    w->appendVideoSampleBuffer(makeFrame(pool, 1, MediaTime::make(100, 1000)), {});
    // 99 s is later than 0.1 s, but the values decide.
    w->appendVideoSampleBuffer(makeFrame(pool, 2, MediaTime::make(99, 1)), {});
    EXPECT_EQ(
        capture.count("discarding video sample buffer due to timestamp earlier than previous"), 2u);
    EXPECT_EQ(w->lastVideoPresentationTime(), MediaTime::make(100, 1000));
    EXPECT_EQ(capture.count("SVMovieWriter: status is unknown, setup the writer with source time "
                            "and transform"),
              1u);

    // Audio before the first video sample is dropped, but its time counts.
    w->setupFileWriter();
    EXPECT_FALSE(w->lastVideoPresentationTime().isValid());
    auto tap = AudioStreamFormat::pcm16(44100, 1, true);
    w->appendAudio1SampleBuffer(makeTone(tap, 0, 1024, MediaTime::make(50, 1)));
    w->appendAudio1SampleBuffer(makeTone(tap, 0, 1024, MediaTime::make(50, 1)));
    w->appendAudio2SampleBuffer(makeTone(tap, 0, 1024, MediaTime::make(40, 1)));
    w->appendAudio2SampleBuffer(makeTone(tap, 0, 1024, MediaTime::make(39, 1)));
    EXPECT_EQ(
        capture.count("discarding audio 1 sample buffer due to timestamp earlier than previous"),
        1u);
    EXPECT_EQ(
        capture.count("discarding audio 2 sample buffer due to timestamp earlier than previous"),
        1u);
    EXPECT_EQ(w->lastAudio1PresentationTime(), MediaTime::make(50, 1));
    EXPECT_EQ(w->fileWriterStatus(), 0);  // audio never starts the file
}

TEST_F(MovieWriterTest, InvalidFirstTimeStartsWritingWithoutSession) {
    auto w = SVMovieWriter::initWithWindowSize({64, 64}, path("i.mp4"), nullptr);
    w->setupFileWriter();
    SurfacePool pool(64, 64);
    w->appendVideoSampleBuffer(makeFrame(pool, 0, MediaTime::invalid()), {});
    EXPECT_EQ(w->fileWriterStatus(), 1);
    EXPECT_FALSE(w->lastVideoPresentationTime().isValid());
    w->fileWriter()->cancelWriting();
    EXPECT_EQ(w->fileWriterStatus(), 4);
    EXPECT_FALSE(fs::exists(path("i.mp4")));
}

TEST_F(MovieWriterTest, FinishWithoutVideoAndWithoutFileWriter) {
    log::Capture capture;
    auto w = SVMovieWriter::initWithWindowSize({64, 64}, path("n.mp4"), nullptr);
    w->setupFileWriter();
    auto url = finishWriter(w);
    ASSERT_TRUE(url);
    EXPECT_EQ(url->path, path("n.mp4"));
    EXPECT_FALSE(fs::exists(path("n.mp4")));
    EXPECT_TRUE(capture.contains("SVMovieWriter: finishWritingWithHandler: status = 0"));
    EXPECT_TRUE(
        capture.contains("not writing, returning video url set on file writer (most likely null)"));
    EXPECT_TRUE(capture.contains("file writer error = 0", log::Level::Error));

    // The directory does not exist: no file writer, every operation a no-op.
    capture.clear();
    auto bad = SVMovieWriter::initWithWindowSize({64, 64}, dir + "/missing/x.mp4", nullptr);
    bad->setupFileWriter();
    EXPECT_FALSE(bad->fileWriter());
    EXPECT_TRUE(capture.contains("SVMovieWriter: setupFileWriter error: -2", log::Level::Error));
    SurfacePool pool(64, 64);
    bad->appendVideoSampleBuffer(makeFrame(pool, 0, hostTime(1)), {});
    EXPECT_EQ(bad->fileWriterStatus(), 0);
    EXPECT_FALSE(finishWriter(bad));
}

// Nice values of this process's threads named `name`.
std::vector<int> threadNiceValues(const std::string& name) {
    std::vector<int> values;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string n;
        std::getline(comm, n);
        if (n != name) continue;
        std::ifstream stat(task.path() / "stat");
        std::string line;
        std::getline(stat, line);
        // Fields after the parenthesised name; nice is field 19.
        std::istringstream rest(line.substr(line.rfind(')') + 2));
        std::string field;
        for (int i = 3; i <= 19 && rest >> field; ++i)
            if (i == 19) values.push_back(std::stoi(field));
    }
    return values;
}

TEST_F(MovieWriterTest, StartWritingRemovesTheOldFile) {
    std::ofstream(path("old.mp4")) << "stale";
    log::Capture capture;
    auto w = SVMovieWriter::initWithWindowSize({64, 64}, path("old.mp4"), nullptr);
    startWriter(w);
    EXPECT_FALSE(fs::exists(path("old.mp4")));
    EXPECT_TRUE(w->fileWriter());
    EXPECT_TRUE(w->audioInput2());
    auto lines = capture.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "SVMovieWriter: startWritingHandler");
    EXPECT_TRUE(capture.contains("SVMovieWriter: setupFileWriter"));
    // Set up on the store's low-priority queue, yet encoding runs at normal
    // priority.
    auto nice = threadNiceValues("sv-mw-video");
    ASSERT_FALSE(nice.empty());
    for (int n : nice) EXPECT_EQ(n, 0);
}

}  // namespace
}  // namespace sv
