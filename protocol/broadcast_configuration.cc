#include "protocol/broadcast_configuration.h"

#include "platform/log.h"

namespace sv {

void SVBroadcastConfiguration::setVideoCompressionProperties(std::optional<Value> properties) {
    if (properties && !properties->is_object()) {
        log::error("SVBroadcastConfiguration: compression properties are not a dictionary");
        properties.reset();
    }
    properties_ = std::move(properties);
}

Value SVBroadcastConfiguration::encodeWithCoder() const {
    Value v = Value::object();
    v[kClipDurationKey] = clipDuration_;
    if (properties_ && !properties_->empty()) v[kVideoCompressionPropertiesKey] = *properties_;
    return v;
}

std::shared_ptr<SVBroadcastConfiguration> SVBroadcastConfiguration::initWithCoder(
    const Value& coder) {
    auto config = std::make_shared<SVBroadcastConfiguration>();
    if (!coder.is_object()) return config;
    if (auto d = numberAt(coder, kClipDurationKey)) config->clipDuration_ = *d;
    if (const Value* p = dictAt(coder, kVideoCompressionPropertiesKey)) config->properties_ = *p;
    return config;
}

Bytes SVBroadcastConfiguration::encodedData() const {
    return encodeCbor(encodeWithCoder());
}

std::shared_ptr<SVBroadcastConfiguration> SVBroadcastConfiguration::decodeFromData(
    std::span<const uint8_t> data) {
    if (data.empty()) return std::make_shared<SVBroadcastConfiguration>();
    auto decoded = decodeCbor(data);
    if (!decoded) {
        log::error("SVBroadcastConfiguration: undecodable configuration data: %@", decoded.error);
        return std::make_shared<SVBroadcastConfiguration>();
    }
    return initWithCoder(*decoded.value);
}

std::string SVBroadcastConfiguration::description() const {
    return describe(encodeWithCoder());
}

}  // namespace sv
