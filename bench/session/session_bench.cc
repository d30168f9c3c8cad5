// Recording session costs, as "name value unit" lines:
// - the session's own frame path per frame (lock, pause and gap checks,
//   timeline, transform), without a movie writer behind it: plain, re-timed
//   after a pause, and rotated whole-display frames;
// - the microphone route silencing one 1024-frame stereo float buffer;
// - a 3 s recording of a 1600x900 synthetic screen at 60 fps with both
//   synthetic audio sources into the real movie writer: CPU of the process,
//   frames delivered by the screen and written to the movie per second, and
//   peak memory.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "bench/bench_util.h"
#include "platform/audio/synthetic_audio.h"
#include "platform/log.h"
#include "platform/screen/frame_stamp.h"
#include "platform/screen/synthetic_screen.h"
#include "session/recording_session.h"
#include "support/movie_store.h"
#include "support/store_manager.h"

namespace sv {
namespace {

using bench::report;

constexpr int32_t kNs = 1000000000;

void benchFramePath() {
    auto backend = std::make_shared<SyntheticScreenBackend>();
    auto controller = backend->makeCaptureController({1600, 900}, MediaTime::make(1, 60));
    auto surface = SharedSurface::create(1600, 900);
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

void benchRecording() {
    const std::string home =
        (std::filesystem::temp_directory_path() / ("sv-session-bench-" + std::to_string(getpid())))
            .string();
    MovieStore::shared().setHomeDirectory(home);
    MovieStore::shared()._srSetupTempDirectory();
    auto display = std::make_shared<SyntheticDisplay>(SyntheticDisplay::Options{1600, 900, 0});
    display->addLayer({1, 4242, "org.sorvel.bench", 0, 0, 0, 1600, 900});
    setProcessScreenBackend(std::make_shared<SyntheticScreenBackend>(display));

    auto session = SVRecordingSession::initWithBundleID("org.sorvel.bench");
    session->setContextIDs({1});
    session->setWindowSize({1600, 900});
    session->setFrontmostPIDForAudioTap(4242);
    session->setMicrophoneEnabled(true);
    session->setRecording(true);
    Semaphore started, finished;
    session->startSessionWithHandler([&] { started.signal(); });
    if (!started.waitFor(std::chrono::seconds(30)))
        return report("session_recording_failed", 1, "");

    constexpr double kSeconds = 3.0;
    const double cpu0 = bench::cpuSeconds();
    const auto wall0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
    std::optional<URL> movie;
    session->finishSessionWithHandler([&](std::optional<URL> url, OptionalError) {
        movie = url;
        finished.signal();
    });
    finished.wait();
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    report("session_recording_cpu", 100.0 * (bench::cpuSeconds() - cpu0) / wall, "%");

    // Frames in the movie, and frames the screen delivered over the same
    // span (the stamps count every frame drawn), so drops of the session and
    // writer show apart from deadlines the loaded machine let pass.
    int64_t written = 0;
    uint64_t firstIndex = UINT64_MAX, lastIndex = 0;
    AVFormatContext* ctx = nullptr;
    if (movie && avformat_open_input(&ctx, movie->path.c_str(), nullptr, nullptr) == 0 &&
        avformat_find_stream_info(ctx, nullptr) >= 0) {
        AVStream* st = ctx->streams[0];
        const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
        AVCodecContext* dec = avcodec_alloc_context3(codec);
        avcodec_parameters_to_context(dec, st->codecpar);
        avcodec_open2(dec, codec, nullptr);
        AVPacket* pkt = av_packet_alloc();
        AVFrame* f = av_frame_alloc();
        auto drain = [&] {
            while (avcodec_receive_frame(dec, f) >= 0) {
                ++written;
                if (auto stamp = readFrameStamp(f->data[0], f->width, f->height, f->linesize[0])) {
                    firstIndex = std::min(firstIndex, stamp->frameIndex);
                    lastIndex = std::max(lastIndex, stamp->frameIndex);
                }
            }
        };
        while (av_read_frame(ctx, pkt) >= 0) {
            if (pkt->stream_index == 0 && avcodec_send_packet(dec, pkt) >= 0) drain();
            av_packet_unref(pkt);
        }
        avcodec_send_packet(dec, nullptr);
        drain();
        av_frame_free(&f);
        av_packet_free(&pkt);
        avcodec_free_context(&dec);
        avformat_close_input(&ctx);
    }
    const double delivered = lastIndex >= firstIndex ? double(lastIndex - firstIndex + 1) : 0;
    report("session_recording_frames_delivered_per_second", delivered / kSeconds, "fps");
    report("session_recording_frames_written_per_second", double(written) / kSeconds, "fps");
    report("session_recording_frames_lost_after_delivery", delivered - double(written), "frames");
    report("session_recording_peak_rss", bench::peakRssMiB(), "MiB");
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
}

}  // namespace
}  // namespace sv

int main() {
    sv::log::setOutputEnabled(false);
    sv::setProcessAudioBackend(std::make_shared<sv::SyntheticAudioBackend>());
    sv::SVReachability::setFlagsProvider(
        [](const std::string&) -> std::optional<uint32_t> { return std::nullopt; });
    sv::benchFramePath();
    sv::benchRecording();
    sv::SVCaptureManager::sharedManager()->stopAllCapture();
}
