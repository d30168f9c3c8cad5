// Internals shared by the writer, its inputs and the exporter: the muxer
// state behind a MovieFileWriter and small FFmpeg helpers. Not installed.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include <condition_variable>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libswresample/swresample.h>
}

#include "platform/geometry.h"
#include "platform/media/media_settings.h"
#include "platform/media/metadata_item.h"
#include "platform/media/movie_file_writer.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"

namespace sv::media {

// Routes FFmpeg's error messages to the system log; idempotent.
void installLogForwarding();
std::string avErrorString(int code);
MediaError makeError(int code, const std::string& what);

// The MP4 display matrix (16.16 fixed point, last column 2.30) of `t`.
void displayMatrixFor(const AffineTransform& t, int32_t matrix[9]);

// Writes `items` (or already-read tags) into the format context's metadata
// and returns the value to put under "encoder" once the header is written
// (the muxer sets its own name there while writing the header).
std::optional<std::string> applyMetadata(AVFormatContext* ctx, const MetadataList& items);

// `t` in ticks of `tb`, rounded to nearest; nullopt when invalid.
std::optional<int64_t> toTicks(const MediaTime& t, AVRational tb);

// The state of one movie file, shared by the writer object and the workers
// of its inputs. Every field is guarded by `mu` except `status`.
struct MovieFileWriter::Muxer {
    explicit Muxer(std::string p) : path(std::move(p)) {}
    ~Muxer();

    // Called by an input's worker: writes one encoded packet (rescaled from
    // `tb`). False when the movie has failed or is closed.
    bool writePacket(AVPacket* packet, int streamIndex, AVRational tb);
    std::optional<MediaTime> sessionStart() const;
    // An input has flushed its encoder; the last one closes the file.
    void inputDrained();
    void finalize();

    bool ensureHeaderLocked();
    void failLocked(int code, const std::string& what);

    const std::string path;
    mutable std::mutex mu;
    AVFormatContext* ctx = nullptr;
    bool headerWritten = false;
    bool opened = false;
    bool finishing = false;
    int pendingInputs = 0;
    std::optional<MediaTime> start;
    MetadataList metadata;
    std::optional<MediaError> error;
    std::function<void()> completion;
    std::atomic<int> status{int(MovieFileWriter::Status::Unknown)};
};

// One input's encoder, queue and worker thread. The queue and the flags are
// guarded by `mu`; everything under "worker only" is touched by the worker
// thread alone once it runs (the encoder is opened before it starts).
struct MovieWriterInput::Core {
    ~Core();

    // Starts the worker; called once after the encoder is open.
    void start(std::shared_ptr<Core> self);
    // The writer attaches its muxer and this input's stream.
    void attach(std::shared_ptr<MovieFileWriter::Muxer> m, int index);
    void requestFinish();
    // Stops the worker and drops the queue; waits unless called on the worker.
    void stopWorker();

    void run();
    void process(const SampleBuffer& sample, MovieFileWriter::Muxer& mux);
    void processVideo(const SampleBuffer& sample, MovieFileWriter::Muxer& mux);
    void processAudio(const SampleBuffer& sample, MovieFileWriter::Muxer& mux);
    bool configureResampler(const AudioStreamFormat& format);
    void appendAudio(const uint8_t* const* planes, int count, int64_t position,
                     MovieFileWriter::Muxer& mux);
    void writeSilence(int64_t count, MovieFileWriter::Muxer& mux);
    void encodeFullFrames(MovieFileWriter::Muxer& mux, bool flushPartial);
    void sendFrame(AVFrame* frame, MovieFileWriter::Muxer& mux);
    void flush(MovieFileWriter::Muxer& mux);
    void drop(const char* why);

    MediaType type = MediaType::Video;
    Value settings;
    VideoSettings video;
    AudioSettings audio;
    AVCodecContext* enc = nullptr;

    mutable std::mutex mu;
    std::condition_variable cv;
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
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    int64_t lastVideoPts = INT64_MIN;
    std::vector<uint8_t> scratch;
    SwrContext* swr = nullptr;
    std::optional<AudioStreamFormat> swrFormat;
    AVAudioFifo* fifo = nullptr;
    std::vector<uint8_t> swapped;
    std::vector<std::vector<float>> converted;
    bool audioPlaced = false;
    int64_t nextAudioPos = 0;     // track position just after the fifo's last sample
    int64_t encodedAudioPos = 0;  // track position of the fifo's first sample
    bool loggedDrop = false;
};

}  // namespace sv::media
