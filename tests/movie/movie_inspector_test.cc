// The movie inspector on movies written by the movie writer from stamped
// frames with known faults, on the analysis functions directly (for what the
// writer's ordering rule cannot produce), on unstamped and broken files, and
// through `sorvel inspect` (which reads the clean movie).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include "movie/movie_inspector.h"
#include "support/movie_store.h"
#include "tests/movie/movie_test_util.h"

namespace sv {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;

constexpr double kT = 1.0 / 60;

// Movies shared by the tests of this file, written once.
class MovieInspectorTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new TempDir;
        MovieStore::shared().setHomeDirectory(dir_->path());
    }
    static void TearDownTestSuite() { delete dir_; }
    static std::string path(const std::string& name) { return *dir_ / name; }

    static const std::string& cleanMovie() {
        static const std::string p = [] {
            auto url = writeStampedMovie(path("clean.mp4"), steadyFrames(150));
            return url ? url->path : std::string();
        }();
        return p;
    }

    static TempDir* dir_;
};
TempDir* MovieInspectorTest::dir_ = nullptr;

// The report's counts as one comparable value: frames, stamped, unreadable,
// dropped, duplicates, out of order, late.
std::vector<int64_t> counts(const FrameStampReport& r) {
    return {r.frames, r.stamped, r.unreadable, r.dropped, r.duplicates, r.outOfOrder, r.late};
}

// The host seconds the matched clicks mark.
std::vector<uint64_t> seconds(const AudioSyncReport& a) {
    std::vector<uint64_t> out;
    for (const auto& m : a.matches) out.push_back(m.second);
    return out;
}

TEST_F(MovieInspectorTest, FindsDropsDuplicatesLateFramesPausesAndAudioOffsets) {
    auto script = steadyFrames(260);
    auto at = [&](uint64_t index) {
        return std::find_if(script.begin(), script.end(),
                            [&](const ScriptedFrame& f) { return f.stamp.frameIndex == index; });
    };
    // From frame 80 on the screen skipped one deadline.
    for (auto it = at(80); it != script.end(); ++it) {
        it->stamp.hostTime += kFrameInterval;
        it->time += kFrameInterval;
    }
    // Paused after frame 149 for 3.3 s; the session takes the gap out, so
    // frame 150 gets frame 149's time (the writer drops it) and the later
    // ones their own times.
    const int64_t gap = 3'300'000'000;
    const int64_t t149 = at(149)->time;
    for (auto it = at(150); it != script.end(); ++it) it->stamp.hostTime += uint64_t(gap);
    at(150)->time = t149;
    // Frame 99 again half a millisecond later: the first, shown for under a
    // millisecond, is left out, and nothing counts as shown twice.
    script.insert(at(100), ScriptedFrame{at(99)->stamp, at(99)->time + 500'000});
    // Frame 39 shown twice, frame 30 lost.
    script.insert(at(40), ScriptedFrame{at(39)->stamp, at(39)->time + kFrameInterval / 2});
    script.erase(at(30));

    StampedMovieOptions o;
    o.clickDelay[0] = 0.030;
    o.clickDelay[1] = -0.020;
    auto url = writeStampedMovie(path("faults.mp4"), script, o);
    ASSERT_TRUE(url);
    const auto in = inspect(url->path);
    ASSERT_TRUE(in.stamps);
    const auto& s = *in.stamps;
    // Movie times count from the movie's start, which the reordered frames
    // of a fragmented movie move past zero.
    const double start = in.movie.tracks[0].startTime;
    // 260, one lost, one twice, one dropped by the writer.
    EXPECT_EQ(counts(s), (std::vector<int64_t>{259, 259, 0, 1, 1, 0, 1}));
    ASSERT_EQ(s.drops.size(), 1u);
    EXPECT_EQ(s.drops[0].firstIndex, 30u);
    EXPECT_EQ(s.drops[0].count, 1u);
    EXPECT_NEAR(s.drops[0].time - start, 31 * kT, 1e-3);
    ASSERT_EQ(s.pauses.size(), 1u);
    EXPECT_NEAR(s.pauses[0].duration, 3.3, 1e-3);
    EXPECT_EQ(s.pauses[0].framesSkipped, 1u);
    EXPECT_NEAR(s.pauses[0].time - start, 152 * kT, 1e-3);

    // Seconds 101 and 102 before the pause, 106 and 107 after it; the late
    // track also has the click of second 100 (1.2 ms before the first
    // frame), 28.8 ms into the movie.
    ASSERT_EQ(in.audioSync.size(), 2u);
    const double expected[2] = {0.030, -0.020};
    const std::vector<uint64_t> expectedSeconds[2] = {{100, 101, 102, 106, 107},
                                                      {101, 102, 106, 107}};
    for (size_t i = 0; i < 2; ++i) {
        const auto& a = in.audioSync[i];
        EXPECT_EQ(a.matched, int64_t(expectedSeconds[i].size())) << a.track;
        EXPECT_EQ(a.clicks, a.matched) << a.track;
        EXPECT_NEAR(a.meanOffset, expected[i], 0.002) << a.track;
        EXPECT_NEAR(a.maxOffset, expected[i], 0.003) << a.track;
        EXPECT_EQ(seconds(a), expectedSeconds[i]) << a.track;
    }
}

TEST_F(MovieInspectorTest, RotatedScaledAndUnstampedMovies) {
    // A quarter turn in the display matrix, frames drawn above the size limit
    // and scaled as a capture backend does: every stamp still reads back.
    StampedMovieOptions rotated{.width = 1600,
                                .height = 1200,
                                .drawnSize = std::pair{2732, 2048},
                                .window = WindowSize{1600, 1199.41f},
                                .audio = false,
                                .transform = AffineTransform::rotation(float(M_PI / 2))};
    auto url = writeStampedMovie(path("rotated.mp4"), steadyFrames(20), rotated);
    ASSERT_TRUE(url);
    auto in = inspect(url->path);
    // Without audio or store information: still three tracks, in order, and no tags.
    std::vector<media::TrackKind> kinds;
    for (const auto& t : in.movie.tracks) kinds.push_back(t.kind);
    ASSERT_EQ(kinds, (std::vector{media::TrackKind::Video, media::TrackKind::Audio,
                                  media::TrackKind::Audio}));
    for (const char* tag : {"title", "genre", "org.sorvel.content-identifier"})
        EXPECT_FALSE(in.movie.tags.count(tag)) << tag;
    // Silence runs to the video's end on both audio tracks.
    auto end = [&](size_t i) { return in.movie.tracks[i].startTime + in.movie.tracks[i].duration; };
    for (size_t i : {1, 2}) EXPECT_NEAR(end(i), end(0), 1024.0 / 44100.0) << "audio track " << i;
    const auto& v = in.movie.tracks[0];
    ASSERT_TRUE(v.displayMatrix);
    EXPECT_EQ((*v.displayMatrix)[1], 1 << 16);
    EXPECT_EQ((*v.displayMatrix)[3], -(1 << 16));
    EXPECT_DOUBLE_EQ(v.rotation, -90);
    EXPECT_FALSE(v.mirrored);
    ASSERT_TRUE(in.stamps);
    EXPECT_EQ(counts(*in.stamps), (std::vector<int64_t>{20, 20, 0, 0, 0, 0, 0}));
    EXPECT_EQ(in.stamps->lastIndex, 19u);
    for (const auto& a : in.audioSync) EXPECT_EQ(a.clicks, 0);  // silent tracks

    // Plain colour frames: the summary only.
    url = writeStampedMovie(path("plain.mp4"), steadyFrames(30),
                            {.picture = StampedMovieOptions::Picture::Plain});
    ASSERT_TRUE(url);
    in = inspect(url->path);
    EXPECT_EQ(in.movie.tracks.size(), 3u);
    EXPECT_FALSE(in.stamps);
    EXPECT_TRUE(in.audioSync.empty());
    EXPECT_NE(inspectionToText(in).find("frame stamps: none"), std::string::npos);
    EXPECT_TRUE(inspectionToJSON(in)["stamps"].is_null());
}

TEST_F(MovieInspectorTest, BrokenFilesGiveAnError) {
    const std::string clean = cleanMovie();
    ASSERT_FALSE(clean.empty());
    std::ifstream src(clean, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(src)), {});
    struct Case {
        const char* name;
        std::string content;
    } cases[] = {{"truncated.mp4", bytes.substr(0, bytes.size() / 2)},
                 {"empty.mp4", ""},
                 {"garbage.mp4", std::string(100000, '\x5a')},
                 {"missing.mp4", ""}};
    for (const auto& c : cases) {
        if (std::string(c.name) != "missing.mp4") test::writeFile(path(c.name), c.content);
        auto refused = inspectMovie(path(c.name));
        ASSERT_FALSE(refused) << c.name;
        EXPECT_EQ(refused.error().domain, media::kMovieWriterErrorDomain);
        EXPECT_NE(refused.error().message().find(c.name), std::string::npos)
            << refused.error().message();
    }

    // The movie box in front (as a streaming copy has it), the media cut
    // short: the index promises samples the file does not hold.
    const std::string faststart = path("faststart.mp4");
    ASSERT_EQ(std::system(
                  ("ffmpeg -v error -y -i " + clean + " -c copy -movflags +faststart " + faststart)
                      .c_str()),
              0);
    fs::resize_file(faststart, fs::file_size(faststart) * 2 / 3);
    auto cut = inspectMovie(faststart);
    ASSERT_FALSE(cut);
    EXPECT_NE(cut.error().message().find("truncated"), std::string::npos) << cut.error().message();
}

// What the writer's ordering rule never lets into a movie.
TEST(FrameStampAnalysis, OrderDuplicatesAndGapsFilledLater) {
    auto frame = [](double slot, uint64_t index) {
        return InspectedFrame{
            slot * kT, FrameStamp{index, 100'000'000'000 + index * uint64_t(kFrameInterval)}};
    };
    // Shown: 0 1 2 4 3 5 5 (unreadable) 8: 3 late but there, 6 and 7 lost.
    const std::vector<InspectedFrame> frames = {frame(0, 0), frame(1, 1),    frame(2, 2),
                                                frame(3, 4), frame(4, 3),    frame(5, 5),
                                                frame(6, 5), {6.5 * kT, {}}, frame(8, 8)};
    auto r = analyzeFrameStamps(frames);
    EXPECT_EQ(counts(r), (std::vector<int64_t>{9, 8, 1, 2, 1, 1, 0}));
    ASSERT_EQ(r.drops.size(), 1u);
    EXPECT_EQ(r.drops[0].firstIndex, 6u);
    EXPECT_TRUE(r.pauses.empty());
    EXPECT_EQ(std::pair(r.firstIndex, r.lastIndex), std::pair(uint64_t(0), uint64_t(8)));

    EXPECT_EQ(analyzeFrameStamps({}).stamped, 0);
    // Stamps a hostile file made up: counts saturate, nothing overflows.
    const uint64_t top = std::numeric_limits<uint64_t>::max();
    auto at = [](uint64_t index, uint64_t host) {
        return InspectedFrame{double(host) * 1e-9, FrameStamp{index, host}};
    };
    r = analyzeFrameStamps({at(0, 0), at(1, uint64_t(kFrameInterval)), at(top / 2, top / 2),
                            at(top / 2 + 1, top - top / 4), at(top, top)});
    EXPECT_EQ(r.dropped, std::numeric_limits<int64_t>::max());
    EXPECT_GE(r.late, 0);
    EXPECT_TRUE(r.pauses.empty());
    EXPECT_EQ(matchClicks(1, {0.5, 1.5, 2.5}, {{0, FrameStamp{0, top}}}).matched, 0);
    EXPECT_EQ(analyzeFrameStamps({{0, {}}, {kT, {}}}).unreadable, 2);
}

TEST(FrameStampAnalysis, AudioThatRunsOnThroughAPauseShowsTheWholePause) {
    // 8 s of frames; host time jumps 2.5 s after frame 119 (at 2.0 s).
    std::vector<InspectedFrame> frames;
    for (uint64_t i = 0; i < 480; ++i) {
        const double host = 100.0 + double(i) * kT + (i >= 120 ? 2.5 : 0.0);
        frames.push_back({double(i) * kT, FrameStamp{i, uint64_t(std::llround(host * 1e9))}});
    }
    ASSERT_EQ(analyzeFrameStamps(frames).pauses.size(), 1u);
    // Audio kept on its host timeline: seconds 101, 102, 105, 106 at their
    // own movie times; the frames show 105 at 2.5 s.
    auto late = matchClicks(1, {1.0, 2.0, 5.0, 6.0}, frames);
    EXPECT_EQ(late.matched, 4);
    EXPECT_NEAR(late.maxOffset, 2.5, 1e-6);
    EXPECT_NEAR(late.meanOffset, 1.25, 1e-6);
    // Audio that took the same gap out: in sync throughout.
    auto inSync = matchClicks(1, {1.0, 2.0, 2.5, 3.5}, frames);
    EXPECT_EQ(inSync.matched, 4);
    EXPECT_NEAR(inSync.maxOffset, 0, 1e-6);
    EXPECT_EQ(seconds(inSync), (std::vector<uint64_t>{101, 102, 105, 106}));
    // A click no frame covers (past the end) is counted, not matched.
    auto beyond = matchClicks(1, {20.0}, frames);
    EXPECT_EQ(beyond.clicks, 1);
    EXPECT_EQ(beyond.matched, 0);
}

#ifdef SV_SORVEL_PATH
TEST_F(MovieInspectorTest, CommandLineTextAndJSON) {
    const std::string movie = cleanMovie();
    auto [status, text, err] = runSorvel("inspect " + movie);
    EXPECT_EQ(status, 0) << err;
    for (const char* line :
         {"track 0: video h264 Main 320x240, 2.500 s, 150 frames",
          "frame stamps: 150 frames, 150 stamped, indices 0..149, interval 16.667 ms",
          "  dropped 0, duplicates 0, out of order 0, late 0, unreadable 0", "pauses: 0",
          "audio track 1: 2 clicks, 2 matched", "audio track 2: 2 clicks, 2 matched"})
        EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;

    std::tie(status, text, err) = runSorvel("inspect " + movie + " --json");
    EXPECT_EQ(status, 0) << err;
    const auto j = nlohmann::json::parse(text);
    EXPECT_EQ(j["path"], movie);
    EXPECT_EQ(j["tracks"].size(), 3u);
    EXPECT_EQ(j["tracks"][0]["type"], "video");
    EXPECT_EQ(j["tracks"][0]["displayMatrix"].size(), 9u);
    EXPECT_EQ(j["tracks"][1]["sampleRate"], 44100);
    EXPECT_EQ(j["stamps"]["frames"], 150);
    EXPECT_EQ(j["stamps"]["dropped"], 0);
    EXPECT_TRUE(j["stamps"]["pauses"].empty());
    // Host seconds 101 and 102 fall at 1.0 and 2.0 s, on both tracks.
    ASSERT_EQ(j["audioSync"].size(), 2u);
    EXPECT_EQ(j["audioSync"][0]["track"], 1);
    for (const auto& a : j["audioSync"])
        EXPECT_LT(std::abs(a["maxOffset"].get<double>()), 0.002) << a;

    std::tie(status, text, err) = runSorvel("inspect " + path("does-not-exist.mp4"));
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("sorvel inspect: "), std::string::npos) << err;
    EXPECT_TRUE(text.empty());
    std::tie(status, text, err) = runSorvel("inspect --frobnicate");
    EXPECT_EQ(status, 2);
}
#endif

}  // namespace
}  // namespace sv
