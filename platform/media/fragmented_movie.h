// Movies that their writer could not close. The movie file writer writes
// MPEG-4 as fragments: the file type and an empty movie box (which announces
// fragments with its movie-extends box) first, then one movie fragment and
// its media data about every quarter second, and the fragment random-access box
// when the movie is closed. A writer that is killed, or whose disk fills,
// leaves a file that ends in an incomplete fragment or a partial box;
// everything before that plays as it is. These functions read that layout
// and cut such a file back to its complete fragments.
//
// Threads: any; they do blocking file I/O, so not on a capture thread.
#pragma once

#include <cstdint>
#include <string>

#include "platform/error.h"

namespace sv::media {

struct FragmentedMovieLayout {
    // Begins with a file type box: an MPEG-4 file.
    bool fileType = false;
    // Has a whole movie box (the writer puts it out with the first fragment).
    bool movieBox = false;
    // The movie box announces fragments.
    bool fragmented = false;
    // Ends in the random-access box that closing the movie writes.
    bool finished = false;
    // Fragments (a fragment box followed by its media data) wholly inside
    // the file.
    int64_t completeFragments = 0;
    // Where the last complete fragment ends (0 when there is none).
    uint64_t playableBytes = 0;
    uint64_t fileBytes = 0;
    // A movie that was not closed: empty, an MPEG-4 file without a movie
    // box yet, or a fragmented movie without its closing box (it ends after
    // playableBytes in an incomplete fragment, a partial box or nothing).
    bool unfinished() const {
        return fileBytes == 0 || (fileType && (!movieBox || (fragmented && !finished)));
    }
};

// The top-level layout of the MPEG-4 file at `path`; an error (domain
// kMovieWriterErrorDomain, a negated errno) when it cannot be read. A file
// that is no MPEG-4 movie reads as not fragmented.
Result<FragmentedMovieLayout> readFragmentedMovieLayout(const std::string& path);

// Cuts an unfinished fragmented movie back to its last complete fragment
// and returns the layout it now has; any other file is left as it is. A
// movie without a complete fragment is left too (it has no picture to keep;
// the caller decides to remove it).
Result<FragmentedMovieLayout> truncateToCompleteFragments(const std::string& path);

}  // namespace sv::media
