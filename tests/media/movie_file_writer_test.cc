#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <filesystem>

#include "platform/log.h"
#include "platform/media/fragmented_movie.h"
#include "platform/media/movie_exporter.h"
#include "tests/audio/audio_analysis.h"
#include "tests/media/media_test_util.h"
#include "tests/process/process_helpers.h"

namespace sv::media {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;
using namespace std::chrono_literals;
using Status = MovieFileWriter::Status;

Value audioSettings() {
    return Value{{kAudioFormatKey, kAudioFormatAAC},
                 {kAudioNumberOfChannelsKey, 2},
                 {kAudioSampleRateKey, 44100.0},
                 {kAudioChannelLayoutKey, kChannelLayoutStereo},
                 {kAudioEncoderBitRateKey, 128000}};
}

TEST(MovieFileWriter, CreationErrorsCarryACode) {
    TempDir dir;
    for (auto [path, code] : {std::pair{dir / "no/such.mp4", AVERROR(ENOENT)},
                              std::pair{dir.path(), AVERROR(EISDIR)}}) {
        auto refused = MovieFileWriter::create(URL::fileURLWithPath(path), FileType::MPEG4);
        ASSERT_FALSE(refused) << path;
        EXPECT_EQ(refused.error().domain, kMovieWriterErrorDomain);
        EXPECT_EQ(refused.error().code, code) << path;
    }

    // Settings that cannot be encoded.
    auto vp9 = MovieWriterInput::create(MediaType::Video, Value{{kVideoCodecKey, "vp9"}});
    ASSERT_FALSE(vp9);
    EXPECT_EQ(vp9.error().code, AVERROR(EINVAL));
    EXPECT_EQ(vp9.error().message(), "video settings: video codec must be h264");
    EXPECT_FALSE(MovieWriterInput::create(MediaType::Audio, Value::array()));
    // A bad compression property from a peer is dropped, the rest is used.
    auto input =
        MovieWriterInput::create(
            MediaType::Video,
            videoSettings(65, 33, {{kVideoAverageBitRateKey, "fast"}, {kVideoEncoderPresetKey, 7}}))
            .valueOr(nullptr);
    ASSERT_TRUE(input);
    EXPECT_EQ(input->width(), 66);
    EXPECT_EQ(input->height(), 34);

    // A flood of properties from a peer costs a bounded number of log lines.
    Value many = Value::object();
    for (int i = 0; i < 1000; ++i) many["key" + std::to_string(i)] = i;
    log::Capture capture;
    ASSERT_TRUE(MovieWriterInput::create(MediaType::Video, videoSettings(64, 64, many)));
    EXPECT_EQ(capture.countContaining("MovieWriterInput: ignoring"), 9u);
    EXPECT_TRUE(capture.contains("MovieWriterInput: ignoring 992 more compression properties"));
}

// Every FFmpeg allocation is checked: with allocations capped at growing
// sizes, making, writing, finishing and trimming a movie each either works
// or ends in an error, and never crashes or leaks (the ASan run checks).
TEST(MovieFileWriter, AllocationFailuresBecomeErrors) {
    TempDir dir;
    SurfacePool pool(64, 64);
    const std::string source = dir / "source.mp4";
    {
        VideoWriter w(source);
        w.start(0);
        for (int i = 0; i < 30; ++i) w.append(*w.video, makeFrame(pool, i, hostTime(i / 30.0)));
        w.finish();
        ASSERT_EQ(w.writer->status(), Status::Completed);
    }
    struct RestoreLimit {
        ~RestoreLimit() { av_max_alloc(INT_MAX); }
    } restore;
    int written = 0, refused = 0, exported = 0;
    for (size_t cap : {size_t(32), size_t(512), size_t(4096), size_t(1) << 15, size_t(1) << 17,
                       size_t(1) << 19, size_t(1) << 22}) {
        SCOPED_TRACE(cap);
        av_max_alloc(cap);
        const std::string path = dir / ("m" + std::to_string(cap) + ".mp4");
        auto created = MovieFileWriter::create(URL::fileURLWithPath(path), FileType::MPEG4);
        auto createdVideo = MovieWriterInput::create(MediaType::Video, videoSettings(64, 64));
        auto createdAudio = MovieWriterInput::create(MediaType::Audio, audioSettings());
        if (!created || !createdVideo || !createdAudio) {
            for (const auto& error : {created.optionalError(), createdVideo.optionalError(),
                                      createdAudio.optionalError()})
                EXPECT_TRUE(!error || error->code < 0) << error->description();
            ++refused;
        } else {
            auto writer = *created;
            auto video = *createdVideo, audio = *createdAudio;
            writer->addInput(video);
            writer->addInput(audio);
            if (writer->startWriting()) {
                writer->startSessionAtSourceTime(hostTime(0));
                for (int i = 0; i < 10 && video->waitUntilReadyForMoreMediaData(30s); ++i)
                    video->appendSampleBuffer(makeFrame(pool, i, hostTime(i / 30.0)));
                audio->appendSampleBuffer(
                    makeTone(AudioStreamFormat::pcm16(44100, 1, false), 0, 4096, hostTime(0)));
                awaitOnce<>([&](std::function<void()> done) { writer->finishWriting(done); });
            }
            if (writer->status() == Status::Completed)
                ++written;
            else
                EXPECT_TRUE(writer->error()) << int(writer->status());
        }

        auto exporter =
            MovieExporter::create(MovieAsset::assetWithURL(URL::fileURLWithPath(source)),
                                  MovieExporter::kPresetPassthrough);
        exporter->setOutputURL(URL::fileURLWithPath(dir / ("t" + std::to_string(cap) + ".mp4")));
        awaitOnce<>([&](std::function<void()> done) { exporter->exportAsynchronously(done); });
        if (exporter->status() == MovieExporter::Status::Completed)
            ++exported;
        else
            EXPECT_TRUE(exporter->error());
    }
    av_max_alloc(INT_MAX);
    // The smallest caps refuse, the largest let everything through.
    EXPECT_GT(refused, 0);
    EXPECT_GT(written, 0);
    EXPECT_GT(exported, 0);
}

TEST(MovieFileWriter, CancelledAndFailedWriters) {
    // Completed: the audio test. Cancelled: the partial file goes away.
    TempDir dir;
    SurfacePool pool(64, 64);
    VideoWriter cancelled(dir / "c.mp4");
    auto detached = MovieWriterInput::create(MediaType::Video, videoSettings(64, 64)).value();
    EXPECT_FALSE(detached->isReadyForMoreMediaData());            // not attached
    EXPECT_FALSE(detached->waitUntilReadyForMoreMediaData(30s));  // and cannot become so
    cancelled.start(0);
    for (int i = 0; i < 30; ++i)
        cancelled.append(*cancelled.video, makeFrame(pool, i, hostTime(i / 30.0)));
    cancelled.writer->cancelWriting();
    EXPECT_EQ(cancelled.writer->status(), Status::Cancelled);
    EXPECT_FALSE(fs::exists(dir / "c.mp4"));

    // Failed: the directory disappears before the first packet is written.
    fs::create_directory(dir / "gone");
    VideoWriter failing(dir / "gone/f.mp4");
    ASSERT_TRUE(failing.writer);
    fs::remove(dir / "gone");
    failing.start(0);
    // Frames go in until the first packet fails the writer; from then on the
    // input cannot become ready again.
    int frames = 0;
    for (; frames < 600 && failing.video->waitUntilReadyForMoreMediaData(std::chrono::seconds(30));
         ++frames)
        failing.video->appendSampleBuffer(makeFrame(pool, frames, hostTime(frames / 30.0)));
    EXPECT_LT(frames, 600);
    EXPECT_EQ(failing.writer->status(), Status::Failed);
    ASSERT_TRUE(failing.writer->error());
    EXPECT_EQ(failing.writer->error()->code, AVERROR(ENOENT));
    EXPECT_FALSE(failing.video->isReadyForMoreMediaData());
    EXPECT_FALSE(failing.video->appendSampleBuffer(makeFrame(pool, 99, hostTime(9))));
}

TEST(MovieFileWriter, AudioIsConvertedPlacedAndGapsFilled) {
    TempDir dir;
    const std::string path = dir / "a.mp4";
    VideoWriter w(path);
    auto tap = MovieWriterInput::create(MediaType::Audio, audioSettings()).value();
    auto mic = MovieWriterInput::create(MediaType::Audio, audioSettings()).value();
    w.writer->addInput(tap);
    w.writer->addInput(mic);
    EXPECT_EQ(w.writer->status(), Status::Unknown);
    EXPECT_FALSE(fs::exists(path));  // nothing is opened before the first packet
    w.start(5);
    EXPECT_EQ(w.writer->status(), Status::Writing);
    EXPECT_FALSE(
        w.writer->canAddInput(MovieWriterInput::create(MediaType::Audio, audioSettings()).value()));
    SurfacePool pool(64, 64);
    for (int i = 0; i < 45; ++i) w.append(*w.video, makeFrame(pool, i, hostTime(5 + i / 30.0)));

    // Application audio (16-bit big-endian mono) from 0.5 s before the
    // session to 1.5 s into it, with a hole from 0.5 s to 1.0 s.
    const auto be = AudioStreamFormat::pcm16(44100, 1, true);
    for (int64_t pos = 0; pos < 2 * 44100; pos += 1024) {
        double t = 4.5 + pos / 44100.0;
        if (t < 5.5 - 1e-9 || t >= 6.0 - 1e-9) w.append(*tap, makeTone(be, pos, 1024, hostTime(t)));
    }
    // Microphone (float stereo at 48 kHz) for the first second.
    const auto fl = AudioStreamFormat::float32(48000, 2);
    for (int64_t pos = 0; pos < 48000; pos += 960)
        w.append(*mic, makeTone(fl, pos, 960, hostTime(5 + pos / 48000.0)));
    w.finish();
    ASSERT_EQ(w.writer->status(), Status::Completed);
    EXPECT_FALSE(w.writer->error());
    EXPECT_FALSE(w.video->isReadyForMoreMediaData());
    EXPECT_FALSE(w.video->waitUntilReadyForMoreMediaData(30s));
    w.finish();  // not writing: the completion still comes, once

    auto info = probeMovie(path);
    ASSERT_EQ(info.tracks.size(), 3u);
    // The lead before the session is cut: each track ends its length after
    // the first frame (a fragmented movie starts all tracks a few frames in,
    // where the reordered video begins; the last AAC frame's padding stays).
    const double start = info.tracks[0].startTime;
    EXPECT_NEAR(info.tracks[1].startTime + info.tracks[1].duration - start, 1.5, 0.03);
    EXPECT_NEAR(info.tracks[2].startTime + info.tracks[2].duration - start, 1.0, 0.03);

    // Samples [from, to) of an audio track at 44.1 kHz.
    auto part = [&](int track, size_t from, size_t to) {
        auto a = decodeAudio(path, track);
        EXPECT_GE(a.size(), to);
        a.resize(std::min(to, a.size()));
        return std::vector<double>(a.begin() + long(std::min(from, a.size())), a.end());
    };
    // A byte-order or rate mistake would not give a clean 440 Hz tone.
    const std::tuple<int, size_t, size_t> tones[] = {
        {1, 2205, 22050}, {1, 46305, 63945}, {2, 2205, 40000}};
    for (auto [track, from, to] : tones) {
        auto tone = part(track, from, to);
        EXPECT_NEAR(zeroCrossingFrequency(tone, 44100), 440, 5) << track << " " << from;
        EXPECT_GT(rms(tone), 0.15) << track << " " << from;
    }
    EXPECT_LT(rms(part(1, 24255, 41895)), 0.01);  // the hole, as silence
}

// A movie cut short where a killed writer or a full disk may leave it is cut
// back to its complete fragments, which play from the first frame on.
TEST(MovieFileWriter, AMovieCutShortKeepsItsCompleteFragments) {
    TempDir dir;
    const std::string whole = dir / "whole.mp4";
    VideoWriter w(whole);
    // Audio tracks that get nothing (no application audio, no microphone)
    // hold nothing back.
    w.writer->addInput(MovieWriterInput::create(MediaType::Audio, audioSettings()).value());
    w.writer->addInput(MovieWriterInput::create(MediaType::Audio, audioSettings()).value());
    w.start(0);
    SurfacePool pool(64, 64);
    for (int i = 0; i < 60; ++i) w.append(*w.video, makeFrame(pool, i, hostTime(i / 30.0)));
    // On disk while the movie is being written.
    EXPECT_TRUE(test::eventually(
        [&] {
            auto layout = readFragmentedMovieLayout(whole);
            return layout && layout->completeFragments >= 2;
        },
        30s));
    w.finish();
    ASSERT_EQ(w.writer->status(), Status::Completed);
    const auto full = readFragmentedMovieLayout(whole);
    ASSERT_TRUE(full);
    EXPECT_TRUE(full->fragmented && full->finished && !full->unfinished());
    EXPECT_GE(full->completeFragments, 4);  // two seconds in quarter-second fragments
    const uint64_t size = fs::file_size(whole);
    const uint64_t fileType = 28;  // the writer's file type box

    struct Cut {
        uint64_t bytes;
        bool unfinished, plays;
        int minFrames, maxFrames;
    };
    const Cut cuts[] = {
        {0, true, false, 0, 0},               // killed before the header
        {fileType + 10, true, false, 0, 0},   // before the first fragment
        {size * 6 / 10, true, true, 14, 45},  // in the middle of a fragment
        {size - 1, true, true, 60, 60},       // in the closing box
        {size, false, true, 60, 60},          // finished: left alone
    };
    for (const auto& cut : cuts) {
        const std::string path = dir / ("cut" + std::to_string(cut.bytes) + ".mp4");
        fs::copy_file(whole, path);
        fs::resize_file(path, cut.bytes);
        auto layout = truncateToCompleteFragments(path);
        ASSERT_TRUE(layout) << cut.bytes;
        EXPECT_EQ(layout->unfinished(), cut.unfinished) << cut.bytes;
        EXPECT_EQ(layout->completeFragments > 0, cut.plays) << cut.bytes;
        if (!cut.plays) continue;
        EXPECT_EQ(fs::file_size(path), cut.unfinished ? layout->playableBytes : size);
        // In order from the first; a cut between fragments may lose the last
        // reordered frame before the fragment's final one.
        const auto frames = decodeVideo(path).indices;
        EXPECT_GE(int(frames.size()), cut.minFrames) << cut.bytes;
        EXPECT_LE(int(frames.size()), cut.maxFrames) << cut.bytes;
        ASSERT_FALSE(frames.empty());
        EXPECT_EQ(frames.front(), 0);
        EXPECT_TRUE(std::is_sorted(frames.begin(), frames.end()));
        EXPECT_LE(frames.back() - int(frames.size()), 1) << cut.bytes;
    }
}

TEST(MovieFileWriter, FullQueueRefusesInsteadOfBlocking) {
    TempDir dir;
    VideoWriter w(dir / "q.mp4", 640, 360);
    w.start(0);
    SurfacePool pool(640, 360);
    auto frame = makeFrame(pool, 1, hostTime(0));
    int accepted = 0, refused = 0;
    for (int i = 0; i < 200; ++i) {
        auto f = SampleBuffer::makeVideo(frame->imageBuffer(), hostTime(i / 60.0));
        (w.video->appendSampleBuffer(f) ? accepted : refused)++;
    }
    EXPECT_GE(accepted, int(w.video->queueCapacity()));
    EXPECT_GT(refused, 0);
    // Audio is refused by a video input, never queued.
    EXPECT_FALSE(w.video->appendSampleBuffer(
        makeTone(AudioStreamFormat::pcm16(44100, 1, false), 0, 64, hostTime(0))));
    w.finish();
    EXPECT_EQ(w.writer->status(), Status::Completed);
}

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
    static MovieExporter::Status run(const std::shared_ptr<MovieExporter>& e) {
        awaitOnce<>([&](std::function<void()> done) { e->exportAsynchronously(done); });
        return e->status();
    }
    static TempDir* dir;
};
TempDir* MovieExporterTest::dir = nullptr;

TEST_F(MovieExporterTest, ExactCutBetweenKeyFramesAndAmidReorderedFrames) {
    auto e = exporter("src.mp4");
    e->setTimeRange(MediaTime::make(40, 30), MediaTime::make(30, 30));  // frames 40..69
    EXPECT_EQ(run(e), MovieExporter::Status::Completed);
    // Exact at both ends: the start lies between key frames (0 and 30), and
    // the end between a reference frame and the reordered frames using it.
    auto video = decodeVideo(*dir / "out.mp4");
    ASSERT_EQ(video.indices.size(), 30u);
    EXPECT_NEAR(video.times.front(), 0.0, 1e-3);
    for (size_t i = 0; i < video.indices.size(); ++i) EXPECT_EQ(video.indices[i], int(40 + i));
    EXPECT_NEAR(probeMovie(*dir / "out.mp4").duration, 1.0, 0.002);
    // An end in a frame's second half leaves that frame out.
    e = exporter("src.mp4");
    e->setTimeRange(MediaTime::make(40, 30), MediaTime::make(294, 300));
    EXPECT_EQ(run(e), MovieExporter::Status::Completed);
    EXPECT_EQ(decodeVideo(*dir / "out.mp4").indices.back(), 68);
}

TEST_F(MovieExporterTest, FailureAndCancellation) {
    fs::remove(*dir / "out.mp4");
    auto asset = MovieAsset::assetWithURL(URL::fileURLWithPath(*dir / "src.mp4"));
    ASSERT_TRUE(asset->isReadable());
    EXPECT_NEAR(asset->duration().seconds(), 3.0, 0.05);
    EXPECT_FALSE(MovieExporter::create(asset, "SVMovieExportPresetHighest"));
    EXPECT_EQ(exporter("src.mp4")->status(), MovieExporter::Status::Unknown);
    auto missing = MovieAsset::assetWithURL(URL::fileURLWithPath(*dir / "none.mp4"));
    EXPECT_FALSE(missing->isReadable());
    EXPECT_FALSE(missing->duration().isValid());
    auto e = exporter("none.mp4");
    EXPECT_EQ(run(e), MovieExporter::Status::Failed);
    ASSERT_TRUE(e->error());
    EXPECT_EQ(e->error()->code, AVERROR(ENOENT));

    auto empty = exporter("src.mp4");
    empty->setTimeRange(MediaTime::make(2, 1), MediaTime::make(-1, 1));
    EXPECT_EQ(run(empty), MovieExporter::Status::Failed);
    auto cancelled = exporter("src.mp4");
    cancelled->cancelExport();
    EXPECT_EQ(run(cancelled), MovieExporter::Status::Cancelled);
    EXPECT_FALSE(fs::exists(*dir / "out.mp4"));
}

}  // namespace
}  // namespace sv::media
