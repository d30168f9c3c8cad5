// The short summary of a finished movie that `sorvel record` prints.
#pragma once

#include <cstdio>
#include <string>

namespace sv::cli {

// Writes what `sorvel inspect` says about the movie at `path` to `out` (for
// a long movie its tracks only); a movie that cannot be read gets one line
// saying so.
void printMovieSummary(const std::string& path, FILE* out);

}  // namespace sv::cli
