// The recording session's own per-sample work, as "name value unit" lines
// (a whole recording is session_bench):
// - the frame path per frame (lock, pause and gap checks, timeline,
//   transform), without a movie writer behind it: plain, re-timed after a
//   pause, and rotated whole-display frames;
// - the microphone route silencing one 1024-frame stereo float buffer.
#include <chrono>

#include "bench/bench_util.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/log.h"
#include "platform/screen/synthetic_screen.h"
#include "session/recording_session.h"
#include "support/store_manager.h"

namespace sv {
namespace {

using bench::report;

constexpr int32_t kNs = 1000000000;

void benchFramePath() {
    auto backend = std::make_shared<SyntheticScreenBackend>();
    auto controller = backend->makeCaptureController({1600, 900}, MediaTime::make(1, 60));
    auto surface = SharedSurface::create(1600, 900).value();
    int64_t t = 0;
    auto frame = [&] {
        return SampleBuffer::makeVideo(surface, MediaTime::make(t += kNs / 60, kNs),
                                       MediaTime::make(1, 60));
    };
    auto run = [&](const char* name, const std::shared_ptr<SVRecordingSession>& s, uint32_t flags) {
        // Frames made outside the timed loop would all share one time; the
        // sample's creation is measured apart and subtracted.
        const double make = bench::nsPerCall([&] { frame(); });
        const double ns = bench::nsPerCall(
            [&] { s->screenCaptureControllerDidReceiveSampleBuffer(*controller, frame(), flags); });
        report(name, ns - make, "ns");
    };
    // Sample-buffer mode: the path ends at the (empty) hand-over to an
    // extension, so only the session's work is measured.
    auto session = SVRecordingSession::initWithBundleID("org.sorvel.bench");
    session->setBroadcastProcessMode(kBroadcastProcessModeSampleBuffer);
    run("session_frame_path", session, 0);
    session->setSessionWasResumed(true);  // the next frame measures a gap
    run("session_frame_path_retimed", session, 0);
    session->setSystemRecording(true);
    run("session_frame_path_rotated", session, 7);

    auto mic = session->_microphoneOutputRoute();
    session->setMicrophoneEnabled(false);
    const auto format = AudioStreamFormat::float32(48000, 2);
    auto block = std::make_shared<DataBlock>(1024 * 8);
    auto sample = SampleBuffer::makeAudio(block, format, 1024, MediaTime::make(0, 48000));
    report("session_microphone_route_silenced", bench::nsPerCall([&] { mic(sample); }), "ns");
}

}  // namespace
}  // namespace sv

int main() {
    sv::log::setOutputEnabled(false);
    sv::setProcessAudioBackend(std::make_shared<sv::SyntheticAudioBackend>());
    sv::SVReachability::setFlagsProvider(
        [](const std::string&) -> std::optional<uint32_t> { return std::nullopt; });
    sv::benchFramePath();
}
