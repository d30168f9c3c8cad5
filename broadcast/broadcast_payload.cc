#include "broadcast/broadcast_payload.h"

#include <bit>
#include <cstring>
#include <limits>

#include "protocol/broadcast_extension.h"

namespace sv {

std::shared_ptr<const ipc::Interface> broadcastDaemonProtocolInterface() {
    using K = ipc::ArgKind;
    static auto i = std::make_shared<const ipc::Interface>(
        kBroadcastDaemonProtocol, std::vector<ipc::MethodSpec>{
                                      {kBroadcastPingMethod, {}, {}},
                                      {kBroadcastUpdateServiceInfoMethod, {{K::Dictionary}}, {}},
                                  });
    return i;
}

std::shared_ptr<const ipc::Interface> broadcastExtensionProtocolInterface() {
    using K = ipc::ArgKind;
    static auto i = std::make_shared<const ipc::Interface>(
        kBroadcastExtensionProtocol,
        std::vector<ipc::MethodSpec>{
            {kBroadcastProcessPayloadMethod, {{K::Dictionary}, {K::Handler}}, {}},
        });
    return i;
}

Value SVSharedSurfaceObject::encodeWithCoder(ipc::Arguments* coder) const {
    Value encoded = Value::object();
    if (coder && sharedSurface_)
        encoded[kSharedSurfaceObjectKey] = coder->reference(sharedSurface_);
    return encoded;
}

SVSharedSurfaceObject SVSharedSurfaceObject::initWithCoder(const Value& encoded,
                                                           const ipc::Received* coder) {
    SVSharedSurfaceObject object;
    if (!coder || !encoded.is_object()) return object;
    auto it = encoded.find(kSharedSurfaceObjectKey);
    if (it != encoded.end()) object.setSharedSurface(coder->surface(*it));
    return object;
}

namespace {

// The wire is little-endian, as every host this runs on.
static_assert(std::endian::native == std::endian::little);

void putTime(uint8_t* at, const MediaTime& t) {
    std::memcpy(at, &t.value, 8);
    std::memcpy(at + 8, &t.timescale, 4);
    std::memcpy(at + 12, &t.flags, 4);
    std::memcpy(at + 16, &t.epoch, 8);
}

MediaTime getTime(const uint8_t* at) {
    MediaTime t;
    std::memcpy(&t.value, at, 8);
    std::memcpy(&t.timescale, at + 8, 4);
    std::memcpy(&t.flags, at + 12, 4);
    std::memcpy(&t.epoch, at + 16, 8);
    return t;
}

}  // namespace

Bytes timingRecordBytes(const SampleTimingInfo& timing) {
    Bytes bytes(72);
    putTime(bytes.data(), timing.duration);
    putTime(bytes.data() + 24, timing.presentationTimeStamp);
    putTime(bytes.data() + 48, timing.decodeTimeStamp);
    return bytes;
}

std::optional<SampleTimingInfo> timingFromRecordBytes(const Bytes& bytes) {
    if (bytes.size() != 72) return std::nullopt;
    return SampleTimingInfo{getTime(bytes.data()), getTime(bytes.data() + 24),
                            getTime(bytes.data() + 48)};
}

Value audioFormatValue(const AudioStreamFormat& f) {
    return Value{{kAudioFormatKeySampleRate, f.sampleRate},
                 {kAudioFormatKeyFormatID, f.formatID},
                 {kAudioFormatKeyFormatFlags, f.formatFlags},
                 {kAudioFormatKeyBytesPerPacket, f.bytesPerPacket},
                 {kAudioFormatKeyFramesPerPacket, f.framesPerPacket},
                 {kAudioFormatKeyBytesPerFrame, f.bytesPerFrame},
                 {kAudioFormatKeyChannelsPerFrame, f.channelsPerFrame},
                 {kAudioFormatKeyBitsPerChannel, f.bitsPerChannel}};
}

std::optional<AudioStreamFormat> audioFormatFromValue(const Value& v) {
    if (!v.is_object()) return std::nullopt;
    auto rate = numberAt(v, kAudioFormatKeySampleRate);
    if (!rate || !(*rate > 0) || *rate > 1e7) return std::nullopt;
    AudioStreamFormat f;
    f.sampleRate = *rate;
    const std::pair<const char*, uint32_t*> fields[] = {
        {kAudioFormatKeyFormatID, &f.formatID},
        {kAudioFormatKeyFormatFlags, &f.formatFlags},
        {kAudioFormatKeyBytesPerPacket, &f.bytesPerPacket},
        {kAudioFormatKeyFramesPerPacket, &f.framesPerPacket},
        {kAudioFormatKeyBytesPerFrame, &f.bytesPerFrame},
        {kAudioFormatKeyChannelsPerFrame, &f.channelsPerFrame},
        {kAudioFormatKeyBitsPerChannel, &f.bitsPerChannel}};
    for (auto& [key, field] : fields) {
        auto it = v.find(key);
        if (it == v.end() || !it->is_number_integer()) return std::nullopt;
        const auto n = it->get<int64_t>();
        if (n < 0 || n > int64_t(std::numeric_limits<uint32_t>::max())) return std::nullopt;
        *field = uint32_t(n);
    }
    return f;
}

}  // namespace sv
