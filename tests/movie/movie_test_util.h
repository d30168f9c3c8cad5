// Drives an SVMovieWriter the way a recording session does, with frames
// from a SurfacePool and both audio streams on one host-clock timeline.
#pragma once

#include <string>

#include "movie/movie_writer.h"
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

struct FeedOptions {
    double seconds = 1.0;
    double fps = 30;
    double videoStart = 100.0;  // host-clock seconds of the first frame
    double audioLead = 0.0;     // audio starts this long before the first frame
    bool audio = true;
    AffineTransform firstTransform;  // the first frame's window transform
};

// Video frames at `fps`, application audio as 16-bit big-endian mono 44.1 kHz
// in 1024-frame buffers, microphone as float stereo 48 kHz in 960-frame
// buffers, appended in time order. Waits (in the test only) until each input
// takes more, so no sample is dropped and the written movie is deterministic.
inline void feed(const std::shared_ptr<SVMovieWriter>& writer, SurfacePool& pool,
                 const FeedOptions& o) {
    // Returns at once while the writer is not writing (before the first
    // video frame starts it), as the writer then drops by its own rules.
    auto waitReady = [&](const std::shared_ptr<media::MovieWriterInput>& input) {
        if (input) input->waitUntilReadyForMoreMediaData(std::chrono::seconds(30));
    };
    const auto tap = AudioStreamFormat::pcm16(44100, 1, true);
    const auto mic = AudioStreamFormat::float32(48000, 2);
    const double audioStart = o.videoStart - o.audioLead;
    int frame = 0;
    int64_t tapPos = 0, micPos = 0;
    for (;;) {
        double tv = o.videoStart + frame / o.fps;
        double ta = audioStart + double(tapPos) / 44100;
        double tm = audioStart + double(micPos) / 48000;
        double next = std::min(tv, o.audio ? std::min(ta, tm) : tv);
        if (next >= o.videoStart + o.seconds - 1e-9) break;
        if (next == tv) {
            waitReady(writer->videoInput());
            writer->appendVideoSampleBuffer(
                makeFrame(pool, frame, hostTime(tv)),
                frame == 0 ? o.firstTransform : AffineTransform::rotation(float(M_PI)));
            ++frame;
        } else if (next == ta) {
            waitReady(writer->audioInput1());
            writer->appendAudio1SampleBuffer(makeTone(tap, tapPos, 1024, hostTime(ta)));
            tapPos += 1024;
        } else {
            waitReady(writer->audioInput2());
            writer->appendAudio2SampleBuffer(makeTone(mic, micPos, 960, hostTime(tm)));
            micPos += 960;
        }
    }
}

// Records `o.seconds` to `path` and returns what was written (nothing when
// the writer gave no URL).
inline std::optional<URL> record(const std::string& path, WindowSize size,
                                 std::shared_ptr<SVStoreInfo> info, const FeedOptions& o) {
    auto writer = SVMovieWriter::initWithWindowSize(size, path, std::move(info));
    startWriter(writer);
    SurfacePool pool(int(std::ceil(size.width)), int(std::ceil(size.height)));
    feed(writer, pool, o);
    return finishWriter(writer);
}

}  // namespace sv::testing
