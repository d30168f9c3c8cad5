// Writes movies through SVMovieWriter, the way a recording session of the
// synthetic sources does: frames carry a frame stamp over a moving picture
// (or their index in cells that decodeVideo reads back), both audio tracks
// carry a tone with the whole-second clicks. A script of frames says which
// stamp each frame carries and at which time it is appended, so tests can
// write the faults the inspector must find (drops, duplicates, pauses,
// shifted audio).
#pragma once

#include <libyuv.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "movie/movie_inspector.h"
#include "movie/movie_writer.h"
#include "platform/screen/frame_stamp.h"
#include "tests/media/media_test_util.h"

namespace sv::testing {

inline void startWriter(const std::shared_ptr<SVMovieWriter>& writer) {
    awaitOnce<>([&](std::function<void()> done) { writer->startWritingHandler(done); });
}

inline std::optional<URL> finishWriter(const std::shared_ptr<SVMovieWriter>& writer) {
    return awaitOnce<std::optional<URL>>([&](std::function<void(std::optional<URL>)> done) {
        writer->finishWritingWithHandler(done);
    });
}

inline constexpr int64_t kSecond = 1'000'000'000;
inline constexpr int64_t kFrameInterval = kSecond / 60;  // what a 60 fps controller uses

struct ScriptedFrame {
    FrameStamp stamp;
    int64_t time = 0;  // presentation time handed to the writer, host ns
};

// `count` frames `interval` apart from host time `start`, index from 0.
inline std::vector<ScriptedFrame> steadyFrames(int count, int64_t interval = kFrameInterval,
                                               int64_t start = 100 * kSecond + 1234567) {
    std::vector<ScriptedFrame> frames;
    for (int i = 0; i < count; ++i) {
        const int64_t t = start + i * interval;
        frames.push_back({{uint64_t(i), uint64_t(t)}, t});
    }
    return frames;
}

struct StampedMovieOptions {
    int32_t width = 320, height = 240;  // pixels of the frames drawn
    // Frames drawn at this size and scaled down to width x height, as a
    // capture backend does for a display above the size limit.
    std::optional<std::pair<int32_t, int32_t>> drawnSize;
    std::optional<WindowSize> window;  // the writer's window size; default width x height
    enum class Picture { Stamped, Plain, Indexed } picture = Picture::Stamped;
    bool audio = true;
    double audioLead = 0;  // seconds audio starts before the first frame
    // Seconds each audio track's clicks come late against the frames.
    double clickDelay[2] = {0, 0};
    AffineTransform transform;               // the first frame's window transform
    int64_t frameInterval = kFrameInterval;  // the frames' duration, ns
    std::shared_ptr<SVStoreInfo> info;
};

// A moving picture: diagonal stripes scrolling with the frame, a block
// sliding across, and speckles that change every frame. Drawn with row
// copies, so large frames stay cheap in debug builds.
inline void drawPicture(SharedSurface& s, uint64_t frame) {
    const int32_t w = s.width(), h = s.height();
    std::vector<uint32_t> stripes(size_t(w) + 64);
    for (size_t x = 0; x < stripes.size(); ++x)
        stripes[x] = (x / 16) % 2 ? 0xFFAA9455u : 0xFF3C5AC3u;
    for (int32_t y = 0; y < h; ++y)
        std::memcpy(s.mutableRow(y), &stripes[size_t(y + int64_t(frame) * 4) % 32], size_t(w) * 4);
    const int32_t bw = std::max(1, w / 5),
                  bx = int32_t((frame * 7) % uint64_t(std::max(1, w - bw)));
    for (int32_t y = h / 3; y < h / 3 + h / 5; ++y)
        std::memset(s.mutableRow(y) + 4 * bx, 230, size_t(bw) * 4);
    uint32_t seed = uint32_t(frame * 2654435761u + 1);
    for (int i = 0; i < 200; ++i) {
        seed = seed * 1103515245u + 12345u;
        const int32_t x = int32_t((seed >> 8) % uint32_t(std::max(1, w - 8)));
        seed = seed * 1103515245u + 12345u;
        const int32_t y = int32_t((seed >> 8) % uint32_t(std::max(1, h - 8)));
        for (int32_t r = y; r < y + 8 && r < h; ++r)
            std::memset(s.mutableRow(r) + 4 * x, int(seed >> 24), 32);
    }
}

inline std::shared_ptr<SampleBuffer> scriptedVideo(const ScriptedFrame& f,
                                                   const StampedMovieOptions& o) {
    auto s = SharedSurface::create(o.width, o.height).value();
    if (o.picture == StampedMovieOptions::Picture::Indexed) {
        drawIndex(*s, int(f.stamp.frameIndex));
    } else if (o.picture == StampedMovieOptions::Picture::Plain) {
        for (int32_t y = 0; y < o.height; ++y) {
            uint32_t* row = reinterpret_cast<uint32_t*>(s->mutableRow(y));
            std::fill(row, row + o.width, 0xFF3060A0u + uint32_t(f.stamp.frameIndex % 64));
        }
    } else if (o.drawnSize) {
        auto big = SharedSurface::create(o.drawnSize->first, o.drawnSize->second).value();
        drawPicture(*big, f.stamp.frameIndex);
        drawFrameStamp(*big, f.stamp);
        libyuv::ARGBScale(big->data(), int(big->bytesPerRow()), big->width(), big->height(),
                          s->mutableData(), int(s->bytesPerRow()), o.width, o.height,
                          libyuv::kFilterBilinear);
    } else {
        drawPicture(*s, f.stamp.frameIndex);
        drawFrameStamp(*s, f.stamp);
    }
    return SampleBuffer::makeVideo(s, MediaTime::make(f.time, 1000000000),
                                   MediaTime::make(o.frameInterval, 1000000000));
}

// The synthetic sources' signal at presentation time `t` (ns) of a track:
// a tone plus the click of the host time the frames say `t` stands for.
using HostTimeOf = std::function<int64_t(int64_t)>;

inline std::shared_ptr<SampleBuffer> scriptedAudio(const AudioStreamFormat& f, int64_t firstSample,
                                                   int frames, int64_t trackStart,
                                                   const HostTimeOf& hostTimeOf, double delay,
                                                   double toneHz) {
    const int64_t pts =
        trackStart + int64_t(std::llround(double(firstSample) * 1e9 / f.sampleRate));
    return makeAudio(f, frames, MediaTime::make(pts, 1000000000), [&](int64_t i) {
        const int64_t n = firstSample + i;
        const int64_t t = trackStart + int64_t(std::llround(double(n) * 1e9 / f.sampleRate));
        const int64_t h = hostTimeOf(t) - int64_t(std::llround(delay * 1e9));
        return std::clamp(0.25 * std::sin(2 * M_PI * toneHz * double(n) / f.sampleRate) +
                              (h >= 0 ? syntheticClickValue(uint64_t(h)) : 0.0),
                          -1.0, 1.0);
    });
}

// Writes the script to `path` and returns the finished movie's URL. Audio
// runs from the first frame's time (less the lead) to the last frame's end on both tracks
// (application audio 16-bit mono 44.1 kHz, microphone float stereo 48 kHz,
// as the synthetic sources deliver them), its clicks placed at the host
// times the frames map the presentation times to.
inline std::optional<URL> writeStampedMovie(const std::string& path,
                                            const std::vector<ScriptedFrame>& script,
                                            const StampedMovieOptions& o = {}) {
    auto writer = SVMovieWriter::initWithWindowSize(
        o.window.value_or(WindowSize{float(o.width), float(o.height)}), path, o.info);
    startWriter(writer);
    auto waitReady = [&](const std::shared_ptr<media::MovieWriterInput>& input) {
        if (input && writer->fileWriterStatus() == 1)
            input->waitUntilReadyForMoreMediaData(std::chrono::seconds(10));
    };
    // Host time of presentation time t: from the last frame at or before t
    // (scripts are in time order, as the writer only takes later frames).
    HostTimeOf hostTimeOf = [&script](int64_t t) {
        auto it = std::upper_bound(script.begin(), script.end(), t,
                                   [](int64_t v, const ScriptedFrame& f) { return v < f.time; });
        const ScriptedFrame& at = it == script.begin() ? script.front() : *(it - 1);
        return int64_t(at.stamp.hostTime) + (t - at.time);
    };
    const AudioStreamFormat formats[2] = {AudioStreamFormat::pcm16(44100, 1, false),
                                          AudioStreamFormat::float32(48000, 2)};
    const int chunk[2] = {441, 960};
    const int64_t start = script.front().time - int64_t(std::llround(o.audioLead * 1e9));
    const int64_t end = script.back().time + o.frameInterval;
    int64_t position[2] = {0, 0};
    auto audioTime = [&](int track) {
        return start +
               int64_t(std::llround(double(position[track]) * 1e9 / formats[track].sampleRate));
    };
    size_t next = 0;
    for (;;) {
        const int64_t tv = next < script.size() ? script[next].time : INT64_MAX;
        int track = -1;
        int64_t ta = INT64_MAX;
        for (int k = 0; k < 2 && o.audio; ++k) {
            if (audioTime(k) < end && audioTime(k) < ta) ta = audioTime(k), track = k;
        }
        if (tv == INT64_MAX && track < 0) break;
        if (tv <= ta) {
            waitReady(writer->videoInput());
            writer->appendVideoSampleBuffer(scriptedVideo(script[next], o),
                                            next == 0 ? o.transform : AffineTransform::identity());
            ++next;
            continue;
        }
        auto sample = scriptedAudio(formats[track], position[track], chunk[track], start,
                                    hostTimeOf, o.clickDelay[track], track == 0 ? 620.0 : 440.0);
        position[track] += chunk[track];
        if (track == 0) {
            waitReady(writer->audioInput1());
            writer->appendAudio1SampleBuffer(sample);
        } else {
            waitReady(writer->audioInput2());
            writer->appendAudio2SampleBuffer(sample);
        }
    }
    return finishWriter(writer);
}

// The movie as the inspector reads it; an empty inspection, failing the
// test, when it cannot be read.
inline MovieInspection inspect(const std::string& path) {
    auto inspection = inspectMovie(path);
    EXPECT_TRUE(inspection) << path << ": " << inspection.error().message();
    return inspection.valueOr(MovieInspection{});
}

#ifdef SV_SORVEL_PATH
// Runs `sorvel ARGS`: its exit status, standard output and standard error.
inline std::tuple<int, std::string, std::string> runSorvel(const std::string& args) {
    TempDir out;
    const std::string cmd = std::string(SV_SORVEL_PATH) + " " + args + " >" + (out / "stdout") +
                            " 2>" + (out / "stderr");
    const int status = std::system(cmd.c_str());
    auto read = [&](const char* name) {
        std::ifstream f(out / name);
        return std::string((std::istreambuf_iterator<char>(f)), {});
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read("stdout"), read("stderr")};
}
#endif

}  // namespace sv::testing
