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

struct TrackCut {
    int out = -1;
    bool audio = false;
    int64_t start = 0;  // range start and end in the input stream's ticks
    int64_t end = 0;
    bool started = false;
    bool ended = false;
    int64_t lastDuration = 0;         // the reader may leave packet durations out
    int64_t frameDuration = 0;        // one frame at the track's average rate
    std::vector<PacketPtr> pending;   // from the last key frame, until the range starts
    std::vector<PacketPtr> overhang;  // past the end, until a reordered frame needs them
};

// What stopped a copy that did not complete.
struct CopyFailure {
    int code = 0;
    std::string what;
};

// One export: copies the packets of [start, end) of a movie into a new
// MPEG-4 file, track by track, without decoding. Runs on one thread and
// owns every FFmpeg handle of the export; run() takes the steps in order.
class RangeCopy {
  public:
    RangeCopy(std::string input, std::string output, MediaTime start, MediaTime end,
              const std::atomic<bool>& cancelled)
        : inputPath_(std::move(input)),
          outputPath_(std::move(output)),
          start_(start),
          end_(end),
          cancelled_(cancelled) {}

    // Nothing when the copy completed or was cancelled (cancelled() tells);
    // the partial output is removed in both failed and cancelled cases.
    std::optional<CopyFailure> run() {
        if (auto f = openInput()) return f;
        if (auto f = createOutput()) return f;
        if (auto f = copyMetadata()) return f;
        if (auto f = writeHeader()) return f;
        if (auto f = copyPackets()) {
            removeOutput();
            return f;
        }
        if (cancelled_) {
            removeOutput();
            return std::nullopt;
        }
        return finishOutput();
    }

  private:
    std::optional<CopyFailure> openInput() {
        auto in = openInputFormat(inputPath_);
        if (!in) return CopyFailure{int(in.error().code), "opening " + inputPath_};
        in_ = std::move(*in);
        return std::nullopt;
    }

    // The muxer and one output track per audio or video track of the input.
    std::optional<CopyFailure> createOutput() {
        auto out = makeMPEG4Output(outputPath_);
        if (!out) return CopyFailure{int(out.error().code), "MPEG-4 muxer"};
        out_ = std::move(*out);
        cuts_.resize(in_->nb_streams);
        int mapped = 0;
        for (unsigned i = 0; i < in_->nb_streams; ++i) {
            if (!isCopiedType(in_->streams[i]->codecpar->codec_type)) continue;
            if (int e = addTrack(i); e < 0) return CopyFailure{e, "adding a track"};
            ++mapped;
        }
        if (mapped == 0) return CopyFailure{AVERROR_INVALIDDATA, "no audio or video track to copy"};
        return std::nullopt;
    }

    int addTrack(unsigned index) {
        AVStream* is = in_->streams[index];
        AVStream* os = avformat_new_stream(out_.get(), nullptr);
        if (!os) return AVERROR(ENOMEM);
        if (int r = avcodec_parameters_copy(os->codecpar, is->codecpar); r < 0) return r;
        os->codecpar->codec_tag = 0;
        os->time_base = is->time_base;
        if (is->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && is->time_base.den > 0 &&
            is->time_base.den < kFineTimescale)
            // A finer clock (an exact multiple) leaves room for reference
            // frames squeezed in just before the range's end.
            os->time_base.den *= (kFineTimescale + is->time_base.den - 1) / is->time_base.den;
        os->disposition = is->disposition;
        if (int r = av_dict_copy(&os->metadata, is->metadata, 0); r < 0) return r;
        for (int s = 0; s < is->nb_side_data; ++s) {
            const AVPacketSideData& sd = is->side_data[s];
            uint8_t* dst = av_stream_new_side_data(os, sd.type, sd.size);
            if (!dst) return AVERROR(ENOMEM);
            std::memcpy(dst, sd.data, sd.size);
        }
        TrackCut& cut = cuts_[index];
        cut.out = os->index;
        cut.audio = is->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
        cut.start = *toTicks(start_, is->time_base);
        cut.end = *toTicks(end_, is->time_base);
        if (is->avg_frame_rate.num > 0 && is->avg_frame_rate.den > 0)
            cut.frameDuration = av_rescale_q(1, av_inv_q(is->avg_frame_rate), is->time_base);
        return 0;
    }

    // The movie's tags, without the container's own; the encoder tag is set
    // again after the header (the muxer writes its own name there).
    std::optional<CopyFailure> copyMetadata() {
        const AVDictionaryEntry* tag = nullptr;
        while ((tag = av_dict_get(in_->metadata, "", tag, AV_DICT_IGNORE_SUFFIX))) {
            if (!std::strcmp(tag->key, "encoder")) encoder_ = tag->value;
            if (isContainerTag(tag->key)) continue;
            if (int r = av_dict_set(&out_->metadata, tag->key, tag->value, 0); r < 0)
                return CopyFailure{r, "copying the movie's metadata"};
            reverseDNS_ = reverseDNS_ || std::strchr(tag->key, '.');
        }
        return std::nullopt;
    }

    std::optional<CopyFailure> writeHeader() {
        int r = avio_open(&out_->pb, outputPath_.c_str(), AVIO_FLAG_WRITE);
        if (r < 0) return CopyFailure{r, "opening " + outputPath_};
        OptionDictionary opts;
        if (reverseDNS_) r = opts.set("movflags", "use_metadata_tags");
        if (r >= 0) r = avformat_write_header(out_.get(), opts.address());
        if (r >= 0 && encoder_) r = av_dict_set(&out_->metadata, "encoder", encoder_->c_str(), 0);
        if (r < 0) {
            removeOutput();
            return CopyFailure{r, "writing the movie header"};
        }
        return std::nullopt;
    }

    // Reads the input to the end of the range (or until cancelled) and
    // writes what each track keeps.
    std::optional<CopyFailure> copyPackets() {
        PacketPtr pkt(av_packet_alloc());
        if (!pkt) return CopyFailure{AVERROR(ENOMEM), "copying " + inputPath_};
        int open = 0;
        for (const auto& cut : cuts_) open += cut.out >= 0;
        int r = 0;
        while (open > 0 && !cancelled_) {
            r = av_read_frame(in_.get(), pkt.get());
            if (r < 0) break;
            bool ended = false;
            r = routePacket(pkt.get(), &ended);
            av_packet_unref(pkt.get());
            if (ended) --open;
            if (r < 0) break;
        }
        if (cancelled_ || r >= 0 || r == AVERROR_EOF) {
            if (!cancelled_ && written_ == 0)
                return CopyFailure{AVERROR(EINVAL), "the time range holds no media"};
            return std::nullopt;
        }
        return CopyFailure{r, "copying " + inputPath_};
    }

    // One packet read from the input, by where it lies in its track's range.
    // Sets `ended` when the track takes no more packets.
    int routePacket(AVPacket* pkt, bool* ended) {
        TrackCut& cut = cuts_[pkt->stream_index];
        const AVRational tb = in_->streams[pkt->stream_index]->time_base;
        const int64_t pts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
        if (pkt->duration > 0)
            cut.lastDuration = pkt->duration;
        else
            pkt->duration = cut.lastDuration;
        // Without durations the last frame would end where it starts and the
        // edit list would hide it.
        if (pkt->duration <= 0) pkt->duration = cut.frameDuration;
        if (cut.out < 0 || cut.ended || pts == AV_NOPTS_VALUE) return 0;
        if (!cut.started) return beforeRangeStarted(cut, pkt, tb, pts, ended);
        if (pts >= cut.end || (!cut.audio && pts + pkt->duration / 2 >= cut.end))
            return pastRangeEnd(cut, pkt, ended);
        return insideRange(cut, pkt, tb);
    }

    // Collects the lead-in from the last key frame; the packet that reaches
    // the range's start writes it.
    int beforeRangeStarted(TrackCut& cut, AVPacket* pkt, AVRational tb, int64_t pts, bool* ended) {
        if (pkt->flags & AV_PKT_FLAG_KEY) {
            // Video restarts its lead-in at every key frame; audio keeps one
            // packet before the range as decoder preroll.
            if (!cut.audio) cut.pending.clear();
            while (cut.audio && cut.pending.size() > 1) cut.pending.erase(cut.pending.begin());
        }
        PacketPtr copy = clonePacket(pkt);
        if (!copy) return AVERROR(ENOMEM);
        cut.pending.push_back(std::move(copy));
        if (pts < cut.start) return 0;
        cut.started = true;
        if (pts >= cut.end) {
            // Shorter than one packet: the lead-in alone.
            cut.pending.pop_back();
            cut.ended = true;
            *ended = true;
        }
        int r = 0;
        for (auto& p : cut.pending)
            if (r >= 0) r = write(p.get(), cut, tb);
        cut.pending.clear();
        return r;
    }

    // Past the end (a video frame counts only while at least half of it lies
    // in the range). Reordered frames before the end may still follow in
    // decode order and need it as a reference: hold it until one does. A
    // key frame or a long run ends the track.
    int pastRangeEnd(TrackCut& cut, AVPacket* pkt, bool* ended) {
        if (cut.audio || (pkt->flags & AV_PKT_FLAG_KEY) ||
            cut.overhang.size() >= kMaxReorderDepth) {
            cut.ended = true;
            cut.overhang.clear();
            *ended = true;
            return 0;
        }
        PacketPtr copy = clonePacket(pkt);
        if (!copy) return AVERROR(ENOMEM);
        cut.overhang.push_back(std::move(copy));
        return 0;
    }

    // Held references are decoded but shown for one tick each just before
    // the end, so the track still ends with the range. Written in decode
    // order, shown in presentation order.
    int insideRange(TrackCut& cut, AVPacket* pkt, AVRational tb) {
        auto& held = cut.overhang;
        std::vector<int> later(held.size(), 0);
        for (size_t k = 0; k < held.size(); ++k)
            for (const auto& other : held) later[k] += other->pts > held[k]->pts;
        int r = 0;
        for (size_t k = 0; k < held.size() && r >= 0; ++k)
            r = write(held[k].get(), cut, tb, later[k] + 1);
        held.clear();
        if (r >= 0) r = write(pkt, cut, tb);
        return r;
    }

    // `squeeze` > 0 shows the packet for one tick, that many ticks before
    // the range's end.
    int write(AVPacket* p, const TrackCut& cut, AVRational tb, int squeeze = 0) {
        const AVRational otb = out_->streams[cut.out]->time_base;
        if (p->pts != AV_NOPTS_VALUE) p->pts -= cut.start;
        if (p->dts != AV_NOPTS_VALUE) p->dts -= cut.start;
        av_packet_rescale_ts(p, tb, otb);
        if (squeeze > 0) {
            p->pts = av_rescale_q(cut.end - cut.start, tb, otb) - squeeze;
            p->duration = 0;
        }
        p->stream_index = cut.out;
        p->pos = -1;
        ++written_;
        return av_interleaved_write_frame(out_.get(), p);
    }

    std::optional<CopyFailure> finishOutput() {
        int r = av_write_trailer(out_.get());
        if (r >= 0) {
            avio_flush(out_->pb);
            r = out_->pb->error;
        }
        avio_closep(&out_->pb);
        if (r < 0) {
            unlink(outputPath_.c_str());
            return CopyFailure{r, "finishing " + outputPath_};
        }
        return std::nullopt;
    }

    void removeOutput() {
        avio_closep(&out_->pb);
        unlink(outputPath_.c_str());
    }

    const std::string inputPath_, outputPath_;
    const MediaTime start_, end_;
    const std::atomic<bool>& cancelled_;
    InputFormatPtr in_;
    OutputFormatPtr out_;
    std::vector<TrackCut> cuts_;
    std::optional<std::string> encoder_;
    bool reverseDNS_ = false;
    int64_t written_ = 0;
};

}  // namespace

std::shared_ptr<MovieAsset> MovieAsset::assetWithURL(const URL& url) {
    installLogForwarding();
    auto asset = std::make_shared<MovieAsset>();
    asset->url_ = url;
    auto opened = openInputFormat(url.path);
    if (!opened) {
        asset->error_ = opened.error();
        return asset;
    }
    InputFormatPtr in = std::move(*opened);
    for (unsigned i = 0; i < in->nb_streams; ++i)
        if (isCopiedType(in->streams[i]->codecpar->codec_type)) ++asset->tracks_;
    if (asset->tracks_ == 0 || in->duration == AV_NOPTS_VALUE || in->duration <= 0) {
        asset->error_ = mediaError(AVERROR_INVALIDDATA, url.path + " is not a movie");
        return asset;
    }
    // The timeline starts at the first video frame (the format's start when
    // there is no video).
    int64_t origin = in->start_time == AV_NOPTS_VALUE ? 0 : in->start_time;
    const int64_t end = origin + in->duration;
    for (unsigned i = 0; i < in->nb_streams; ++i) {
        const AVStream* st = in->streams[i];
        if (st->codecpar->codec_type != AVMEDIA_TYPE_VIDEO || st->start_time == AV_NOPTS_VALUE)
            continue;
        origin = std::max(origin, av_rescale_q(st->start_time, st->time_base, AV_TIME_BASE_Q));
        break;
    }
    asset->timelineStart_ = MediaTime::make(origin, AV_TIME_BASE);
    asset->duration_ = MediaTime::make(end - origin, AV_TIME_BASE);
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
OptionalError MovieExporter::error() const {
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
        log::error("MovieExporter: %@", mediaErrorText(*error_));
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
        log::error("MovieExporter: %@", mediaErrorText(*error_));
        status_ = int(Status::Failed);
        return;
    }
    if (!start.isValid() || !duration.isValid() || duration.value <= 0)
        return fail(AVERROR(EINVAL), "the time range is empty");
    if (start.value < 0) start = MediaTime::zero();

    start = add(start, asset_->timelineStart());
    RangeCopy copy(asset_->url().path, output->path, start, add(start, duration), cancelled_);
    if (auto failure = copy.run()) return fail(failure->code, failure->what);
    status_ = int(cancelled_ ? Status::Cancelled : Status::Completed);
}

}  // namespace sv::media
