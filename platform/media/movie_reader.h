// Reading movies back on FFmpeg's libraries: what a movie holds (its tracks
// in file order with codec, profile, size, duration, frame or sample count,
// display matrix and tags, and the movie's own tags), and its decoded media
// one frame at a time: video as 8-bit luma planes, audio as float PCM, each
// with its presentation time on the movie's timeline (after the edit list).
//
// Hostile files: the reader never holds more than one decoded frame per
// track and a few packets, refuses pictures above kMaxPixels and more than
// kMaxTracks tracks, and ends a read with an error (never a hang) on a
// broken file: a run of undecodable packets, or a track that ends before
// its last sample (a truncated file). What a read delivered before the
// error stays valid.
//
// Threads: a reader is used from one thread at a time; callbacks run on
// that thread, inside decode().
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/media/movie_file_writer.h"

namespace sv::media {

enum class TrackKind { Video, Audio, Other };

struct TrackInfo {
    int index = 0;  // in the file
    TrackKind kind = TrackKind::Other;
    std::string codec;                 // FFmpeg's short name: "h264", "aac"
    std::string profile;               // "Main", "LC"; empty when unknown
    int width = 0, height = 0;         // video, in pixels
    int sampleRate = 0, channels = 0;  // audio
    double startTime = 0;              // seconds on the movie's timeline
    double duration = 0;               // seconds
    int64_t frameCount = 0;            // samples of the track: video frames, audio packets
    int64_t sampleCount = 0;           // audio: PCM frames the track plays (duration x rate)
    int64_t bitRate = 0;               // bits per second, 0 when unknown
    // A video track's display matrix (16.16 fixed point, last column 2.30;
    // the identity when the file has none), and what it does: rotation in
    // degrees counter-clockwise as FFmpeg reports it, and whether it mirrors.
    std::optional<std::array<int32_t, 9>> displayMatrix;
    double rotation = 0;
    bool mirrored = false;
    std::map<std::string, std::string> tags;
};

struct MovieInfo {
    std::string format;  // FFmpeg's name of the container
    double duration = 0;
    int64_t fileSize = 0;
    std::map<std::string, std::string> tags;
    std::vector<TrackInfo> tracks;
};

// One decoded picture's luma plane; valid during the callback only.
struct LumaFrame {
    int track = 0;
    const uint8_t* data = nullptr;
    int32_t width = 0, height = 0, bytesPerRow = 0;
    double time = 0;      // presentation time, seconds
    double duration = 0;  // seconds, 0 when unknown
};

// A run of decoded audio as planar float; valid during the callback only.
struct PCMBlock {
    int track = 0;
    const float* const* channels = nullptr;  // channelCount planes of `frames` samples
    int channelCount = 0;
    int frames = 0;
    int sampleRate = 0;
    double time = 0;  // presentation time of the first sample, seconds
};

class MovieReader {
  public:
    static constexpr int64_t kMaxPixels = int64_t(8192) * 8192;
    static constexpr int kMaxTracks = 64;

    // Opens `path` and reads what it holds. An error (this layer's) when the
    // file cannot be read as a movie.
    static Result<std::unique_ptr<MovieReader>> open(const std::string& path);
    ~MovieReader();
    MovieReader(const MovieReader&) = delete;
    MovieReader& operator=(const MovieReader&) = delete;

    const MovieInfo& info() const { return info_; }

    // A callback returns false to end the read early (not an error).
    using VideoCallback = std::function<bool(const LumaFrame&)>;
    using AudioCallback = std::function<bool(const PCMBlock&)>;

    // Decodes the whole movie once, start to end, in file order: every
    // video track when `onVideo` is set, every audio track when `onAudio` is
    // set. Frames come in presentation order per track; frames the edit list
    // hides are left out. An error when the movie is broken; may be called
    // again for another pass.
    Result<void> decode(const VideoCallback& onVideo, const AudioCallback& onAudio);

  private:
    explicit MovieReader(std::string path) : path_(std::move(path)) {}
    std::string path_;
    MovieInfo info_;
};

}  // namespace sv::media
