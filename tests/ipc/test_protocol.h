// The interface that the IPC tests export in both directions.
#pragma once

#include <memory>

#include "platform/ipc/ipc.h"

namespace sv::ipctest {
using namespace sv::ipc;

inline std::shared_ptr<const Interface> testInterface() {
    using K = ArgKind;
    static auto i = std::make_shared<const Interface>(
        "SVTestProtocol",
        std::vector<MethodSpec>{
            {"hello:", {{K::Int}}, {}},
            {"count:", {{K::Int}}, {}},
            {"ping", {}, {}},
            {"echo:withReply:", {{K::Any}, {K::Handler}}, {{K::Any}}},
            {"dropReply:withReply:", {{K::Any}, {K::Handler}}, {{K::Any}}},
            {"die:withReply:", {{K::Int}, {K::Handler}}, {{K::Int}}},
            {"takeSurface:withReply:", {{K::Surface}, {K::Handler}}, {{K::Dictionary}}},
            {"readFile:withReply:", {{K::FileToken}, {K::Handler}}, {{K::Bytes}}},
            {"endpointWithReply:", {{K::Handler}}, {{K::Endpoint}}},
            {"block:", {{K::Int}}, {}},
        });
    return i;
}

}  // namespace sv::ipctest
