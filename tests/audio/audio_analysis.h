// Helpers for audio tests: decoding 16-bit PCM samples and measuring tones
// (around the whole-second clicks of the synthetic sources).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numbers>
#include <vector>

#include "platform/sample_buffer.h"
#include "platform/screen/frame_stamp.h"

namespace sv::testing {

// The first channel of a 16-bit PCM run, as values in [-1, 1).
inline std::vector<double> pcm16Samples(const uint8_t* bytes, size_t length,
                                        const AudioStreamFormat& format) {
    std::vector<double> out;
    const bool be = format.formatFlags & AudioStreamFormat::kFlagIsBigEndian;
    const size_t frame = format.bytesPerFrame ? format.bytesPerFrame : 2;
    for (size_t off = 0; off + 2 <= length; off += frame) {
        uint16_t u = be ? uint16_t(bytes[off] << 8 | bytes[off + 1])
                        : uint16_t(bytes[off + 1] << 8 | bytes[off]);
        out.push_back(double(int16_t(u)) / 32768.0);
    }
    return out;
}

inline std::vector<double> pcm16Samples(const SampleBuffer& s) {
    if (!s.dataBlock()) return {};
    return pcm16Samples(s.dataBlock()->data(), s.dataBlock()->size(), s.audioFormat());
}

using SampleList = std::vector<std::shared_ptr<SampleBuffer>>;

// The first channels of `s[from, to)`, one after another.
inline std::vector<double> pcm16Samples(const SampleList& s, size_t from = 0,
                                        size_t to = SIZE_MAX) {
    std::vector<double> all;
    for (size_t i = from; i < std::min(to, s.size()); ++i) {
        auto x = pcm16Samples(*s[i]);
        all.insert(all.end(), x.begin(), x.end());
    }
    return all;
}

// Each of `s[from, to)` starts `step` seconds after the one before it.
inline void expectContiguous(const SampleList& s, double step, double tolerance, size_t from = 1,
                             size_t to = SIZE_MAX) {
    for (size_t i = std::max<size_t>(from, 1); i < std::min(to, s.size()); ++i)
        EXPECT_NEAR(subtract(s[i]->presentationTime(), s[i - 1]->presentationTime()).seconds(),
                    step, tolerance)
            << "sample " << i;
}

// Amplitude of the component at `frequency` (a full-scale sine gives about 1).
inline double toneAmplitude(const std::vector<double>& x, double rate, double frequency) {
    if (x.empty()) return 0;
    double re = 0, im = 0;
    const double w = 2 * std::numbers::pi * frequency / rate;
    for (size_t i = 0; i < x.size(); ++i) {
        re += x[i] * std::cos(w * double(i));
        im -= x[i] * std::sin(w * double(i));
    }
    return 2 * std::sqrt(re * re + im * im) / double(x.size());
}

// Frequency from rising zero crossings (for a single clean tone).
inline double zeroCrossingFrequency(const std::vector<double>& x, double rate) {
    long first = -1, last = -1, count = 0;
    for (size_t i = 1; i < x.size(); ++i) {
        if (x[i - 1] < 0 && x[i] >= 0) {
            if (first < 0) first = long(i);
            last = long(i);
            ++count;
        }
    }
    if (count < 2) return 0;
    return double(count - 1) * rate / double(last - first);
}

// The longest run of `x` (consecutive samples at `rate`, the first at host
// time `start` ns) that no whole-second click of the synthetic sources
// touches, with a millisecond of margin on both sides: where a tone can be
// measured undisturbed.
inline std::vector<double> withoutClicks(const std::vector<double>& x, double rate,
                                         uint64_t start) {
    const uint64_t second = 1'000'000'000, margin = 1'000'000;
    const uint64_t clickEnd = uint64_t(kSyntheticClickMilliseconds * 1e6) + margin;
    size_t bestFrom = 0, bestLength = 0, from = 0;
    for (size_t i = 0; i <= x.size(); ++i) {
        bool inClick = false;
        if (i < x.size()) {
            const uint64_t t = start + uint64_t(std::llround(double(i) * 1e9 / rate));
            const uint64_t into = (t + margin) % second;
            inClick = into < clickEnd + margin;
        }
        if (inClick || i == x.size()) {
            if (i - from > bestLength) bestFrom = from, bestLength = i - from;
            from = i + 1;
        }
    }
    return {x.begin() + long(bestFrom), x.begin() + long(bestFrom + bestLength)};
}

inline double rms(const std::vector<double>& x) {
    double s = 0;
    for (double v : x) s += v * v;
    return x.empty() ? 0 : std::sqrt(s / double(x.size()));
}

}  // namespace sv::testing
