// `sorvel inspect MOVIE [--json]`: what a movie holds (tracks, tags) and,
// for a recording of the synthetic sources, its frames read back from their
// stamps, the pauses found and the audio/video offset per audio track.
#include <cstdio>
#include <string>

#include "client/cli_command.h"
#include "movie/movie_inspector.h"
#include "platform/log.h"

namespace {

constexpr const char* kUsage =
    "usage: sorvel inspect MOVIE [--json]\n"
    "\n"
    "Shows the tracks and tags of MOVIE. For a recording of the synthetic\n"
    "screen and audio it also reads every frame's stamp back: frames dropped,\n"
    "duplicated or out of order, deadlines skipped, pauses, and the offset of\n"
    "each audio track's whole-second clicks against the frames.\n"
    "\n"
    "  --json   print one JSON object (keys in docs/movie-inspector.md)\n";

int usageError(const std::string& message) {
    return sv::cli::usageError("inspect", message, kUsage);
}

int runInspect(int argc, char** argv) {
    std::optional<std::string> movie;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--json") {
            json = true;
        } else if (!a.empty() && a[0] == '-') {
            return usageError("unknown option " + a);
        } else if (!movie) {
            movie = a;
        } else {
            return usageError("only one MOVIE may be given");
        }
    }
    if (!movie) return usageError("no MOVIE given");

    // FFmpeg's complaints about a broken file go to the log; the command
    // prints one message of its own instead.
    sv::log::setOutputEnabled(false);
    auto inspection = sv::inspectMovie(*movie);
    if (!inspection) {
        std::fprintf(stderr, "sorvel inspect: %s\n", inspection.error().message().c_str());
        return 1;
    }
    if (json)
        std::printf("%s\n",
                    sv::inspectionToJSON(*inspection)
                        .dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                        .c_str());
    else
        std::fputs(sv::inspectionToText(*inspection).c_str(), stdout);
    return 0;
}

static sv::cli::CliRegistration reg({"inspect", "show a movie's tracks, frame stamps and A/V sync",
                                     &runInspect});

}  // namespace
