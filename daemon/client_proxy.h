// SVClientProxy: the daemon's handle for calling back into one application
// (SVClientProtocol) over the connection that application made.
//
// Ownership: a recording session owns its proxy (clientProxy); the proxy
// refers to its connection without owning it. The IPC layer keeps an accepted
// connection alive while its socket is open, so once the application goes
// away (or its connection is replaced by a newer one and invalidated) the
// proxy's calls fail and are logged.
//
// Threads: every method may be called from any thread and returns at once;
// the calls are sent by the IPC layer's I/O thread. A call that cannot be
// delivered is logged at error level with its IPC error code and dropped:
// the callback is lost, nothing is retried.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/error.h"
#include "platform/ipc/ipc.h"
#include "platform/url.h"
#include "platform/value.h"

namespace sv {

class SVClientProxy {
  public:
    // Keeps a copy of the identifier and a non-owning reference to the
    // connection, and notes the connection's peer process.
    static std::shared_ptr<SVClientProxy> initWithBundleIdentifier(
        std::string bundleIdentifier, const std::shared_ptr<ipc::Connection>& connection);

    // The connection while it still exists, else null.
    std::shared_ptr<ipc::Connection> connection() const { return connection_.lock(); }
    const std::string& bundleIdentifier() const { return bundleIdentifier_; }
    // The peer process of the connection when it was accepted.
    pid_t processIdentifier() const { return processIdentifier_; }

    // SVClientProtocol, forwarded to the application.
    void stopRecordingWithError(const OptionalError& error, const std::optional<URL>& movieURL);
    void updateBroadcastServiceInfo(const Value& serviceInfo);
    // recordingWarning: with `code` (SVRecordingWarningCode) and `message`.
    // Only for a connection that sent enableRecordingWarnings: the caller checks.
    void recordingWarning(int64_t code, const std::string& message);

    std::string description() const;

  private:
    SVClientProxy(std::string bundleIdentifier, const std::shared_ptr<ipc::Connection>& connection);

    std::weak_ptr<ipc::Connection> connection_;
    const std::string bundleIdentifier_;
    const pid_t processIdentifier_;
};

}  // namespace sv
