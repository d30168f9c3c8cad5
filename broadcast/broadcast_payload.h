// The live link between the service and a processing extension: its two IPC
// interfaces, SVSharedSurfaceObject (a video frame's surface as it crosses to
// the extension) and the codecs of the payloads' timing and audio format.
// The service (SVBroadcastExtensionProxy, the session's payload builders)
// and the extension SDK share them, so both ends read one definition.
//
// Pure data handling with no threads of its own; any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/audio_format.h"
#include "platform/ipc/wire.h"
#include "platform/sample_buffer.h"
#include "platform/shared_surface.h"
#include "platform/value.h"

namespace sv {

// Extension -> service: ping, updateServiceInfo:.
std::shared_ptr<const ipc::Interface> broadcastDaemonProtocolInterface();
// Service -> extension: processPayload:completion:.
std::shared_ptr<const ipc::Interface> broadcastExtensionProtocolInterface();

// A frame's shared surface on its way to the extension. Encoded as a map
// holding the surface object under "sharedSurface"; without a surface, or
// for any coder but the IPC arguments (encodeWithCoder(nullptr)), nothing is
// written (an empty map). The receiver maps the surface read-only; one that
// cannot be imported leaves the decoded object without a surface.
class SVSharedSurfaceObject {
  public:
    SVSharedSurfaceObject() = default;
    explicit SVSharedSurfaceObject(std::shared_ptr<SharedSurface> surface)
        : sharedSurface_(std::move(surface)) {}

    const std::shared_ptr<SharedSurface>& sharedSurface() const { return sharedSurface_; }
    // Setting the same surface again changes nothing; null allowed.
    void setSharedSurface(std::shared_ptr<SharedSurface> surface) {
        if (surface != sharedSurface_) sharedSurface_ = std::move(surface);
    }

    // `coder`: the arguments of the IPC message the map goes into (they
    // carry the surface's descriptor); null for any other coder.
    Value encodeWithCoder(ipc::Arguments* coder) const;
    // `coder`: the received IPC arguments holding the map's objects; null
    // for any other coder.
    static SVSharedSurfaceObject initWithCoder(const Value& encoded, const ipc::Received* coder);
    static bool supportsSecureCoding() { return true; }

  private:
    std::shared_ptr<SharedSurface> sharedSurface_;
};

// The 72-byte timing record of `timing` (little-endian, as the wire needs).
Bytes timingRecordBytes(const SampleTimingInfo& timing);
// The record back; nullopt unless `bytes` is exactly 72 bytes long.
std::optional<SampleTimingInfo> timingFromRecordBytes(const Bytes& bytes);

// The self-contained audio format map of a payload, and back (nullopt when
// a field is missing or out of range).
Value audioFormatValue(const AudioStreamFormat& format);
std::optional<AudioStreamFormat> audioFormatFromValue(const Value& value);

}  // namespace sv
