// What the whole IPC library shares: its error values, the runtime
// directory of named services and the count of open connections.
#include "platform/ipc/ipc.h"

#include <cstdlib>

#include "platform/ipc/connection_impl.h"

namespace sv::ipc {
namespace {

std::mutex gRuntimeMutex;
std::string gRuntimeDirectory;

}  // namespace

namespace detail {

std::atomic<size_t>& openConnectionCounter() {
    static std::atomic<size_t> count{0};
    return count;
}

std::atomic<size_t>& outgoingMessageCounter() {
    static std::atomic<size_t> count{0};
    return count;
}

}  // namespace detail

Error makeError(int64_t code) {
    const char* what = "IPC error";
    switch (code) {
        case kErrorConnectionInterrupted:
            what = "connection interrupted";
            break;
        case kErrorConnectionInvalid:
            what = "connection invalid";
            break;
        case kErrorSendQueueFull:
            what = "peer is not reading; message not sent";
            break;
        case kErrorMessageRejected:
            what = "message does not fit the interface or a limit";
            break;
        case kErrorTooManyPendingReplies:
            what = "too many calls wait for a reply";
            break;
        case kErrorCannotListen:
            what = "cannot listen";
            break;
        case kErrorCannotOpenFile:
            what = "cannot open the file";
            break;
    }
    Value info = Value::object();
    info[kLocalizedDescriptionKey] = what;
    return Error{kIPCErrorDomain, code, std::move(info)};
}

void setRuntimeDirectory(std::string directory) {
    std::lock_guard lock(gRuntimeMutex);
    gRuntimeDirectory = std::move(directory);
}

std::string runtimeDirectory() {
    {
        std::lock_guard lock(gRuntimeMutex);
        if (!gRuntimeDirectory.empty()) return gRuntimeDirectory;
    }
    for (const char* var : {"SORVEL_RUNTIME_DIR", "XDG_RUNTIME_DIR"}) {
        const char* v = std::getenv(var);
        if (v && *v) return v;
    }
    return "/tmp";
}

std::string servicePath(const std::string& serviceName) {
    std::string dir = runtimeDirectory();
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir + "/" + serviceName;
}

size_t openConnectionCount() {
    return detail::openConnectionCounter().load();
}

size_t outgoingMessageCount() {
    return detail::outgoingMessageCounter().load();
}

}  // namespace sv::ipc
