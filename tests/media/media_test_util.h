// Test helpers: frames with their index drawn into the pixels, audio tones,
// writers with one video input, and what a test wrote read back through the
// movie reader.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/audio_format.h"
#include "platform/media/ffmpeg_util.h"
#include "platform/media/media_settings.h"
#include "platform/media/movie_file_writer.h"
#include "platform/media/movie_reader.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"
#include "platform/shared_surface.h"
#include "tests/support/test_util.h"

namespace sv::testing {

using test::awaitOnce;
using test::TempDir;

inline MediaTime hostTime(double seconds) {
    return MediaTime::make(int64_t(std::llround(seconds * 1e9)), 1000000000);
}

// 16 cells (2 rows of 8 columns), black or white by the bits of `index`.
inline void drawIndex(SharedSurface& s, int index) {
    const int w = s.width(), h = s.height();
    for (int y = 0; y < h; ++y) {
        uint8_t* row = s.mutableRow(y);
        for (int x = 0; x < w; ++x) {
            uint8_t v = (index >> ((y * 2 / h) * 8 + x * 8 / w)) & 1 ? 235 : 16;
            std::memset(row + 4 * x, v, 3);
            row[4 * x + 3] = 255;
        }
    }
}
inline std::shared_ptr<SampleBuffer> makeFrame(SurfacePool& pool, int index, MediaTime pts) {
    auto s = pool.acquire().value();
    drawIndex(*s, index);
    return SampleBuffer::makeVideo(s, pts);
}

// `frames` frames of audio in format `f` at `pts`, every channel of frame i
// the value `valueOf(i)` in [-1, 1].
inline std::shared_ptr<SampleBuffer> makeAudio(const AudioStreamFormat& f, int frames,
                                               MediaTime pts,
                                               const std::function<double(int64_t)>& valueOf) {
    auto block = std::make_shared<DataBlock>(size_t(frames) * f.bytesPerFrame);
    for (int i = 0; i < frames; ++i) {
        const double v = valueOf(i);
        for (uint32_t c = 0; c < f.channelsPerFrame; ++c) {
            uint8_t* p = block->data() + size_t(i) * f.bytesPerFrame + c * f.bitsPerChannel / 8;
            float x = float(v);
            auto u = uint16_t(int16_t(std::lround(v * 32767)));
            if (f.formatFlags & AudioStreamFormat::kFlagIsBigEndian) u = uint16_t(u << 8 | u >> 8);
            if (f.formatFlags & AudioStreamFormat::kFlagIsFloat)
                std::memcpy(p, &x, 4);
            else
                std::memcpy(p, &u, 2);
        }
    }
    return SampleBuffer::makeAudio(block, f, frames, pts);
}

// A 440 Hz tone of `frames` frames starting at `startFrame` (phase continuous).
inline std::shared_ptr<SampleBuffer> makeTone(const AudioStreamFormat& f, int64_t startFrame,
                                              int frames, MediaTime pts) {
    return makeAudio(f, frames, pts, [&](int64_t i) {
        return 0.5 * std::sin(2 * M_PI * 440.0 * double(startFrame + i) / f.sampleRate);
    });
}

inline Value videoSettings(int w, int h, Value props = Value::object()) {
    using namespace media;
    return Value{{kVideoCodecKey, kVideoCodecH264},
                 {kVideoWidthKey, w},
                 {kVideoHeightKey, h},
                 {kVideoCompressionPropertiesKey, std::move(props)}};
}

// A writer at `path` with one H.264 input of `w`x`h`, not yet started.
struct VideoWriter {
    VideoWriter(const std::string& path, int w = 64, int h = 64, Value props = Value::object())
        : writer(media::MovieFileWriter::create(URL::fileURLWithPath(path), media::FileType::MPEG4)
                     .valueOr(nullptr)),
          video(media::MovieWriterInput::create(media::MediaType::Video,
                                                videoSettings(w, h, std::move(props)))
                    .valueOr(nullptr)) {
        if (writer && video) writer->addInput(video);
    }
    // Starts writing with a session at `start` seconds.
    void start(double start) {
        writer->startWriting();
        writer->startSessionAtSourceTime(hostTime(start));
    }
    // Waits (in the test only) until the input takes more, so nothing is dropped.
    static void append(media::MovieWriterInput& input, std::shared_ptr<SampleBuffer> sample) {
        ASSERT_TRUE(input.waitUntilReadyForMoreMediaData(std::chrono::seconds(30)));
        ASSERT_TRUE(input.appendSampleBuffer(std::move(sample)));
    }
    void finish() {
        awaitOnce<>([&](std::function<void()> done) { writer->finishWriting(done); });
    }
    std::shared_ptr<media::MovieFileWriter> writer;
    std::shared_ptr<media::MovieWriterInput> video;
};

// What the movie at `path` holds, read as `sorvel inspect` reads it (nothing
// when it cannot be read).
inline media::MovieInfo probeMovie(const std::string& path) {
    auto reader = media::MovieReader::open(path).valueOr(nullptr);
    return reader ? reader->info() : media::MovieInfo{};
}

struct DecodedVideo {
    std::vector<int> indices;   // frame indices drawn into the pixels, in display order
    std::vector<double> times;  // their presentation times in seconds
};

// The first video track's frames (those the edit list hides left out).
inline DecodedVideo decodeVideo(const std::string& path) {
    DecodedVideo out;
    auto reader = media::MovieReader::open(path).valueOr(nullptr);
    if (!reader) return out;
    const media::TrackInfo* track = nullptr;
    for (const auto& t : reader->info().tracks)
        if (!track && t.kind == media::TrackKind::Video) track = &t;
    if (!track) return out;
    (void)reader->decode(
        [&](const media::LumaFrame& f) {
            if (f.track != track->index) return true;
            int index = 0;  // read back from the centre of each cell
            for (int bit = 0; bit < 16; ++bit) {
                int x = (bit % 8) * f.width / 8 + f.width / 16,
                    y = (bit / 8) * f.height / 2 + f.height / 4;
                if (f.data[y * f.bytesPerRow + x] > 128) index |= 1 << bit;
            }
            out.indices.push_back(index);
            out.times.push_back(f.time);
            return true;
        },
        nullptr);
    // Reference frames kept only for decoding are shown for a few
    // microseconds just before the track's end: not a visible frame.
    const double end = track->duration > 0 ? track->startTime + track->duration : 1e18;
    for (size_t i = out.times.size(); i-- > 0;) {
        const double next = i + 1 < out.times.size() ? out.times[i + 1] : end;
        if (next - out.times[i] < 1e-3) {
            out.times.erase(out.times.begin() + long(i));
            out.indices.erase(out.indices.begin() + long(i));
        }
    }
    return out;
}

// One audio track as mono at its own rate (its first channel).
inline std::vector<double> decodeAudio(const std::string& path, int track) {
    std::vector<double> out;
    if (auto reader = media::MovieReader::open(path).valueOr(nullptr))
        (void)reader->decode(nullptr, [&](const media::PCMBlock& b) {
            if (b.track == track) out.insert(out.end(), b.channels[0], b.channels[0] + b.frames);
            return true;
        });
    return out;
}

}  // namespace sv::testing
