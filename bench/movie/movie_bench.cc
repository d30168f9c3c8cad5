// Movie writing at the size the service records most: 1600x900 BGRA frames
// fed as fast as the writer takes them, with both audio streams, measured
// beside the ffmpeg command line encoding the same frames with the same
// settings; then trimming a 10-minute movie beside copying it with cp.
//
// Usage: movie_bench [frames] [x264 preset]   (defaults: 600, the writer's)
// Prints "name value unit" lines.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "movie/movie_writer.h"
#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/media/media_settings.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWidth = 1600, kHeight = 900, kRing = 12;

double since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

double cpuSeconds(int who = RUSAGE_SELF) {
    rusage u{};
    getrusage(who, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

long rssKB() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long peakKB() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

void print(const char* name, double value, const char* unit) {
    std::printf("%s %.3f %s\n", name, value, unit);
    std::fflush(stdout);
}

// A scrolling desktop-like scene: flat panels, text-like noise, a gradient.
std::vector<std::shared_ptr<sv::SharedSurface>> makeFrames() {
    std::vector<std::shared_ptr<sv::SharedSurface>> frames;
    std::mt19937 rng(7);
    std::vector<uint8_t> glyphs(size_t(kWidth) * (kHeight + kRing * 8));
    for (auto& g : glyphs) g = rng() % 5 == 0 ? 40 : 230;
    for (int i = 0; i < kRing; ++i) {
        auto s = sv::SharedSurface::create(kWidth, kHeight).value();
        for (int y = 0; y < kHeight; ++y) {
            uint8_t* row = s->mutableRow(y);
            const uint8_t* text = &glyphs[size_t(y + i * 8) * kWidth];
            for (int x = 0; x < kWidth; ++x) {
                bool panel = x < 320;
                uint8_t v = panel ? uint8_t(60 + y * 40 / kHeight) : text[x];
                row[4 * x + 0] = uint8_t(v + (panel ? 40 : 0));
                row[4 * x + 1] = v;
                row[4 * x + 2] = uint8_t(panel ? v / 2 : v);
                row[4 * x + 3] = 255;
            }
        }
        // A moving block, like a cursor or an animation.
        for (int y = 100; y < 300; ++y)
            for (int x = 400 + i * 20; x < 600 + i * 20; ++x) {
                uint8_t* p = s->mutableRow(y) + 4 * x;
                p[0] = 200, p[1] = uint8_t(i * 20), p[2] = 30;
            }
        frames.push_back(s);
    }
    return frames;
}

sv::MediaTime hostTime(double seconds) {
    return sv::MediaTime::make(int64_t(std::llround(seconds * 1e9)), 1000000000);
}

std::shared_ptr<sv::SampleBuffer> tone(const sv::AudioStreamFormat& f, int frames, double t) {
    auto block = std::make_shared<sv::DataBlock>(size_t(frames) * f.bytesPerFrame);
    for (size_t i = 0; i < block->size(); ++i) block->data()[i] = uint8_t(i * 37);
    return sv::SampleBuffer::makeAudio(block, f, frames, hostTime(t));
}

struct WriterResult {
    double wall = 0;
    double cpu = 0;
};

WriterResult benchWriter(const std::string& path, int frames, const char* preset,
                         const std::vector<std::shared_ptr<sv::SharedSurface>>& ring) {
    auto writer = sv::SVMovieWriter::initWithWindowSize({kWidth, kHeight}, path, nullptr);
    if (preset) {
        auto config = std::make_shared<sv::SVBroadcastConfiguration>();
        config->setVideoCompressionProperties(
            sv::Value{{sv::media::kVideoEncoderPresetKey, preset}});
        writer->setBroadcastConfig(config);
    }
    sv::Semaphore started;
    writer->startWritingHandler([&] { started.signal(); });
    started.wait();

    const auto tap = sv::AudioStreamFormat::pcm16(44100, 1, true);
    const auto mic = sv::AudioStreamFormat::float32(48000, 2);
    std::vector<double> appendUs;
    appendUs.reserve(size_t(frames));
    int64_t tapPos = 0, micPos = 0;
    const long rssBefore = rssKB();
    const double cpu0 = cpuSeconds();
    const auto t0 = Clock::now();
    for (int i = 0; i < frames; ++i) {
        const double t = 100.0 + i / 60.0;
        // Full speed: the next frame goes in as soon as the writer takes it.
        while (writer->fileWriterStatus() == 1 && !writer->videoInput()->isReadyForMoreMediaData())
            usleep(200);
        auto sample = sv::SampleBuffer::makeVideo(ring[size_t(i) % ring.size()], hostTime(t));
        const auto a0 = Clock::now();
        writer->appendVideoSampleBuffer(sample, sv::AffineTransform::identity());
        appendUs.push_back(since(a0) * 1e6);
        for (; 100.0 + tapPos / 44100.0 <= t; tapPos += 1024)
            writer->appendAudio1SampleBuffer(tone(tap, 1024, 100.0 + tapPos / 44100.0));
        for (; 100.0 + micPos / 48000.0 <= t; micPos += 960)
            writer->appendAudio2SampleBuffer(tone(mic, 960, 100.0 + micPos / 48000.0));
    }
    sv::Semaphore done;
    writer->finishWritingWithHandler([&](std::optional<sv::URL>) { done.signal(); });
    done.wait();
    WriterResult r{since(t0), cpuSeconds() - cpu0};

    std::sort(appendUs.begin(), appendUs.end());
    const double recorded = frames / 60.0;
    print("movie_writer_fps", frames / r.wall, "frames/s");
    print("movie_writer_realtime_factor", recorded / r.wall, "x");
    print("movie_writer_cpu_per_recorded_second", r.cpu / recorded, "s/s");
    print("movie_writer_peak_memory", double(std::max(0L, peakKB() - rssBefore)) / 1024, "MiB");
    print("movie_append_video_p50", appendUs[appendUs.size() / 2], "us");
    print("movie_append_video_p99", appendUs[appendUs.size() * 99 / 100], "us");
    // What the movie's layout costs on disk: the same packets copied into a
    // movie written in one piece (one index at the end) for comparison.
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(path, ec);
    if (!ec) {
        print("movie_writer_bytes_per_recorded_second", double(bytes) / recorded, "B/s");
        const std::string plain = path + ".plain.mp4";
        const std::string cmd =
            "ffmpeg -v error -y -i '" + path + "' -map 0 -c copy '" + plain + "'";
        const auto plainBytes = std::system(cmd.c_str()) == 0
                                    ? std::filesystem::file_size(plain, ec)
                                    : std::uintmax_t(0);
        if (!ec && plainBytes > 0)
            print("movie_writer_size_vs_unfragmented", double(bytes) / double(plainBytes), "ratio");
        std::filesystem::remove(plain, ec);
    }
    return r;
}

// The same frames through the ffmpeg command line, raw BGRA on a pipe, with
// the writer's settings and two AAC tracks from generated tones.
WriterResult benchFfmpeg(const std::string& path, int frames, const char* preset,
                         const std::vector<std::shared_ptr<sv::SharedSurface>>& ring) {
    const double seconds = frames / 60.0;
    char cmd[2048];
    std::snprintf(cmd, sizeof cmd,
                  "ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s %dx%d -r 60 -i - "
                  "-f lavfi -i sine=f=440:r=44100:d=%.3f -f lavfi -i sine=f=660:r=48000:d=%.3f "
                  "-map 0:v -map 1:a -map 2:a -c:v libx264 -preset %s -profile:v main "
                  "-pix_fmt yuv420p -b:v 5000000 -g 120 -c:a aac -b:a 128000 -ac 2 -ar 44100 %s",
                  kWidth, kHeight, seconds, seconds, preset, path.c_str());
    int fds[2];
    if (pipe(fds) != 0) return {};
    const auto t0 = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[0], 0);
        close(fds[0]);
        close(fds[1]);
        execl("/bin/sh", "sh", "-c", cmd, static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[0]);
    std::vector<uint8_t> row(size_t(kWidth) * 4);
    for (int i = 0; i < frames; ++i) {
        const auto& s = ring[size_t(i) % ring.size()];
        for (int y = 0; y < kHeight; ++y) {
            const uint8_t* p = s->row(y);
            size_t left = row.size();
            while (left > 0) {
                ssize_t n = write(fds[1], p + (row.size() - left), left);
                if (n <= 0) break;
                left -= size_t(n);
            }
        }
    }
    close(fds[1]);
    int status = 0;
    rusage child{};
    wait4(pid, &status, 0, &child);
    WriterResult r{since(t0), double(child.ru_utime.tv_sec + child.ru_stime.tv_sec) +
                                  double(child.ru_utime.tv_usec + child.ru_stime.tv_usec) / 1e6};
    print("ffmpeg_cli_fps", frames / r.wall, "frames/s");
    print("ffmpeg_cli_cpu_per_recorded_second", r.cpu / seconds, "s/s");
    return r;
}

void benchTrim(const std::string& dir, const std::string& tenSeconds) {
    const std::string longMovie = dir + "/long.mp4";
    // Ten minutes made from the recorded movie, copied packet by packet.
    std::string cmd =
        "ffmpeg -v error -y -stream_loop 59 -i " + tenSeconds + " -map 0 -c copy " + longMovie;
    if (std::system(cmd.c_str()) != 0) return;
    auto writer = sv::SVMovieWriter::initWithWindowSize({kWidth, kHeight}, longMovie, nullptr);
    auto trimOnce = [&] {
        sv::Semaphore done;
        const auto t0 = Clock::now();
        writer->trimMovieWithURL(sv::URL::fileURLWithPath(longMovie), 2.4, 3.6,
                                 sv::URL::fileURLWithPath(dir + "/trimmed.mp4"),
                                 [&](std::optional<sv::URL>) { done.signal(); });
        done.wait();
        return since(t0);
    };
    trimOnce();  // warms the page cache for both
    const double trim = trimOnce();
    const auto t0 = Clock::now();
    std::system(("cp " + longMovie + " " + dir + "/copy.mp4").c_str());
    const double cp = since(t0);
    print("movie_trim_10min", trim, "s");
    print("cp_10min", cp, "s");
    print("movie_trim_vs_cp", trim / cp, "ratio");
}

}  // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::max(60, std::atoi(argv[1])) : 600;
    const char* preset = argc > 2 ? argv[2] : nullptr;
    sv::log::setOutputEnabled(false);
    char tmpl[] = "/tmp/sv-movie-bench-XXXXXX";
    const std::string dir = mkdtemp(tmpl);

    auto ring = makeFrames();
    auto ours = benchWriter(dir + "/ours.mp4", frames, preset, ring);
    auto theirs = benchFfmpeg(dir + "/theirs.mp4", frames,
                              preset ? preset : sv::media::kDefaultX264Preset, ring);
    if (theirs.wall > 0) {
        print("movie_writer_vs_ffmpeg_time", ours.wall / theirs.wall, "ratio");
        print("movie_writer_vs_ffmpeg_cpu", ours.cpu / theirs.cpu, "ratio");
    }
    benchTrim(dir, dir + "/ours.mp4");
    std::filesystem::remove_all(dir);
    return 0;
}
