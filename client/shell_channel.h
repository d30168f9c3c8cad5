// The whole interface of the daemon's shell channel as its clients call it:
// the operating system's methods (lock button, storage) followed by the
// recording service's (consent agents, the synthetic platform, recording
// status). Header only.
#pragma once

#include <memory>
#include <vector>

#include "protocol/recording_protocol.h"
#include "protocol/service_names.h"
#include "protocol/shell_protocol.h"

namespace sv {

// The caller's recording status on the shell channel; listed here until the
// shared recording methods carry it.
inline ipc::MethodSpec recordingStatusShellMethod() {
    using K = ipc::ArgKind;
    return {"recordingStatusForCallerWithHandler:", {{K::Handler}}, {ipc::orNull(K::Dictionary)}};
}

inline std::shared_ptr<const ipc::Interface> shellChannelInterface() {
    static auto i = [] {
        auto base = shellProtocolInterface();
        std::vector<ipc::MethodSpec> methods = base->methods();
        for (auto& m : recordingShellMethods()) methods.push_back(m);
        auto status = recordingStatusShellMethod();
        bool listed = false;
        for (const auto& m : methods) listed = listed || m.name == status.name;
        if (!listed) methods.push_back(status);
        return std::make_shared<const ipc::Interface>(base->name(), std::move(methods));
    }();
    return i;
}

}  // namespace sv
