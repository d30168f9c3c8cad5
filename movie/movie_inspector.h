// The movie inspector: what `sorvel inspect` shows a user checking a
// recording, and what tests and benchmarks use to judge one.
//
// Every movie gets a summary of its tracks in file order (codec, profile,
// size, duration, frame or sample count, display matrix) and its tags. A
// movie of the synthetic sources (frames carrying frame stamps, audio
// carrying whole-second clicks, platform/screen/frame_stamp.h) also gets:
// - the frames read back from their stamps: how many, the frames lost after
//   they were delivered (index gaps that no pause explains), duplicates,
//   frames out of order, and the capture deadlines the screen skipped
//   ("late": a stamp-time step of more than 1.5 frame intervals that the
//   presentation time takes too);
// - the pauses: a stamp-time step much larger than the presentation-time
//   step, that is, time the recording removed from its timeline. The first
//   frame after each resume is dropped by design, so index gaps at a pause
//   are reported with the pause, not as drops;
// - per audio track, the offset of each click against the frame stamped
//   with the same host second (positive: the audio comes late), with its
//   mean and its largest value.
// A movie whose first frames carry no stamp gets the summary only.
//
// The JSON form is documented in docs/movie-inspector.md.
//
// Threads: pure functions; inspectMovie blocks its caller while it decodes.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/media/movie_reader.h"
#include "platform/screen/frame_stamp.h"

namespace sv {

// One frame as the inspector saw it.
struct InspectedFrame {
    double time = 0;                  // presentation time in the movie, seconds
    std::optional<FrameStamp> stamp;  // nullopt: no readable stamp
};

struct StampPause {
    double time = 0;             // movie time of the first frame after the pause
    double duration = 0;         // host time the pause took out of the movie, seconds
    uint64_t framesSkipped = 0;  // frame indices that went missing with it
};

struct StampDrop {
    double time = 0;          // movie time of the frame after the gap
    uint64_t firstIndex = 0;  // first index missing
    uint64_t count = 0;       // indices missing (and never shown later)
};

struct FrameStampReport {
    int64_t frames = 0;      // frames shown by the movie's first video track
    int64_t stamped = 0;     // of them with a readable stamp
    int64_t unreadable = 0;  // without one
    uint64_t firstIndex = 0, lastIndex = 0;
    int64_t dropped = 0;       // indices lost after delivery (gaps no pause explains)
    int64_t duplicates = 0;    // frames whose index was shown before
    int64_t outOfOrder = 0;    // frames shown after a frame with a later index
    int64_t late = 0;          // capture deadlines skipped
    double frameInterval = 0;  // the usual stamp-time step, seconds (0: unknown)
    std::vector<StampPause> pauses;
    std::vector<StampDrop> drops;  // the first kMaxListed gaps
    bool partial = false;          // the movie has more frames than the inspector analyses

    static constexpr size_t kMaxListed = 1000;
};

// The analysis of frames in presentation order (any order is accepted: the
// list is sorted by time first). Frames without a stamp only count.
FrameStampReport analyzeFrameStamps(std::vector<InspectedFrame> frames);

struct ClickMatch {
    double time = 0;      // movie time of the click
    uint64_t second = 0;  // the host second it marks
    double offset = 0;    // click time minus the time the frames give that second
};

struct AudioSyncReport {
    int track = 0;          // index in the file
    int64_t clicks = 0;     // clicks found
    int64_t matched = 0;    // of them matched against the frames
    double meanOffset = 0;  // seconds, positive: audio later than video
    double maxOffset = 0;   // the offset of largest magnitude, with its sign
    std::vector<ClickMatch> matches;
};

// Matches click times (movie seconds, ascending) of one audio track against
// stamped frames. A click's host second comes from the clicks before it
// when it lies a whole number of seconds after the previous one (so audio
// that runs on through a pause the video took out shows the whole pause as
// its offset), and otherwise from the frame shown at its time.
AudioSyncReport matchClicks(int track, const std::vector<double>& clickTimes,
                            std::vector<InspectedFrame> frames);

struct MovieInspection {
    std::string path;
    media::MovieInfo movie;
    std::optional<FrameStampReport> stamps;  // present for a movie with stamps
    std::vector<AudioSyncReport> audioSync;  // one per audio track, with stamps only
};

// Reads the movie at `path` (decoding it frame by frame when its frames
// carry stamps). An error (the media layer's, kMovieWriterErrorDomain) when
// the file cannot be read or is broken (truncated, undecodable).
Result<MovieInspection> inspectMovie(const std::string& path);

nlohmann::ordered_json inspectionToJSON(const MovieInspection& inspection);
std::string inspectionToText(const MovieInspection& inspection);

}  // namespace sv
