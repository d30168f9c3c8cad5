// A private PulseAudio server for tests and benchmarks: its own temporary
// runtime directory, a null sink as default sink and a sine source as default
// source. Works as root (the server runs as a per-user instance there too).
// Not for production code.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace sv::testing {

class PrivatePulseServer {
  public:
    struct Options {
        double sineFrequency = 1000.0;  // of the default source
    };

    // Null, with the reason in `whyNot`, when no server could be started
    // (pulseaudio missing or refusing to run).
    static std::unique_ptr<PrivatePulseServer> start(const Options& options, std::string* whyNot);
    ~PrivatePulseServer();

    // The address to give PulseAudioBackend and libpulse clients.
    const std::string& address() const { return address_; }

    // Starts the tone player: plays each frequency on its own playback stream
    // (16-bit, 44100 Hz, mono) for `seconds`, after `delayMs`. Returns its pid.
    pid_t playTones(const std::vector<double>& frequencies, double seconds, int delayMs = 0) const;
    // Waits for a child started by playTones; kills it first when `kill`.
    static void reap(pid_t pid, bool kill = true);

  private:
    PrivatePulseServer() = default;
    void warmUp() const;
    std::string dir_;
    std::string address_;
    pid_t pid_ = -1;
};

}  // namespace sv::testing
