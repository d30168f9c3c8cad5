// SVMovieWriter: one recorded window's video and two audio streams into one
// MPEG-4 movie (H.264, then AAC for the application's audio, then AAC for
// the microphone), stamped with the application's store details; and the
// trimming of finished movies.
//
// Calling order: initWithWindowSize(); set broadcastConfig/systemRecording
// when needed; startWritingHandler() for a recording (removes any old file
// first) or setupFileWriter() for a broadcast fragment; appends; then
// finishWritingWithHandler() once.
//
// Threads: the writer takes no lock. Each append and the finish run on the
// caller's thread and return at once (encoding and file I/O happen on the
// platform writer's workers); a stream must not be appended from two threads
// at once, and each stream's last time is touched only by its own append and
// by setupFileWriter. The start handler runs on the movie store's
// background queue after setupFileWriter; finish and trim handlers run on
// the default global queue (or at once, on the caller's thread, when the
// writer is not writing).
#pragma once

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "platform/geometry.h"
#include "platform/media/metadata_item.h"
#include "platform/media/movie_file_writer.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"
#include "platform/url.h"
#include "protocol/broadcast_configuration.h"
#include "support/store_info.h"

namespace sv {

class SVMovieWriter : public std::enable_shared_from_this<SVMovieWriter> {
  public:
    // Written as the "encoded by" item of every movie.
    static constexpr const char* kEncoderName = "Sorvel";

    using StartHandler = std::function<void()>;
    // Receives a movie URL, or nullopt (see each operation).
    using URLHandler = std::function<void(std::optional<URL>)>;

    // Stores the three values and does nothing else (no file writer yet).
    static std::shared_ptr<SVMovieWriter> initWithWindowSize(
        WindowSize windowSize, std::string outputPath, std::shared_ptr<SVStoreInfo> storeInfo);

    // Properties.
    const std::shared_ptr<media::MovieFileWriter>& fileWriter() const { return fileWriter_; }
    void setFileWriter(std::shared_ptr<media::MovieFileWriter> w) { fileWriter_ = std::move(w); }
    const std::shared_ptr<media::MovieWriterInput>& videoInput() const { return videoInput_; }
    void setVideoInput(std::shared_ptr<media::MovieWriterInput> i) { videoInput_ = std::move(i); }
    const std::shared_ptr<media::MovieWriterInput>& audioInput1() const { return audioInput1_; }
    void setAudioInput1(std::shared_ptr<media::MovieWriterInput> i) { audioInput1_ = std::move(i); }
    const std::shared_ptr<media::MovieWriterInput>& audioInput2() const { return audioInput2_; }
    void setAudioInput2(std::shared_ptr<media::MovieWriterInput> i) { audioInput2_ = std::move(i); }
    const std::string& outputPath() const { return outputPath_; }
    void setOutputPath(std::string path) { outputPath_ = std::move(path); }
    WindowSize windowSize() const { return windowSize_; }
    void setWindowSize(WindowSize size) { windowSize_ = size; }
    const std::shared_ptr<SVStoreInfo>& storeInfo() const { return storeInfo_; }
    void setStoreInfo(std::shared_ptr<SVStoreInfo> info) { storeInfo_ = std::move(info); }
    MediaTime lastVideoPresentationTime() const { return lastVideoPresentationTime_; }
    void setLastVideoPresentationTime(MediaTime t) { lastVideoPresentationTime_ = t; }
    MediaTime lastAudio1PresentationTime() const { return lastAudio1PresentationTime_; }
    void setLastAudio1PresentationTime(MediaTime t) { lastAudio1PresentationTime_ = t; }
    MediaTime lastAudio2PresentationTime() const { return lastAudio2PresentationTime_; }
    void setLastAudio2PresentationTime(MediaTime t) { lastAudio2PresentationTime_ = t; }
    const std::shared_ptr<SVBroadcastConfiguration>& broadcastConfig() const {
        return broadcastConfig_;
    }
    void setBroadcastConfig(std::shared_ptr<SVBroadcastConfiguration> c) {
        broadcastConfig_ = std::move(c);
    }
    bool isSystemRecording() const { return systemRecording_; }
    void setSystemRecording(bool value) { systemRecording_ = value; }

    // The file URL of outputPath, made each time.
    URL outputURL() const;

    // Told when the file writer fails while writing (the disk is full);
    // on a worker thread of the platform writer, at most once per file
    // writer. Set before startWritingHandler or setupFileWriter.
    void setFailureHandler(media::MovieFileWriter::FailureHandler handler) {
        failureHandler_ = std::move(handler);
    }

    // Removes any file at outputURL through the movie store, then (on the
    // store's background queue) runs setupFileWriter and calls `handler`
    // (may be null). The writer is kept alive until then.
    void startWritingHandler(StartHandler handler);
    // Creates the file writer and the three inputs; synchronous. May run
    // again: replaces them and resets the three last times.
    void setupFileWriter();

    // Drop samples that are not strictly later (by value) than the stream's
    // last one; otherwise hand them to the platform writer. The first video
    // sample starts writing and fixes the movie's transform. The sample is
    // referenced, never copied. True when the video input took the frame;
    // false when it was dropped (not later than the last one, the writer not
    // writing, or its queue full because the encoder is behind).
    bool appendVideoSampleBuffer(const std::shared_ptr<SampleBuffer>& sample,
                                 const AffineTransform& windowTransform);
    void appendAudio1SampleBuffer(const std::shared_ptr<SampleBuffer>& sample);
    void appendAudio2SampleBuffer(const std::shared_ptr<SampleBuffer>& sample);

    // Calls `handler` once with the file writer's output URL: after the
    // movie is closed when writing (whether or not that succeeded) or when
    // writing failed (what was written before the failure is kept when it
    // plays, see hasPlayableMovie), at once otherwise (nullopt without a
    // file writer). `handler` may be null only while writing.
    void finishWritingWithHandler(URLHandler handler);
    // After the finish handler: the file at outputURL plays (the whole
    // movie, or the part written before writing failed).
    bool hasPlayableMovie() const { return fileWriter_ && fileWriter_->hasPlayableMovie(); }

    // Six items (title, artist, content identifier, encoded by, description,
    // genre) from storeInfo; nullopt without store info.
    std::optional<media::MetadataList> assetMetadata() const;
    static std::shared_ptr<media::MovieMetadataItem> metadataItemWithKey(
        const std::string& key, std::optional<std::string> value);

    // Copies `url` without its first startClipDuration and last
    // endClipDuration seconds (each rounded to a whole second) to
    // `outputFileURL`, replacing any file there. `handler` is called exactly
    // once, on the default global queue: with outputFileURL on success, with
    // nullopt when the export failed or was cancelled (the source is left
    // untouched either way). Keeps no state in the writer.
    void trimMovieWithURL(const URL& url, double startClipDuration, double endClipDuration,
                          const URL& outputFileURL, URLHandler handler);

    // The file writer's status code (0 without a file writer).
    int fileWriterStatus() const;

  private:
    SVMovieWriter() = default;
    void appendAudio(const std::shared_ptr<SampleBuffer>& sample,
                     const std::shared_ptr<media::MovieWriterInput>& input, MediaTime& last,
                     std::atomic<double>& end, const char* discardMessage);
    // Silence up to the last video frame, so that every audio track plays
    // as long as the video: on a track that received audio but ends before
    // the video (the capture's last buffer, still filling at the stop, is
    // lost), from `end`, at most kMaxEndPaddingSeconds; on a track that
    // received none (`end` NaN: no application was tapped), from the
    // session's start.
    void padAudioToVideoEnd(const std::shared_ptr<media::MovieWriterInput>& input, double end);
    static constexpr double kMaxEndPaddingSeconds = 2.0;
    // Queues silence on `input` from `from` to `to` (seconds on the
    // appended samples' clock) without blocking: short silent buffers on
    // one shared block, each ending at most kMaxFilledAudioGapSeconds after
    // the one before; the input fills the gap before each in small pieces
    // as it encodes, so memory stays bounded however long the span is.
    static void appendSilence(const std::shared_ptr<media::MovieWriterInput>& input, double from,
                              double to);

    std::shared_ptr<media::MovieFileWriter> fileWriter_;
    std::shared_ptr<media::MovieWriterInput> videoInput_;
    std::shared_ptr<media::MovieWriterInput> audioInput1_;
    std::shared_ptr<media::MovieWriterInput> audioInput2_;
    std::string outputPath_;
    WindowSize windowSize_;
    std::shared_ptr<SVStoreInfo> storeInfo_;
    MediaTime sessionStartTime_;  // of the first video frame
    MediaTime lastVideoPresentationTime_;
    MediaTime lastAudio1PresentationTime_;
    MediaTime lastAudio2PresentationTime_;
    // Where each audio track's appended audio ends, in seconds (NaN: none
    // yet). Written by the track's append, read by the finish, which may
    // run on another thread while a last append is on its way.
    std::atomic<double> audio1End_{std::numeric_limits<double>::quiet_NaN()};
    std::atomic<double> audio2End_{std::numeric_limits<double>::quiet_NaN()};
    std::shared_ptr<SVBroadcastConfiguration> broadcastConfig_;
    bool systemRecording_ = false;
    media::MovieFileWriter::FailureHandler failureHandler_;
};

}  // namespace sv
