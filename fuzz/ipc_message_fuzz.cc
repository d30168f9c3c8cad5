// Feeds arbitrary datagrams to the IPC message decoder, as a call against an
// interface with every argument kind and as a reply, with and without a
// descriptor attached (a read-only file, which matches the "file" kind).
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "platform/ipc/wire.h"

using namespace sv::ipc;

namespace {

const Interface& fuzzInterface() {
    using K = ArgKind;
    static const Interface i("SVFuzzProtocol",
                             {
                                 {"all:kinds:of:arguments:here:",
                                  {{K::Bool}, {K::Int}, {K::Number}, {K::String}, {K::Bytes}},
                                  {}},
                                 {"objects:endpoint:file:handler:",
                                  {{K::Surface}, {K::Endpoint}, {K::FileToken}, {K::Handler}},
                                  {{K::Any}}},
                                 {"collections:dictionary:any:",
                                  {orNull(K::Array), orNull(K::Dictionary), {K::Any}},
                                  {}},
                                 {"int32:uint32:int64:handler:",
                                  {{K::Int32}, {K::UInt32}, {K::Int64}, {K::Handler}},
                                  {{K::Int64}}},
                                 {"ping", {}, {}},
                             });
    return i;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::vector<ArgSpec> replySpec{{ArgKind::Any}, orNull(ArgKind::Dictionary)};
    ReplySpecLookup lookup = [](uint64_t id) { return id % 2 ? &replySpec : nullptr; };
    std::span<const uint8_t> bytes(data, size);
    decodeMessage(bytes, {}, &fuzzInterface(), lookup);
    std::vector<UniqueFd> fds;
    fds.emplace_back(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    auto r = decodeMessage(bytes, std::move(fds), &fuzzInterface(), lookup);
    if (r.message) {
        const Received& a = r.message->arguments;
        for (size_t i = 0; i < a.size(); ++i) {
            (void)a.integerAt<int32_t>(i);
            (void)a.integerAt<uint64_t>(i);
            (void)a.surfaceAt(i);
            (void)a.endpointAt(i);
            (void)a.fileTokenAt(i);
        }
    }
    return 0;
}
