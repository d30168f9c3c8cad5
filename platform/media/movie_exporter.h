// Reading movies and exporting a time range of one into a new MPEG-4 file
// without re-encoding (the passthrough preset).
//
// The cut is exact at the start: where the range begins between key frames,
// the export keeps the packets from the preceding key frame (and one audio
// packet of decoder preroll) and places them before time zero; the file's
// edit list hides that lead-in, so players and FFmpeg start at the range's
// first frame. At the end each track stops before its first packet that
// would be presented at or after the range's end (a video frame also when
// less than half of it lies inside the range). A reference frame past the
// end that reordered (B) frames inside the range still need is kept for
// decoding and shown for a single tick of a fine clock (at least 90 kHz)
// just before the end, so the track and its edit end exactly with the range.
//
// Threads: MovieAsset and MovieExporter may be used from any thread. The
// export runs on the default-priority global dispatch queue and its
// completion is called there, once, after the status is final.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/media/movie_file_writer.h"
#include "platform/media_time.h"
#include "platform/url.h"

namespace sv::media {

// A movie opened for reading. Opening reads the file's header on the
// calling thread.
class MovieAsset {
  public:
    static std::shared_ptr<MovieAsset> assetWithURL(const URL& url);

    const URL& url() const { return url_; }
    // True when the file is a movie with at least one audio or video track.
    bool isReadable() const { return !error_; }
    // The movie's duration, from its first video frame (the start of its
    // timeline, where a fragmented movie's reordered frames put it a few
    // frames past zero) to its end; the invalid time when it is not
    // readable. Export time ranges count from the same start.
    MediaTime duration() const { return duration_; }
    // Where that timeline starts in the file's own time (zero for a movie
    // written in one piece).
    MediaTime timelineStart() const { return timelineStart_; }
    int trackCount() const { return tracks_; }
    const OptionalError& error() const { return error_; }

  private:
    URL url_;
    MediaTime duration_;
    MediaTime timelineStart_ = MediaTime::zero();
    int tracks_ = 0;
    OptionalError error_;
};

class MovieExporter : public std::enable_shared_from_this<MovieExporter> {
  public:
    enum class Status : int {
        Unknown = 0,
        Waiting = 1,
        Exporting = 2,
        Completed = 3,
        Failed = 4,
        Cancelled = 5
    };
    static constexpr const char* kPresetPassthrough = "SVMovieExportPresetPassthrough";

    // Null for a preset other than passthrough.
    static std::shared_ptr<MovieExporter> create(std::shared_ptr<MovieAsset> asset,
                                                 const std::string& preset);

    void setOutputURL(const URL& url);
    std::optional<URL> outputURL() const;
    void setOutputFileType(FileType type);
    // Start and duration of the range to copy; by default the whole movie.
    void setTimeRange(MediaTime start, MediaTime duration);

    // Starts the export once; `completion` runs on the default global queue.
    void exportAsynchronously(std::function<void()> completion);
    // Stops a running export (status cancelled, partial output removed).
    void cancelExport();

    Status status() const { return Status(status_.load()); }
    OptionalError error() const;

  private:
    explicit MovieExporter(std::shared_ptr<MovieAsset> asset) : asset_(std::move(asset)) {}
    void run();
    void fail(int code, const std::string& what);

    std::shared_ptr<MovieAsset> asset_;
    mutable std::mutex mu_;
    std::optional<URL> output_;
    FileType type_ = FileType::MPEG4;
    std::optional<MediaTime> start_, duration_;
    OptionalError error_;
    std::atomic<int> status_{int(Status::Unknown)};
    std::atomic<bool> cancelled_{false};
};

}  // namespace sv::media
