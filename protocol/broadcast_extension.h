// What the service and a broadcast upload extension exchange in each
// extension request: the titles of the input items (in their order) and of
// the items the extension may return. docs/extension-sdk.md describes them
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

}  // namespace sv
