#include "client/cli/movie_summary.h"

#include "platform/media/movie_exporter.h"
#include "platform/url.h"

namespace sv::cli {

void printMovieSummary(const std::string& path, FILE* out) {
    auto asset = media::MovieAsset::assetWithURL(URL::fileURLWithPath(path));
    if (!asset->isReadable()) {
        std::fprintf(out, "  (not a readable movie)\n");
        return;
    }
    std::fprintf(out, "  duration %.3f s, %d tracks\n", asset->duration().seconds(),
                 asset->trackCount());
}

}  // namespace sv::cli
