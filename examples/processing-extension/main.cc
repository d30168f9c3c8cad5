// The measuring processing extension: reports what a sample-buffer broadcast
// delivers and keeps a thumbnail of it.
//
// The application may set the broadcast up with user info
//   {"directory": "/some/dir"}     where thumbnail.png goes ($TMPDIR or /tmp
//                                  when none is named)
// and receives, about once a second of frames and at every action,
// service information
//   {"frames": N, "fps": F (frames per second over the broadcast's times),
//    "frameAgeMs": {"p50", "p99", "max"} (capture to arrival),
//    "outOfOrder": frames whose time was not after the one before,
//    "firstFrameTime", "lastFrameTime" (seconds of the capture clock),
//    "width", "height", "unmapped": frames without an image,
//    "audio": {"application"|"microphone": {"buffers", "seconds", "gaps"}},
//    "thumbnail": path, "thumbnails": N, "actions": [...], "finished": bool}
// A gap is a buffer that does not start where the one before it ended (more
// than 2 ms off); a pause makes one, nothing else should.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <sorvel/processing_extension.h>
#include <nlohmann/json.hpp>

#include "thumbnail.h"

namespace {

// Seconds between thumbnails and between reports, in frame time.
constexpr double kThumbnailInterval = 3.0;
constexpr double kReportInterval = 1.0;
constexpr int kThumbnailWidth = 320;
// Ages kept for the percentiles (an hour at 60 fps).
constexpr size_t kMaxAges = 216000;

double monotonicSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

struct AudioFigures {
    int64_t buffers = 0;
    double seconds = 0;
    int64_t gaps = 0;
    double expectedNext = -1;  // where the next buffer should start
};

class MeasureExtension : public sv::SVProcessingExtension {
  public:
    void broadcastDidReceiveAction(sv::SVBroadcastAction action,
                                   const std::string& userInfoJSON) override {
        static const char* names[] = {"", "start", "pause", "resume", "finish"};
        std::lock_guard lock(mutex_);
        if (action == sv::SVBroadcastAction::Start) directory_ = directoryOf(userInfoJSON);
        actions_.push_back(names[int(action)]);
        report(action == sv::SVBroadcastAction::Finish);
    }

    void processVideoFrame(const sv::SVVideoFrame& frame) override {
        const double arrival = monotonicSeconds();
        std::lock_guard lock(mutex_);
        const double t = frame.timing.presentationTime.seconds();
        if (frames_ == 0) firstFrameTime_ = t;
        if (frames_ > 0 && t <= lastFrameTime_) ++outOfOrder_;
        lastFrameTime_ = std::max(lastFrameTime_, t);
        ++frames_;
        if (frame.timing.presentationTime.isValid() && ages_.size() < kMaxAges)
            ages_.push_back((arrival - t) * 1000.0);
        if (!frame.pixels) {
            ++unmapped_;
        } else {
            width_ = frame.width;
            height_ = frame.height;
            if (lastThumbnailTime_ < 0 || t - lastThumbnailTime_ >= kThumbnailInterval) {
                lastThumbnailTime_ = t;
                writeThumbnail(frame);
            }
        }
        if (lastReportTime_ < 0 || t - lastReportTime_ >= kReportInterval) {
            lastReportTime_ = t;
            report(false);
        }
    }

    void processAudioBuffer(const sv::SVAudioBuffer& buffer) override {
        std::lock_guard lock(mutex_);
        AudioFigures& a = buffer.source == sv::SVAudioSource::Microphone ? microphone_ : app_;
        const double start = buffer.timing.presentationTime.seconds();
        const double length =
            buffer.format.sampleRate > 0 ? buffer.numSamples / buffer.format.sampleRate : 0;
        if (a.expectedNext >= 0 && std::abs(start - a.expectedNext) > 0.002) ++a.gaps;
        a.expectedNext = start + length;
        ++a.buffers;
        a.seconds += length;
    }

  private:
    static std::string directoryOf(const std::string& userInfoJSON) {
        auto info = nlohmann::json::parse(userInfoJSON, nullptr, false);
        if (info.is_object())
            if (auto d = info.find("directory"); d != info.end() && d->is_string())
                return d->get<std::string>();
        const char* tmp = std::getenv("TMPDIR");
        return tmp && *tmp ? tmp : "/tmp";
    }

    void writeThumbnail(const sv::SVVideoFrame& frame) {
        std::string error;
        auto png = measure::thumbnailPNG(frame.pixels, frame.width, frame.height, frame.bytesPerRow,
                                         kThumbnailWidth, &error);
        const std::string path = directory_ + "/thumbnail.png";
        if (!png.empty() && measure::writeFileAtomically(path, png, &error)) {
            thumbnail_ = path;
            ++thumbnails_;
            return;
        }
        std::fprintf(stderr, "processing-extension: no thumbnail: %s\n", error.c_str());
    }

    double percentile(std::vector<double>& sorted, double p) const {
        if (sorted.empty()) return 0;
        const size_t i = std::min(sorted.size() - 1, size_t(p * double(sorted.size() - 1) + 0.5));
        return sorted[i];
    }

    static nlohmann::json audioJSON(const AudioFigures& a) {
        return {{"buffers", a.buffers}, {"seconds", a.seconds}, {"gaps", a.gaps}};
    }

    // With mutex_ held.
    void report(bool finished) {
        std::vector<double> sorted = ages_;
        std::sort(sorted.begin(), sorted.end());
        const double span = lastFrameTime_ - firstFrameTime_;
        nlohmann::json info = {
            {"frames", frames_},
            {"fps", frames_ > 1 && span > 0 ? double(frames_ - 1) / span : 0.0},
            {"frameAgeMs",
             {{"p50", percentile(sorted, 0.50)},
              {"p99", percentile(sorted, 0.99)},
              {"max", sorted.empty() ? 0.0 : sorted.back()}}},
            {"outOfOrder", outOfOrder_},
            {"firstFrameTime", firstFrameTime_},
            {"lastFrameTime", lastFrameTime_},
            {"width", width_},
            {"height", height_},
            {"unmapped", unmapped_},
            {"audio", {{"application", audioJSON(app_)}, {"microphone", audioJSON(microphone_)}}},
            {"thumbnail", thumbnail_},
            {"thumbnails", thumbnails_},
            {"actions", actions_},
            {"finished", finished}};
        sendServiceInfo(info.dump());
    }

    std::mutex mutex_;
    std::string directory_ = "/tmp";
    std::vector<std::string> actions_;
    int64_t frames_ = 0, outOfOrder_ = 0, unmapped_ = 0, thumbnails_ = 0;
    int width_ = 0, height_ = 0;
    double firstFrameTime_ = 0, lastFrameTime_ = 0;
    double lastThumbnailTime_ = -1, lastReportTime_ = -1;
    std::vector<double> ages_;
    std::string thumbnail_;
    AudioFigures app_, microphone_;
};

}  // namespace

int main() {
    MeasureExtension extension;
    return sv::SVRunProcessingExtension(extension);
}
