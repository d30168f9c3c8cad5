// The shell channel: the operating system's side (lock screen, storage
// service) tells the daemon what happens on the device. The daemon exports
// SVShellProtocol on its service "org.sorvel.sorveld.shell"; only the
// operating system's side connects there. Shared by the daemon and the
// client library (header only).
#pragma once

#include <memory>

#include "platform/ipc/wire.h"

namespace sv {

inline constexpr const char* kDaemonServiceName = "org.sorvel.sorveld";
inline constexpr const char* kShellServiceName = "org.sorvel.sorveld.shell";

// Wire names of SVShellProtocol. Every method has a completion handler so
// that the caller learns that the daemon handled it.
//   lockButtonPressedWithHandler:                      -> ()
//   purgeableSpaceWithUrgency:handler:  (int urgency)  -> (int bytes)
//   purgeWithAmount:urgency:handler:    (int, int)     -> (int bytes)
//   cancelPurgeWithHandler:                            -> ()
//   periodicWithAmount:urgency:handler: (int, int)     -> (int bytes)
inline std::shared_ptr<const ipc::Interface> shellProtocolInterface() {
    using K = ipc::ArgKind;
    static auto i = std::make_shared<const ipc::Interface>(
        "SVShellProtocol",
        std::vector<ipc::MethodSpec>{
            {"lockButtonPressedWithHandler:", {{K::Handler}}, {}},
            {"purgeableSpaceWithUrgency:handler:", {{K::Int}, {K::Handler}}, {{K::Int}}},
            {"purgeWithAmount:urgency:handler:", {{K::Int}, {K::Int}, {K::Handler}}, {{K::Int}}},
            {"cancelPurgeWithHandler:", {{K::Handler}}, {}},
            {"periodicWithAmount:urgency:handler:", {{K::Int}, {K::Int}, {K::Handler}}, {{K::Int}}},
        });
    return i;
}

}  // namespace sv
