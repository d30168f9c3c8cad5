#include "platform/audio/audio_backend.h"

#include <cstdlib>
#include <mutex>

#include "platform/audio/pulse_audio.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/log.h"

namespace sv {

std::optional<AudioBackendKind> parseAudioBackendKind(std::string_view text) {
    if (text == "pulse" || text == "pulseaudio") return AudioBackendKind::Pulse;
    if (text == "synthetic") return AudioBackendKind::Synthetic;
    if (text == "auto" || text == "automatic") return AudioBackendKind::Automatic;
    return std::nullopt;
}

std::shared_ptr<AudioBackend> makeAudioBackend(AudioBackendKind kind) {
    if (kind == AudioBackendKind::Automatic) {
        if (const char* env = std::getenv("SORVEL_AUDIO_BACKEND"); env && *env) {
            if (auto parsed = parseAudioBackendKind(env))
                kind = *parsed;
            else
                log::error("Audio: unknown SORVEL_AUDIO_BACKEND \"%@\", choosing automatically",
                           env);
        }
    }
    if (kind == AudioBackendKind::Automatic)
        kind = PulseAudioBackend::serverAnswers({}, std::chrono::milliseconds(1000))
                   ? AudioBackendKind::Pulse
                   : AudioBackendKind::Synthetic;
    std::shared_ptr<AudioBackend> backend;
    if (kind == AudioBackendKind::Pulse)
        backend = std::make_shared<PulseAudioBackend>();
    else
        backend = std::make_shared<SyntheticAudioBackend>();
    log::info("Audio: using the %@ audio backend", backend->name());
    return backend;
}

namespace {
std::mutex gBackendMutex;
std::shared_ptr<AudioBackend>& processBackendSlot() {
    static auto* slot = new std::shared_ptr<AudioBackend>;
    return *slot;
}
}  // namespace

std::shared_ptr<AudioBackend> processAudioBackend() {
    std::lock_guard lock(gBackendMutex);
    auto& slot = processBackendSlot();
    if (!slot) slot = makeAudioBackend(AudioBackendKind::Automatic);
    return slot;
}

void setProcessAudioBackend(std::shared_ptr<AudioBackend> backend) {
    std::lock_guard lock(gBackendMutex);
    processBackendSlot() = std::move(backend);
}

}  // namespace sv
