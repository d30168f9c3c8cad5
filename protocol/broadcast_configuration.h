// The record that tunes a broadcast: the wished length of an uploaded movie
// fragment and video compression properties that replace the movie
// writer's defaults key by key (keys of platform/media/media_settings.h).
//
// Encoded form: a CBOR map with "clipDuration" (a float, always) and
// "videoCompressionProperties" (a map, only when it holds at least one
// entry). Decoding never fails: absent, empty or foreign data, or entries of
// the wrong type, give the defaults.
//
// A plain value object: not thread-safe while being modified; share it
// read-only (the movie writer reads it on its set-up queue).
#pragma once

#include <memory>
#include <optional>
#include <span>

#include "platform/value.h"

namespace sv {

class SVBroadcastConfiguration {
  public:
    static constexpr const char* kClipDurationKey = "clipDuration";
    static constexpr const char* kVideoCompressionPropertiesKey = "videoCompressionProperties";

    static bool supportsSecureCoding() { return true; }

    double clipDuration() const { return clipDuration_; }
    void setClipDuration(double seconds) { clipDuration_ = seconds; }
    // A dictionary, or nullopt.
    const std::optional<Value>& videoCompressionProperties() const { return properties_; }
    void setVideoCompressionProperties(std::optional<Value> properties);

    // The keyed entries: "clipDuration" first, then the properties if any.
    Value encodeWithCoder() const;
    // Reads the keyed entries of `coder` (a map); other entries are ignored.
    static std::shared_ptr<SVBroadcastConfiguration> initWithCoder(const Value& coder);

    // The CBOR encoding of encodeWithCoder().
    Bytes encodedData() const;
    // Never null: the defaults for data that is absent, empty or not such a record.
    static std::shared_ptr<SVBroadcastConfiguration> decodeFromData(std::span<const uint8_t> data);

    std::string description() const;

  private:
    double clipDuration_ = 0.0;
    std::optional<Value> properties_;
};

}  // namespace sv
