#include "platform/media/media_settings.h"

#include <cmath>

#include "platform/log.h"

namespace sv::media {
namespace {

Error fail(const std::string& text) {
    return Error::make(kMediaSettingsErrorDomain, kMediaSettingsErrorInvalid, text);
}

// Compression properties named one by one in the log when ignored.
constexpr size_t kMaxLoggedProperties = 8;

// A whole number in [lo, hi] under `key`, or `fallback` when absent.
Result<int64_t> readInt(const Value& dict, const char* key, int64_t lo, int64_t hi,
                        int64_t fallback) {
    auto it = dict.find(key);
    if (it == dict.end()) return fallback;
    if (!it->is_number()) return fail(std::string(key) + " is not a number");
    double v = it->get<double>();
    if (!std::isfinite(v) || v < double(lo) || v > double(hi))
        return fail(std::string(key) + " is out of range");
    return int64_t(v);
}

}  // namespace

Result<VideoSettings> parseVideoSettings(const Value& settings) {
    if (!settings.is_object()) return fail("video settings are not a dictionary");
    VideoSettings s;
    if (auto codec = stringAt(settings, kVideoCodecKey); !codec || *codec != kVideoCodecH264)
        return fail("video codec must be h264");
    auto width = readInt(settings, kVideoWidthKey, 2, 8192, 0);
    if (!width) return width.error();
    auto height = readInt(settings, kVideoHeightKey, 2, 8192, 0);
    if (!height) return height.error();
    const int64_t w = *width, h = *height;
    if (w == 0 || h == 0) return fail("video width and height are required");
    // 4:2:0 needs even sizes; the writer's caller already rounds up.
    s.width = int((w + 1) / 2 * 2);
    s.height = int((h + 1) / 2 * 2);

    // Compression properties may come from a broadcast extension: a value
    // that cannot be used is logged and the default kept.
    const Value* props = dictAt(settings, kVideoCompressionPropertiesKey);
    if (!props) return s;
    // A peer may send any number of keys: the first few are named in the
    // log, the rest only counted.
    size_t logged = 0, unlogged = 0;
    auto ignore = [&](const std::string& key) {
        if (logged++ < kMaxLoggedProperties)
            log::error("MovieWriterInput: ignoring invalid compression property %@", key);
        else
            ++unlogged;
    };
    for (auto it = props->begin(); it != props->end(); ++it) {
        const std::string& k = it.key();
        const Value& v = *it;
        const bool finite = v.is_number() && std::isfinite(v.get<double>());
        const double n = finite ? v.get<double>() : 0;
        if (k == kVideoExpectedSourceFrameRateKey) {
            if (finite && n >= 1 && n <= 480)
                s.frameRate = n;
            else
                ignore(k);
        } else if (k == kVideoProfileLevelKey) {
            if (v.is_string() &&
                (v == kH264BaselineAutoLevel || v == kH264MainAutoLevel || v == kH264HighAutoLevel))
                s.profile = v.get<std::string>();
            else
                ignore(k);
        } else if (k == kVideoAverageBitRateKey) {
            if (finite && n >= 10000 && n <= 200000000)
                s.averageBitRate = int64_t(n);
            else
                ignore(k);
        } else if (k == kVideoMaxKeyFrameIntervalKey) {
            if (finite && n >= 1 && n <= 100000)
                s.maxKeyFrameInterval = int(n);
            else
                ignore(k);
        } else if (k == kVideoEncoderPresetKey) {
            // "ultrafast" is left out: its streams are no longer Main profile.
            static const char* kPresets[] = {"superfast", "veryfast", "faster", "fast",
                                             "medium",    "slow",     "slower", "veryslow"};
            bool known = false;
            for (const char* name : kPresets) known = known || (v.is_string() && v == name);
            if (known)
                s.preset = v.get<std::string>();
            else
                ignore(k);
        } else if (logged++ < kMaxLoggedProperties) {
            log::info("MovieWriterInput: ignoring unknown compression property %@", k);
        } else {
            ++unlogged;
        }
    }
    if (unlogged > 0)
        log::info("MovieWriterInput: ignoring %li more compression properties", long(unlogged));
    return s;
}

Result<AudioSettings> parseAudioSettings(const Value& settings) {
    if (!settings.is_object()) return fail("audio settings are not a dictionary");
    AudioSettings s;
    if (auto f = stringAt(settings, kAudioFormatKey); !f || *f != kAudioFormatAAC)
        return fail("audio format must be aac");
    auto channels = readInt(settings, kAudioNumberOfChannelsKey, 1, 2, s.channels);
    if (!channels) return channels.error();
    auto sampleRate = readInt(settings, kAudioSampleRateKey, 8000, 96000, s.sampleRate);
    if (!sampleRate) return sampleRate.error();
    auto bitRate = readInt(settings, kAudioEncoderBitRateKey, 8000, 512000, s.bitRate);
    if (!bitRate) return bitRate.error();
    const int64_t ch = *channels, rate = *sampleRate, br = *bitRate;
    if (auto layout = stringAt(settings, kAudioChannelLayoutKey)) {
        if ((*layout == kChannelLayoutStereo && ch != 2) ||
            (*layout == kChannelLayoutMono && ch != 1) ||
            (*layout != kChannelLayoutStereo && *layout != kChannelLayoutMono))
            return fail("channel layout does not match the channel count");
    }
    s.channels = int(ch);
    s.sampleRate = int(rate);
    s.bitRate = br;
    return s;
}

}  // namespace sv::media
