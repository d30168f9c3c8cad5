// The audio server behind the capture session and the application audio
// tap. Two backends exist: PulseAudio (also PipeWire's PulseAudio server)
// and a synthetic one that generates tones paced by the host clock and needs
// no server. CaptureSession and AudioTapQueue are built on the two
// primitives below; they never talk to a server themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/audio_format.h"

namespace sv {

// Status codes of the audio services; 0 is success.
enum AudioStatus : int32_t {
    kAudioNoError = 0,
    kAudioParamError = -50,
    kAudioUnsupportedFormatError = -66600,
    kAudioInvalidBufferError = -66601,
    kAudioBufferInUseError = -66602,
    kAudioDisposedError = -66603,
    kAudioNoProcessError = -66604,
    kAudioServerUnavailableError = -66605,
    kAudioStartFailedError = -66606,
    kAudioStopFailedError = -66607,
    kAudioNoDeviceError = -66608,
};

// The process identifier of openProcessTap (and of the capture manager's
// application audio) that stands for every process: what the desktop plays.
// No process has it (process identifiers stay below 2^22).
inline constexpr int32_t kAudioTapEveryProcess = 0x7FFFFFFF;

// A run of interleaved frames in the format the source was opened with and
// the host time of its first frame. The bytes are only valid during the call.
using AudioChunkSink = std::function<void(std::span<const uint8_t> bytes, uint64_t hostTime)>;
// Called once when a running source stops by itself (device removed), on a
// backend thread, with a status. A source does not stop when its server goes
// away: it goes on with silence and records again once the server is back.
using AudioSourceFailure = std::function<void(int32_t status)>;
// Hears that the audio server went away (false) or answers again (true).
using AudioServerStateHandler = std::function<void(bool available)>;

// A running recording. Destroying it stops it: when the destructor returns,
// the sink is never called again. The sink runs on one backend thread at a
// time, must not block and must not call into the backend.
class AudioSource {
  public:
    virtual ~AudioSource() = default;
    // Asks the source to stop before it is destroyed; a non-zero status means
    // the server refused and the source keeps running.
    virtual int32_t stop() { return kAudioNoError; }
};

// An audio capture device (an audio server source).
struct CaptureDevice {
    std::string uniqueID;       // the server's name for it; empty for "the default"
    std::string localizedName;  // for logs
    bool hasMediaTypeAudio = true;
    std::string description() const { return "<CaptureDevice " + localizedName + ">"; }
};

class AudioBackend {
  public:
    virtual ~AudioBackend() = default;
    virtual std::string name() const = 0;

    // The default audio capture device, or null when there is none.
    virtual std::shared_ptr<CaptureDevice> defaultAudioDevice() = 0;
    // Records `device` in `format` (linear PCM, 16-bit signed or 32-bit float).
    // Null with a status on failure.
    virtual std::unique_ptr<AudioSource> openDevice(const CaptureDevice& device,
                                                    const AudioStreamFormat& format,
                                                    AudioChunkSink sink,
                                                    AudioSourceFailure onFailure,
                                                    int32_t* status) = 0;
    // Records what process `pid` plays (only that process), or with
    // kAudioTapEveryProcess what every process plays (the desktop's sound), mixed and
    // converted to `format` (16-bit signed linear PCM), as one continuous
    // stream on the host timeline: silence while the process plays nothing.
    virtual std::unique_ptr<AudioSource> openProcessTap(int32_t pid,
                                                        const AudioStreamFormat& format,
                                                        AudioChunkSink sink,
                                                        AudioSourceFailure onFailure,
                                                        int32_t* status) = 0;

    // Replaces who hears of the server going away and coming back; null for
    // nobody. The handler runs on a backend thread, once per change, must
    // not block and must not call into the backend. Backends without a
    // server never call it.
    virtual void setServerStateHandler(AudioServerStateHandler handler) { (void)handler; }
    // Whether sources depend on a server that may be away (a desktop's
    // audio server); false for backends that are always there.
    virtual bool hasServer() const { return false; }
};

enum class AudioBackendKind { Automatic, Pulse, Synthetic };

// "pulse", "synthetic", "auto"/"automatic"; nullopt for anything else.
std::optional<AudioBackendKind> parseAudioBackendKind(std::string_view text);

// Automatic: SORVEL_AUDIO_BACKEND (pulse|synthetic) when set, otherwise
// PulseAudio when a server answers within a second, otherwise synthetic.
// Pulse: always PulseAudio; operations fail with kAudioServerUnavailableError
// while no server answers. Logs the choice.
std::shared_ptr<AudioBackend> makeAudioBackend(AudioBackendKind kind = AudioBackendKind::Automatic);

// The backend of the process (what SVCaptureManager::sharedManager uses):
// the one set with setProcessAudioBackend, else makeAudioBackend(Automatic)
// made on first use. Thread-safe.
std::shared_ptr<AudioBackend> processAudioBackend();
void setProcessAudioBackend(std::shared_ptr<AudioBackend> backend);

}  // namespace sv
