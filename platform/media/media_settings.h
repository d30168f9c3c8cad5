// Output settings of the movie writer's inputs. Settings are dictionaries
// (sv::Value objects) with the keys below; a broadcast configuration's video
// compression properties use the compression keys, so they are part of the
// platform's public interface (documented in docs/movie-settings.md).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/error.h"
#include "platform/value.h"

namespace sv::media {

// Errors of settings that cannot be encoded: one code, the sentence says
// which key is wrong.
inline constexpr const char* kMediaSettingsErrorDomain = "org.sorvel.MediaSettingsErrorDomain";
inline constexpr int64_t kMediaSettingsErrorInvalid = 1;

// Video output settings.
inline constexpr const char* kVideoCodecKey = "SVVideoCodecKey";  // string, kVideoCodecH264
inline constexpr const char* kVideoWidthKey = "SVVideoWidthKey";  // number, pixels
inline constexpr const char* kVideoHeightKey = "SVVideoHeightKey";
inline constexpr const char* kVideoCompressionPropertiesKey =
    "SVVideoCompressionPropertiesKey";  // dictionary with the keys below

inline constexpr const char* kVideoCodecH264 = "h264";

// Video compression properties.
inline constexpr const char* kVideoExpectedSourceFrameRateKey =
    "SVVideoExpectedSourceFrameRateKey";                                            // number, fps
inline constexpr const char* kVideoProfileLevelKey = "SVVideoProfileLevelKey";      // string
inline constexpr const char* kVideoAverageBitRateKey = "SVVideoAverageBitRateKey";  // bit/s
inline constexpr const char* kVideoMaxKeyFrameIntervalKey =
    "SVVideoMaxKeyFrameIntervalKey";  // frames
// Optional: the x264 speed preset ("superfast", "veryfast", ...).
inline constexpr const char* kVideoEncoderPresetKey = "SVVideoEncoderPresetKey";

inline constexpr const char* kH264BaselineAutoLevel = "H264_Baseline_AutoLevel";
inline constexpr const char* kH264MainAutoLevel = "H264_Main_AutoLevel";
inline constexpr const char* kH264HighAutoLevel = "H264_High_AutoLevel";

// Audio output settings.
inline constexpr const char* kAudioFormatKey = "SVAudioFormatKey";  // string, kAudioFormatAAC
inline constexpr const char* kAudioNumberOfChannelsKey = "SVAudioNumberOfChannelsKey";
inline constexpr const char* kAudioSampleRateKey = "SVAudioSampleRateKey";          // Hz
inline constexpr const char* kAudioChannelLayoutKey = "SVAudioChannelLayoutKey";    // string
inline constexpr const char* kAudioEncoderBitRateKey = "SVAudioEncoderBitRateKey";  // bit/s

inline constexpr const char* kAudioFormatAAC = "aac";
inline constexpr const char* kChannelLayoutMono = "mono";
inline constexpr const char* kChannelLayoutStereo = "stereo";

// The x264 preset used when the settings name none: keeps 1600x900 at 60
// frames per second well inside real time on two cores (see README).
inline constexpr const char* kDefaultX264Preset = "superfast";

// Video settings after validation; an error when the dictionary cannot be
// encoded.
struct VideoSettings {
    int width = 0;
    int height = 0;
    double frameRate = 60;
    std::string profile = kH264MainAutoLevel;
    int64_t averageBitRate = 3000000;
    int maxKeyFrameInterval = 120;
    std::string preset = kDefaultX264Preset;
};
Result<VideoSettings> parseVideoSettings(const Value& settings);

struct AudioSettings {
    int channels = 2;
    int sampleRate = 44100;
    int64_t bitRate = 128000;
};
Result<AudioSettings> parseAudioSettings(const Value& settings);

}  // namespace sv::media
