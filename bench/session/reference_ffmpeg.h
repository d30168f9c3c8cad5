// What the session benchmarks share to run the ffmpeg command line as the
// reference recording: its audio (two AAC tracks from generated tones, as
// the movie writer writes them), its video settings, the wait for the
// child with its CPU and memory, and the benchmarks' own command line.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "bench/bench_util.h"
#include "platform/media/media_settings.h"

namespace sv::bench {

// The ffmpeg arguments after the video input: two tones of `seconds` as the
// application and microphone tracks, the movie writer's H.264 settings at
// `bitRate` (bits per second) and its AAC settings. `videoOptions` go
// before the encoder (empty: none).
inline std::string referenceEncoding(double seconds, int bitRate,
                                     const std::string& videoOptions = {}) {
    char text[1024];
    std::snprintf(text, sizeof text,
                  "-f lavfi -i sine=f=620:r=44100:d=%.3f -f lavfi -i sine=f=440:r=44100:d=%.3f "
                  "-map 0:v -map 1:a -map 2:a %s -c:v libx264 -preset %s -profile:v main "
                  "-pix_fmt yuv420p -b:v %d -g 120 -thread_type slice -c:a aac -b:a 128000 "
                  "-ac 2 -ar 44100",
                  seconds, seconds, videoOptions.c_str(), media::kDefaultX264Preset, bitRate);
    return text;
}

// How a reference child ended.
struct ChildResult {
    double cpu = 0;         // user and system seconds
    double peakRssMiB = 0;  // its peak resident memory
    bool succeeded = false;
};

// Waits for `pid` and collects what it used.
inline ChildResult waitForChild(pid_t pid) {
    int status = 0;
    rusage child{};
    ChildResult result;
    if (wait4(pid, &status, 0, &child) != pid) return result;
    result.cpu = cpuSeconds(child);
    result.peakRssMiB = double(child.ru_maxrss) / 1024.0;
    result.succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return result;
}

// The session benchmarks' command line: [--seconds N] [--keep DIR].
struct RecordingArguments {
    double seconds = 60;
    std::optional<std::string> keep;  // where the movies stay
};

// The arguments (argv[0] is the program), or nothing, with the usage
// printed, when they are wrong.
inline std::optional<RecordingArguments> parseRecordingArguments(const char* name, int argc,
                                                                 char** argv) {
    RecordingArguments out;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            out.seconds = std::atof(argv[++i]);
        } else if (a == "--keep" && i + 1 < argc) {
            out.keep = argv[++i];
        } else {
            std::fprintf(stderr, "usage: %s [--seconds N] [--keep DIR]\n", name);
            return std::nullopt;
        }
    }
    if (!(out.seconds >= 3 && out.seconds <= 3600)) {
        std::fprintf(stderr, "%s: --seconds must be between 3 and 3600\n", name);
        return std::nullopt;
    }
    return out;
}

}  // namespace sv::bench
