#include "movie/movie_recovery.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>

#include "platform/log.h"
#include "platform/media/fragmented_movie.h"
#include "platform/media/movie_exporter.h"

namespace sv {

namespace {

namespace fs = std::filesystem;

// "<stem> (recovered YYYY-MM-DD HH.MM.SS).mp4" beside `path`, made unique
// with " 2", " 3", ... when a movie of that name exists.
fs::path recoveredName(const fs::path& path, time_t stopped) {
    char when[32] = "unknown time";
    struct tm local {};
    if (localtime_r(&stopped, &local))
        std::strftime(when, sizeof when, "%Y-%m-%d %H.%M.%S", &local);
    const std::string base = path.stem().string() + " (recovered " + when + ")";
    fs::path candidate = path.parent_path() / (base + ".mp4");
    std::error_code ec;
    for (int n = 2; fs::exists(candidate, ec) && n < 1000; ++n)
        candidate = path.parent_path() / (base + " " + std::to_string(n) + ".mp4");
    return candidate;
}

}  // namespace

std::vector<RecoveredMovie> recoverUnfinishedMovies(const std::string& directory) {
    std::vector<RecoveredMovie> recovered;
    std::error_code ec;
    fs::directory_iterator it(directory, ec);
    if (ec) return recovered;  // no store yet: nothing to recover
    std::vector<fs::path> candidates;
    for (const auto& entry : it)
        if (entry.path().extension() == ".mp4" && entry.is_regular_file(ec))
            candidates.push_back(entry.path());

    for (const auto& path : candidates) {
        auto before = media::readFragmentedMovieLayout(path.string());
        if (!before || !before->unfinished()) continue;
        struct stat st {};
        const time_t stopped = ::stat(path.c_str(), &st) == 0 ? st.st_mtime : time(nullptr);
        auto layout = media::truncateToCompleteFragments(path.string());
        if (!layout) {
            log::error("SVMovieWriter: cannot recover %@: %@", path.string(),
                       layout.error().description());
            continue;
        }
        if (layout->completeFragments == 0) {
            log::info("SVMovieWriter: removing unfinished movie %@, nothing of it plays",
                      path.string());
            fs::remove(path, ec);
            continue;
        }
        const fs::path target = recoveredName(path, stopped);
        fs::rename(path, target, ec);
        if (ec) {
            log::error("SVMovieWriter: cannot rename recovered movie %@: %@", path.string(),
                       ec.message());
            continue;
        }
        // Its day in the store starts now, not when the recording stopped.
        ::utimensat(AT_FDCWD, target.c_str(), nullptr, 0);
        auto asset = media::MovieAsset::assetWithURL(URL::fileURLWithPath(target.string()));
        const double seconds = asset->isReadable() ? asset->duration().seconds() : 0.0;
        log::info("SVMovieWriter: recovered movie %@ (%f s)", target.string(), seconds);
        recovered.push_back({target.string(), seconds});
    }
    return recovered;
}

}  // namespace sv
