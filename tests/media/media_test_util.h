// Test helpers: frames with their index drawn into the pixels, audio tones,
// writers with one video input, and a libavformat/libavcodec reader for what
// a test wrote.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include "platform/audio_format.h"
#include "platform/media/ffmpeg_util.h"
#include "platform/media/media_settings.h"
#include "platform/media/movie_file_writer.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"
#include "platform/shared_surface.h"
#include "tests/support/test_util.h"

namespace sv::testing {

using test::awaitOnce;
using test::TempDir;

inline MediaTime hostTime(double seconds) {
    return MediaTime::make(int64_t(std::llround(seconds * 1e9)), 1000000000);
}

// 16 cells (2 rows of 8 columns), black or white by the bits of `index`.
inline std::shared_ptr<SampleBuffer> makeFrame(SurfacePool& pool, int index, MediaTime pts) {
    auto s = pool.acquire().value();
    const int w = s->width(), h = s->height();
    for (int y = 0; y < h; ++y) {
        uint8_t* row = s->mutableRow(y);
        for (int x = 0; x < w; ++x) {
            uint8_t v = (index >> ((y * 2 / h) * 8 + x * 8 / w)) & 1 ? 235 : 16;
            std::memset(row + 4 * x, v, 3);
            row[4 * x + 3] = 255;
        }
    }
    return SampleBuffer::makeVideo(s, pts);
}

// A 440 Hz tone of `frames` frames starting at `startFrame` (phase continuous).
inline std::shared_ptr<SampleBuffer> makeTone(const AudioStreamFormat& f, int64_t startFrame,
                                              int frames, MediaTime pts) {
    auto block = std::make_shared<DataBlock>(size_t(frames) * f.bytesPerFrame);
    for (int i = 0; i < frames; ++i) {
        double v = 0.5 * std::sin(2 * M_PI * 440.0 * double(startFrame + i) / f.sampleRate);
        for (uint32_t c = 0; c < f.channelsPerFrame; ++c) {
            uint8_t* p = block->data() + size_t(i) * f.bytesPerFrame + c * f.bitsPerChannel / 8;
            float x = float(v);
            auto u = uint16_t(int16_t(v * 32767));
            if (f.formatFlags & AudioStreamFormat::kFlagIsBigEndian) u = uint16_t(u << 8 | u >> 8);
            if (f.formatFlags & AudioStreamFormat::kFlagIsFloat)
                std::memcpy(p, &x, 4);
            else
                std::memcpy(p, &u, 2);
        }
    }
    return SampleBuffer::makeAudio(block, f, frames, pts);
}

inline Value videoSettings(int w, int h, Value props = Value::object()) {
    using namespace media;
    return Value{{kVideoCodecKey, kVideoCodecH264},
                 {kVideoWidthKey, w},
                 {kVideoHeightKey, h},
                 {kVideoCompressionPropertiesKey, std::move(props)}};
}

// A writer at `path` with one H.264 input of `w`x`h`, not yet started.
struct VideoWriter {
    VideoWriter(const std::string& path, int w = 64, int h = 64, Value props = Value::object())
        : writer(media::MovieFileWriter::create(URL::fileURLWithPath(path), media::FileType::MPEG4)
                     .valueOr(nullptr)),
          video(media::MovieWriterInput::create(media::MediaType::Video,
                                                videoSettings(w, h, std::move(props)))
                    .valueOr(nullptr)) {
        if (writer && video) writer->addInput(video);
    }
    // Starts writing with a session at `start` seconds.
    void start(double start) {
        writer->startWriting();
        writer->startSessionAtSourceTime(hostTime(start));
    }
    // Waits (in the test only) until the input takes more, so nothing is dropped.
    static void append(media::MovieWriterInput& input, std::shared_ptr<SampleBuffer> sample) {
        ASSERT_TRUE(input.waitUntilReadyForMoreMediaData(std::chrono::seconds(30)));
        ASSERT_TRUE(input.appendSampleBuffer(std::move(sample)));
    }
    void finish() {
        awaitOnce<>([&](std::function<void()> done) { writer->finishWriting(done); });
    }
    std::shared_ptr<media::MovieFileWriter> writer;
    std::shared_ptr<media::MovieWriterInput> video;
};

struct StreamInfo {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    AVCodecID codec = AV_CODEC_ID_NONE;
    int profile = 0;
    int width = 0, height = 0;
    int sampleRate = 0, channels = 0;
    double startTime = 0;  // seconds, after the edit list
    double duration = 0;
    std::optional<std::vector<int32_t>> displayMatrix;
};

struct MovieInfo {
    bool ok = false;
    double duration = 0;
    std::map<std::string, std::string> tags;
    std::vector<StreamInfo> streams;
};

inline MovieInfo probeMovie(const std::string& path) {
    MovieInfo info;
    auto opened = media::openInputFormat(path);
    if (!opened) return info;
    auto in = std::move(*opened);
    info.ok = true;
    info.duration = in->duration / double(AV_TIME_BASE);
    const AVDictionaryEntry* t = nullptr;
    while ((t = av_dict_get(in->metadata, "", t, AV_DICT_IGNORE_SUFFIX)))
        info.tags[t->key] = t->value;
    for (unsigned i = 0; i < in->nb_streams; ++i) {
        AVStream* st = in->streams[i];
        const AVCodecParameters* p = st->codecpar;
        StreamInfo s{
            p->codec_type,           p->codec_id, p->profile, p->width, p->height, p->sample_rate,
            p->ch_layout.nb_channels};
        if (st->start_time != AV_NOPTS_VALUE) s.startTime = st->start_time * av_q2d(st->time_base);
        if (st->duration != AV_NOPTS_VALUE) s.duration = st->duration * av_q2d(st->time_base);
        size_t size = 0;
        if (auto* m = reinterpret_cast<const int32_t*>(
                av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, &size));
            m && size >= 36)
            s.displayMatrix = std::vector<int32_t>(m, m + 9);
        info.streams.push_back(s);
    }
    return info;
}

// Decodes track `index` (-1: the first video track), handing each frame and
// its presentation time in seconds to `onFrame`. Returns the track's end in
// seconds (huge when unknown).
inline double decodeTrack(const std::string& path, int index,
                          const std::function<void(const AVFrame&, double)>& onFrame) {
    auto opened = media::openInputFormat(path);
    if (!opened) return 0;
    auto in = std::move(*opened);
    if (index < 0) index = av_find_best_stream(in.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0 || index >= int(in->nb_streams)) return 0;
    AVStream* st = in->streams[index];
    const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
    media::CodecContextPtr dec(avcodec_alloc_context3(codec));
    media::PacketPtr pkt(av_packet_alloc());
    media::FramePtr frame(av_frame_alloc());
    if (!dec || !pkt || !frame || avcodec_parameters_to_context(dec.get(), st->codecpar) < 0)
        return 0;
    dec->thread_count = 1;
    if (avcodec_open2(dec.get(), codec, nullptr) < 0) return 0;
    auto receive = [&] {
        while (avcodec_receive_frame(dec.get(), frame.get()) >= 0) {
            int64_t ts = frame->best_effort_timestamp;
            onFrame(*frame, ts == AV_NOPTS_VALUE ? 0 : ts * av_q2d(st->time_base));
            av_frame_unref(frame.get());
        }
    };
    while (av_read_frame(in.get(), pkt.get()) >= 0) {
        if (pkt->stream_index == index) {
            avcodec_send_packet(dec.get(), pkt.get());
            receive();
        }
        av_packet_unref(pkt.get());
    }
    avcodec_send_packet(dec.get(), nullptr);
    receive();
    const int64_t start = st->start_time == AV_NOPTS_VALUE ? 0 : st->start_time;
    return st->duration > 0 ? double(start + st->duration) * av_q2d(st->time_base) : 1e18;
}

struct DecodedVideo {
    std::vector<int> indices;   // frame indices drawn into the pixels, in display order
    std::vector<double> times;  // their presentation times in seconds
};

// Frames that the edit list hides (negative times) are left out.
inline DecodedVideo decodeVideo(const std::string& path) {
    DecodedVideo out;
    const double end = decodeTrack(path, -1, [&](const AVFrame& f, double t) {
        if (t < -1e-6) return;
        int index = 0;  // read back from the centre of each cell of the luma plane
        for (int bit = 0; bit < 16; ++bit) {
            int x = (bit % 8) * f.width / 8 + f.width / 16,
                y = (bit / 8) * f.height / 2 + f.height / 4;
            if (f.data[0][y * f.linesize[0] + x] > 128) index |= 1 << bit;
        }
        out.indices.push_back(index);
        out.times.push_back(t);
    });
    // Reference frames kept only for decoding are shown for a few
    // microseconds just before the track's end: not a visible frame.
    for (size_t i = out.times.size(); i-- > 0;) {
        const double next = i + 1 < out.times.size() ? out.times[i + 1] : end;
        if (next - out.times[i] < 1e-3) {
            out.times.erase(out.times.begin() + long(i));
            out.indices.erase(out.indices.begin() + long(i));
        }
    }
    return out;
}

// One audio track as mono at its own rate (the first planar float channel).
inline std::vector<double> decodeAudio(const std::string& path, int track) {
    std::vector<double> out;
    decodeTrack(path, track, [&](const AVFrame& f, double) {
        const auto* p = reinterpret_cast<const float*>(f.data[0]);
        out.insert(out.end(), p, p + f.nb_samples);
    });
    return out;
}

}  // namespace sv::testing
