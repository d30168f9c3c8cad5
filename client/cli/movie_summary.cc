#include "client/cli/movie_summary.h"

#include "movie/movie_inspector.h"
#include "platform/media/movie_reader.h"

namespace sv::cli {

namespace {

// Reading every frame's stamp back costs a decode of the whole movie: worth
// it for a short recording, while a long one gets its tracks only.
constexpr double kLongestFullInspection = 120;  // seconds

}  // namespace

void printMovieSummary(const std::string& path, FILE* out) {
    auto opened = media::MovieReader::open(path);
    if (!opened) {
        std::fprintf(out, "(not a readable movie)\n");
        return;
    }
    auto reader = std::move(*opened);
    if (reader->info().duration <= kLongestFullInspection) {
        reader.reset();
        auto inspection = inspectMovie(path);
        if (inspection) {
            std::fputs(inspectionToText(*inspection).c_str(), out);
            return;
        }
        std::fprintf(out, "(%s)\n", inspection.error().message().c_str());
        return;
    }
    MovieInspection tracksOnly;
    tracksOnly.path = path;
    tracksOnly.movie = reader->info();
    std::string text = inspectionToText(tracksOnly);
    // The analysis was not run, so its "none" would mislead.
    if (auto at = text.rfind("frame stamps:"); at != std::string::npos) text.erase(at);
    std::fputs(text.c_str(), out);
    std::fprintf(out, "(sorvel inspect %s reads the frame stamps and A/V offsets)\n", path.c_str());
}

}  // namespace sv::cli
