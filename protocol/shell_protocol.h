// The shell channel: the operating system's side (lock screen, storage
// service) tells the daemon what happens on the device. The daemon exports
// SVShellProtocol on its service kShellServiceName; only the operating
// system's side connects there.
//
// Integer arguments carry the width the daemon works with: a value outside
// it does not fit the interface, so the call is rejected before it reaches
// the daemon (and a sender using this library gets kErrorMessageRejected).
#pragma once

#include <memory>
#include <vector>

#include "platform/ipc/wire.h"
#include "protocol/service_names.h"

namespace sv {

// Wire names of SVShellProtocol. Every method has a completion handler so
// that the caller learns that the daemon handled it.
//   lockButtonPressedWithHandler:                                   -> ()
//   purgeableSpaceWithUrgency:handler:  (int32 urgency)             -> (int64 bytes)
//   purgeWithAmount:urgency:handler:    (int64 amount, int32 urgency) -> (int64 bytes)
//   cancelPurgeWithHandler:                                         -> ()
//   periodicWithAmount:urgency:handler: (int64 amount, int32 urgency) -> (int64 bytes)
inline std::vector<ipc::MethodSpec> shellProtocolMethods() {
    using K = ipc::ArgKind;
    return {
        {"lockButtonPressedWithHandler:", {{K::Handler}}, {}},
        {"purgeableSpaceWithUrgency:handler:", {{K::Int32}, {K::Handler}}, {{K::Int64}}},
        {"purgeWithAmount:urgency:handler:", {{K::Int64}, {K::Int32}, {K::Handler}}, {{K::Int64}}},
        {"cancelPurgeWithHandler:", {{K::Handler}}, {}},
        {"periodicWithAmount:urgency:handler:",
         {{K::Int64}, {K::Int32}, {K::Handler}},
         {{K::Int64}}},
    };
}

inline std::shared_ptr<const ipc::Interface> shellProtocolInterface() {
    static auto i =
        std::make_shared<const ipc::Interface>("SVShellProtocol", shellProtocolMethods());
    return i;
}

}  // namespace sv
