// Drives an SVMovieWriter the way a recording session does, with frames
// from a SurfacePool and both audio streams on one host-clock timeline.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>

#include "movie/movie_writer.h"
#include "platform/dispatch.h"
#include "tests/media/media_test_util.h"

namespace sv::testing {

inline std::string makeTempDir() {
    char tmpl[] = "/tmp/sv-movie-test-XXXXXX";
    return mkdtemp(tmpl);
}

inline MediaTime hostTime(double seconds) {
    return MediaTime::make(int64_t(std::llround(seconds * 1e9)), 1000000000);
}

// Waits (in the test only) until the input takes more, so no sample is
// dropped and the written movie is deterministic.
inline void waitReady(const std::shared_ptr<SVMovieWriter>& writer,
                      const std::shared_ptr<media::MovieWriterInput>& input) {
    for (int i = 0;
         i < 10000 && input && writer->fileWriterStatus() == 1 && !input->isReadyForMoreMediaData();
         ++i)
        usleep(500);
}

inline void startWriter(const std::shared_ptr<SVMovieWriter>& writer) {
    Semaphore done;
    writer->startWritingHandler([&] { done.signal(); });
    done.wait();
}

inline std::optional<URL> finishWriter(const std::shared_ptr<SVMovieWriter>& writer) {
    Semaphore done;
    std::optional<URL> result;
    int calls = 0;
    writer->finishWritingWithHandler([&](std::optional<URL> url) {
        result = url;
        ++calls;
        done.signal();
    });
    done.wait();
    return result;
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
// buffers, appended in time order.
inline void feed(const std::shared_ptr<SVMovieWriter>& writer, SurfacePool& pool,
                 const FeedOptions& o) {
    const auto tap = AudioStreamFormat::pcm16(44100, 1, true);
    const auto mic = AudioStreamFormat::float32(48000, 2);
    const double audioStart = o.videoStart - o.audioLead;
    const double end = o.videoStart + o.seconds;
    int frame = 0;
    int64_t tapPos = 0, micPos = 0;
    for (;;) {
        double tv = o.videoStart + frame / o.fps;
        double ta = audioStart + double(tapPos) / 44100;
        double tm = audioStart + double(micPos) / 48000;
        double next = std::min(tv, o.audio ? std::min(ta, tm) : tv);
        if (next >= end - 1e-9) break;
        if (next == tv) {
            waitReady(writer, writer->videoInput());
            writer->appendVideoSampleBuffer(
                makeFrame(pool, frame, hostTime(tv)),
                frame == 0 ? o.firstTransform : AffineTransform::rotation(float(M_PI)));
            ++frame;
        } else if (next == ta) {
            waitReady(writer, writer->audioInput1());
            writer->appendAudio1SampleBuffer(makeTone(tap, tapPos, 1024, hostTime(ta)));
            tapPos += 1024;
        } else {
            waitReady(writer, writer->audioInput2());
            writer->appendAudio2SampleBuffer(makeTone(mic, micPos, 960, hostTime(tm)));
            micPos += 960;
        }
    }
}

}  // namespace sv::testing
