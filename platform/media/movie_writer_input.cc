#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}
#include <libyuv.h>

#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/media/ffmpeg_util.h"

namespace sv::media {
namespace {

constexpr size_t kVideoQueueCapacity = 8;   // ~130 ms at 60 fps, pixels stay in the caller's pool
constexpr size_t kAudioQueueCapacity = 64;  // ~1.5 s of 1024-frame buffers
constexpr int64_t kAudioJitterSamples = 1024;

Result<CodecContextPtr> openVideoEncoder(const VideoSettings& s) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (!codec) return mediaError(AVERROR_ENCODER_NOT_FOUND, "libx264 is not available");
    CodecContextPtr enc(avcodec_alloc_context3(codec));
    if (!enc) return makeError(AVERROR(ENOMEM), "allocating the H.264 encoder");
    AVCodecContext* c = enc.get();
    c->width = s.width;
    c->height = s.height;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = {1, 90000};
    c->framerate = av_d2q(s.frameRate, 100000);
    c->bit_rate = s.averageBitRate;
    c->gop_size = s.maxKeyFrameInterval;
    // libyuv's BGRA to I420 is BT.601, limited range.
    c->colorspace = AVCOL_SPC_SMPTE170M;
    c->color_range = AVCOL_RANGE_MPEG;
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // Slice threads rather than frame threads: each frame is encoded by all
    // threads together, so the encoder holds no extra frames per thread
    // (about 50 MB less at 1600x900) and adds no frames of latency, for the
    // same CPU time at this preset. (One thread would leave a core to the
    // capture threads, but falls behind in bursts and queues frames.)
    c->thread_type = FF_THREAD_SLICE;
    const char* profile = s.profile == kH264BaselineAutoLevel ? "baseline"
                          : s.profile == kH264HighAutoLevel   ? "high"
                                                              : "main";
    int r = av_opt_set(c->priv_data, "preset", s.preset.c_str(), 0);
    if (r >= 0) r = av_opt_set(c->priv_data, "profile", profile, 0);
    if (r >= 0) r = avcodec_open2(c, codec, nullptr);
    if (r < 0) return makeError(r, "opening the H.264 encoder");
    return enc;
}

Result<CodecContextPtr> openAudioEncoder(const AudioSettings& s) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec) return mediaError(AVERROR_ENCODER_NOT_FOUND, "AAC encoder is not available");
    CodecContextPtr enc(avcodec_alloc_context3(codec));
    if (!enc) return makeError(AVERROR(ENOMEM), "allocating the AAC encoder");
    AVCodecContext* c = enc.get();
    c->sample_fmt = AV_SAMPLE_FMT_FLTP;
    c->sample_rate = s.sampleRate;
    av_channel_layout_default(&c->ch_layout, s.channels);
    c->bit_rate = s.bitRate;
    c->profile = FF_PROFILE_AAC_LOW;
    c->time_base = {1, s.sampleRate};
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    int r = avcodec_open2(c, codec, nullptr);
    if (r < 0) return makeError(r, "opening the AAC encoder");
    return enc;
}

// The libswresample sample format of a linear PCM description, or NONE.
AVSampleFormat sampleFormatOf(const AudioStreamFormat& f) {
    if (!f.isLinearPCM() || f.framesPerPacket > 1) return AV_SAMPLE_FMT_NONE;
    bool planar = f.formatFlags & AudioStreamFormat::kFlagIsNonInterleaved;
    bool isFloat = f.formatFlags & AudioStreamFormat::kFlagIsFloat;
    bool isSigned = f.formatFlags & AudioStreamFormat::kFlagIsSignedInteger;
    uint32_t channels = f.channelsPerFrame;
    uint32_t bytes = f.bitsPerChannel / 8;
    if (channels == 0 || channels > 8 || f.bitsPerChannel % 8) return AV_SAMPLE_FMT_NONE;
    if (f.bytesPerFrame != bytes * (planar ? 1 : channels)) return AV_SAMPLE_FMT_NONE;
    if (isFloat && bytes == 4) return planar ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_FLT;
    if (isFloat && bytes == 8) return planar ? AV_SAMPLE_FMT_DBLP : AV_SAMPLE_FMT_DBL;
    if (isFloat) return AV_SAMPLE_FMT_NONE;
    if (bytes == 2 && isSigned) return planar ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S16;
    if (bytes == 4 && isSigned) return planar ? AV_SAMPLE_FMT_S32P : AV_SAMPLE_FMT_S32;
    if (bytes == 1 && !isSigned) return planar ? AV_SAMPLE_FMT_U8P : AV_SAMPLE_FMT_U8;
    return AV_SAMPLE_FMT_NONE;
}

}  // namespace

// --- MovieWriterInput -------------------------------------------------------

Result<std::shared_ptr<MovieWriterInput>> MovieWriterInput::create(MediaType type,
                                                                   const Value& outputSettings) {
    // Threads inherit the nice value of the thread that creates them: the
    // encoder's threads and the worker must not run at the low priority of
    // a background queue that sets a writer up, or recordings drop frames
    // on a busy system. Such callers have them created on a default queue.
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, id_t(syscall(SYS_gettid)));
    if (errno == 0 && nice > 0) {
        Result<std::shared_ptr<MovieWriterInput>> input = std::shared_ptr<MovieWriterInput>();
        DispatchQueue::global()->sync([&] { input = createHere(type, outputSettings); });
        return input;
    }
    return createHere(type, outputSettings);
}

Result<std::shared_ptr<MovieWriterInput>> MovieWriterInput::createHere(
    MediaType type, const Value& outputSettings) {
    installLogForwarding();
    auto core = std::make_shared<Core>();
    core->type = type;
    core->settings = outputSettings;
    if (type == MediaType::Video) {
        auto s = parseVideoSettings(outputSettings);
        if (!s) return mediaError(AVERROR(EINVAL), "video settings: " + s.error().message());
        core->video = *s;
        auto enc = openVideoEncoder(*s);
        if (!enc) return enc.error();
        core->enc = std::move(*enc);
        core->capacity = kVideoQueueCapacity;
    } else {
        auto s = parseAudioSettings(outputSettings);
        if (!s) return mediaError(AVERROR(EINVAL), "audio settings: " + s.error().message());
        core->audio = *s;
        auto enc = openAudioEncoder(*s);
        if (!enc) return enc.error();
        core->enc = std::move(*enc);
        core->capacity = kAudioQueueCapacity;
    }
    core->packet.reset(av_packet_alloc());
    core->frame.reset(av_frame_alloc());
    if (type == MediaType::Audio)
        core->fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, core->audio.channels,
                                             core->enc->frame_size * 4));
    if (!core->packet || !core->frame || (type == MediaType::Audio && !core->fifo))
        return makeError(AVERROR(ENOMEM), "allocating the encoder's buffers");
    if (type == MediaType::Video) {
        AVFrame* f = core->frame.get();
        f->format = AV_PIX_FMT_YUV420P;
        f->width = core->enc->width;
        f->height = core->enc->height;
        f->color_range = AVCOL_RANGE_MPEG;
        f->colorspace = AVCOL_SPC_SMPTE170M;
    }
    core->start(core);
    return std::shared_ptr<MovieWriterInput>(new MovieWriterInput(core));
}

MovieWriterInput::MovieWriterInput(std::shared_ptr<Core> core) : core_(std::move(core)) {}

MovieWriterInput::~MovieWriterInput() {
    std::unique_lock lock(core_->mu);
    if (core_->finishRequested) {
        // The worker holds the core and completes the finish by itself.
        if (core_->worker.joinable()) core_->worker.detach();
        return;
    }
    lock.unlock();
    core_->stopWorker();
}

MediaType MovieWriterInput::mediaType() const {
    return core_->type;
}
const Value& MovieWriterInput::outputSettings() const {
    return core_->settings;
}
int MovieWriterInput::width() const {
    return core_->type == MediaType::Video ? core_->video.width : 0;
}
int MovieWriterInput::height() const {
    return core_->type == MediaType::Video ? core_->video.height : 0;
}

void MovieWriterInput::setExpectsMediaDataInRealTime(bool realTime) {
    std::lock_guard lock(core_->mu);
    core_->realTime = realTime;
}
bool MovieWriterInput::expectsMediaDataInRealTime() const {
    std::lock_guard lock(core_->mu);
    return core_->realTime;
}
void MovieWriterInput::setTransform(const AffineTransform& transform) {
    std::lock_guard lock(core_->mu);
    core_->transform = transform;
}
AffineTransform MovieWriterInput::transform() const {
    std::lock_guard lock(core_->mu);
    return core_->transform;
}

bool MovieWriterInput::isReadyForMoreMediaData() const {
    std::lock_guard lock(core_->mu);
    return core_->readyLocked();
}

bool MovieWriterInput::waitUntilReadyForMoreMediaData(std::chrono::nanoseconds timeout) const {
    std::unique_lock lock(core_->mu);
    // Ready, or no longer able to become ready: not attached, the writer not
    // (or no longer) writing, finishing or stopped.
    auto settled = [&] {
        return core_->readyLocked() || !core_->muxer ||
               core_->muxer->status != int(MovieFileWriter::Status::Writing) ||
               core_->finishRequested || core_->stop;
    };
    core_->room.wait_for(lock, timeout, settled);
    return core_->readyLocked();
}

bool MovieWriterInput::appendSampleBuffer(std::shared_ptr<SampleBuffer> sample) {
    if (!sample || sample->isVideo() != (core_->type == MediaType::Video)) return false;
    {
        std::lock_guard lock(core_->mu);
        if (!core_->readyLocked()) return false;
        core_->queue.push_back(std::move(sample));
    }
    core_->cv.notify_one();
    return true;
}

size_t MovieWriterInput::queueCapacity() const {
    return core_->capacity;
}
uint64_t MovieWriterInput::droppedSampleCount() const {
    return core_->dropped.load();
}

// --- Core -------------------------------------------------------------------

MovieWriterInput::Core::~Core() {
    if (worker.joinable()) worker.detach();  // only when destroyed on the worker itself
}

bool MovieWriterInput::Core::readyLocked() const {
    return muxer && muxer->status == int(MovieFileWriter::Status::Writing) && !finishRequested &&
           !stop && queue.size() < capacity;
}

void MovieWriterInput::Core::start(std::shared_ptr<Core> self) {
    worker = std::thread([self] {
        pthread_setname_np(pthread_self(),
                           self->type == MediaType::Video ? "sv-mw-video" : "sv-mw-audio");
        // Encoding is throughput work. A worker at the normal policy that is
        // woken by an append lands on the appending thread's core and
        // preempts it for the whole conversion (0.7 ms at 1600x900, several
        // with the encoder), so a capture thread would wait for its own
        // consumer; batch threads do not preempt on wake-up and keep their
        // fair share of the CPU.
        sched_param param{};
        if (int e = pthread_setschedparam(pthread_self(), SCHED_BATCH, &param); e != 0)
            log::info("MovieWriterInput: encoding at the normal policy (%@)", std::strerror(e));
        self->run();
    });
}

void MovieWriterInput::Core::attach(std::shared_ptr<MovieFileWriter::Muxer> m, int index) {
    std::lock_guard lock(mu);
    muxer = std::move(m);
    streamIndex = index;
}

void MovieWriterInput::Core::requestFinish() {
    {
        std::lock_guard lock(mu);
        finishRequested = true;
    }
    cv.notify_one();
    room.notify_all();
}

void MovieWriterInput::Core::stopWorker() {
    {
        std::lock_guard lock(mu);
        stop = true;
        queue.clear();
    }
    cv.notify_one();
    room.notify_all();
    if (!worker.joinable()) return;
    if (worker.get_id() == std::this_thread::get_id())
        worker.detach();
    else
        worker.join();
}

void MovieWriterInput::Core::drop(const char* why) {
    dropped.fetch_add(1, std::memory_order_relaxed);
    if (!loggedDrop) {
        loggedDrop = true;
        log::error("MovieWriterInput: dropping sample: %@", why);
    }
}

void MovieWriterInput::Core::run() {
    for (;;) {
        std::shared_ptr<SampleBuffer> sample;
        std::shared_ptr<MovieFileWriter::Muxer> mux;
        {
            std::unique_lock lock(mu);
            cv.wait(lock, [&] { return stop || finishRequested || !queue.empty(); });
            if (stop) return;
            mux = muxer;
            if (!queue.empty()) {
                sample = std::move(queue.front());
                queue.pop_front();
            }
        }
        // A slot is free, or the writer stopped writing: either way a waiting
        // caller has its answer.
        room.notify_all();
        if (!mux) continue;
        if (sample) {
            process(*sample, *mux);
            continue;
        }
        // Finishing and drained.
        flush(*mux);
        mux->inputDrained();
        return;
    }
}

void MovieWriterInput::Core::process(const SampleBuffer& sample, MovieFileWriter::Muxer& mux) {
    if (mux.status != int(MovieFileWriter::Status::Writing)) return;
    if (type == MediaType::Video)
        processVideo(sample, mux);
    else
        processAudio(sample, mux);
}

void MovieWriterInput::Core::processVideo(const SampleBuffer& sample, MovieFileWriter::Muxer& mux) {
    auto start = mux.sessionStart();
    if (!start) return drop("video before the writing session started");
    auto pts = toTicks(subtract(sample.presentationTime(), *start), enc->time_base);
    if (!pts || *pts < 0) return drop("video time before the session start or invalid");
    const auto& image = sample.imageBuffer();
    if (!image || image->pixelFormat() != PixelFormat::BGRA) return drop("no BGRA image");
    AVFrame* out = frame.get();
    if (av_frame_make_writable(out) < 0 && av_frame_get_buffer(out, 0) < 0)
        return drop("out of memory");
    const int w = image->width(), h = image->height();
    if (w == enc->width && h == enc->height) {
        libyuv::ARGBToI420(image->data(), int(image->bytesPerRow()), out->data[0], out->linesize[0],
                           out->data[1], out->linesize[1], out->data[2], out->linesize[2], w, h);
    } else {
        // A window whose size is not the encoded size (odd sizes are rounded
        // up to even): convert at the source size, then scale.
        const int cw = (w + 1) / 2, ch = (h + 1) / 2;
        scratch.resize(size_t(w) * h + 2 * size_t(cw) * ch);
        uint8_t* y = scratch.data();
        uint8_t* u = y + size_t(w) * h;
        uint8_t* v = u + size_t(cw) * ch;
        libyuv::ARGBToI420(image->data(), int(image->bytesPerRow()), y, w, u, cw, v, cw, w, h);
        libyuv::I420Scale(y, w, u, cw, v, cw, w, h, out->data[0], out->linesize[0], out->data[1],
                          out->linesize[1], out->data[2], out->linesize[2], enc->width, enc->height,
                          libyuv::kFilterBilinear);
    }
    int64_t t = *pts <= lastVideoPts ? lastVideoPts + 1 : *pts;
    lastVideoPts = t;
    out->pts = t;
    sendFrame(out, mux);
}

bool MovieWriterInput::Core::configureResampler(const AudioStreamFormat& format) {
    if (swr && swrFormat && *swrFormat == format) return true;
    swr.reset();
    swrFormat.reset();
    AVSampleFormat in = sampleFormatOf(format);
    if (in == AV_SAMPLE_FMT_NONE || !(format.sampleRate >= 1000 && format.sampleRate <= 768000))
        return false;
    AVChannelLayout inLayout{};
    av_channel_layout_default(&inLayout, int(format.channelsPerFrame));
    SwrContext* made = nullptr;
    int r = swr_alloc_set_opts2(&made, &enc->ch_layout, AV_SAMPLE_FMT_FLTP, enc->sample_rate,
                                &inLayout, in, int(format.sampleRate), 0, nullptr);
    av_channel_layout_uninit(&inLayout);
    ResamplerPtr resampler(made);
    if (r < 0 || !resampler || swr_init(resampler.get()) < 0) return false;
    swr = std::move(resampler);
    swrFormat = format;
    return true;
}

void MovieWriterInput::Core::processAudio(const SampleBuffer& sample, MovieFileWriter::Muxer& mux) {
    auto start = mux.sessionStart();
    if (!start) return drop("audio before the writing session started");
    const AudioStreamFormat& f = sample.audioFormat();
    if (!configureResampler(f)) return drop("unsupported audio format");
    const int64_t frames = sample.numSamples();
    const bool planar = f.formatFlags & AudioStreamFormat::kFlagIsNonInterleaved;
    const size_t planeBytes = size_t(frames) * f.bytesPerFrame;
    const size_t needed = planeBytes * (planar ? f.channelsPerFrame : 1);
    if (frames <= 0 || frames > (1 << 22) || !sample.dataBlock() || sample.dataLength() < needed)
        return drop("audio data shorter than its sample count");
    const uint8_t* data = sample.dataBlock()->data();
    const uint32_t bytes = f.bitsPerChannel / 8;
    if ((f.formatFlags & AudioStreamFormat::kFlagIsBigEndian) && bytes > 1) {
        swapped.assign(data, data + needed);
        for (size_t i = 0; i + bytes <= needed; i += bytes)
            std::reverse(&swapped[i], &swapped[i + bytes]);
        data = swapped.data();
    }
    const uint8_t* in[8] = {};
    for (uint32_t c = 0; c < (planar ? f.channelsPerFrame : 1); ++c) in[c] = data + c * planeBytes;

    const int outMax = swr_get_out_samples(swr.get(), int(frames));
    if (outMax <= 0) return;
    converted.resize(size_t(audio.channels));
    uint8_t* out[8] = {};
    for (int c = 0; c < audio.channels; ++c) {
        converted[c].resize(size_t(outMax));
        out[c] = reinterpret_cast<uint8_t*>(converted[c].data());
    }
    int got = swr_convert(swr.get(), out, outMax, in, int(frames));
    if (got <= 0) return;
    // Where this output starts on the track: it ends where the input ends
    // less what the resampler still holds back.
    auto pos = toTicks(subtract(sample.presentationTime(), *start), enc->time_base);
    if (!pos) return drop("invalid audio time");
    const int64_t inputEnd = *pos + int64_t(double(frames) * enc->sample_rate / f.sampleRate + 0.5);
    const int64_t position = inputEnd - swr_get_delay(swr.get(), enc->sample_rate) - got;
    appendAudio(const_cast<const uint8_t* const*>(out), got, position, mux);
}

void MovieWriterInput::Core::appendAudio(const uint8_t* const* planes, int count, int64_t position,
                                         MovieFileWriter::Muxer& mux) {
    int64_t gap = position - nextAudioPos;
    int64_t tolerance = audioPlaced ? kAudioJitterSamples : 0;
    int skip = 0;
    if (gap > kMaxFilledAudioGapSeconds * enc->sample_rate) {
        log::error("MovieWriterInput: audio jumps %li samples ahead; taken as continuous", gap);
    } else if (gap > tolerance) {
        if (!writeSilence(gap, mux)) return drop("out of memory");
    } else if (gap < -tolerance) {
        // Overlaps what is already written, or (first run) starts before
        // the session: cut the front.
        skip = int(std::min<int64_t>(-gap, count));
    }
    if (skip >= count) return;
    void* shifted[8] = {};
    for (int c = 0; c < audio.channels; ++c)
        shifted[c] = const_cast<uint8_t*>(planes[c]) + size_t(skip) * sizeof(float);
    if (av_audio_fifo_write(fifo.get(), shifted, count - skip) < count - skip)
        return drop("out of memory");
    nextAudioPos += count - skip;
    audioPlaced = true;
    encodeFullFrames(mux, false);
}

bool MovieWriterInput::Core::writeSilence(int64_t count, MovieFileWriter::Muxer& mux) {
    static const std::vector<float> zeros(4096, 0.0f);
    const void* planes[8];
    for (auto& p : planes) p = zeros.data();
    while (count > 0) {
        int n = int(std::min<int64_t>(count, int64_t(zeros.size())));
        if (av_audio_fifo_write(fifo.get(), const_cast<void**>(planes), n) < n) return false;
        count -= n;
        nextAudioPos += n;
        encodeFullFrames(mux, false);
    }
    return true;
}

void MovieWriterInput::Core::encodeFullFrames(MovieFileWriter::Muxer& mux, bool flushPartial) {
    const int frameSize = enc->frame_size;
    while (av_audio_fifo_size(fifo.get()) >= frameSize ||
           (flushPartial && av_audio_fifo_size(fifo.get()) > 0)) {
        int n = std::min(frameSize, av_audio_fifo_size(fifo.get()));
        FramePtr f(av_frame_alloc());
        if (!f) return drop("out of memory");
        f->nb_samples = n;
        f->format = AV_SAMPLE_FMT_FLTP;
        f->sample_rate = enc->sample_rate;
        if (av_channel_layout_copy(&f->ch_layout, &enc->ch_layout) < 0 ||
            av_frame_get_buffer(f.get(), 0) < 0)
            return drop("out of memory");
        av_audio_fifo_read(fifo.get(), reinterpret_cast<void**>(f->data), n);
        f->pts = encodedAudioPos;
        encodedAudioPos += n;
        sendFrame(f.get(), mux);
    }
}

void MovieWriterInput::Core::sendFrame(AVFrame* f, MovieFileWriter::Muxer& mux) {
    int r = avcodec_send_frame(enc.get(), f);
    if (r < 0 && r != AVERROR_EOF) {
        log::error("MovieWriterInput: encoder refused a frame: %@", avErrorString(r));
        return;
    }
    while ((r = avcodec_receive_packet(enc.get(), packet.get())) >= 0) {
        mux.writePacket(packet.get(), streamIndex, enc->time_base);
        av_packet_unref(packet.get());
    }
}

void MovieWriterInput::Core::flush(MovieFileWriter::Muxer& mux) {
    if (mux.status != int(MovieFileWriter::Status::Writing)) return;
    if (type == MediaType::Audio) {
        // A track that never received audio still gets one silent frame, so
        // the movie keeps its full set of tracks in their order.
        if (!audioPlaced && mux.sessionStart()) writeSilence(enc->frame_size, mux);
        encodeFullFrames(mux, true);
    }
    sendFrame(nullptr, mux);
}

}  // namespace sv::media
