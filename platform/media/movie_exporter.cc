#include "platform/media/movie_exporter.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/media/ffmpeg_util.h"

namespace sv::media {
namespace {

struct InputContext {
    AVFormatContext* ctx = nullptr;
    ~InputContext() { avformat_close_input(&ctx); }
};

int openInput(const std::string& path, InputContext& in) {
    int r = avformat_open_input(&in.ctx, path.c_str(), nullptr, nullptr);
    if (r < 0) return r;
    return avformat_find_stream_info(in.ctx, nullptr);
}

// More frames than any H.264 stream reorders.
constexpr size_t kMaxReorderDepth = 16;
// Video is copied at a clock of at least this many ticks per second.
constexpr int kFineTimescale = 90000;

bool isCopiedType(AVMediaType t) {
    return t == AVMEDIA_TYPE_VIDEO || t == AVMEDIA_TYPE_AUDIO;
}

// Container bookkeeping that the reader reports as tags but that is no
// metadata of the movie.
bool isContainerTag(const char* key) {
    return !std::strcmp(key, "major_brand") || !std::strcmp(key, "minor_version") ||
           !std::strcmp(key, "compatible_brands") || !std::strcmp(key, "encoder");
}

struct PacketList {
    std::vector<AVPacket*> packets;
    ~PacketList() { clear(); }
    void clear() {
        for (auto* p : packets) av_packet_free(&p);
        packets.clear();
    }
    void dropFront() {
        av_packet_free(&packets.front());
        packets.erase(packets.begin());
    }
};

struct TrackCut {
    int out = -1;
    bool audio = false;
    int64_t start = 0;  // range start and end in the input stream's ticks
    int64_t end = 0;
    bool started = false;
    bool ended = false;
    int64_t lastDuration = 0;   // the reader may leave packet durations out
    int64_t frameDuration = 0;  // one frame at the track's average rate
    PacketList pending;         // from the last key frame, until the range starts
    PacketList overhang;        // past the end, until a reordered frame needs them
};

}  // namespace

std::shared_ptr<MovieAsset> MovieAsset::assetWithURL(const URL& url) {
    installLogForwarding();
    auto asset = std::make_shared<MovieAsset>();
    asset->url_ = url;
    InputContext in;
    int r = openInput(url.path, in);
    if (r < 0) {
        asset->error_ = makeError(r, "opening " + url.path);
        return asset;
    }
    for (unsigned i = 0; i < in.ctx->nb_streams; ++i)
        if (isCopiedType(in.ctx->streams[i]->codecpar->codec_type)) ++asset->tracks_;
    if (asset->tracks_ == 0 || in.ctx->duration == AV_NOPTS_VALUE || in.ctx->duration <= 0) {
        asset->error_ = MediaError{AVERROR_INVALIDDATA, url.path + " is not a movie"};
        return asset;
    }
    asset->duration_ = MediaTime::make(in.ctx->duration, AV_TIME_BASE);
    return asset;
}

std::shared_ptr<MovieExporter> MovieExporter::create(std::shared_ptr<MovieAsset> asset,
                                                     const std::string& preset) {
    if (!asset || preset != kPresetPassthrough) return nullptr;
    return std::shared_ptr<MovieExporter>(new MovieExporter(std::move(asset)));
}

void MovieExporter::setOutputURL(const URL& url) {
    std::lock_guard lock(mu_);
    output_ = url;
}
std::optional<URL> MovieExporter::outputURL() const {
    std::lock_guard lock(mu_);
    return output_;
}
void MovieExporter::setOutputFileType(FileType type) {
    std::lock_guard lock(mu_);
    type_ = type;
}
void MovieExporter::setTimeRange(MediaTime start, MediaTime duration) {
    std::lock_guard lock(mu_);
    start_ = start;
    duration_ = duration;
}
std::optional<MediaError> MovieExporter::error() const {
    std::lock_guard lock(mu_);
    return error_;
}

void MovieExporter::cancelExport() {
    cancelled_ = true;
    int expected = int(Status::Waiting);
    status_.compare_exchange_strong(expected, int(Status::Cancelled));
}

void MovieExporter::fail(int code, const std::string& what) {
    {
        std::lock_guard lock(mu_);
        error_ = makeError(code, what);
        log::error("MovieExporter: %@", error_->description());
    }
    status_ = int(Status::Failed);
}

void MovieExporter::exportAsynchronously(std::function<void()> completion) {
    int expected = int(Status::Unknown);
    if (!status_.compare_exchange_strong(expected, int(Status::Waiting))) {
        log::error("MovieExporter: export already started");
        return;
    }
    DispatchQueue::global()->async([self = shared_from_this(), completion = std::move(completion)] {
        if (self->status() == Status::Waiting) self->run();
        if (completion) completion();
    });
}

void MovieExporter::run() {
    status_ = int(Status::Exporting);
    std::optional<URL> output;
    MediaTime start, duration;
    FileType type;
    {
        std::lock_guard lock(mu_);
        output = output_;
        start = start_.value_or(MediaTime::zero());
        duration = duration_.value_or(asset_->duration());
        type = type_;
    }
    if (!output || output->path.empty()) return fail(AVERROR(EINVAL), "no output URL");
    if (type != FileType::MPEG4) return fail(AVERROR(EINVAL), "unsupported file type");
    if (!asset_->isReadable()) {
        std::lock_guard lock(mu_);
        error_ = asset_->error();
        log::error("MovieExporter: %@", error_->description());
        status_ = int(Status::Failed);
        return;
    }
    if (!start.isValid() || !duration.isValid() || duration.value <= 0)
        return fail(AVERROR(EINVAL), "the time range is empty");
    if (start.value < 0) start = MediaTime::zero();
    const MediaTime end = add(start, duration);

    InputContext in;
    int r = openInput(asset_->url().path, in);
    if (r < 0) return fail(r, "opening " + asset_->url().path);

    AVFormatContext* out = nullptr;
    r = avformat_alloc_output_context2(&out, nullptr, "mp4", output->path.c_str());
    if (r < 0 || !out) return fail(r < 0 ? r : AVERROR(ENOMEM), "MPEG-4 muxer");
    struct OutputGuard {
        AVFormatContext* ctx;
        ~OutputGuard() {
            if (ctx->pb) avio_closep(&ctx->pb);
            avformat_free_context(ctx);
        }
    } guard{out};

    std::vector<TrackCut> cuts(in.ctx->nb_streams);
    int mapped = 0;
    for (unsigned i = 0; i < in.ctx->nb_streams; ++i) {
        AVStream* is = in.ctx->streams[i];
        if (!isCopiedType(is->codecpar->codec_type)) continue;
        AVStream* os = avformat_new_stream(out, nullptr);
        if (!os) return fail(AVERROR(ENOMEM), "adding a track");
        avcodec_parameters_copy(os->codecpar, is->codecpar);
        os->codecpar->codec_tag = 0;
        os->time_base = is->time_base;
        if (is->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && is->time_base.den > 0 &&
            is->time_base.den < kFineTimescale)
            // A finer clock (an exact multiple) leaves room for reference
            // frames squeezed in just before the range's end.
            os->time_base.den *= (kFineTimescale + is->time_base.den - 1) / is->time_base.den;
        os->disposition = is->disposition;
        av_dict_copy(&os->metadata, is->metadata, 0);
        for (int s = 0; s < is->nb_side_data; ++s) {
            const AVPacketSideData& sd = is->side_data[s];
            if (uint8_t* dst = av_stream_new_side_data(os, sd.type, sd.size))
                std::memcpy(dst, sd.data, sd.size);
        }
        TrackCut& cut = cuts[i];
        cut.out = os->index;
        cut.audio = is->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
        cut.start = *toTicks(start, is->time_base);
        cut.end = *toTicks(end, is->time_base);
        if (is->avg_frame_rate.num > 0 && is->avg_frame_rate.den > 0)
            cut.frameDuration = av_rescale_q(1, av_inv_q(is->avg_frame_rate), is->time_base);
        ++mapped;
    }
    if (mapped == 0) return fail(AVERROR_INVALIDDATA, "no audio or video track to copy");

    bool reverseDNS = false;
    std::optional<std::string> encoder;
    const AVDictionaryEntry* tag = nullptr;
    while ((tag = av_dict_get(in.ctx->metadata, "", tag, AV_DICT_IGNORE_SUFFIX))) {
        if (!std::strcmp(tag->key, "encoder")) encoder = tag->value;
        if (isContainerTag(tag->key)) continue;
        av_dict_set(&out->metadata, tag->key, tag->value, 0);
        reverseDNS = reverseDNS || std::strchr(tag->key, '.');
    }

    r = avio_open(&out->pb, output->path.c_str(), AVIO_FLAG_WRITE);
    if (r < 0) return fail(r, "opening " + output->path);
    auto removeOutput = [&] {
        avio_closep(&out->pb);
        unlink(output->path.c_str());
    };
    AVDictionary* opts = nullptr;
    if (reverseDNS) av_dict_set(&opts, "movflags", "use_metadata_tags", 0);
    r = avformat_write_header(out, &opts);
    av_dict_free(&opts);
    if (r < 0) {
        removeOutput();
        return fail(r, "writing the movie header");
    }
    if (encoder) av_dict_set(&out->metadata, "encoder", encoder->c_str(), 0);

    int64_t written = 0;
    // `squeeze` > 0 shows the packet for one tick, that many ticks before
    // the range's end.
    auto write = [&](AVPacket* p, const TrackCut& cut, AVRational tb, int squeeze = 0) {
        const AVRational otb = out->streams[cut.out]->time_base;
        if (p->pts != AV_NOPTS_VALUE) p->pts -= cut.start;
        if (p->dts != AV_NOPTS_VALUE) p->dts -= cut.start;
        av_packet_rescale_ts(p, tb, otb);
        if (squeeze > 0) {
            p->pts = av_rescale_q(cut.end - cut.start, tb, otb) - squeeze;
            p->duration = 0;
        }
        p->stream_index = cut.out;
        p->pos = -1;
        ++written;
        return av_interleaved_write_frame(out, p);
    };

    AVPacket* pkt = av_packet_alloc();
    int open = mapped;
    while (open > 0) {
        if (cancelled_) break;
        r = av_read_frame(in.ctx, pkt);
        if (r == AVERROR_EOF) break;
        if (r < 0) break;
        TrackCut& cut = cuts[pkt->stream_index];
        AVRational tb = in.ctx->streams[pkt->stream_index]->time_base;
        int64_t pts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
        if (pkt->duration > 0)
            cut.lastDuration = pkt->duration;
        else
            pkt->duration = cut.lastDuration;
        // Without durations the last frame would end where it starts and the
        // edit list would hide it.
        if (pkt->duration <= 0) pkt->duration = cut.frameDuration;
        if (cut.out < 0 || cut.ended || pts == AV_NOPTS_VALUE) {
            av_packet_unref(pkt);
            continue;
        }
        int wr = 0;
        if (!cut.started) {
            if (pkt->flags & AV_PKT_FLAG_KEY) {
                // Video restarts its lead-in at every key frame; audio keeps
                // one packet before the range as decoder preroll.
                if (!cut.audio) cut.pending.clear();
                while (cut.audio && cut.pending.packets.size() > 1) cut.pending.dropFront();
            }
            cut.pending.packets.push_back(av_packet_clone(pkt));
            av_packet_unref(pkt);
            if (pts < cut.start) continue;
            cut.started = true;
            if (pts >= cut.end) {
                // Shorter than one packet: the lead-in alone.
                av_packet_free(&cut.pending.packets.back());
                cut.pending.packets.pop_back();
                cut.ended = true;
                --open;
            }
            for (auto*& p : cut.pending.packets)
                if (wr >= 0) wr = write(p, cut, tb);
            cut.pending.clear();
        } else if (pts >= cut.end || (!cut.audio && pts + pkt->duration / 2 >= cut.end)) {
            // Past the end (a frame counts only while at least half of it
            // lies in the range). Reordered frames before the end may still
            // follow in decode order and need it as a reference: hold it
            // until one does. A key frame or a long run ends the track.
            if (cut.audio || (pkt->flags & AV_PKT_FLAG_KEY) ||
                cut.overhang.packets.size() >= kMaxReorderDepth) {
                cut.ended = true;
                cut.overhang.clear();
                --open;
            } else {
                cut.overhang.packets.push_back(av_packet_clone(pkt));
            }
            av_packet_unref(pkt);
        } else {
            // Held references are decoded but shown for one tick each just
            // before the end, so the track still ends with the range.
            // Written in decode order, shown in presentation order.
            auto& held = cut.overhang.packets;
            std::vector<int> later(held.size(), 0);
            for (size_t k = 0; k < held.size(); ++k)
                for (const AVPacket* other : held) later[k] += other->pts > held[k]->pts;
            for (size_t k = 0; k < held.size() && wr >= 0; ++k)
                wr = write(held[k], cut, tb, later[k] + 1);
            cut.overhang.clear();
            if (wr >= 0) wr = write(pkt, cut, tb);
            av_packet_unref(pkt);
        }
        if (wr < 0) {
            r = wr;
            break;
        }
    }
    av_packet_free(&pkt);
    if (cancelled_) {
        removeOutput();
        status_ = int(Status::Cancelled);
        return;
    }
    if (r < 0 && r != AVERROR_EOF) {
        removeOutput();
        return fail(r, "copying " + asset_->url().path);
    }
    if (written == 0) {
        removeOutput();
        return fail(AVERROR(EINVAL), "the time range holds no media");
    }
    r = av_write_trailer(out);
    if (r >= 0) {
        avio_flush(out->pb);
        r = out->pb->error;
    }
    avio_closep(&out->pb);
    if (r < 0) {
        unlink(output->path.c_str());
        return fail(r, "finishing " + output->path);
    }
    status_ = int(Status::Completed);
}

}  // namespace sv::media
