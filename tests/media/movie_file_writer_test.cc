#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "platform/dispatch.h"
#include "platform/media/media_settings.h"
#include "platform/media/movie_file_writer.h"
#include "tests/media/media_test_util.h"

extern "C" {
#include <libswresample/swresample.h>
}

namespace sv::media {
namespace {

namespace fs = std::filesystem;
using namespace sv::testing;
using Status = MovieFileWriter::Status;

Value videoSettings(int w, int h, Value props = Value::object()) {
    return Value{{kVideoCodecKey, kVideoCodecH264},
                 {kVideoWidthKey, w},
                 {kVideoHeightKey, h},
                 {kVideoCompressionPropertiesKey, props}};
}

Value audioSettings() {
    return Value{{kAudioFormatKey, kAudioFormatAAC},
                 {kAudioNumberOfChannelsKey, 2},
                 {kAudioSampleRateKey, 44100.0},
                 {kAudioChannelLayoutKey, kChannelLayoutStereo},
                 {kAudioEncoderBitRateKey, 128000}};
}

MediaTime seconds(double s) {
    return MediaTime::make(int64_t(std::llround(s * 1e9)), 1000000000);
}

void appendWaiting(MovieWriterInput& input, std::shared_ptr<SampleBuffer> sample) {
    for (int i = 0; i < 10000 && !input.isReadyForMoreMediaData(); ++i) usleep(500);
    ASSERT_TRUE(input.appendSampleBuffer(std::move(sample)));
}

void finish(MovieFileWriter& writer) {
    Semaphore done;
    std::atomic<int> calls{0};
    writer.finishWriting([&] {
        ++calls;
        done.signal();
    });
    done.wait();
    usleep(10000);
    EXPECT_EQ(calls.load(), 1);
}

// Decodes one audio track to mono float at its own rate (the first channel).
std::vector<float> decodeAudio(const std::string& path, int track) {
    std::vector<float> out;
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) < 0) return out;
    avformat_find_stream_info(ctx, nullptr);
    AVStream* st = ctx->streams[track];
    const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
    AVCodecContext* dec = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(dec, st->codecpar);
    avcodec_open2(dec, codec, nullptr);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* f = av_frame_alloc();
    auto drain = [&] {
        while (avcodec_receive_frame(dec, f) >= 0) {
            const float* p = reinterpret_cast<const float*>(f->data[0]);  // planar float
            out.insert(out.end(), p, p + f->nb_samples);
            av_frame_unref(f);
        }
    };
    while (av_read_frame(ctx, pkt) >= 0) {
        if (pkt->stream_index == track) {
            avcodec_send_packet(dec, pkt);
            drain();
        }
        av_packet_unref(pkt);
    }
    avcodec_send_packet(dec, nullptr);
    drain();
    av_frame_free(&f);
    av_packet_free(&pkt);
    avcodec_free_context(&dec);
    avformat_close_input(&ctx);
    return out;
}

double rms(const std::vector<float>& s, size_t from, size_t to) {
    double sum = 0;
    to = std::min(to, s.size());
    for (size_t i = from; i < to; ++i) sum += double(s[i]) * s[i];
    return to > from ? std::sqrt(sum / double(to - from)) : 0;
}

// Rising zero crossings per second of s[from, to) at 44.1 kHz.
double frequency(const std::vector<float>& s, size_t from, size_t to) {
    int n = 0;
    to = std::min(to, s.size());
    for (size_t i = from + 1; i < to; ++i) n += s[i - 1] < 0 && s[i] >= 0;
    return n * 44100.0 / double(to - from);
}

class MovieFileWriterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/sv-media-test-XXXXXX";
        dir = mkdtemp(tmpl);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string dir;
};

TEST_F(MovieFileWriterTest, CreationErrorsCarryACode) {
    MediaError error;
    EXPECT_FALSE(MovieFileWriter::create(URL::fileURLWithPath(dir + "/no/such.mp4"),
                                         FileType::MPEG4, &error));
    EXPECT_EQ(error.code, AVERROR(ENOENT));
    EXPECT_FALSE(MovieFileWriter::create(URL::fileURLWithPath(dir), FileType::MPEG4, &error));
    EXPECT_EQ(error.code, AVERROR(EISDIR));

    // Settings that cannot be encoded.
    EXPECT_FALSE(
        MovieWriterInput::create(MediaType::Video, Value{{kVideoCodecKey, "vp9"}}, &error));
    EXPECT_EQ(error.code, AVERROR(EINVAL));
    EXPECT_FALSE(MovieWriterInput::create(MediaType::Audio, Value::array(), &error));
    // A bad compression property from a peer is dropped, the rest is used.
    auto input = MovieWriterInput::create(
        MediaType::Video,
        videoSettings(65, 33, {{kVideoAverageBitRateKey, "fast"}, {kVideoEncoderPresetKey, 7}}),
        &error);
    ASSERT_TRUE(input);
    EXPECT_EQ(input->width(), 66);
    EXPECT_EQ(input->height(), 34);
}

TEST_F(MovieFileWriterTest, StatusCodesThroughALifetime) {
    const std::string path = dir + "/s.mp4";
    auto writer = MovieFileWriter::create(URL::fileURLWithPath(path), FileType::MPEG4);
    ASSERT_TRUE(writer);
    auto video = MovieWriterInput::create(MediaType::Video, videoSettings(64, 64));
    ASSERT_TRUE(video);
    EXPECT_FALSE(video->isReadyForMoreMediaData());  // not attached yet
    writer->addInput(video);
    EXPECT_EQ(writer->status(), Status::Unknown);
    EXPECT_FALSE(fs::exists(path));  // nothing is opened before the first packet

    EXPECT_TRUE(writer->startWriting());
    EXPECT_FALSE(writer->canAddInput(MovieWriterInput::create(MediaType::Audio, audioSettings())));
    EXPECT_EQ(writer->status(), Status::Writing);
    writer->startSessionAtSourceTime(seconds(10));
    SurfacePool pool(64, 64);
    for (int i = 0; i < 5; ++i) appendWaiting(*video, makeFrame(pool, i, seconds(10 + i / 30.0)));
    finish(*writer);
    EXPECT_EQ(writer->status(), Status::Completed);
    EXPECT_FALSE(writer->error());
    EXPECT_FALSE(video->isReadyForMoreMediaData());
    EXPECT_EQ(decodeVideo(path).indices, (std::vector<int>{0, 1, 2, 3, 4}));
    finish(*writer);  // not writing: the completion still comes, once

    // Cancelled: the partial file goes away.
    auto cancelled = MovieFileWriter::create(URL::fileURLWithPath(dir + "/c.mp4"), FileType::MPEG4);
    auto v2 = MovieWriterInput::create(MediaType::Video, videoSettings(64, 64));
    cancelled->addInput(v2);
    cancelled->startWriting();
    cancelled->startSessionAtSourceTime(seconds(0));
    for (int i = 0; i < 30; ++i) appendWaiting(*v2, makeFrame(pool, i, seconds(i / 30.0)));
    cancelled->cancelWriting();
    EXPECT_EQ(cancelled->status(), Status::Cancelled);
    EXPECT_FALSE(fs::exists(dir + "/c.mp4"));

    // Failed: the directory disappears before the first packet is written.
    fs::create_directory(dir + "/gone");
    auto failing =
        MovieFileWriter::create(URL::fileURLWithPath(dir + "/gone/f.mp4"), FileType::MPEG4);
    ASSERT_TRUE(failing);
    auto v3 = MovieWriterInput::create(MediaType::Video, videoSettings(64, 64));
    failing->addInput(v3);
    fs::remove(dir + "/gone");
    failing->startWriting();
    failing->startSessionAtSourceTime(seconds(0));
    for (int i = 0; i < 40 && failing->status() == Status::Writing; ++i) {
        v3->appendSampleBuffer(makeFrame(pool, i, seconds(i / 30.0)));
        usleep(5000);
    }
    for (int i = 0; i < 1000 && failing->status() == Status::Writing; ++i) usleep(1000);
    EXPECT_EQ(failing->status(), Status::Failed);
    ASSERT_TRUE(failing->error());
    EXPECT_EQ(failing->error()->code, AVERROR(ENOENT));
    EXPECT_FALSE(v3->isReadyForMoreMediaData());
    EXPECT_FALSE(v3->appendSampleBuffer(makeFrame(pool, 99, seconds(9))));
}

TEST_F(MovieFileWriterTest, AudioIsConvertedPlacedAndGapsFilled) {
    const std::string path = dir + "/a.mp4";
    auto writer = MovieFileWriter::create(URL::fileURLWithPath(path), FileType::MPEG4);
    auto video = MovieWriterInput::create(MediaType::Video, videoSettings(64, 64));
    auto tap = MovieWriterInput::create(MediaType::Audio, audioSettings());
    auto mic = MovieWriterInput::create(MediaType::Audio, audioSettings());
    writer->addInput(video);
    writer->addInput(tap);
    writer->addInput(mic);
    ASSERT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(seconds(5));
    SurfacePool pool(64, 64);
    for (int i = 0; i < 45; ++i) appendWaiting(*video, makeFrame(pool, i, seconds(5 + i / 30.0)));

    // Application audio (16-bit big-endian mono) from 0.5 s before the
    // session to 1.5 s into it, with a hole from 0.5 s to 1.0 s.
    const auto be = AudioStreamFormat::pcm16(44100, 1, true);
    for (int64_t pos = 0; pos < 2 * 44100; pos += 1024) {
        double t = 4.5 + pos / 44100.0;
        if (t >= 5.5 - 1e-9 && t < 6.0 - 1e-9) continue;
        appendWaiting(*tap, makeTone(be, pos, 1024, seconds(t)));
    }
    // Microphone (float stereo at 48 kHz) for the first second.
    const auto fl = AudioStreamFormat::float32(48000, 2);
    for (int64_t pos = 0; pos < 48000; pos += 960)
        appendWaiting(*mic, makeTone(fl, pos, 960, seconds(5 + pos / 48000.0)));
    finish(*writer);
    ASSERT_EQ(writer->status(), Status::Completed);

    MovieInfo info = probeMovie(path);
    ASSERT_EQ(info.streams.size(), 3u);
    EXPECT_NEAR(info.streams[1].startTime, 0, 1e-3);
    EXPECT_NEAR(info.streams[1].duration, 1.5, 0.03);  // the lead before the session is cut
    EXPECT_NEAR(info.streams[2].duration, 1.0, 0.03);

    auto a = decodeAudio(path, 1);
    ASSERT_GE(a.size(), size_t(1.45 * 44100));
    // A byte-order or rate mistake would not give a clean 440 Hz tone.
    EXPECT_NEAR(frequency(a, 2205, 22050), 440, 5);
    EXPECT_GT(rms(a, 2205, 22050), 0.15);
    EXPECT_LT(rms(a, 24255, 41895), 0.01);  // the hole, as silence
    EXPECT_NEAR(frequency(a, 46305, 64000), 440, 5);
    auto m = decodeAudio(path, 2);
    EXPECT_NEAR(frequency(m, 2205, 40000), 440, 5);
    EXPECT_GT(rms(m, 2205, 40000), 0.15);
}

TEST_F(MovieFileWriterTest, FullQueueRefusesInsteadOfBlocking) {
    auto writer = MovieFileWriter::create(URL::fileURLWithPath(dir + "/q.mp4"), FileType::MPEG4);
    auto video = MovieWriterInput::create(MediaType::Video, videoSettings(640, 360));
    writer->addInput(video);
    writer->startWriting();
    writer->startSessionAtSourceTime(seconds(0));
    SurfacePool pool(640, 360);
    auto frame = makeFrame(pool, 1, seconds(0));
    int accepted = 0, refused = 0;
    for (int i = 0; i < 200; ++i) {
        auto f = SampleBuffer::makeVideo(frame->imageBuffer(), seconds(i / 60.0));
        (video->appendSampleBuffer(f) ? accepted : refused)++;
    }
    EXPECT_GE(accepted, int(video->queueCapacity()));
    EXPECT_GT(refused, 0);
    // Audio is refused by a video input, never queued.
    EXPECT_FALSE(video->appendSampleBuffer(
        makeTone(AudioStreamFormat::pcm16(44100, 1, false), 0, 64, seconds(0))));
    finish(*writer);
    EXPECT_EQ(writer->status(), Status::Completed);
}

}  // namespace
}  // namespace sv::media
