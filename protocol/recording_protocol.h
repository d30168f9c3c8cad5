// The recording service's application-facing protocols and the recording
// service's methods on the shell channel. Shared by the daemon, the client
// library, the `sorvel` tool and clients in other languages
// (docs/ipc-wire-format.md describes the same interfaces).
//
// Value conventions on the wire:
// - window size: {"width": number, "height": number} (pixels, 32-bit floats)
// - error or nothing: null, or {"domain": text, "code": int, "userInfo": map}
//   (Error::toValue); recording errors use "org.sorvel.SVRecordingErrorDomain"
// - movie location or nothing: null, or a "file://..." URL as text
// - layer context identifiers: unsigned 32-bit integers
//
// Every method is one-way; results come back only through its completion
// handler, which the receiver calls at most once.
#pragma once

#include <memory>
#include <vector>

#include "platform/ipc/wire.h"

namespace sv {

// Wire names of the methods below, one constant each for both sides.
namespace method {
inline constexpr const char* kStartRecording =
    "startRecordingWindowLayerContextIDs:windowSize:microphoneEnabled:cameraEnabled:"
    "broadcast:systemRecording:withHandler:";
inline constexpr const char* kSetupBroadcast =
    "setupBroadcastWithHostBundleID:broadcastExtensionBundleID:broadcastConfigurationData:"
    "userInfo:handler:";
inline constexpr const char* kStopRecording = "stopRecordingWithHandler:";
inline constexpr const char* kStopRecordingWithClip =
    "stopRecordingWithStartClipDuration:endClipDuration:handler:";
inline constexpr const char* kPauseRecording = "pauseRecording";
inline constexpr const char* kResumeRecording = "resumeRecordingWithWindowLayerContextID:";
inline constexpr const char* kSetMicrophoneEnabled = "setMicrophoneEnabled:";
inline constexpr const char* kDiscardRecording = "discardRecordingWithHandler:";
inline constexpr const char* kClientDidBecomeActive = "clientDidBecomeActiveWithBundleID:";
inline constexpr const char* kClientDidResignActive = "clientDidResignActiveWithBundleID:";
// SVClientProtocol
inline constexpr const char* kStopRecordingWithError = "stopRecordingWithError:movieURL:";
inline constexpr const char* kUpdateBroadcastServiceInfo = "updateBroadcastServiceInfo:";
// SVConsentAgentProtocol
inline constexpr const char* kPresentAlert = "presentAlert:handler:";
// The shell channel's recording methods
inline constexpr const char* kRegisterConsentAgent =
    "registerConsentAgentWithPreferredLanguages:handler:";
inline constexpr const char* kLayerContextIDsForCaller = "layerContextIDsForCallerWithHandler:";
}  // namespace method

// Exported by the daemon on its application service (application to daemon).
//   startRecordingWindowLayerContextIDs:windowSize:microphoneEnabled:cameraEnabled:
//       broadcast:systemRecording:withHandler:
//       (array of ints, size, bool, bool, bool, bool) -> (error?, bool microphone, bool camera)
//   setupBroadcastWithHostBundleID:broadcastExtensionBundleID:broadcastConfigurationData:
//       userInfo:handler:  (text, text, bytes?, map?) -> (error?)
//   stopRecordingWithHandler:                        -> (movie?, error?)
//   stopRecordingWithStartClipDuration:endClipDuration:handler: (number, number)
//                                                    -> (movie?, error?)
//   pauseRecording
//   resumeRecordingWithWindowLayerContextID:  (uint32)
//   setMicrophoneEnabled:                     (bool)
//   discardRecordingWithHandler:                     -> ()
//   clientDidBecomeActiveWithBundleID:        (text)
//   clientDidResignActiveWithBundleID:        (text)
inline std::shared_ptr<const ipc::Interface> daemonProtocolInterface() {
    using K = ipc::ArgKind;
    using ipc::orNull;
    static auto i = std::make_shared<const ipc::Interface>(
        "SVDaemonProtocol",
        std::vector<ipc::MethodSpec>{
            {method::kStartRecording,
             {{K::Array},
              {K::Dictionary},
              {K::Bool},
              {K::Bool},
              {K::Bool},
              {K::Bool},
              {K::Handler}},
             {orNull(K::Dictionary), {K::Bool}, {K::Bool}}},
            {method::kSetupBroadcast,
             {{K::String}, {K::String}, orNull(K::Bytes), orNull(K::Dictionary), {K::Handler}},
             {orNull(K::Dictionary)}},
            {method::kStopRecording, {{K::Handler}}, {orNull(K::String), orNull(K::Dictionary)}},
            {method::kStopRecordingWithClip,
             {{K::Number}, {K::Number}, {K::Handler}},
             {orNull(K::String), orNull(K::Dictionary)}},
            {method::kPauseRecording, {}, {}},
            {method::kResumeRecording, {{K::UInt32}}, {}},
            {method::kSetMicrophoneEnabled, {{K::Bool}}, {}},
            {method::kDiscardRecording, {{K::Handler}}, {}},
            {method::kClientDidBecomeActive, {{K::String}}, {}},
            {method::kClientDidResignActive, {{K::String}}, {}},
        });
    return i;
}

// Exported by the application on its connection (daemon to application).
//   stopRecordingWithError:movieURL:  (error?, movie?)
//   updateBroadcastServiceInfo:       (map)
inline std::shared_ptr<const ipc::Interface> clientProtocolInterface() {
    using K = ipc::ArgKind;
    using ipc::orNull;
    static auto i = std::make_shared<const ipc::Interface>(
        "SVClientProtocol",
        std::vector<ipc::MethodSpec>{
            {method::kStopRecordingWithError, {orNull(K::Dictionary), orNull(K::String)}, {}},
            {method::kUpdateBroadcastServiceInfo, {{K::Dictionary}}, {}},
        });
    return i;
}

// Exported by a consent agent on its shell-channel connection, after it has
// registered (daemon to agent). The alert is
//   {"title": text, "message": text, "defaultButton": text,
//    "alternateButton": text or null, "otherButton": text or null}
// and the answer one of "default", "alternate", "other", "cancel".
//   presentAlert:handler:  (map) -> (text)
inline std::shared_ptr<const ipc::Interface> consentAgentProtocolInterface() {
    using K = ipc::ArgKind;
    static auto i = std::make_shared<const ipc::Interface>(
        "SVConsentAgentProtocol",
        std::vector<ipc::MethodSpec>{
            {method::kPresentAlert, {{K::Dictionary}, {K::Handler}}, {{K::String}}},
        });
    return i;
}

// Errors of the shell channel's recording methods (besides the IPC layer's
// own): domain kSVShellErrorDomain, with a message under the error's
// localized-description key.
inline constexpr const char* kSVShellErrorDomain = "org.sorvel.SVShellErrorDomain";
enum SVShellErrorCode : int64_t {
    kSVShellErrorNotSynthetic = 1,     // the method drives the synthetic platform; this is not it
    kSVShellErrorInvalidArgument = 2,  // a value out of range or of the wrong form
    kSVShellErrorNotAllowed = 3,       // the daemon was not started to allow this
    kSVShellErrorNoApplication = 4,    // the caller's process lies in no bundle
};

// The recording service's methods of the shell channel, added to the shell
// protocol's own. Those that drive the synthetic platform answer with an
// error on a real display.
//   registerConsentAgentWithPreferredLanguages:handler: (array of text) -> (error?)
//       the calling connection becomes the consent agent (the newest one wins)
//       when its process is a trusted executable; others get error 3
//   layerContextIDsForCallerWithHandler:      -> (array of ints, error?)
//       the synthetic window system's layers of the calling process
//   setApplicationState:foreground:processIdentifier:handler: (text, bool, int32) -> (error?)
//   setDisplayLayoutLevels:handler:  (array of ints or null) -> (error?)
//       null returns to the layout made from the display's layers
//   setDisplayTransformFlags:handler:  (int) -> (error?)
//   injectScreenCaptureFailure:handler:  (text "failed"|"preempted"|"reset") -> (error?)
//   recordingStatusForCallerWithHandler:  -> (map or null)
//       the recording of the calling process's application, null when it has
//       no session: {"bundleID": text, "recording": bool, "paused": bool,
//       "microphoneEnabled": bool, "systemRecording": bool, "elapsed": seconds
//       recorded without pauses, "framesWritten": int, "movieBytes": int}
//   advanceClockBy:handler:  (number, seconds >= 0) -> (error?)
//       moves the daemon's clock of consent exemptions forward; only for a
//       daemon started with --test-clock, an error otherwise
inline std::vector<ipc::MethodSpec> recordingShellMethods() {
    using K = ipc::ArgKind;
    using ipc::orNull;
    return {
        {method::kRegisterConsentAgent, {{K::Array}, {K::Handler}}, {orNull(K::Dictionary)}},
        {method::kLayerContextIDsForCaller,
         {{K::Handler}},
         {orNull(K::Array), orNull(K::Dictionary)}},
        {"setApplicationState:foreground:processIdentifier:handler:",
         {{K::String}, {K::Bool}, {K::Int32}, {K::Handler}},
         {orNull(K::Dictionary)}},
        {"setDisplayLayoutLevels:handler:",
         {orNull(K::Array), {K::Handler}},
         {orNull(K::Dictionary)}},
        {"setDisplayTransformFlags:handler:", {{K::Int}, {K::Handler}}, {orNull(K::Dictionary)}},
        {"injectScreenCaptureFailure:handler:",
         {{K::String}, {K::Handler}},
         {orNull(K::Dictionary)}},
        {"recordingStatusForCallerWithHandler:", {{K::Handler}}, {orNull(K::Dictionary)}},
        {"advanceClockBy:handler:", {{K::Number}, {K::Handler}}, {orNull(K::Dictionary)}},
    };
}

}  // namespace sv
