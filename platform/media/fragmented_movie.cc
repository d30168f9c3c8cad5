#include "platform/media/fragmented_movie.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

extern "C" {
#include <libavutil/error.h>
}

#include "platform/media/movie_file_writer.h"
#include "platform/unique_fd.h"

namespace sv::media {

namespace {

// The writer's movie box is a few kB; a larger one is not of its making.
constexpr uint64_t kMaxMovieBoxBytes = 16 << 20;

Error fileError(int err, const std::string& what) {
    return Error::make(kMovieWriterErrorDomain, AVERROR(err), what + ": " + std::strerror(err));
}

uint32_t be32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint64_t be64(const uint8_t* p) {
    return uint64_t(be32(p)) << 32 | be32(p + 4);
}

struct Box {
    char type[5] = {};
    uint64_t offset = 0;
    uint64_t header = 0;
    uint64_t size = 0;  // header included
    bool is(const char* t) const { return std::memcmp(type, t, 4) == 0; }
};

// The box header at `offset` of a file or buffer of `limit` bytes; false when
// no whole box fits there (cut short, or a size that cannot be).
template <typename Read>
bool readBox(Read&& read, uint64_t offset, uint64_t limit, Box& box) {
    uint8_t h[16];
    if (limit < offset + 8 || !read(h, 8, offset)) return false;
    box.offset = offset;
    std::memcpy(box.type, h + 4, 4);
    box.header = 8;
    box.size = be32(h);
    if (box.size == 1) {
        if (limit < offset + 16 || !read(h + 8, 8, offset + 8)) return false;
        box.header = 16;
        box.size = be64(h + 8);
    } else if (box.size == 0) {
        box.size = limit - offset;  // to the end
    }
    return box.size >= box.header && box.size <= limit - offset;
}

// Whether a movie box's children include the movie-extends box.
bool announcesFragments(const std::vector<uint8_t>& body) {
    auto read = [&](uint8_t* out, size_t n, uint64_t at) {
        if (at + n > body.size()) return false;
        std::memcpy(out, body.data() + at, n);
        return true;
    };
    Box child;
    for (uint64_t at = 0; readBox(read, at, body.size(), child); at += child.size)
        if (child.is("mvex")) return true;
    return false;
}

}  // namespace

Result<FragmentedMovieLayout> readFragmentedMovieLayout(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return fileError(errno, "opening " + path);
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return fileError(errno, "reading " + path);
    FragmentedMovieLayout layout;
    layout.fileBytes = uint64_t(st.st_size);
    int readError = 0;
    auto read = [&](uint8_t* out, size_t n, uint64_t at) {
        ssize_t got = ::pread(fd.get(), out, n, off_t(at));
        if (got < 0) readError = errno;
        return got == ssize_t(n);
    };

    Box box;
    bool sawFileType = false, pendingFragment = false;
    for (uint64_t at = 0; readBox(read, at, layout.fileBytes, box); at += box.size) {
        if (!sawFileType) {
            if (!box.is("ftyp")) return layout;  // not an MPEG-4 movie
            sawFileType = layout.fileType = true;
        } else if (box.is("moov")) {
            layout.movieBox = true;
            const uint64_t bodyBytes = box.size - box.header;
            if (bodyBytes > kMaxMovieBoxBytes) return layout;
            std::vector<uint8_t> body(bodyBytes);
            if (!read(body.data(), body.size(), box.offset + box.header)) break;
            layout.fragmented = announcesFragments(body);
        } else if (box.is("moof")) {
            pendingFragment = true;
        } else if (box.is("mdat") && pendingFragment) {
            pendingFragment = false;
            ++layout.completeFragments;
            layout.playableBytes = box.offset + box.size;
        } else if (box.is("mfra")) {
            layout.finished = box.offset + box.size == layout.fileBytes;
        }
    }
    if (readError) return fileError(readError, "reading " + path);
    return layout;
}

Result<FragmentedMovieLayout> truncateToCompleteFragments(const std::string& path) {
    auto layout = readFragmentedMovieLayout(path);
    if (!layout || !layout->unfinished() || layout->completeFragments == 0 ||
        layout->playableBytes == layout->fileBytes)
        return layout;
    if (::truncate(path.c_str(), off_t(layout->playableBytes)) != 0)
        return fileError(errno, "truncating " + path);
    layout->fileBytes = layout->playableBytes;
    return layout;
}

}  // namespace sv::media
