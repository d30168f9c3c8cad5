// Plays sine tones on a PulseAudio server, one playback stream per
// frequency, for tests of the application audio tap.
// Usage: sv_tone_player SERVER SECONDS DELAY_MS FREQUENCY...
// A negative DELAY_MS waits for SIGUSR1 (which the starter blocks before it
// runs the player, so an early signal stays pending) before the streams open.
#include <pulse/error.h>
#include <pulse/simple.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <vector>

namespace {

// Owner of a simple-API connection: drains what was written, then frees it.
struct SimpleDeleter {
    void operator()(pa_simple* s) const {
        pa_simple_drain(s, nullptr);
        pa_simple_free(s);
    }
};
using SimpleStream = std::unique_ptr<pa_simple, SimpleDeleter>;

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s SERVER SECONDS DELAY_MS FREQUENCY...\n", argv[0]);
        return 2;
    }
    const char* server = argv[1];
    const double seconds = std::atof(argv[2]);
    const int delayMs = std::atoi(argv[3]);
    std::vector<double> freqs;
    for (int i = 4; i < argc; ++i) freqs.push_back(std::atof(argv[i]));
    if (delayMs < 0) {
        sigset_t start;
        sigemptyset(&start);
        sigaddset(&start, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &start, nullptr);
        int sig = 0;
        sigwait(&start, &sig);
    }
    // Paces a scenario of streams that appear later; it waits for nothing.
    if (delayMs > 0) usleep(useconds_t(delayMs) * 1000);

    const pa_sample_spec sampleSpec{PA_SAMPLE_S16LE, 44100, 1};
    pa_buffer_attr attr{};
    attr.maxlength = uint32_t(-1);
    attr.tlength = uint32_t(pa_usec_to_bytes(100000, &sampleSpec));
    attr.prebuf = uint32_t(-1);
    attr.minreq = uint32_t(-1);
    attr.fragsize = uint32_t(-1);
    std::vector<SimpleStream> streams;
    for (double f : freqs) {
        int err = 0;
        char name[64];
        std::snprintf(name, sizeof name, "tone %.0f Hz", f);
        SimpleStream s(pa_simple_new(server, "sv_tone_player", PA_STREAM_PLAYBACK, nullptr, name,
                                     &sampleSpec, nullptr, &attr, &err));
        if (!s) {
            std::fprintf(stderr, "sv_tone_player: %s\n", pa_strerror(err));
            return 1;
        }
        streams.push_back(std::move(s));
    }
    const int chunk = 441;  // 10 ms
    const long total = long(seconds * 44100);
    std::vector<int16_t> buf(chunk);
    for (long pos = 0; pos < total; pos += chunk) {
        for (size_t k = 0; k < streams.size(); ++k) {
            for (int i = 0; i < chunk; ++i)
                buf[size_t(i)] =
                    int16_t(std::lround(8000.0 * std::sin(2 * std::numbers::pi * freqs[k] *
                                                          double(pos + i) / 44100.0)));
            int err = 0;
            if (pa_simple_write(streams[k].get(), buf.data(), buf.size() * 2, &err) < 0) {
                std::fprintf(stderr, "sv_tone_player: %s\n", pa_strerror(err));
                return 1;
            }
        }
    }
    return 0;
}
