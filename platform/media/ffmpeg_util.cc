#include "platform/media/ffmpeg_util.h"

#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>

extern "C" {
#include <libavutil/mathematics.h>
}

#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/media/fragmented_movie.h"

namespace sv::media {

namespace {

// FFmpeg's own messages: errors go to the system log, the rest is dropped.
void forwardLog(void*, int level, const char* fmt, va_list args) {
    if (level > AV_LOG_ERROR) return;
    char line[1024];
    std::vsnprintf(line, sizeof line, fmt, args);
    std::string text(line);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    log::error("FFmpeg: %@", text);
}

}  // namespace

void installLogForwarding() {
    static OnceFlag once;
    dispatchOnce(once, [] { av_log_set_callback(forwardLog); });
}

std::string avErrorString(int code) {
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, buf, sizeof buf);
    return buf;
}

Error mediaError(int64_t code, const std::string& message) {
    return Error::make(kMovieWriterErrorDomain, code, message);
}

std::string mediaErrorText(const Error& error) {
    return error.message() + " (" + std::to_string(error.code) + ")";
}

Error makeError(int code, const std::string& what) {
    return mediaError(code, what + ": " + avErrorString(code));
}

void displayMatrixFor(const AffineTransform& t, int32_t m[9]) {
    auto fixed16 = [](float v) { return int32_t(std::lround(double(v) * 65536.0)); };
    m[0] = fixed16(t.a);
    m[1] = fixed16(t.b);
    m[2] = 0;
    m[3] = fixed16(t.c);
    m[4] = fixed16(t.d);
    m[5] = 0;
    m[6] = fixed16(t.tx);
    m[7] = fixed16(t.ty);
    m[8] = 1 << 30;
}

Result<InputFormatPtr> openInputFormat(const std::string& path) {
    AVFormatContext* opened = nullptr;
    // On failure avformat_open_input frees what it allocated.
    int r = avformat_open_input(&opened, path.c_str(), nullptr, nullptr);
    InputFormatPtr ctx(opened);
    if (r >= 0) r = avformat_find_stream_info(ctx.get(), nullptr);
    if (r < 0) return makeError(r, "opening " + path);
    return ctx;
}

Result<OutputFormatPtr> makeMPEG4Output(const std::string& path) {
    AVFormatContext* made = nullptr;
    int r = avformat_alloc_output_context2(&made, nullptr, "mp4", path.c_str());
    OutputFormatPtr ctx(made);
    if (r < 0 || !ctx) return makeError(r < 0 ? r : AVERROR(ENOMEM), "MPEG-4 muxer");
    return ctx;
}

int applyMetadata(AVFormatContext* ctx, const MetadataList& items,
                  std::optional<std::string>* encoder) {
    for (const auto& item : items) {
        if (!item || !item->value || item->value->empty()) continue;
        std::string tag = fileTagForKey(item->key);
        if (tag == "encoder") {
            if (encoder) *encoder = *item->value;
        } else if (int r = av_dict_set(&ctx->metadata, tag.c_str(), item->value->c_str(), 0);
                   r < 0) {
            return r;
        }
    }
    return 0;
}

std::optional<int64_t> toTicks(const MediaTime& t, AVRational tb) {
    if (!t.isValid()) return std::nullopt;
    return av_rescale_rnd(t.value, tb.den, int64_t(t.timescale) * tb.num,
                          AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

void MovieFileWriter::Muxer::failLocked(int code, const std::string& what) {
    if (!error) error = makeError(code, what);
    log::error("MovieFileWriter: %@", mediaErrorText(*error));
    status = int(Status::Failed);
}

bool MovieFileWriter::Muxer::ensureHeaderLocked() {
    if (headerWritten) return true;
    if (status != int(Status::Writing)) return false;
    int r = avio_open(&ctx->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (r < 0) {
        failLocked(r, "opening " + path);
        return false;
    }
    opened = true;
    std::optional<std::string> encoder;
    OptionDictionary opts;
    r = applyMetadata(ctx.get(), metadata, &encoder);
    // Fragments: what is written stays playable when the process is killed
    // or the disk fills (see fragmented_movie.h). Reverse-DNS keys are only
    // kept in the metadata-keys form of the box.
    std::string flags = kFragmentedMovieFlags;
    if (!metadata.empty()) flags += "+use_metadata_tags";
    if (r >= 0) r = opts.set("movflags", flags.c_str());
    if (r >= 0) r = opts.set("frag_duration", std::to_string(kFragmentMicroseconds).c_str());
    // A track that has no samples for a while (no audio to tap) must not
    // hold the others back in the interleaving queue, or they would reach
    // the file seconds late (see kStartInterleaveMicroseconds).
    ctx->max_interleave_delta = kStartInterleaveMicroseconds;
    // Each finished fragment goes to the file at once rather than waiting in
    // the I/O buffer (a fragment of a still screen is a few kB); the packets
    // in between only reach the fragment's buffer in memory, so this costs
    // a write per fragment.
    ctx->flush_packets = 1;
    if (r >= 0) r = avformat_init_output(ctx.get(), opts.address());
    // The muxer has set its own name as the encoder; the movie box, with the
    // metadata, is written with the header below, so ours replaces it here.
    if (r >= 0 && encoder) r = av_dict_set(&ctx->metadata, "encoder", encoder->c_str(), 0);
    if (r >= 0) r = avformat_write_header(ctx.get(), nullptr);
    if (r < 0) {
        failLocked(r, "writing the movie header");
        return false;
    }
    headerWritten = true;
    return true;
}

bool MovieFileWriter::Muxer::writePacket(AVPacket* packet, int streamIndex, AVRational tb) {
    FailureHandler report;
    Error failure;
    {
        std::lock_guard lock(mu);
        if (status != int(Status::Writing)) return false;
        if (ensureHeaderLocked()) {
            AVStream* st = ctx->streams[streamIndex];
            av_packet_rescale_ts(packet, tb, st->time_base);
            packet->stream_index = streamIndex;
            int r = writeHeldPacketLocked(packet);
            if (r >= 0) return true;
            failLocked(r, "writing a packet");
        }
        report = std::exchange(failureHandler, nullptr);
        if (error) failure = *error;
    }
    if (report) report(failure);
    return false;
}

int MovieFileWriter::Muxer::writeHeldPacketLocked(AVPacket* next) {
    if (held.size() < ctx->nb_streams) held.resize(ctx->nb_streams);
    auto writeNow = [&](AVPacket* p) {
        const int64_t at =
            p->dts == AV_NOPTS_VALUE
                ? 0
                : av_rescale_q(p->dts, ctx->streams[p->stream_index]->time_base, AV_TIME_BASE_Q);
        int r = av_interleaved_write_frame(ctx.get(), p);
        // Past the start, every track's first packet is long decided.
        if (!interleaveShortened && at > 2 * kStartInterleaveMicroseconds) {
            ctx->max_interleave_delta = kInterleaveMicroseconds;
            interleaveShortened = true;
        }
        return r;
    };
    auto flushBeforeVideo = [&] {
        videoWritten = true;
        int r = 0;
        for (auto& p : beforeVideo)
            if (r >= 0) r = writeNow(p.get());
        beforeVideo.clear();
        return r;
    };
    auto write = [&](AVPacket* p) {
        if (videoWritten) return writeNow(p);
        if (ctx->streams[p->stream_index]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            int r = writeNow(p);
            return r < 0 ? r : flushBeforeVideo();
        }
        // Bounded: a movie whose video never comes still gets its audio.
        if (beforeVideo.size() >= kMaxPacketsBeforeVideo) {
            int r = flushBeforeVideo();
            return r < 0 ? r : writeNow(p);
        }
        PacketPtr copy(av_packet_alloc());
        if (!copy) return AVERROR(ENOMEM);
        av_packet_move_ref(copy.get(), p);
        beforeVideo.push_back(std::move(copy));
        return 0;
    };
    if (!next) {
        // Closing: what is held goes out as it is, video first.
        int r = 0;
        for (size_t i = 0; i < held.size(); ++i)
            if (held[i] && r >= 0 && ctx->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
                r = write(held[i].get());
        for (size_t i = 0; i < held.size(); ++i)
            if (held[i] && r >= 0 && ctx->streams[i]->codecpar->codec_type != AVMEDIA_TYPE_VIDEO)
                r = write(held[i].get());
        if (r >= 0) r = flushBeforeVideo();
        held.clear();
        return r;
    }
    // The last sample of a fragment keeps its packet's duration, which an
    // encoder guesses from the nominal frame rate: a frame is held until the
    // next one of its track gives its real length, so no fragment moves the
    // track's later samples off their times.
    PacketPtr& slot = held[size_t(next->stream_index)];
    int r = 0;
    if (slot) {
        if (next->dts != AV_NOPTS_VALUE && slot->dts != AV_NOPTS_VALUE && next->dts > slot->dts)
            slot->duration = next->dts - slot->dts;
        r = write(slot.get());
    } else {
        slot.reset(av_packet_alloc());
        if (!slot) return AVERROR(ENOMEM);
    }
    av_packet_move_ref(slot.get(), next);
    return r;
}

void MovieFileWriter::Muxer::salvageLocked() {
    if (!opened || status != int(Status::Failed)) return;
    auto layout = truncateToCompleteFragments(path);
    if (layout && layout->completeFragments > 0) {
        playable = true;
        log::info("MovieFileWriter: kept the %li complete fragments (%li bytes) of %@",
                  layout->completeFragments, int64_t(layout->playableBytes), path);
        return;
    }
    if (!layout) log::error("MovieFileWriter: %@", layout.error().description());
    // Nothing of it plays: no half-written file is left behind.
    log::info("MovieFileWriter: removing %@, nothing of it plays", path);
    unlink(path.c_str());
}

std::optional<MediaTime> MovieFileWriter::Muxer::sessionStart() const {
    std::lock_guard lock(mu);
    return start;
}

void MovieFileWriter::Muxer::inputDrained() {
    bool last = false;
    {
        std::lock_guard lock(mu);
        last = --pendingInputs == 0;
    }
    if (last) finalize();
}

void MovieFileWriter::Muxer::finalize() {
    std::function<void()> done;
    {
        std::lock_guard lock(mu);
        if (status == int(Status::Writing) && ensureHeaderLocked()) {
            int r = writeHeldPacketLocked(nullptr);
            if (r >= 0) r = av_write_trailer(ctx.get());
            if (r < 0) failLocked(r, "finishing the movie");
        }
        if (ctx && ctx->pb) {
            avio_flush(ctx->pb);
            if (ctx->pb->error < 0) failLocked(ctx->pb->error, "writing " + path);
            avio_closep(&ctx->pb);
        }
        if (status == int(Status::Writing)) {
            status = int(Status::Completed);
            playable = true;
        } else {
            salvageLocked();
        }
        failureHandler = nullptr;
        done = std::move(completion);
        completion = nullptr;
    }
    if (done) DispatchQueue::global()->async(std::move(done));
}

}  // namespace sv::media
