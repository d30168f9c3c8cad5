// A private PulseAudio server for tests and benchmarks: its own temporary
// runtime directory, a null sink as default sink and a sine source as default
// source. Works as root (the server runs as a per-user instance there too).
// Not for production code.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/error.h"

namespace sv::testing {

// Errors of starting a private server: one code, the sentence says why.
inline constexpr const char* kPulseServerErrorDomain = "org.sorvel.testing.PulseServerErrorDomain";
inline constexpr int64_t kPulseServerErrorCannotStart = 1;

class PrivatePulseServer {
  public:
    struct Options {
        double sineFrequency = 1000.0;  // of the default source
    };

    // An error when no server could be started (pulseaudio missing or
    // refusing to run).
    static Result<std::unique_ptr<PrivatePulseServer>> start(const Options& options);
    // True under CI (CI=true), whose install step provides pulseaudio: a
    // test that cannot start a server then fails instead of skipping.
    static bool required();
    ~PrivatePulseServer();
    // Owns the server process and its directory: never copied.
    PrivatePulseServer(const PrivatePulseServer&) = delete;
    PrivatePulseServer& operator=(const PrivatePulseServer&) = delete;

    // The address to give PulseAudioBackend and libpulse clients.
    const std::string& address() const { return address_; }

    // Kills the server at once (SIGKILL), as a crash would end it.
    void killServer();
    // Starts a server again on the same address (killing one still running);
    // an error when it does not answer.
    Result<void> restart();

    // Starts the tone player: plays each frequency on its own playback stream
    // (16-bit, 44100 Hz, mono) for `seconds`, after `delayMs`. Returns its pid.
    pid_t playTones(const std::vector<double>& frequencies, double seconds, int delayMs = 0) const;
    // The same, but the player opens its streams only when startPlaying()
    // tells it to: a process whose audio appears at a moment the test picks.
    pid_t playTonesOnSignal(const std::vector<double>& frequencies, double seconds) const;
    static void startPlaying(pid_t player);
    // Waits until the server has at least `count` playback streams of
    // process `pid` (as a tap would find them); false when `timeout` passes
    // first or the server cannot be asked.
    bool waitForPlaybackStreams(pid_t pid, size_t count, std::chrono::milliseconds timeout) const;
    // Waits for a child started by playTones; kills it first when `kill`.
    static void reap(pid_t pid, bool kill = true);

  private:
    PrivatePulseServer() = default;
    Result<void> launch();
    void warmUp() const;
    std::string exe_;
    std::string dir_;
    std::string address_;
    pid_t pid_ = -1;
};

}  // namespace sv::testing
