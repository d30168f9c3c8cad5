// Internals shared by the writer, its inputs and the exporter: owners of
// FFmpeg handles, the muxer state behind a MovieFileWriter and small FFmpeg
// helpers. Not installed.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include "platform/geometry.h"
#include "platform/media/media_settings.h"
#include "platform/media/metadata_item.h"
#include "platform/media/movie_file_writer.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"

namespace sv::media {

// --- Owners of FFmpeg handles -----------------------------------------------
// Move-only: each releases its handle with the matching FFmpeg call, so no
// destructor frees by hand. An empty owner after an allocation means that
// the allocation failed, and every caller turns that into an error.

struct InputFormatDeleter {
    void operator()(AVFormatContext* ctx) const { avformat_close_input(&ctx); }
};
// An output context also owns the file it opened (ctx->pb) and closes it
// first; a partial file stays on disk (the caller removes it).
struct OutputFormatDeleter {
    void operator()(AVFormatContext* ctx) const {
        if (ctx->pb) avio_closep(&ctx->pb);
        avformat_free_context(ctx);
    }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* ctx) const { avcodec_free_context(&ctx); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct ResamplerDeleter {
    void operator()(SwrContext* swr) const { swr_free(&swr); }
};
struct ScalerDeleter {
    void operator()(SwsContext* sws) const { sws_freeContext(sws); }
};
struct AudioFifoDeleter {
    void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
};

using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatDeleter>;
using OutputFormatPtr = std::unique_ptr<AVFormatContext, OutputFormatDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using ResamplerPtr = std::unique_ptr<SwrContext, ResamplerDeleter>;
using ScalerPtr = std::unique_ptr<SwsContext, ScalerDeleter>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, AudioFifoDeleter>;

// A dictionary of options or tags. FFmpeg's calls take the address of the
// pointer and may replace what it points to (avformat_write_header leaves
// the options it did not use there), so this is a small class rather than
// a unique_ptr.
class OptionDictionary {
  public:
    OptionDictionary() = default;
    ~OptionDictionary() { av_dict_free(&dict_); }
    OptionDictionary(OptionDictionary&& other) noexcept
        : dict_(std::exchange(other.dict_, nullptr)) {}
    OptionDictionary& operator=(OptionDictionary&& other) noexcept {
        if (this != &other) {
            av_dict_free(&dict_);
            dict_ = std::exchange(other.dict_, nullptr);
        }
        return *this;
    }
    OptionDictionary(const OptionDictionary&) = delete;
    OptionDictionary& operator=(const OptionDictionary&) = delete;

    // av_dict_set's result: negative when out of memory.
    int set(const char* key, const char* value) { return av_dict_set(&dict_, key, value, 0); }
    AVDictionary* get() const { return dict_; }
    AVDictionary** address() { return &dict_; }

  private:
    AVDictionary* dict_ = nullptr;
};

// How the writer lays out its movies: an empty movie box (tracks, metadata,
// display matrix) at the start, then fragments of about
// kFragmentMicroseconds each, their offsets relative to each fragment (the
// form streaming players expect too).
inline constexpr const char* kFragmentedMovieFlags = "empty_moov+default_base_moof";
inline constexpr int64_t kFragmentMicroseconds = 250000;
// How long the muxer's interleaving queue may hold packets while a track has
// none: long at the start, so the first packet of every track is there when
// the muxer picks the one offset that moves all tracks to a start at zero;
// short afterwards, so a track without samples (no application audio)
// delays what reaches the file by no more than that.
inline constexpr int64_t kStartInterleaveMicroseconds = 300000;
// Audio packets kept back until the first video packet (about three seconds
// of two tracks); past that they are written without waiting.
inline constexpr size_t kMaxPacketsBeforeVideo = 256;
inline constexpr int64_t kInterleaveMicroseconds = 40000;

// `path` opened for reading with its stream information read; an error
// (makeError: FFmpeg's code and text) when that fails.
Result<InputFormatPtr> openInputFormat(const std::string& path);
// An MPEG-4 muxer for `path` (the file itself is not opened yet); an error
// (makeError) when that fails.
Result<OutputFormatPtr> makeMPEG4Output(const std::string& path);
// Copies of `packet` share its data; empty when out of memory.
inline PacketPtr clonePacket(const AVPacket* packet) {
    return PacketPtr(av_packet_clone(packet));
}

// Routes FFmpeg's error messages to the system log; idempotent.
void installLogForwarding();
std::string avErrorString(int code);
// mediaError(code, "<what>: <FFmpeg's text of code>").
Error makeError(int code, const std::string& what);

// The MP4 display matrix (16.16 fixed point, last column 2.30) of `t`.
void displayMatrixFor(const AffineTransform& t, int32_t matrix[9]);

// Writes `items` into the format context's metadata and sets `encoder` to
// the value to put under "encoder" once the header is written (the muxer
// sets its own name there while writing the header). 0, or a negative
// FFmpeg error code when out of memory.
int applyMetadata(AVFormatContext* ctx, const MetadataList& items,
                  std::optional<std::string>* encoder);

// `t` in ticks of `tb`, rounded to nearest; nullopt when invalid.
std::optional<int64_t> toTicks(const MediaTime& t, AVRational tb);

// The state of one movie file, shared by the writer object and the workers
// of its inputs. Every field is guarded by `mu` except `status`.
struct MovieFileWriter::Muxer {
    explicit Muxer(std::string p) : path(std::move(p)) {}

    // Called by an input's worker: writes one encoded packet (rescaled from
    // `tb`). False when the movie has failed or is closed.
    bool writePacket(AVPacket* packet, int streamIndex, AVRational tb);
    std::optional<MediaTime> sessionStart() const;
    // An input has flushed its encoder; the last one closes the file.
    void inputDrained();
    void finalize();

    bool ensureHeaderLocked();
    // With `mu` held: hands the muxer the packet held for `next`'s track
    // (its duration now known) and holds `next` (taking its data); with null,
    // hands over every held packet. An FFmpeg error code or 0.
    int writeHeldPacketLocked(AVPacket* next);
    void failLocked(int code, const std::string& what);
    // With `mu` held, the file closed: keeps the complete fragments of a
    // movie that failed and removes a file that has none.
    void salvageLocked();

    const std::string path;
    mutable std::mutex mu;
    OutputFormatPtr ctx;
    bool headerWritten = false;
    bool interleaveShortened = false;
    // The last packet of each track, until the next one gives its duration.
    std::vector<PacketPtr> held;
    // Audio packets that came before the first video packet was handed to
    // the muxer. The muxer shifts every track by the first packet's
    // negative decode time (the video encoder's reordering delay); with an
    // audio packet first that shift would be zero and the video's first
    // decode times would be squeezed together, so video always goes first.
    std::vector<PacketPtr> beforeVideo;
    bool videoWritten = false;
    bool opened = false;
    bool finishing = false;
    int pendingInputs = 0;
    std::optional<MediaTime> start;
    MetadataList metadata;
    OptionalError error;
    std::function<void()> completion;
    // Taken by the first failure while writing.
    MovieFileWriter::FailureHandler failureHandler;
    bool playable = false;
    std::atomic<int> status{int(MovieFileWriter::Status::Unknown)};
};

// One input's encoder, queue and worker thread. The queue and the flags are
// guarded by `mu`; everything under "worker only" is touched by the worker
// thread alone once it runs (the encoder is opened before it starts).
// `room` is signalled whenever the input may have become ready for more
// media data or can no longer become ready.
struct MovieWriterInput::Core {
    ~Core();

    // Starts the worker; called once after the encoder is open.
    void start(std::shared_ptr<Core> self);
    // The writer attaches its muxer and this input's stream.
    void attach(std::shared_ptr<MovieFileWriter::Muxer> m, int index);
    void requestFinish();
    // Stops the worker and drops the queue; waits unless called on the worker.
    void stopWorker();

    // With `mu` held: the input takes another sample now.
    bool readyLocked() const;

    void run();
    void process(const SampleBuffer& sample, MovieFileWriter::Muxer& mux);
    void processVideo(const SampleBuffer& sample, MovieFileWriter::Muxer& mux);
    void processAudio(const SampleBuffer& sample, MovieFileWriter::Muxer& mux);
    bool configureResampler(const AudioStreamFormat& format);
    void appendAudio(const uint8_t* const* planes, int count, int64_t position,
                     MovieFileWriter::Muxer& mux);
    // False when the fifo could not grow (out of memory).
    bool writeSilence(int64_t count, MovieFileWriter::Muxer& mux);
    void encodeFullFrames(MovieFileWriter::Muxer& mux, bool flushPartial);
    void sendFrame(AVFrame* frame, MovieFileWriter::Muxer& mux);
    void flush(MovieFileWriter::Muxer& mux);
    void drop(const char* why);

    MediaType type = MediaType::Video;
    Value settings;
    VideoSettings video;
    AudioSettings audio;
    CodecContextPtr enc;

    mutable std::mutex mu;
    std::condition_variable cv;
    mutable std::condition_variable room;
    std::deque<std::shared_ptr<SampleBuffer>> queue;
    size_t capacity = 8;
    bool stop = false;
    bool finishRequested = false;
    bool realTime = false;
    AffineTransform transform;
    std::shared_ptr<MovieFileWriter::Muxer> muxer;
    int streamIndex = -1;
    std::thread worker;
    std::atomic<uint64_t> dropped{0};

    // Worker only.
    FramePtr frame;
    PacketPtr packet;
    int64_t lastVideoPts = INT64_MIN;
    std::vector<uint8_t> scratch;
    ResamplerPtr swr;
    std::optional<AudioStreamFormat> swrFormat;
    AudioFifoPtr fifo;
    std::vector<uint8_t> swapped;
    std::vector<std::vector<float>> converted;
    bool audioPlaced = false;
    int64_t nextAudioPos = 0;     // track position just after the fifo's last sample
    int64_t encodedAudioPos = 0;  // track position of the fifo's first sample
    bool loggedDrop = false;
};

}  // namespace sv::media
