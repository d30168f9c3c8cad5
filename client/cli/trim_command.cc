// `sorvel trim INPUT --start SECONDS --end SECONDS -o OUTPUT`: cuts whole
// seconds off both ends of any MPEG-4 movie without re-encoding, with the
// service's own trimming.
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "client/cli_command.h"
#include "movie/movie_writer.h"
#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/media/movie_exporter.h"

namespace {

constexpr const char* kUsage =
    "usage: sorvel trim INPUT --start SECONDS --end SECONDS -o OUTPUT\n"
    "\n"
    "Copies INPUT to OUTPUT without its first and last SECONDS (each rounded to\n"
    "a whole second), without re-encoding. OUTPUT is replaced if it exists.\n";

int usageError(const char* message) {
    return sv::cli::usageError("trim", message, kUsage);
}
using sv::cli::parseSeconds;

std::string absolute(const std::string& path) {
    std::error_code ec;
    auto p = std::filesystem::absolute(path, ec);
    return ec ? path : p.lexically_normal().string();
}

struct TrimOptions {
    std::string input, output;  // as given
    double start = 0, end = 0;  // seconds, as given
};

// The options, or the exit status when the command ends here (help or a
// usage error, already reported).
std::variant<TrimOptions, int> parseArguments(int argc, char** argv) {
    std::optional<std::string> input, output;
    std::optional<double> start, end;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--start" || a == "--end") {
            const char* v = value();
            auto s = v ? parseSeconds(v) : std::nullopt;
            if (!s) return usageError((a + " needs a number of seconds, 0 or more").c_str());
            (a == "--start" ? start : end) = s;
        } else if (a == "-o" || a == "--output") {
            const char* v = value();
            if (!v) return usageError("-o needs an output file");
            output = v;
        } else if (!a.empty() && a[0] == '-') {
            return usageError(("unknown option " + a).c_str());
        } else if (!input) {
            input = a;
        } else {
            return usageError("only one INPUT may be given");
        }
    }
    if (!input) return usageError("no INPUT movie given");
    if (!output) return usageError("no OUTPUT given (-o)");
    if (!start || !end) return usageError("both --start and --end are required");
    return TrimOptions{*input, *output, *start, *end};
}

// 0 when INPUT is a file and OUTPUT is not the same file; otherwise reports
// why and gives the exit status.
int checkFiles(const TrimOptions& o, const std::string& in, const std::string& out) {
    struct stat st {};
    if (stat(in.c_str(), &st) != 0) {
        std::fprintf(stderr, "sorvel trim: %s: %s\n", o.input.c_str(), std::strerror(errno));
        return 1;
    }
    if (!S_ISREG(st.st_mode)) {
        std::fprintf(stderr, "sorvel trim: %s is not a file\n", o.input.c_str());
        return 1;
    }
    struct stat ost {};
    if (in == out ||
        (stat(out.c_str(), &ost) == 0 && ost.st_ino == st.st_ino && ost.st_dev == st.st_dev)) {
        std::fprintf(stderr, "sorvel trim: OUTPUT must not be the INPUT movie\n");
        return 1;
    }
    return 0;
}

// 0 when INPUT is a movie that outlasts the seconds to cut (rounded as the
// trim rounds them); otherwise reports why and gives the exit status.
int checkMovieLength(const TrimOptions& o, const std::string& in) {
    auto asset = sv::media::MovieAsset::assetWithURL(sv::URL::fileURLWithPath(in));
    if (!asset->isReadable()) {
        std::fprintf(stderr, "sorvel trim: %s is not a movie\n", o.input.c_str());
        return 1;
    }
    const double duration = asset->duration().seconds();
    const double s = std::round(o.start), e = std::round(o.end);
    if (s + e >= duration) {
        std::fprintf(stderr,
                     "sorvel trim: the movie lasts %.3f s; cutting %.0f s from the start and "
                     "%.0f s from the end leaves nothing\n",
                     duration, s, e);
        return 1;
    }
    return 0;
}

// Runs the service's trim and waits for its handler (which always comes):
// the trimmed movie's URL, or nothing when the export failed.
std::optional<sv::URL> trimMovie(const TrimOptions& o, const std::string& in,
                                 const std::string& out) {
    auto writer = sv::SVMovieWriter::initWithWindowSize({0, 0}, out, nullptr);
    sv::Semaphore done;
    std::optional<sv::URL> result;
    writer->trimMovieWithURL(sv::URL::fileURLWithPath(in), o.start, o.end,
                             sv::URL::fileURLWithPath(out), [&](std::optional<sv::URL> url) {
                                 result = std::move(url);
                                 done.signal();
                             });
    done.wait();
    return result;
}

// The exporter's own words for a failed export, from the captured log.
std::string exportFailureReason(const sv::log::Capture& capture) {
    std::string reason = "the export failed";
    for (const auto& line : capture.lines())
        if (line.level == sv::log::Level::Error && line.text.rfind("MovieExporter: ", 0) == 0)
            reason = line.text.substr(std::strlen("MovieExporter: "));
    return reason;
}

int runTrim(int argc, char** argv) {
    auto parsed = parseArguments(argc, argv);
    if (const int* status = std::get_if<int>(&parsed)) return *status;
    const TrimOptions& o = std::get<TrimOptions>(parsed);
    const std::string in = absolute(o.input), out = absolute(o.output);
    if (int status = checkFiles(o, in, out)) return status;

    // The service's log lines are not the tool's output; failures are read
    // back from them.
    sv::log::setOutputEnabled(false);
    sv::log::Capture capture;
    if (int status = checkMovieLength(o, in)) return status;
    auto result = trimMovie(o, in, out);
    if (!result) {
        std::fprintf(stderr, "sorvel trim: %s\n", exportFailureReason(capture).c_str());
        return 1;
    }
    auto trimmed = sv::media::MovieAsset::assetWithURL(*result);
    std::printf("%s (%.3f s)\n", result->path.c_str(), trimmed->duration().seconds());
    return 0;
}

static sv::cli::CliRegistration reg({"trim", "cut whole seconds off both ends of a movie",
                                     &runTrim});

}  // namespace
