// Movies left unfinished in the movie store by a daemon that ended without
// closing them (killed, crashed, the machine lost power). The writer's
// movies are fragmented (platform/media/fragmented_movie.h), so such a movie
// plays up to its last complete fragment. At start-up, before any recording
// can reuse a name, the daemon recovers them:
//
// - cut back to the last complete fragment;
// - renamed "<name> (recovered YYYY-MM-DD HH.MM.SS).mp4" after the time the
//   recording stopped (its last write), so the application's next recording,
//   which reuses "<name>.mp4", does not replace it;
// - given the current time as modification time, so the store's age-based
//   purge keeps it for a full day from its recovery;
// - logged: "SVMovieWriter: recovered movie %@ (%f s)".
// A movie without one complete fragment has nothing to play and is removed.
//
// Threads: any; blocking file I/O.
#pragma once

#include <string>
#include <vector>

namespace sv {

struct RecoveredMovie {
    std::string path;  // where the recovered movie is now
    double seconds = 0;
};

// Recovers the unfinished movies among the ".mp4" entries of `directory`
// (the movie store's path) and returns them. Finished movies, trimmed copies
// and other files are left as they are.
std::vector<RecoveredMovie> recoverUnfinishedMovies(const std::string& directory);

}  // namespace sv
