// Test helpers: frames with their index drawn into the pixels, audio tones,
// and a libavformat/libavcodec reader for what a test wrote.
#pragma once

#include <cmath>
#include <cstdint>
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
#include "platform/media_time.h"
#include "platform/sample_buffer.h"
#include "platform/shared_surface.h"

namespace sv::testing {

// 16 cells (2 rows of 8 columns), black or white by the bits of `index`.
inline void drawIndex(SharedSurface& s, int index) {
    const int w = s.width(), h = s.height();
    for (int y = 0; y < h; ++y) {
        uint8_t* row = s.mutableRow(y);
        int r = y * 2 / h;
        for (int x = 0; x < w; ++x) {
            int bit = r * 8 + x * 8 / w;
            uint8_t v = (index >> bit) & 1 ? 235 : 16;
            row[4 * x + 0] = v;
            row[4 * x + 1] = v;
            row[4 * x + 2] = v;
            row[4 * x + 3] = 255;
        }
    }
}

// Reads back the index from a decoded 8-bit luma plane.
inline int readIndex(const uint8_t* luma, int stride, int w, int h) {
    int index = 0;
    for (int bit = 0; bit < 16; ++bit) {
        int r = bit / 8, c = bit % 8;
        int x = c * w / 8 + w / 16, y = r * h / 2 + h / 4;
        if (luma[y * stride + x] > 128) index |= 1 << bit;
    }
    return index;
}

inline std::shared_ptr<SampleBuffer> makeFrame(SurfacePool& pool, int index, MediaTime pts) {
    auto surface = pool.acquire();
    drawIndex(*surface, index);
    return SampleBuffer::makeVideo(surface, pts);
}

// A 440 Hz tone of `frames` frames starting at `startFrame` (phase continuous).
inline std::shared_ptr<SampleBuffer> makeTone(const AudioStreamFormat& f, int64_t startFrame,
                                              int frames, MediaTime pts) {
    const int ch = int(f.channelsPerFrame);
    auto block = std::make_shared<DataBlock>(size_t(frames) * f.bytesPerFrame);
    for (int i = 0; i < frames; ++i) {
        double v = 0.5 * std::sin(2 * M_PI * 440.0 * double(startFrame + i) / f.sampleRate);
        for (int c = 0; c < ch; ++c) {
            uint8_t* p =
                block->data() + size_t(i) * f.bytesPerFrame + size_t(c) * f.bitsPerChannel / 8;
            if (f.formatFlags & AudioStreamFormat::kFlagIsFloat) {
                float x = float(v);
                std::memcpy(p, &x, 4);
            } else {
                int16_t x = int16_t(v * 32767);
                if (f.formatFlags & AudioStreamFormat::kFlagIsBigEndian) {
                    p[0] = uint8_t(uint16_t(x) >> 8);
                    p[1] = uint8_t(x & 0xff);
                } else {
                    std::memcpy(p, &x, 2);
                }
            }
        }
    }
    return SampleBuffer::makeAudio(block, f, frames, pts);
}

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
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) < 0) return info;
    if (avformat_find_stream_info(ctx, nullptr) < 0) {
        avformat_close_input(&ctx);
        return info;
    }
    info.ok = true;
    info.duration = ctx->duration / double(AV_TIME_BASE);
    const AVDictionaryEntry* t = nullptr;
    while ((t = av_dict_get(ctx->metadata, "", t, AV_DICT_IGNORE_SUFFIX)))
        info.tags[t->key] = t->value;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        AVStream* st = ctx->streams[i];
        StreamInfo s;
        s.type = st->codecpar->codec_type;
        s.codec = st->codecpar->codec_id;
        s.profile = st->codecpar->profile;
        s.width = st->codecpar->width;
        s.height = st->codecpar->height;
        s.sampleRate = st->codecpar->sample_rate;
        s.channels = st->codecpar->ch_layout.nb_channels;
        if (st->start_time != AV_NOPTS_VALUE) s.startTime = st->start_time * av_q2d(st->time_base);
        if (st->duration != AV_NOPTS_VALUE) s.duration = st->duration * av_q2d(st->time_base);
        size_t size = 0;
        if (auto* m = reinterpret_cast<const int32_t*>(
                av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, &size));
            m && size >= 36)
            s.displayMatrix = std::vector<int32_t>(m, m + 9);
        info.streams.push_back(s);
    }
    avformat_close_input(&ctx);
    return info;
}

struct DecodedVideo {
    std::vector<int> indices;   // frame indices drawn into the pixels, in display order
    std::vector<double> times;  // their presentation times in seconds
};

// Decodes the first video track; frames that the edit list hides (negative
// times) are left out.
inline DecodedVideo decodeVideo(const std::string& path, int maxFrames = 1 << 30) {
    DecodedVideo out;
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) < 0) return out;
    avformat_find_stream_info(ctx, nullptr);
    int vi = av_find_best_stream(ctx, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (vi < 0) {
        avformat_close_input(&ctx);
        return out;
    }
    AVStream* st = ctx->streams[vi];
    const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
    AVCodecContext* dec = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(dec, st->codecpar);
    dec->thread_count = 1;
    avcodec_open2(dec, codec, nullptr);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    auto receive = [&] {
        while (avcodec_receive_frame(dec, frame) >= 0) {
            int64_t ts = frame->best_effort_timestamp;
            double sec = ts == AV_NOPTS_VALUE ? 0 : ts * av_q2d(st->time_base);
            if (sec >= -1e-6 && int(out.indices.size()) < maxFrames) {
                out.indices.push_back(
                    readIndex(frame->data[0], frame->linesize[0], frame->width, frame->height));
                out.times.push_back(sec);
            }
            av_frame_unref(frame);
        }
    };
    while (av_read_frame(ctx, pkt) >= 0 && int(out.indices.size()) < maxFrames) {
        if (pkt->stream_index == vi) {
            avcodec_send_packet(dec, pkt);
            receive();
        }
        av_packet_unref(pkt);
    }
    avcodec_send_packet(dec, nullptr);
    receive();
    // Reference frames kept only for decoding are shown for a few
    // microseconds just before the track's end: not a visible frame.
    const double end = st->duration > 0 ? st->duration * av_q2d(st->time_base) : 1e18;
    for (size_t i = out.times.size(); i-- > 0;) {
        const double next = i + 1 < out.times.size() ? out.times[i + 1] : end;
        if (next - out.times[i] < 1e-3) {
            out.times.erase(out.times.begin() + long(i));
            out.indices.erase(out.indices.begin() + long(i));
        }
    }
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&dec);
    avformat_close_input(&ctx);
    return out;
}

}  // namespace sv::testing
