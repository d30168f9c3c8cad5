#include "session/sample_timing.h"

#include <utility>
#include <vector>

#include "capture/capture_manager.h"
#include "platform/log.h"
#include "platform/screen/screen_capture.h"

namespace sv {

namespace {

// a - b on raw values; a result that does not fit saturates instead of
// wrapping, so a corrupt timestamp can never turn into a plausible one.
int64_t saturatingSubtract(int64_t a, int64_t b) {
    int64_t r;
    if (__builtin_sub_overflow(a, b, &r)) return b < 0 ? INT64_MAX : INT64_MIN;
    return r;
}

int64_t saturatingAdd(int64_t a, int64_t b) {
    int64_t r;
    if (__builtin_add_overflow(a, b, &r)) return b < 0 ? INT64_MIN : INT64_MAX;
    return r;
}

}  // namespace

void SampleTimeline::noteFrame(const MediaTime& presentationTime, bool firstAfterResume) {
    const MediaTime& p = presentationTime;
    if (!p.isValid()) return;
    if (!firstAfterResume) {
        lastSampleTimestamp = p;
        return;
    }
    // The values are subtracted as they stand (a missing last frame counts
    // as 0, so that frame lands at time 0); a last time in another timescale
    // is brought to the frame's first.
    int64_t last = lastSampleTimestamp.value;
    if (lastSampleTimestamp.isValid() && lastSampleTimestamp.timescale != p.timescale)
        last = convertScale(lastSampleTimestamp, p.timescale).value;
    const MediaTime gap = MediaTime::make(saturatingSubtract(p.value, last), p.timescale);
    if (sampleTimeOffset == MediaTime::zero()) {
        sampleTimeOffset = gap;
        return;
    }
    int64_t previous = sampleTimeOffset.value;
    if (sampleTimeOffset.timescale != gap.timescale)
        previous = convertScale(sampleTimeOffset, gap.timescale).value;
    sampleTimeOffset = MediaTime::make(saturatingAdd(gap.value, previous), gap.timescale);
}

std::shared_ptr<SampleBuffer> _copySampleBufferFromSourceBuffer(
    const std::shared_ptr<SampleBuffer>& source, const MediaTime& presentationTime) {
    if (!source) return nullptr;
    std::vector<SampleTimingInfo> timing = source->timingEntries();
    for (auto& entry : timing) {
        entry.presentationTimeStamp = presentationTime;
        entry.decodeTimeStamp = MediaTime::invalid();
    }
    return source->copyWithTiming(std::move(timing));
}

void _updateSampleBufferWithOffset(
    const std::shared_ptr<SampleBuffer>& sample, const MediaTime& sampleTimeOffset,
    SVCaptureManager* captureManager,
    const std::function<void(const std::shared_ptr<SampleBuffer>&)>& handler) {
    if (!sample || sampleTimeOffset == MediaTime::zero()) {
        handler(sample);
        return;
    }
    const MediaTime p = sample->presentationTime();
    const MediaTime n =
        MediaTime::make(saturatingSubtract(p.value, sampleTimeOffset.value), p.timescale);
    auto copy = _copySampleBufferFromSourceBuffer(sample, n);
    if (!copy) log::error("SVRecordingSession: could not re-time sample, dropping it");
    if (captureManager) captureManager->setCaptureStartTime(p);
    handler(copy);
}

std::shared_ptr<SampleBuffer> shiftedAudioSampleBuffer(const std::shared_ptr<SampleBuffer>& sample,
                                                       const MediaTime& offset) {
    if (!sample || offset == MediaTime::zero()) return sample;
    std::vector<SampleTimingInfo> timing = sample->timingEntries();
    for (auto& entry : timing) {
        const int32_t scale = entry.presentationTimeStamp.timescale;
        entry.presentationTimeStamp =
            convertScale(subtract(entry.presentationTimeStamp, offset), scale);
        if (entry.decodeTimeStamp.isValid())
            entry.decodeTimeStamp = convertScale(subtract(entry.decodeTimeStamp, offset),
                                                 entry.decodeTimeStamp.timescale);
    }
    return sample->copyWithTiming(std::move(timing));
}

AffineTransform _affineTransformFromTransformFlags(uint32_t transformFlags) {
    // Written for every frame that carries the bit, so debug level only: a
    // rotated display would otherwise put 60 lines a second in the journal.
    AffineTransform m = AffineTransform::identity();
    if (transformFlags & kScreenTransformRotate) {
        log::debug("rotate clockwise");
        m = concat(m, AffineTransform::rotation(kQuarterTurn));
    }
    if (transformFlags & kScreenTransformFlipX) {
        log::debug("flip x");
        m = concat(AffineTransform::scale(-1.0f, 1.0f), m);
    }
    if (transformFlags & kScreenTransformFlipY) {
        log::debug("flip y");
        m = concat(AffineTransform::scale(1.0f, -1.0f), m);
    }
    m.tx = 0;
    m.ty = 0;
    return m;
}

WindowSize _maximumSizeWithSize(WindowSize size) {
    float w = size.width, h = size.height;
    if (h > kMaximumFrameDimension) {
        const float r = kMaximumFrameDimension / h;
        w = w * r;
        h = kMaximumFrameDimension;
    }
    if (w > kMaximumFrameDimension) {
        const float r = kMaximumFrameDimension / w;
        h = h * r;
        w = kMaximumFrameDimension;
    }
    return {w, h};
}

WindowSize _movieSizeForWindowSize(WindowSize windowSize, WindowSize originalWindowSize,
                                   bool systemRecording, bool panelOrientation) {
    if (!systemRecording || !panelOrientation) return windowSize;
    const bool large = originalWindowSize.width >= kLargeDisplayDimension ||
                       originalWindowSize.height >= kLargeDisplayDimension;
    WindowSize s = windowSize;
    // Small displays record portrait, large ones landscape.
    const bool swap = large ? !(s.width > s.height) : s.width > s.height;
    if (swap) std::swap(s.width, s.height);
    return s;
}

}  // namespace sv
