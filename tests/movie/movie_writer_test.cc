#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/log.h"
#include "support/movie_store.h"
#include "tests/movie/movie_test_util.h"
#include "tests/process/process_helpers.h"

namespace sv {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;

class MovieWriterTest : public ::testing::Test {
  protected:
    void SetUp() override { MovieStore::shared().setHomeDirectory(dir.path()); }

    std::string path(const char* name) { return dir / name; }
    std::shared_ptr<SVMovieWriter> small(const char* name) {
        return SVMovieWriter::initWithWindowSize({64, 64}, path(name), nullptr);
    }

    TempDir dir;
    SurfacePool pool{64, 64};
};

TEST_F(MovieWriterTest, WritesThreeTracksWithMetadataTransformAndSync) {
    auto url = writeStampedMovie(path("a.mp4"), steadyFrames(15, kSecond / 30),
                                 {.width = 752,
                                  .height = 1334,
                                  .window = WindowSize{751, 1333},
                                  .picture = StampedMovieOptions::Picture::Indexed,
                                  .audioLead = 0.3,  // audio before the first frame is cut
                                  .transform = AffineTransform::rotation(float(M_PI / 2)),
                                  .frameInterval = kSecond / 30,
                                  .info = std::make_shared<SVStoreInfo>(
                                      SVStoreInfo{.bundleID = "com.example.game",
                                                  .appName = "Example Game",
                                                  .author = "Example Studio",
                                                  .itemURL = "https://store.example.com/app/1",
                                                  .categories = {{"A", "B"}}})});
    ASSERT_TRUE(url);
    EXPECT_EQ(url->path, path("a.mp4"));
    auto info = probeMovie(url->path);
    ASSERT_EQ(info.tracks.size(), 3u);
    const auto& v = info.tracks[0];
    EXPECT_EQ(std::tuple(v.codec, v.profile, v.width, v.height),
              std::tuple("h264", "Main", 752, 1334));
    // The first frame's transform (a quarter turn), not the later ones.
    ASSERT_TRUE(info.tracks[0].displayMatrix);
    const auto& m = *info.tracks[0].displayMatrix;
    EXPECT_EQ(std::vector<int32_t>(m.begin(), m.begin() + 5),
              (std::vector<int32_t>{0, 65536, 0, -65536, 0}));
    // All tracks run from the first frame (where the fragmented movie's
    // timeline starts, a few frames past zero): audio from before it was
    // cut.
    const double start = info.tracks[0].startTime;
    for (int i : {1, 2}) {
        const auto& a = info.tracks[i];
        EXPECT_EQ(std::tuple(a.codec, a.profile, a.sampleRate, a.channels),
                  std::tuple("aac", "LC", 44100, 2));
        EXPECT_LE(info.tracks[i].startTime, start + 1e-3);
        EXPECT_NEAR(info.tracks[i].startTime + info.tracks[i].duration - start, 0.5, 0.05);
    }
    EXPECT_NEAR(info.duration - start, 0.5, 0.05);
    for (const auto& [tag, value] :
         std::map<std::string, std::string>{{"title", "Example Game"},
                                            {"artist", "Example Studio"},
                                            {"encoder", "Sorvel"},
                                            {"description", "https://store.example.com/app/1"},
                                            {"genre", "A,B"},
                                            {"org.sorvel.content-identifier", "com.example.game"}})
        EXPECT_EQ(info.tags[tag], value) << tag;
    auto decoded = decodeVideo(url->path);
    ASSERT_EQ(decoded.indices.size(), 15u);
    for (size_t i = 0; i < decoded.indices.size(); ++i) EXPECT_EQ(decoded.indices[i], int(i));
}

TEST_F(MovieWriterTest, BitRateSizeAndCustomProperties) {
    auto expectCompression = [](const std::shared_ptr<SVMovieWriter>& w, int64_t bitRate) {
        const Value& c = w->videoInput()->outputSettings()[media::kVideoCompressionPropertiesKey];
        EXPECT_EQ(c[media::kVideoAverageBitRateKey], bitRate);
        EXPECT_EQ(c[media::kVideoExpectedSourceFrameRateKey], 60);
        EXPECT_EQ(c[media::kVideoMaxKeyFrameIntervalKey], 120);
        EXPECT_EQ(c[media::kVideoProfileLevelKey], media::kH264MainAutoLevel);
    };
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
        expectCompression(w, c.bitRate);
    }

    // Custom properties win key by key; the others keep their defaults.
    log::Capture capture;
    auto config = std::make_shared<SVBroadcastConfiguration>();
    config->setVideoCompressionProperties(Value{{media::kVideoAverageBitRateKey, 1234567}});
    auto w = SVMovieWriter::initWithWindowSize({1600, 900}, path("s.mp4"), nullptr);
    w->setBroadcastConfig(config);
    w->setupFileWriter();
    EXPECT_TRUE(capture.contains("using custom video compression properties"));
    expectCompression(w, 1234567);
    EXPECT_EQ(w->audioInput1()->outputSettings()[media::kAudioEncoderBitRateKey], 128000);
}

TEST_F(MovieWriterTest, OrderingRuleByValueAlone) {
    log::Capture capture;
    // No file writer: samples still pass the ordering check and are recorded.
    auto w = small("o.mp4");
    w->appendVideoSampleBuffer(makeFrame(pool, 0, MediaTime::make(100, 1000)), {});
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
    for (int64_t t : {50, 50})
        w->appendAudio1SampleBuffer(makeTone(tap, 0, 1024, MediaTime::make(t, 1)));
    for (int64_t t : {40, 39})
        w->appendAudio2SampleBuffer(makeTone(tap, 0, 1024, MediaTime::make(t, 1)));
    for (const char* n : {"1", "2"})
        EXPECT_EQ(capture.count(std::string("discarding audio ") + n +
                                " sample buffer due to timestamp earlier than previous"),
                  1u);
    EXPECT_EQ(w->lastAudio1PresentationTime(), MediaTime::make(50, 1));
    EXPECT_EQ(w->fileWriterStatus(), 0);  // audio never starts the file
}

TEST_F(MovieWriterTest, InvalidFirstTimeStartsWritingWithoutSession) {
    auto w = small("i.mp4");
    w->setupFileWriter();
    w->appendVideoSampleBuffer(makeFrame(pool, 0, MediaTime::invalid()), {});
    EXPECT_EQ(w->fileWriterStatus(), 1);
    EXPECT_FALSE(w->lastVideoPresentationTime().isValid());
    // Without a session the frame is dropped, never written.
    EXPECT_TRUE(test::eventually([&] { return w->videoInput()->droppedSampleCount() == 1; }));
    w->fileWriter()->cancelWriting();
    EXPECT_EQ(w->fileWriterStatus(), 4);
    EXPECT_FALSE(fs::exists(path("i.mp4")));
}

TEST_F(MovieWriterTest, FinishWithoutVideoAndWithoutFileWriter) {
    log::Capture capture;
    auto w = small("n.mp4");
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
    auto bad = small("missing/x.mp4");
    bad->setupFileWriter();
    EXPECT_FALSE(bad->fileWriter());
    EXPECT_TRUE(capture.contains("SVMovieWriter: setupFileWriter error: -2", log::Level::Error));
    bad->appendVideoSampleBuffer(makeFrame(pool, 0, hostTime(1)), {});
    EXPECT_EQ(bad->fileWriterStatus(), 0);
    EXPECT_FALSE(finishWriter(bad));
}

TEST_F(MovieWriterTest, StartWritingRemovesTheOldFile) {
    std::ofstream(path("old.mp4")) << "stale";
    log::Capture capture;
    auto w = small("old.mp4");
    startWriter(w);
    EXPECT_FALSE(fs::exists(path("old.mp4")));
    EXPECT_TRUE(w->fileWriter());
    EXPECT_TRUE(w->audioInput2());
    auto lines = capture.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "SVMovieWriter: startWritingHandler");
    EXPECT_TRUE(capture.contains("SVMovieWriter: setupFileWriter"));
    // Set up on the store's low-priority queue, yet encoding runs at the
    // process's own priority: the nice value (field 19 of /proc stat) of
    // every encoder thread is the main thread's.
    auto niceOf = [](const fs::path& stat) {
        std::string line, field;
        std::getline(std::ifstream(stat), line);
        std::istringstream rest(line.substr(line.rfind(')') + 2));  // fields from the 3rd
        for (int i = 3; i <= 19; ++i) rest >> field;
        return field;
    };
    const std::string own = niceOf("/proc/self/stat");
    // The worker names itself once it runs: wait for it.
    std::vector<fs::path> encoders;
    EXPECT_TRUE(test::eventually(
        [&] {
            encoders.clear();
            for (const auto& task : fs::directory_iterator("/proc/self/task")) {
                std::string name;
                std::getline(std::ifstream(task.path() / "comm"), name);
                if (name == "sv-mw-video") encoders.push_back(task.path());
            }
            return !encoders.empty();
        },
        std::chrono::seconds(30)));
    for (const auto& task : encoders) EXPECT_EQ(niceOf(task / "stat"), own);
}

// The round trip of whatever a peer sends is the fuzz target's question;
// here, what a record that says nothing usable turns into, and one round trip.
TEST(BroadcastConfiguration, ForeignDataGivesDefaults) {
    const Bytes cases[] = {
        {},                                         // absent
        {0xff, 0x00, 0x13},                         // not CBOR
        encodeCbor(Value::array({1, 2})),           // not a map
        encodeCbor(Value{{"other", 1}}),            // no known entry
        encodeCbor(Value{{"clipDuration", "five"},  // wrong types
                         {"videoCompressionProperties", Value::array({1})}}),
    };
    for (const auto& data : cases) {
        auto c = SVBroadcastConfiguration::decodeFromData(data);
        ASSERT_TRUE(c);
        EXPECT_EQ(c->clipDuration(), 0.0);
        EXPECT_FALSE(c->videoCompressionProperties());
    }
    auto partial = SVBroadcastConfiguration::decodeFromData(
        encodeCbor(Value{{"videoCompressionProperties", {{"k", 1}}}, {"x", true}}));
    EXPECT_EQ(partial->clipDuration(), 0.0);
    EXPECT_TRUE(partial->videoCompressionProperties());
    // What is kept goes back to the peer as it came.
    partial->setClipDuration(-2.5);
    auto back = SVBroadcastConfiguration::decodeFromData(partial->encodedData());
    EXPECT_EQ(back->clipDuration(), -2.5);
    EXPECT_EQ(*back->videoCompressionProperties(), (Value{{"k", 1}}));
}

// One 60 s recording (64x64 at 10 fps, both audio tracks, mirrored and
// tagged) shared by the cases.
class TrimTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = new TempDir;
        source = *dir / "source.mp4";
        ASSERT_TRUE(writeStampedMovie(
            source, steadyFrames(600, kSecond / 10),
            {.width = 64,
             .height = 64,
             .picture = StampedMovieOptions::Picture::Indexed,
             .transform = AffineTransform::scale(-1, 1),
             .frameInterval = kSecond / 10,
             .info = std::make_shared<SVStoreInfo>(SVStoreInfo{.bundleID = "com.example.x"})}));
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
        auto [status, text, err] = runSorvel("trim " + c.args);
        EXPECT_EQ(status, c.status) << c.args << "\n" << err;
        EXPECT_NE((text + err).find(c.output), std::string::npos) << c.args << "\n" << err;
        if (c.status == 0) {
            EXPECT_NEAR(probeMovie(out).duration, 54.0, 0.1);
        }
    }
    EXPECT_TRUE(fs::exists(source));
}
#endif

}  // namespace
}  // namespace sv
