// Untrusted broadcast configuration records (from a client's set-up request
// or sent back by an upload extension): decoding must always give a record,
// the record must survive encoding and decoding unchanged, and its
// compression properties must pass the movie writer's settings check
// without crashing, hanging or flooding the log.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "fuzz/fuzz_scratch.h"
#include "platform/log.h"
#include "platform/media/media_settings.h"
#include "protocol/broadcast_configuration.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sv::log::setOutputEnabled(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sv::log::Capture log;
    auto config = sv::SVBroadcastConfiguration::decodeFromData({data, size});
    if (!config) std::abort();
    (void)config->description();

    auto again = sv::SVBroadcastConfiguration::decodeFromData(config->encodedData());
    const double d = config->clipDuration(), e = again->clipDuration();
    if (!(d == e || (std::isnan(d) && std::isnan(e)))) std::abort();
    const auto& props = config->videoCompressionProperties();
    const auto& props2 = again->videoCompressionProperties();
    if (props && !props->is_object()) std::abort();
    // An empty dictionary is not written, so it comes back as none.
    const bool written = props && !props->empty();
    if (written != props2.has_value()) std::abort();
    if (written && !sv::fuzz::sameValue(*props, *props2)) std::abort();

    // The writer's defaults with the record's properties over them.
    namespace m = sv::media;
    sv::Value compression = {{m::kVideoExpectedSourceFrameRateKey, 60},
                             {m::kVideoProfileLevelKey, m::kH264MainAutoLevel},
                             {m::kVideoAverageBitRateKey, 5000000},
                             {m::kVideoMaxKeyFrameIntervalKey, 120}};
    if (props)
        for (const auto& [key, value] : props->items()) compression[key] = value;
    sv::Value settings = {{m::kVideoCodecKey, m::kVideoCodecH264},
                          {m::kVideoWidthKey, 1600},
                          {m::kVideoHeightKey, 900},
                          {m::kVideoCompressionPropertiesKey, compression}};
    auto video = m::parseVideoSettings(settings);
    if (!video || video->width != 1600 || video->height != 900) std::abort();
    if (!(video->frameRate >= 1 && video->frameRate <= 480)) std::abort();
    if (video->averageBitRate < 10000 || video->averageBitRate > 200000000) std::abort();
    if (video->maxKeyFrameInterval < 1 || video->maxKeyFrameInterval > 100000) std::abort();
    // Whatever a peer sends, the log gets a bounded number of lines.
    if (log.lines().size() > 32) std::abort();
    return 0;
}
