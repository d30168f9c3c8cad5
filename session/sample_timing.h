// The timing arithmetic of a recording session's sample path: the paused
// gaps that are cut out of the movie's timeline, the re-timed copy of a
// frame, the orientation transform of whole-display frames, the frame size
// limit and the size of the movie of a whole-display recording.
//
// Everything here is a function of its arguments (SampleTimeline is a plain
// value that its owner guards); callable from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/geometry.h"
#include "platform/media_time.h"
#include "platform/sample_buffer.h"

namespace sv {

class SVCaptureManager;

// Longest side of a recorded frame, in pixels.
inline constexpr float kMaximumFrameDimension = 1600.0f;
// A display with a side of at least this many pixels records landscape.
inline constexpr float kLargeDisplayDimension = 2732.0f;
// The quarter turn of a rotated display, rounded to a 32-bit float.
inline constexpr float kQuarterTurn = 1.5707964f;

// The pause bookkeeping of the video path. Times are taken in the frames'
// timescale, which a screen capture controller keeps constant.
struct SampleTimeline {
    // Raw presentation time of the latest frame handled that was not the
    // first after a resume; invalid before the first frame.
    MediaTime lastSampleTimestamp = MediaTime::invalid();
    // Sum of all paused gaps, subtracted from every later frame.
    MediaTime sampleTimeOffset = MediaTime::zero();

    // Accounts for one frame that is about to be handed on. The first frame
    // after a resume measures the gap since the last frame before the pause
    // (from 0 when no frame came before) and adds it to the offset, and
    // leaves lastSampleTimestamp alone; any other frame becomes the last.
    void noteFrame(const MediaTime& presentationTime, bool firstAfterResume);
    // Back to the state of a new recording.
    void reset() { *this = SampleTimeline{}; }
};

// A copy of `source` that shares its media, with every timing entry's
// presentation time set to `presentationTime`, its decode time invalid and
// its duration kept. Null when the source has no timing entries.
std::shared_ptr<SampleBuffer> _copySampleBufferFromSourceBuffer(
    const std::shared_ptr<SampleBuffer>& source, const MediaTime& presentationTime);

// Calls `handler` exactly once, synchronously: with `sample` itself while
// `sampleTimeOffset` is zero, else with a copy placed `sampleTimeOffset`
// earlier, after telling `captureManager` (when given) the raw time as its
// capture start time. A copy that cannot be made is not handed on: the
// handler then gets null.
void _updateSampleBufferWithOffset(
    const std::shared_ptr<SampleBuffer>& sample, const MediaTime& sampleTimeOffset,
    SVCaptureManager* captureManager,
    const std::function<void(const std::shared_ptr<SampleBuffer>&)>& handler);

// The same shift for an audio sample: every entry's presentation (and valid
// decode) time moves `offset` earlier, in the sample's own timescale. The
// sample itself when the offset is zero; null when no copy can be made.
std::shared_ptr<SampleBuffer> shiftedAudioSampleBuffer(const std::shared_ptr<SampleBuffer>& sample,
                                                       const MediaTime& offset);

// The movie transform for a frame's ScreenTransformFlags: a quarter turn
// (bit 4), then mirrored x (bit 2), then mirrored y (bit 1); other bits are
// ignored and tx, ty are always 0.
AffineTransform _affineTransformFromTransformFlags(uint32_t transformFlags);

// The frame size limit: each side at most kMaximumFrameDimension, the
// height limited first, the aspect ratio kept up to float rounding.
WindowSize _maximumSizeWithSize(WindowSize size);

// The size of the movie: `windowSize` for an application recording and for
// a whole-display recording of a desktop display (`panelOrientation` false:
// recorded the way it is shown); for a whole-display recording of a panel,
// `windowSize` turned portrait on a small display and landscape on a large
// one (a side of `originalWindowSize` at least kLargeDisplayDimension), a
// square staying as it is.
WindowSize _movieSizeForWindowSize(WindowSize windowSize, WindowSize originalWindowSize,
                                   bool systemRecording, bool panelOrientation = true);

}  // namespace sv
