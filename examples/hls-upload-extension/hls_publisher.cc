#include "hls_publisher.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <variant>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

namespace hls {
namespace fs = std::filesystem;

namespace {

class DirectoryDestination : public Destination {
  public:
    explicit DirectoryDestination(std::string directory) : directory_(std::move(directory)) {}
    // Written beside the published file, then renamed over it.
    std::optional<std::string> put(const std::string& name, std::string contents) override {
        const fs::path target = fs::path(directory_) / name;
        const fs::path part = fs::path(directory_) / ("." + name + ".part");
        {
            std::ofstream out(part, std::ios::binary | std::ios::trunc);
            out.write(contents.data(), std::streamsize(contents.size()));
            if (!out.flush()) return "cannot write " + part.string();
        }
        std::error_code ec;
        fs::rename(part, target, ec);
        if (ec) return "cannot publish " + name + ": " + ec.message();
        return std::nullopt;
    }
    std::string locationOf(const std::string& name) const override {
        return (fs::path(directory_) / name).string();
    }
    std::optional<std::string> fetch(const std::string& name) const override {
        std::ifstream in(fs::path(directory_) / name, std::ios::binary);
        if (!in) return std::nullopt;
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

  private:
    std::string directory_;
};

std::string averror(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

// Reads the fragment through its descriptor with pread, so nothing but the
// granted file is ever opened.
struct FdReader {
    int fd;
    int64_t position = 0;
    static int read(void* opaque, uint8_t* buffer, int size) {
        auto* r = static_cast<FdReader*>(opaque);
        const ssize_t n = ::pread(r->fd, buffer, size_t(size), r->position);
        if (n < 0) return AVERROR(errno);
        if (n == 0) return AVERROR_EOF;
        r->position += n;
        return int(n);
    }
    static int64_t seek(void* opaque, int64_t offset, int whence) {
        auto* r = static_cast<FdReader*>(opaque);
        struct stat st {};
        if ((whence & ~AVSEEK_FORCE) == AVSEEK_SIZE)
            return ::fstat(r->fd, &st) == 0 ? int64_t(st.st_size) : AVERROR(errno);
        switch (whence & ~AVSEEK_FORCE) {
            case SEEK_SET:
                r->position = offset;
                break;
            case SEEK_CUR:
                r->position += offset;
                break;
            case SEEK_END:
                if (::fstat(r->fd, &st) != 0) return AVERROR(errno);
                r->position = st.st_size + offset;
                break;
            default:
                return AVERROR(EINVAL);
        }
        return r->position;
    }
};

struct InputCloser {
    void operator()(AVFormatContext* c) const {
        AVIOContext* pb = c->pb;
        avformat_close_input(&c);
        if (pb) {
            av_freep(&pb->buffer);
            avio_context_free(&pb);
        }
    }
};
// Segments are written into memory (a dynamic buffer).
struct OutputCloser {
    void operator()(AVFormatContext* c) const {
        if (c->pb) {
            uint8_t* bytes = nullptr;
            avio_close_dyn_buf(c->pb, &bytes);
            av_free(bytes);
        }
        avformat_free_context(c);
    }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};

using Input = std::unique_ptr<AVFormatContext, InputCloser>;
using Output = std::unique_ptr<AVFormatContext, OutputCloser>;

// The fragment read through `reader` (which must outlive it), or why not.
std::variant<Input, std::string> openFragment(FdReader& reader) {
    constexpr int kBufferSize = 64 * 1024;
    auto* buffer = static_cast<uint8_t*>(av_malloc(kBufferSize));
    if (!buffer) return "out of memory";
    AVIOContext* io = avio_alloc_context(buffer, kBufferSize, 0, &reader, &FdReader::read, nullptr,
                                         &FdReader::seek);
    if (!io) {
        av_free(buffer);
        return "out of memory";
    }
    AVFormatContext* rawIn = avformat_alloc_context();
    if (!rawIn) {
        av_freep(&io->buffer);
        avio_context_free(&io);
        return "out of memory";
    }
    rawIn->pb = io;
    rawIn->flags |= AVFMT_FLAG_CUSTOM_IO;
    if (int r = avformat_open_input(&rawIn, nullptr, nullptr, nullptr); r < 0) {
        // avformat_open_input freed the context, not the custom I/O.
        av_freep(&io->buffer);
        avio_context_free(&io);
        return "not a movie: " + averror(r);
    }
    Input in(rawIn);
    if (int r = avformat_find_stream_info(in.get(), nullptr); r < 0)
        return "unreadable movie: " + averror(r);
    return in;
}

// How long a fragment lasts, in 90 kHz ticks: until the next one's first
// frame, its last frame's time plus one frame interval (the median one: a
// last packet often carries no duration, and a capture stall must not
// stretch it); without video, until its last packet ends.
int64_t fragmentLength90k(std::vector<int64_t> videoTimes90k, int64_t anyEnd90k) {
    if (videoTimes90k.empty()) return anyEnd90k;
    std::sort(videoTimes90k.begin(), videoTimes90k.end());
    std::vector<int64_t> steps;
    for (size_t i = 1; i < videoTimes90k.size(); ++i)
        steps.push_back(videoTimes90k[i] - videoTimes90k[i - 1]);
    int64_t interval = 3000;  // 1/30 s, for a fragment of one frame
    if (!steps.empty()) {
        std::nth_element(steps.begin(), steps.begin() + steps.size() / 2, steps.end());
        interval = steps[steps.size() / 2];
    }
    return videoTimes90k.back() + interval;
}

// An MPEG-TS segment in memory with the streams of `in`, its header
// written, or why not.
std::variant<Output, std::string> startSegment(const AVFormatContext& in) {
    AVFormatContext* rawOut = nullptr;
    if (int r = avformat_alloc_output_context2(&rawOut, nullptr, "mpegts", nullptr); r < 0)
        return "no MPEG-TS muxer: " + averror(r);
    Output out(rawOut);
    for (unsigned i = 0; i < in.nb_streams; ++i) {
        AVStream* s = avformat_new_stream(out.get(), nullptr);
        if (!s) return "out of memory";
        if (avcodec_parameters_copy(s->codecpar, in.streams[i]->codecpar) < 0)
            return "cannot copy stream parameters";
        s->codecpar->codec_tag = 0;
        s->time_base = in.streams[i]->time_base;
    }
    if (avio_open_dyn_buf(&out->pb) < 0) return "out of memory";
    if (int r = avformat_write_header(out.get(), nullptr); r < 0)
        return "cannot start the segment: " + averror(r);
    return out;
}

// Copies every packet of `in` to `out`, moved to start at `start90k`
// (every stream of a fragment starts at its first video frame, time 0);
// the fragment's length in 90 kHz ticks (fragmentLength90k), or why not.
std::variant<int64_t, std::string> copyPackets(AVFormatContext& in, AVFormatContext& out,
                                               int64_t start90k) {
    int videoIndex = -1;
    for (unsigned i = 0; i < in.nb_streams && videoIndex < 0; ++i)
        if (in.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) videoIndex = int(i);
    const AVRational ticks90k{1, 90000};
    std::vector<int64_t> videoTimes90k;
    int64_t anyEnd90k = 0;
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    if (!packet) return "out of memory";
    int r = 0;
    while ((r = av_read_frame(&in, packet.get())) >= 0) {
        const unsigned index = unsigned(packet->stream_index);
        const AVRational tb = in.streams[index]->time_base;
        const int64_t offset = av_rescale_q(start90k, ticks90k, tb);
        if (packet->pts != AV_NOPTS_VALUE) {
            const int64_t pts90k = av_rescale_q(packet->pts, tb, ticks90k);
            anyEnd90k =
                std::max(anyEnd90k, av_rescale_q(packet->pts + packet->duration, tb, ticks90k));
            if (int(index) == videoIndex) videoTimes90k.push_back(pts90k);
            packet->pts += offset;
        }
        if (packet->dts != AV_NOPTS_VALUE) packet->dts += offset;
        av_packet_rescale_ts(packet.get(), tb, out.streams[index]->time_base);
        packet->pos = -1;
        if (int w = av_interleaved_write_frame(&out, packet.get()); w < 0)
            return "cannot write the segment: " + averror(w);
    }
    if (r != AVERROR_EOF) return "cannot read the fragment: " + averror(r);
    return fragmentLength90k(std::move(videoTimes90k), anyEnd90k);
}

}  // namespace

std::unique_ptr<Destination> makeDirectoryDestination(const std::string& directory,
                                                      std::string* error) {
    std::error_code ec;
    fs::create_directories(directory, ec);
    if (ec || !fs::is_directory(directory)) {
        if (error) *error = "cannot use directory " + directory + ": " + ec.message();
        return nullptr;
    }
    return std::make_unique<DirectoryDestination>(fs::absolute(directory).string());
}

Publisher::Publisher(std::unique_ptr<Destination> destination)
    : destination_(std::move(destination)) {
    auto playlist = destination_->fetch(kPlaylistName);
    if (!playlist || playlist->find("#EXT-X-ENDLIST") != std::string::npos) return;
    std::istringstream lines(*playlist);
    std::optional<double> seconds;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("#EXTINF:", 0) == 0) {
            seconds = std::strtod(line.c_str() + 8, nullptr);
        } else if (seconds && !line.empty() && line[0] != '#') {
            segments_.push_back({line, *seconds});
            nextStart90k_ += int64_t(std::llround(*seconds * 90000));
            seconds.reset();
        }
    }
}

double Publisher::publishedSeconds() const {
    double total = 0;
    for (const auto& s : segments_) total += s.seconds;
    return total;
}

Publisher::Remuxed Publisher::remux(int fd) const {
    Remuxed result;
    auto fail = [&](std::string why) {
        result.error = std::move(why);
        return std::move(result);
    };
    FdReader reader{fd};
    auto opened = openFragment(reader);
    if (auto* why = std::get_if<std::string>(&opened)) return fail(std::move(*why));
    Input in = std::move(std::get<Input>(opened));
    auto started = startSegment(*in);
    if (auto* why = std::get_if<std::string>(&started)) return fail(std::move(*why));
    Output out = std::move(std::get<Output>(started));
    auto copied = copyPackets(*in, *out, nextStart90k_);
    if (auto* why = std::get_if<std::string>(&copied)) return fail(std::move(*why));

    if (int w = av_write_trailer(out.get()); w < 0)
        return fail("cannot end the segment: " + averror(w));
    uint8_t* bytes = nullptr;
    const int size = avio_close_dyn_buf(out->pb, &bytes);
    out->pb = nullptr;
    if (!bytes || size < 0) return fail("out of memory");
    result.bytes.assign(reinterpret_cast<const char*>(bytes), size_t(size));
    av_free(bytes);
    result.length90k = std::get<int64_t>(copied);
    return result;
}

std::optional<std::string> Publisher::addFragment(int fd, bool finished) {
    Remuxed segment = remux(fd);
    if (segment.error) return segment.error;
    char name[32];
    std::snprintf(name, sizeof name, "segment_%05zu.ts", segments_.size());
    if (auto error = destination_->put(name, std::move(segment.bytes))) return error;
    segments_.push_back({name, double(segment.length90k) / 90000.0});
    nextStart90k_ += segment.length90k;
    finished_ = finished_ || finished;
    return writePlaylist(finished_);
}

std::optional<std::string> Publisher::writePlaylist(bool finished) {
    double longest = 1;
    for (const auto& s : segments_) longest = std::max(longest, s.seconds);
    std::ostringstream playlist;
    playlist << "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-PLAYLIST-TYPE:EVENT\n"
             << "#EXT-X-TARGETDURATION:" << int(std::ceil(longest)) << "\n"
             << "#EXT-X-MEDIA-SEQUENCE:0\n";
    char line[64];
    for (const auto& s : segments_) {
        std::snprintf(line, sizeof line, "#EXTINF:%.6f,\n", s.seconds);
        playlist << line << s.name << "\n";
    }
    if (finished) playlist << "#EXT-X-ENDLIST\n";
    return destination_->put(kPlaylistName, playlist.str());
}

}  // namespace hls
