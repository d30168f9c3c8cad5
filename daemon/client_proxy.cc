#include "daemon/client_proxy.h"

#include "platform/log.h"
#include "protocol/recording_protocol.h"

namespace sv {
namespace {

using method::kRecordingWarning;
using method::kStopRecordingWithError;
using method::kUpdateBroadcastServiceInfo;

}  // namespace

std::shared_ptr<SVClientProxy> SVClientProxy::initWithBundleIdentifier(
    std::string bundleIdentifier, const std::shared_ptr<ipc::Connection>& connection) {
    return std::shared_ptr<SVClientProxy>(
        new SVClientProxy(std::move(bundleIdentifier), connection));
}

SVClientProxy::SVClientProxy(std::string bundleIdentifier,
                             const std::shared_ptr<ipc::Connection>& connection)
    : connection_(connection),
      bundleIdentifier_(std::move(bundleIdentifier)),
      processIdentifier_(connection ? connection->processIdentifier() : 0) {}

void SVClientProxy::stopRecordingWithError(const OptionalError& error,
                                           const std::optional<URL>& movieURL) {
    log::info("SVClientProxy:stopRecordingWithError:movieURL:");
    // An application that stopped reading gets every callback refused the
    // same way; one line per burst is enough.
    auto failed = [](const Error& e) {
        static log::RateLimit limit;
        log::error(limit, "SVClientProxy:recordingDidStopWithError: error getting remote proxy: %d",
                   int32_t(e.code));
    };
    auto connection = connection_.lock();
    if (!connection) {
        failed(ipc::makeError(ipc::kErrorConnectionInvalid));
        return;
    }
    ipc::Arguments args;
    args.add(error ? error->toValue() : Value(nullptr));
    args.add(movieURL ? Value(movieURL->absoluteString()) : Value(nullptr));
    connection->remoteObjectProxyWithErrorHandler(failed).call(kStopRecordingWithError, args);
}

void SVClientProxy::updateBroadcastServiceInfo(const Value& serviceInfo) {
    log::info("SVClientProxy:updateBroadcastServiceInfo:");
    auto failed = [](const Error& e) {
        static log::RateLimit limit;
        log::error(limit,
                   "SVClientProxy:updateBroadcastServiceInfo: error getting remote proxy: %d",
                   int32_t(e.code));
    };
    auto connection = connection_.lock();
    if (!connection) {
        failed(ipc::makeError(ipc::kErrorConnectionInvalid));
        return;
    }
    connection->remoteObjectProxyWithErrorHandler(failed).call(kUpdateBroadcastServiceInfo,
                                                               ipc::Arguments().add(serviceInfo));
}

void SVClientProxy::recordingWarning(int64_t code, const std::string& message) {
    log::info("SVClientProxy:recordingWarning: %li", long(code));
    auto failed = [](const Error& e) {
        static log::RateLimit limit;
        log::error(limit, "SVClientProxy:recordingWarning: error getting remote proxy: %d",
                   int32_t(e.code));
    };
    auto connection = connection_.lock();
    if (!connection) {
        failed(ipc::makeError(ipc::kErrorConnectionInvalid));
        return;
    }
    Value warning = Value::object();
    warning[kRecordingWarningCodeKey] = code;
    warning[kRecordingWarningMessageKey] = message;
    connection->remoteObjectProxyWithErrorHandler(failed).call(kRecordingWarning,
                                                               ipc::Arguments().add(warning));
}

std::string SVClientProxy::description() const {
    return "<SVClientProxy " + bundleIdentifier_ + " pid " + std::to_string(processIdentifier_) +
           ">";
}

}  // namespace sv
