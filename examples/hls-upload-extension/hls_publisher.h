// Turns movie fragments into a live HLS stream: each fragment is remuxed
// (not re-encoded) into one MPEG-TS segment whose timestamps continue those
// of the segment before, and the playlist is rewritten after every segment
// (with its end tag after the last one).
//
// Where segments and playlists go is a Destination: a directory, or an HTTP
// ingest point that takes them by PUT (http_destination.h).
//
// One publisher belongs to one thread at a time (the extension's request
// thread).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace hls {

// Receives the files of the stream, each complete: a reader never sees half
// a segment or playlist.
class Destination {
  public:
    virtual ~Destination() = default;
    // Publishes `contents` as `name`; an error text or nothing. May return
    // before the file is out (an upload): what fails later is counted in
    // stats().
    virtual std::optional<std::string> put(const std::string& name, std::string contents) = 0;
    // Where a player finds `name` (a path or a URL).
    virtual std::string locationOf(const std::string& name) const = 0;
    // The text of the published file `name`, or nothing.
    virtual std::optional<std::string> fetch(const std::string& name) const = 0;
    // Waits, at most `limit`, until every file put is out.
    virtual void flush(std::chrono::milliseconds limit) { (void)limit; }

    struct Stats {
        uint64_t retries = 0;                   // tries after a failed one
        uint64_t dropped = 0;                   // files given up
        size_t pending = 0;                     // files not out yet
        std::vector<std::string> droppedNames;  // the latest few dropped
    };
    virtual Stats stats() const { return {}; }
};

// Files in a local directory (created if missing), renamed into place.
std::unique_ptr<Destination> makeDirectoryDestination(const std::string& directory,
                                                      std::string* error);

class Publisher {
  public:
    static constexpr const char* kPlaylistName = "index.m3u8";
    // A live playlist already at the destination (this extension was
    // ended and started again mid-broadcast) is continued; a finished one
    // is replaced.
    explicit Publisher(std::unique_ptr<Destination> destination);

    // Remuxes the fragment readable through `fd` into the next segment and
    // republishes the playlist, ended once a fragment came `finished` (a
    // fragment answered after the last one, when the service's requests
    // overlap, is still published, and the playlist stays ended). An error
    // text or nothing.
    std::optional<std::string> addFragment(int fd, bool finished);

    std::string playlistLocation() const { return destination_->locationOf(kPlaylistName); }
    Destination& destination() { return *destination_; }
    size_t segmentCount() const { return segments_.size(); }
    double publishedSeconds() const;

  private:
    struct Segment {
        std::string name;
        double seconds = 0;
    };
    // The fragment readable through `fd` as one MPEG-TS segment whose
    // timestamps start at nextStart90k_, with its length in 90 kHz ticks;
    // or why it cannot be.
    struct Remuxed {
        std::string bytes;
        int64_t length90k = 0;
        std::optional<std::string> error;
    };
    Remuxed remux(int fd) const;
    std::optional<std::string> writePlaylist(bool finished);

    std::unique_ptr<Destination> destination_;
    std::vector<Segment> segments_;
    // Where the next segment's timestamps start, in 90 kHz ticks. Starts
    // above 0 so that decode times before the first frame stay positive.
    int64_t nextStart90k_ = 90000;
    bool finished_ = false;
};

}  // namespace hls
