// What the service and a broadcast extension exchange: for an upload
// extension, the titles of each request's input items (in their order) and of
// the items it may return; for a processing extension, the live link's
// methods and the keys of its payloads. docs/extension-sdk.md describes them
// for extensions written without the SDK.
#pragma once

namespace sv {

// Input items: the finished flag ("1" for the last fragment, else "0"), the
// read-only token of the fragment's file (a text; the request's file grants
// map it to the descriptor), the application's user info (a map, or null),
// the fragment's "file://" URL.
inline constexpr const char* kBroadcastExtensionKeyRequestedFinish =
    "SVBroadcastExtensionKeyRequestedFinish";
inline constexpr const char* kBroadcastExtensionKeyExtensionSandboxToken =
    "SVBroadcastExtensionKeyExtensionSandboxToken";
inline constexpr const char* kBroadcastExtensionKeyExtensionUserInfo =
    "SVBroadcastExtensionKeyExtensionUserInfo";
inline constexpr const char* kBroadcastExtensionKeyMovieClipURL =
    "SVBroadcastExtensionKeyMovieClipURL";
// Returned items: an encoded SVBroadcastConfiguration (bytes) and service
// information (a map).
inline constexpr const char* kBroadcastExtensionKeyBroadcastConfiguration =
    "SVBroadcastExtensionKeyBroadcastConfiguration";
inline constexpr const char* kBroadcastExtensionKeyExtensionServiceInfo =
    "SVBroadcastExtensionKeyExtensionServiceInfo";
// The class of the fragments' read-only file-access tokens.
inline constexpr const char* kBroadcastFileTokenClass = "org.sorvel.sorveld.read-only";

// --- Processing extensions (sample-buffer mode) ---------------------------
// The one input item of the request that starts a processing extension: the
// endpoint (an IPC object) of the service's private listener for this
// broadcast. The extension connects to it, exports kBroadcastExtensionProtocol
// and calls `ping` once it is ready for payloads.
inline constexpr const char* kBroadcastProcessExtensionListenerEndpoint =
    "SVBroadcastProcessExtensionListenerEndpoint";
// Extension -> service: `ping` (no arguments, no reply) and
// `updateServiceInfo:` (a map for the application).
inline constexpr const char* kBroadcastDaemonProtocol = "SVBroadcastDaemonProtocol";
inline constexpr const char* kBroadcastPingMethod = "ping";
inline constexpr const char* kBroadcastUpdateServiceInfoMethod = "updateServiceInfo:";
// Service -> extension: `processPayload:completion:` (a payload map; the
// empty reply acknowledges it).
inline constexpr const char* kBroadcastExtensionProtocol = "SVBroadcastExtensionProtocol";
inline constexpr const char* kBroadcastProcessPayloadMethod = "processPayload:completion:";

// Payload keys. An action payload holds the action (1 start, 2 pause,
// 3 resume, 4 finish) and the user info (absent when there is none); a video
// payload the sample type 1, the frame's shared surface (a map holding the
// surface object under "sharedSurface", or an empty map) and its timing; an
// audio payload the sample type (2 application, 3 microphone), the bytes of
// its one buffer, its format (a map: see kAudioFormatKey*), its timing and
// its sample count. Timing: the 72-byte record of duration, presentation and
// decode time, each {int64 value, int32 timescale, uint32 flags, int64 epoch}
// little-endian.
inline constexpr const char* kPayloadKeyActionType =
    "SVBroadcastProcessExtensionPayloadKeyActionType";
inline constexpr const char* kPayloadKeySampleType =
    "SVBroadcastProcessExtensionPayloadKeySampleType";
inline constexpr const char* kPayloadKeySharedSurface =
    "SVBroadcastProcessExtensionPayloadKeySharedSurface";
inline constexpr const char* kPayloadKeyTimingInfo =
    "SVBroadcastProcessExtensionPayloadKeyTimingInfo";
inline constexpr const char* kPayloadKeyAudioBufferList =
    "SVBroadcastProcessExtensionPayloadKeyAudioBufferList";
inline constexpr const char* kPayloadKeyFormatDesc =
    "SVBroadcastProcessExtensionPayloadKeyFormatDesc";
inline constexpr const char* kPayloadKeyNumSamples =
    "SVBroadcastProcessExtensionPayloadKeyNumSamples";
// The surface object's key inside the shared-surface map.
inline constexpr const char* kSharedSurfaceObjectKey = "sharedSurface";
// The audio format map: a self-contained description of linear audio.
inline constexpr const char* kAudioFormatKeySampleRate = "sampleRate";
inline constexpr const char* kAudioFormatKeyFormatID = "formatID";
inline constexpr const char* kAudioFormatKeyFormatFlags = "formatFlags";
inline constexpr const char* kAudioFormatKeyBytesPerPacket = "bytesPerPacket";
inline constexpr const char* kAudioFormatKeyFramesPerPacket = "framesPerPacket";
inline constexpr const char* kAudioFormatKeyBytesPerFrame = "bytesPerFrame";
inline constexpr const char* kAudioFormatKeyChannelsPerFrame = "channelsPerFrame";
inline constexpr const char* kAudioFormatKeyBitsPerChannel = "bitsPerChannel";

}  // namespace sv
