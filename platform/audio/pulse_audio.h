// The PulseAudio backend (libpulse with a threaded main loop); works with
// PulseAudio itself and with PipeWire's PulseAudio server.
//
// - Device recording: a record stream on the server's source of the device
//   (the default source for the default device).
// - Process tap: for every sink input (playback stream) whose
//   "application.process.id" is the tapped process, a monitor stream of that
//   sink input alone; sink inputs that appear later are followed through the
//   server's sink-input events. The server converts each to the requested
//   rate and channel count; the tap mixes them on the host timeline and emits
//   one continuous stream (silence while the process plays nothing), about
//   kTapLatencyMs behind real time so that late fragments still land in place.
//
// Every stamp is the host time of the chunk's first frame, measured from the
// stream's latency when recording begins and then advanced by frame counts;
// a stream whose measurement stays more than 30 ms off for half a second
// is re-anchored.
// When the server goes away the sources go on with silence on the same
// timeline, the connection tries again every half second, and the sources
// record again (the tap looks up the process's streams anew) once it
// answers; the server-state handler hears both changes.
// Callbacks to the sinks and the server-state handler run on the main
// loop's thread.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "platform/audio/audio_backend.h"

namespace sv {

class PulseConnection;

class PulseAudioBackend : public AudioBackend {
  public:
    static constexpr int kTapLatencyMs = 120;

    // `server`: a server address as libpulse takes it; empty for the
    // environment's (PULSE_SERVER, the user's runtime directory).
    explicit PulseAudioBackend(std::string server = {});
    ~PulseAudioBackend() override;

    // True when a server answers within `timeout`.
    static bool serverAnswers(const std::string& server, std::chrono::milliseconds timeout);

    std::string name() const override { return "pulse"; }
    std::shared_ptr<CaptureDevice> defaultAudioDevice() override;
    std::unique_ptr<AudioSource> openDevice(const CaptureDevice& device,
                                            const AudioStreamFormat& format, AudioChunkSink sink,
                                            AudioSourceFailure onFailure, int32_t* status) override;
    std::unique_ptr<AudioSource> openProcessTap(int32_t pid, const AudioStreamFormat& format,
                                                AudioChunkSink sink, AudioSourceFailure onFailure,
                                                int32_t* status) override;
    void setServerStateHandler(AudioServerStateHandler handler) override;
    bool hasServer() const override { return true; }

  private:
    // Shared with the connection, which may outlive the backend.
    struct ServerStateRelay {
        std::mutex mutex;
        AudioServerStateHandler handler;
        void tell(bool available) {
            std::lock_guard lock(mutex);
            if (handler) handler(available);
        }
    };

    // The connection, made on first use; null with
    // kAudioServerUnavailableError while no server answers.
    std::shared_ptr<PulseConnection> connection(int32_t* status);

    std::string server_;
    std::mutex mutex_;
    std::shared_ptr<PulseConnection> connection_;
    std::shared_ptr<ServerStateRelay> serverState_ = std::make_shared<ServerStateRelay>();
};

}  // namespace sv
