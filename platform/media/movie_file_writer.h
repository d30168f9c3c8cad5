// The platform's movie file writer: MPEG-4 files with one H.264 track
// (libx264) and AAC tracks (FFmpeg's native encoder), on FFmpeg's libraries.
//
// Layout: fragmented MPEG-4 (fragmented_movie.h): every quarter second of
// the movie is on disk as a fragment that plays, so a killed process or a
// full disk loses at most the last fragment and what the encoders held.
//
// Real time: appending only hands the sample to the input's bounded queue and
// returns; each input has one worker thread that converts (BGRA to I420 with
// libyuv, any linear PCM to the encoder's format with libswresample),
// encodes and multiplexes. While an input's queue is full it is not ready for
// more media data and an append is refused, so the caller drops by its own
// rule. Video pixels are never copied on the caller's thread: the queue holds
// a reference to the SampleBuffer (and so to its SharedSurface) until the
// worker has converted it.
//
// Timing: every sample is placed at (presentation time - session start time),
// so all tracks share the one clock of the appended samples. Audio before the
// session start is cut; an audio gap of more than 1024 samples (up to
// kMaxFilledAudioGapSeconds) is filled with silence, an overlap is cut,
// smaller differences are taken as continuous.
//
// Threads: every method may be called from any thread, but an input must not
// be appended to from two threads at once. The finish completion runs on the
// default-priority global dispatch queue.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/geometry.h"
#include "platform/media/metadata_item.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"
#include "platform/url.h"
#include "platform/value.h"

namespace sv::media {

inline constexpr const char* kMovieWriterErrorDomain = "org.sorvel.MovieWriterErrorDomain";
// The longest audio gap an input fills with silence; a longer jump is taken
// as continuous (a clock that leapt, not a pause).
inline constexpr int64_t kMaxFilledAudioGapSeconds = 600;

enum class MediaType { Video, Audio };
enum class FileType { MPEG4 };

// An error of this layer: kMovieWriterErrorDomain, an FFmpeg error code
// (negative; a negated errno for system errors) and a sentence saying what
// failed.
Error mediaError(int64_t code, const std::string& message);
// "<sentence> (<code>)": how this layer's log lines show one of its errors.
std::string mediaErrorText(const Error& error);

class MovieFileWriter;

class MovieWriterInput {
  public:
    // Opens the encoder for the settings (media_settings.h) and starts the
    // input's worker thread (at normal priority, even when called from a
    // background-priority queue). An error when the settings cannot be
    // encoded.
    static Result<std::shared_ptr<MovieWriterInput>> create(MediaType type,
                                                            const Value& outputSettings);
    // Stops the worker and drops queued samples, unless the owning writer is
    // finishing: then the worker completes the finish on its own.
    ~MovieWriterInput();
    MovieWriterInput(const MovieWriterInput&) = delete;
    MovieWriterInput& operator=(const MovieWriterInput&) = delete;

    MediaType mediaType() const;
    const Value& outputSettings() const;
    // Encoded frame size of a video input (0 for audio).
    int width() const;
    int height() const;

    void setExpectsMediaDataInRealTime(bool realTime);
    bool expectsMediaDataInRealTime() const;
    // The video track's display matrix; read when writing starts.
    void setTransform(const AffineTransform& transform);
    AffineTransform transform() const;

    // True while the input belongs to a writing file writer that is not
    // finishing and its queue has room.
    bool isReadyForMoreMediaData() const;
    // For callers that are not real-time sources (tools, tests): blocks until
    // the input is ready for more media data and returns true, or returns
    // false once it cannot become ready (not attached to a writing file
    // writer, finishing, failed, cancelled) or when `timeout` passes.
    bool waitUntilReadyForMoreMediaData(std::chrono::nanoseconds timeout) const;
    // Queues the sample (a reference, no copy) and returns at once. False,
    // and the sample is not kept, when the input is not ready or the sample
    // is of the other media type.
    bool appendSampleBuffer(std::shared_ptr<SampleBuffer> sample);

    size_t queueCapacity() const;
    // Samples dropped by the worker (unusable format, before the session).
    uint64_t droppedSampleCount() const;

    struct Core;

  private:
    friend class MovieFileWriter;
    explicit MovieWriterInput(std::shared_ptr<Core> core);
    static Result<std::shared_ptr<MovieWriterInput>> createHere(MediaType type,
                                                                const Value& outputSettings);
    std::shared_ptr<Core> core_;
};

class MovieFileWriter {
  public:
    enum class Status : int { Unknown = 0, Writing = 1, Completed = 2, Failed = 3, Cancelled = 4 };
    // Told the error when writing fails (the disk is full, the file went
    // away); on an input's worker thread, at most once, never after a
    // finish or cancel.
    using FailureHandler = std::function<void(const Error& error)>;

    // A writer for `url`. An error when the type is not MPEG-4 or the file
    // cannot be created in its directory. The file itself is opened by the
    // first worker that writes, never on the caller's thread.
    static Result<std::shared_ptr<MovieFileWriter>> create(const URL& url, FileType type);
    // Cancels an unfinished movie (the partial file is removed); a finish in
    // progress completes on its own.
    ~MovieFileWriter();
    MovieFileWriter(const MovieFileWriter&) = delete;
    MovieFileWriter& operator=(const MovieFileWriter&) = delete;

    URL outputURL() const;
    FileType outputFileType() const { return FileType::MPEG4; }

    // Before startWriting. Items without a value are left out of the file.
    void setMetadata(MetadataList items);
    MetadataList metadata() const;

    // Before startWriting; tracks keep the order of the calls. False when
    // writing has started or the input belongs to another writer.
    bool canAddInput(const std::shared_ptr<MovieWriterInput>& input) const;
    void addInput(std::shared_ptr<MovieWriterInput> input);
    std::vector<std::shared_ptr<MovieWriterInput>> inputs() const;

    // Unknown -> writing. False (status unchanged or failed) otherwise.
    bool startWriting();
    // Samples are placed relative to this time; the first call counts.
    void startSessionAtSourceTime(MediaTime time);

    Status status() const;
    // Null unless the status is failed.
    OptionalError error() const;

    // Before startWriting.
    void setFailureHandler(FailureHandler handler);

    // Drains every input, flushes the encoders and closes the file; then
    // `completion` runs on the default global queue (status completed or
    // failed). A writer that failed while writing is closed the same way,
    // cut back to the fragments it wrote completely, and the file removed
    // when there are none. Otherwise (never started, finished, cancelled)
    // `completion` is called there at once.
    void finishWriting(std::function<void()> completion);
    // After the finish completion: the file at outputURL is a movie that
    // plays, the whole of it (completed) or what was written before writing
    // failed.
    bool hasPlayableMovie() const;
    // Stops at once and removes the partial file (status cancelled).
    void cancelWriting();

    struct Muxer;

  private:
    MovieFileWriter(URL url, std::shared_ptr<Muxer> muxer);
    URL url_;
    std::shared_ptr<Muxer> muxer_;
    std::vector<std::shared_ptr<MovieWriterInput>> inputs_;  // guarded by the muxer's lock
};

}  // namespace sv::media
