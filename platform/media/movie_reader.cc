#include "platform/media/movie_reader.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include "platform/media/ffmpeg_util.h"

#if defined(__SANITIZE_THREAD__)
#define SV_UNDER_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SV_UNDER_THREAD_SANITIZER 1
#endif
#endif
#ifndef SV_UNDER_THREAD_SANITIZER
#define SV_UNDER_THREAD_SANITIZER 0
#endif

namespace sv::media {
namespace {

// The FFmpeg handles of one read are owned by the shared move-only types.
using FormatPtr = InputFormatPtr;
using CodecPtr = CodecContextPtr;

// Undecodable packets in a row after which a track counts as broken.
constexpr int kMaxConsecutiveErrors = 64;

// Opens `path` with the limits of a hostile file and reads its stream
// parameters. An error on failure.
Result<FormatPtr> openFormat(const std::string& path) {
    AVFormatContext* raw = avformat_alloc_context();
    if (!raw) return makeError(AVERROR(ENOMEM), "opening " + path);
    raw->max_streams = MovieReader::kMaxTracks;
    // avformat_open_input frees the context when it fails.
    int r = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
    if (r < 0) return makeError(r, path + " is not a readable movie");
    FormatPtr ctx(raw);
    // The probe decodes a few frames: it gets the same size limit.
    std::vector<AVDictionary*> options(ctx->nb_streams, nullptr);
    for (auto& o : options) av_dict_set_int(&o, "max_pixels", MovieReader::kMaxPixels, 0);
    r = avformat_find_stream_info(ctx.get(), options.data());
    for (auto& o : options) av_dict_free(&o);
    if (r < 0) return makeError(r, path + ": reading the stream parameters");
    return ctx;
}

std::map<std::string, std::string> tagsOf(const AVDictionary* dict) {
    std::map<std::string, std::string> tags;
    const AVDictionaryEntry* e = nullptr;
    while ((e = av_dict_get(dict, "", e, AV_DICT_IGNORE_SUFFIX))) tags[e->key] = e->value;
    return tags;
}

double seconds(int64_t ts, AVRational tb) {
    return ts == AV_NOPTS_VALUE ? 0.0 : double(ts) * av_q2d(tb);
}

TrackInfo describe(const AVStream* st) {
    const AVCodecParameters* p = st->codecpar;
    TrackInfo t;
    t.index = st->index;
    t.kind = p->codec_type == AVMEDIA_TYPE_VIDEO   ? TrackKind::Video
             : p->codec_type == AVMEDIA_TYPE_AUDIO ? TrackKind::Audio
                                                   : TrackKind::Other;
    t.codec = avcodec_get_name(p->codec_id);
    if (const char* profile = avcodec_profile_name(p->codec_id, p->profile)) t.profile = profile;
    t.startTime = seconds(st->start_time, st->time_base);
    t.duration = seconds(st->duration, st->time_base);
    // A fragmented movie has no sample table to count: its fragments, read
    // when the movie is opened, fill the index instead.
    t.frameCount = st->nb_frames > 0 ? st->nb_frames : avformat_index_get_entries_count(st);
    t.bitRate = p->bit_rate;
    if (t.kind == TrackKind::Video) {
        t.width = p->width;
        t.height = p->height;
    } else if (t.kind == TrackKind::Audio) {
        t.sampleRate = p->sample_rate;
        t.channels = p->ch_layout.nb_channels;
        if (st->duration != AV_NOPTS_VALUE && p->sample_rate > 0)
            t.sampleCount =
                av_rescale_q(st->duration, st->time_base, AVRational{1, p->sample_rate});
    }
    size_t size = 0;
    if (const uint8_t* m = av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, &size);
        m && size >= 9 * sizeof(int32_t)) {
        std::array<int32_t, 9> matrix{};
        std::memcpy(matrix.data(), m, sizeof matrix);
        t.displayMatrix = matrix;
        const double rotation = av_display_rotation_get(matrix.data());
        t.rotation = std::isfinite(rotation) ? rotation : 0.0;
        t.mirrored = double(matrix[0]) * matrix[4] - double(matrix[1]) * matrix[3] < 0;
    } else if (t.kind == TrackKind::Video) {
        // FFmpeg leaves an identity matrix out.
        t.displayMatrix = std::array<int32_t, 9>{1 << 16, 0, 0, 0, 1 << 16, 0, 0, 0, 1 << 30};
    }
    t.tags = tagsOf(st->metadata);
    return t;
}

struct ScalerFreer {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};

// One track being decoded.
struct Track {
    AVStream* stream = nullptr;
    CodecPtr decoder;
    int64_t packets = 0;
    int errors = 0;                          // undecodable packets in a row
    std::vector<std::vector<float>> planes;  // audio converted to float
    std::vector<const float*> pointers;
    std::unique_ptr<SwsContext, ScalerFreer> scaler;  // video that is not 8-bit YUV
    std::vector<uint8_t> gray;
};

// Plane 0 of 8-bit YUV and gray formats is the luma plane as it is.
bool hasLumaPlane(int format) {
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(AVPixelFormat(format));
    return d &&
           !(d->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_HWACCEL |
                         AV_PIX_FMT_FLAG_BITSTREAM)) &&
           d->nb_components >= 1 && d->comp[0].plane == 0 && d->comp[0].depth == 8 &&
           d->comp[0].step == 1;
}

// The luma of any other picture, converted into the track's buffer. False
// when the format cannot be converted.
bool toGray(const AVFrame& f, Track& t, LumaFrame& luma) {
    if (f.format < 0 || av_image_check_size(unsigned(f.width), unsigned(f.height), 0, nullptr) < 0)
        return false;
    t.scaler.reset(sws_getCachedContext(t.scaler.release(), f.width, f.height,
                                        AVPixelFormat(f.format), f.width, f.height,
                                        AV_PIX_FMT_GRAY8, SWS_POINT, nullptr, nullptr, nullptr));
    if (!t.scaler) return false;
    t.gray.resize(size_t(f.width) * size_t(f.height));
    uint8_t* dst[4] = {t.gray.data(), nullptr, nullptr, nullptr};
    int dstStride[4] = {f.width, 0, 0, 0};
    if (sws_scale(t.scaler.get(), f.data, f.linesize, 0, f.height, dst, dstStride) != f.height)
        return false;
    luma.data = t.gray.data();
    luma.bytesPerRow = f.width;
    return true;
}

// Audio of any PCM sample format as planar float.
bool toFloat(const AVFrame& f, Track& t) {
    const auto format = AVSampleFormat(f.format);
    const int channels = f.ch_layout.nb_channels;
    const bool planar = av_sample_fmt_is_planar(format);
    const int n = f.nb_samples;
    if (channels <= 0 || channels > 64 || n < 0) return false;
    t.planes.resize(size_t(channels));
    t.pointers.resize(size_t(channels));
    for (int c = 0; c < channels; ++c) {
        auto& out = t.planes[size_t(c)];
        out.resize(size_t(n));
        const uint8_t* base = planar ? f.extended_data[c] : f.extended_data[0];
        const int stride = planar ? 1 : channels;
        const int offset = planar ? 0 : c;
        for (int i = 0; i < n; ++i) {
            const int k = i * stride + offset;
            float v = 0;
            switch (av_get_packed_sample_fmt(format)) {
                case AV_SAMPLE_FMT_FLT:
                    v = reinterpret_cast<const float*>(base)[k];
                    break;
                case AV_SAMPLE_FMT_DBL:
                    v = float(reinterpret_cast<const double*>(base)[k]);
                    break;
                case AV_SAMPLE_FMT_S16:
                    v = float(reinterpret_cast<const int16_t*>(base)[k]) / 32768.0f;
                    break;
                case AV_SAMPLE_FMT_S32:
                    v = float(double(reinterpret_cast<const int32_t*>(base)[k]) / 2147483648.0);
                    break;
                case AV_SAMPLE_FMT_U8:
                    v = float(int(base[k]) - 128) / 128.0f;
                    break;
                default:
                    return false;
            }
            out[size_t(i)] = v;
        }
        t.pointers[size_t(c)] = out.data();
    }
    return true;
}

// A decoder for one track, with the limits of a hostile file.
Result<CodecPtr> openDecoder(AVStream& st) {
    const AVCodec* codec = avcodec_find_decoder(st.codecpar->codec_id);
    if (!codec)
        return makeError(AVERROR_DECODER_NOT_FOUND, "track " + std::to_string(st.index) +
                                                        ": no decoder for " +
                                                        avcodec_get_name(st.codecpar->codec_id));
    CodecPtr dec(avcodec_alloc_context3(codec));
    if (!dec) return makeError(AVERROR(ENOMEM), "allocating a decoder");
    int r = avcodec_parameters_to_context(dec.get(), st.codecpar);
    if (r >= 0) {
        dec->max_pixels = MovieReader::kMaxPixels;
#if SV_UNDER_THREAD_SANITIZER
        // FFmpeg's frame threads hand frames over with atomics that
        // ThreadSanitizer cannot see: decode on the caller's thread.
        dec->thread_count = 1;
#else
        dec->thread_count = 0;  // as many as the machine has
#endif
        dec->pkt_timebase = st.time_base;
        r = avcodec_open2(dec.get(), codec, nullptr);
    }
    if (r < 0) return makeError(r, "track " + std::to_string(st.index) + ": opening the decoder");
    return dec;
}

// A decoder for every track a callback wants; the other tracks are
// discarded unread.
Result<std::vector<Track>> openDecoders(AVFormatContext& ctx, bool wantVideo, bool wantAudio) {
    std::vector<Track> tracks(ctx.nb_streams);
    for (unsigned i = 0; i < ctx.nb_streams; ++i) {
        AVStream* st = ctx.streams[i];
        tracks[i].stream = st;
        const auto type = st->codecpar->codec_type;
        if (!(type == AVMEDIA_TYPE_VIDEO && wantVideo) &&
            !(type == AVMEDIA_TYPE_AUDIO && wantAudio)) {
            st->discard = AVDISCARD_ALL;
            continue;
        }
        auto decoder = openDecoder(*st);
        if (!decoder) return decoder.error();
        tracks[i].decoder = std::move(*decoder);
    }
    return tracks;
}

// What the decoding loop hands its frames to; `frame` is the one scratch
// frame of the read.
struct Delivery {
    const MovieReader::VideoCallback& onVideo;
    const MovieReader::AudioCallback& onAudio;
    AVFrame* frame;
};

// Hands one decoded frame to its callback: false when the callback asked
// to end.
bool deliverFrame(const AVFrame& f, Track& t, const Delivery& d) {
    const int64_t ts = f.best_effort_timestamp;
    const double time = seconds(ts, t.stream->time_base);
    // Frames before the movie's start are hidden by its edit list.
    if (ts == AV_NOPTS_VALUE || time < -1e-6) return true;
    if (t.stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
        LumaFrame luma{t.stream->index,
                       f.data[0],
                       f.width,
                       f.height,
                       f.linesize[0],
                       time,
                       seconds(f.pkt_duration, t.stream->time_base)};
        if (f.data[0] && f.width > 0 && f.height > 0 &&
            (hasLumaPlane(f.format) || toGray(f, t, luma)))
            return d.onVideo(luma);
    } else if (toFloat(f, t)) {
        PCMBlock block{t.stream->index, t.pointers.data(), int(t.pointers.size()),
                       f.nb_samples,    f.sample_rate,     time};
        return d.onAudio(block);
    }
    return true;
}

// Hands every frame the decoder has ready to the callbacks: false when a
// callback asked to end.
Result<bool> drain(Track& t, const Delivery& d) {
    for (;;) {
        int r = avcodec_receive_frame(t.decoder.get(), d.frame);
        if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return true;
        if (r < 0) {
            if (++t.errors > kMaxConsecutiveErrors)
                return makeError(r,
                                 "track " + std::to_string(t.stream->index) + " cannot be decoded");
            continue;
        }
        t.errors = 0;
        const bool keepGoing = deliverFrame(*d.frame, t, d);
        av_frame_unref(d.frame);
        if (!keepGoing) return false;
    }
}

// Feeds one packet to its track's decoder (and drops it); false when a
// callback asked to end.
Result<bool> decodePacket(std::vector<Track>& tracks, AVPacket& packet, const Delivery& d) {
    const int index = packet.stream_index;
    Track* t = index >= 0 && index < int(tracks.size()) ? &tracks[size_t(index)] : nullptr;
    if (t) ++t->packets;
    if (!t || !t->decoder) {
        av_packet_unref(&packet);
        return true;
    }
    int r = avcodec_send_packet(t->decoder.get(), &packet);
    av_packet_unref(&packet);
    if (r < 0 && r != AVERROR(EAGAIN)) {
        if (++t->errors > kMaxConsecutiveErrors)
            return makeError(r, "track " + std::to_string(index) + " cannot be decoded");
        return true;
    }
    return drain(*t, d);
}

// A track whose index names more samples than the file holds was cut off.
Result<void> checkComplete(const std::vector<Track>& tracks, const std::string& path) {
    for (const Track& t : tracks) {
        const int expected = avformat_index_get_entries_count(t.stream);
        if (t.decoder && t.packets < expected)
            return makeError(AVERROR_INVALIDDATA,
                             path + " is truncated: track " + std::to_string(t.stream->index) +
                                 " ends after " + std::to_string(t.packets) + " of " +
                                 std::to_string(expected) + " samples");
    }
    return {};
}

}  // namespace

Result<std::unique_ptr<MovieReader>> MovieReader::open(const std::string& path) {
    installLogForwarding();
    auto opened = openFormat(path);
    if (!opened) return opened.error();
    FormatPtr ctx = std::move(*opened);
    std::unique_ptr<MovieReader> reader(new MovieReader(path));
    MovieInfo& info = reader->info_;
    info.format = ctx->iformat ? ctx->iformat->name : "";
    info.duration = ctx->duration == AV_NOPTS_VALUE ? 0.0 : double(ctx->duration) / AV_TIME_BASE;
    info.fileSize = ctx->pb ? std::max<int64_t>(0, avio_size(ctx->pb)) : 0;
    info.tags = tagsOf(ctx->metadata);
    for (unsigned i = 0; i < ctx->nb_streams; ++i) info.tracks.push_back(describe(ctx->streams[i]));
    return reader;
}

MovieReader::~MovieReader() = default;

Result<void> MovieReader::decode(const VideoCallback& onVideo, const AudioCallback& onAudio) {
    auto opened = openFormat(path_);
    if (!opened) return opened.error();
    FormatPtr ctx = std::move(*opened);
    auto tracks = openDecoders(*ctx, bool(onVideo), bool(onAudio));
    if (!tracks) return tracks.error();

    PacketPtr packet(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    if (!packet || !frame) return makeError(AVERROR(ENOMEM), "allocating a packet and a frame");
    const Delivery deliver{onVideo, onAudio, frame.get()};

    for (;;) {
        int r = av_read_frame(ctx.get(), packet.get());
        if (r == AVERROR_EOF) break;
        if (r < 0) return makeError(r, "reading " + path_);
        auto more = decodePacket(*tracks, *packet, deliver);
        if (!more) return more.error();
        if (!*more) return {};
    }
    for (Track& t : *tracks) {
        if (!t.decoder) continue;
        avcodec_send_packet(t.decoder.get(), nullptr);
        auto more = drain(t, deliver);
        if (!more) return more.error();
        if (!*more) return {};
    }
    return checkComplete(*tracks, path_);
}

}  // namespace sv::media
