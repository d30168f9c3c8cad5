// The operating system's side of the shell channel: tells the daemon that
// the lock button was pressed and relays the storage service's four
// purgeable-space calls.
//
// Every completion is called exactly once, on the client's connection queue:
// with the daemon's answer, or with an error (IPC error domain) when the
// daemon is not running, goes away mid-call, or does not answer within the
// timeout. The client may be used from any thread; destroying it invalidates
// its connection, after which no completion runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "daemon/protocol/shell_protocol.h"
#include "platform/ipc/ipc.h"

namespace sv {

class ShellClient {
  public:
    using Completion = std::function<void(OptionalError error)>;
    using SizeCompletion = std::function<void(std::optional<int64_t> bytes, OptionalError error)>;

    explicit ShellClient(std::string serviceName = kShellServiceName,
                         std::chrono::milliseconds timeout = std::chrono::seconds(30));
    ~ShellClient();
    ShellClient(const ShellClient&) = delete;
    ShellClient& operator=(const ShellClient&) = delete;

    void lockButtonPressed(Completion completion);
    void purgeableSpace(int32_t urgency, SizeCompletion completion);
    void purge(int64_t amount, int32_t urgency, SizeCompletion completion);
    void cancelPurge(Completion completion);
    void periodic(int64_t amount, int32_t urgency, SizeCompletion completion);

    // Blocking forms for tools and tests: the answer, or the error.
    struct Result {
        std::optional<int64_t> bytes;
        OptionalError error;
    };
    Result lockButtonPressedAndWait();
    Result purgeableSpaceAndWait(int32_t urgency);
    Result purgeAndWait(int64_t amount, int32_t urgency);
    Result cancelPurgeAndWait();
    Result periodicAndWait(int64_t amount, int32_t urgency);

  private:
    void send(const std::string& method, ipc::Arguments args, SizeCompletion completion);
    template <typename F>
    Result wait(F&& start);

    std::shared_ptr<ipc::Connection> connection_;
    std::chrono::milliseconds timeout_;
};

}  // namespace sv
