#include "broadcast/broadcast_extension_proxy.h"

#include <signal.h>

#include "broadcast/broadcast_payload.h"
#include "platform/extension/extension_item.h"
#include "platform/log.h"
#include "protocol/broadcast_extension.h"
#include "support/recording_errors.h"

namespace sv {

Result<std::shared_ptr<SVBroadcastExtensionProxy>>
SVBroadcastExtensionProxy::initWithBroadcastUploadExtension(
    std::shared_ptr<AppExtension> extension) {
    std::shared_ptr<SVBroadcastExtensionProxy> proxy(
        new SVBroadcastExtensionProxy(std::move(extension)));
    auto listener = ipc::Listener::anonymous();
    if (!listener) return listener.error();
    proxy->listener_ = std::move(*listener);
    proxy->listener_->setDelegate(std::weak_ptr<ipc::ListenerDelegate>(proxy));
    proxy->listener_->resume();
    proxy->listenerEndpoint_ = proxy->listener_->endpoint();
    return proxy;
}

SVBroadcastExtensionProxy::~SVBroadcastExtensionProxy() {
    // A proxy dropped without invalidateConnection still closes its link
    // (and reports nothing: its handlers refer to it weakly).
    if (listener_) listener_->invalidate();
    if (connection_) connection_->invalidate();
}

void SVBroadcastExtensionProxy::setServiceInfoHandler(ServiceInfoHandler handler) {
    std::lock_guard lock(mutex_);
    serviceInfoHandler_ = std::move(handler);
}

void SVBroadcastExtensionProxy::setErrorHandler(ErrorHandler handler) {
    std::lock_guard lock(mutex_);
    errorHandler_ = std::move(handler);
}

std::shared_ptr<ipc::Connection> SVBroadcastExtensionProxy::connection() const {
    std::lock_guard lock(mutex_);
    return connection_;
}

void SVBroadcastExtensionProxy::establishConnectionWithHandler(ReadyHandler handler) {
    ipc::Endpoint endpoint;
    {
        std::lock_guard lock(mutex_);
        connectionReadyHandler_ = std::move(handler);
        endpoint = listenerEndpoint_;
    }
    std::vector<ExtensionItem> items;
    items.push_back(
        ExtensionItem::itemWithTitle(kBroadcastProcessExtensionListenerEndpoint, endpoint));
    log::info("calling beingExtensionRequest: %@", extension_->description());
    std::weak_ptr<SVBroadcastExtensionProxy> weak = weak_from_this();
    extension_->beginExtensionRequestWithInputItems(
        std::move(items), {}, [weak](std::string, OptionalError error) {
            if (!error) {
                log::info("beginExtensionRequestWithInputItems returned");
                return;
            }
            log::error("Error beginning extension request: %i", int32_t(error->code));
            auto self = weak.lock();
            if (!self) return;
            ReadyHandler ready;
            {
                std::lock_guard lock(self->mutex_);
                ready = self->connectionReadyHandler_;
            }
            if (ready) ready(error);
        });
}

bool SVBroadcastExtensionProxy::listenerShouldAcceptNewConnection(
    ipc::Listener&, const std::shared_ptr<ipc::Connection>& connection) {
    std::weak_ptr<SVBroadcastExtensionProxy> weak = weak_from_this();
    {
        std::lock_guard lock(mutex_);
        if (invalidated_) return false;
        if (connection_) {
            // The endpoint went to one extension process; a second
            // connection is not what that process needs.
            log::error("SVBroadcastExtensionProxy: a second connection refused");
            return false;
        }
        connection_ = connection;
    }
    auto table = std::make_shared<ipc::MethodTable>();
    table->on(kBroadcastPingMethod, [weak](ipc::Invocation&) {
        if (auto self = weak.lock()) self->ping();
    });
    table->on(kBroadcastUpdateServiceInfoMethod, [weak](ipc::Invocation& inv) {
        if (auto self = weak.lock()) self->updateServiceInfo(inv.at(0));
    });
    connection->setExportedInterface(broadcastDaemonProtocolInterface());
    connection->setExportedObject(table);
    connection->setRemoteObjectInterface(broadcastExtensionProtocolInterface());
    connection->setInvalidationHandler([weak] {
        log::error("connection to broadcast extension invalidated");
        if (auto self = weak.lock()) self->reportBroadcastError();
    });
    connection->setInterruptionHandler(
        [] { log::error("connection to broadcast extension interrupted"); });
    connection->resume();
    return true;
}

void SVBroadcastExtensionProxy::ping() {
    log::info("received ping from extension, notifying handler that connection is ready");
    ReadyHandler ready;
    {
        std::lock_guard lock(mutex_);
        ready = connectionReadyHandler_;
    }
    if (ready) ready(std::nullopt);
}

void SVBroadcastExtensionProxy::updateServiceInfo(const Value& serviceInfo) {
    log::info("received serviceInfo");
    ServiceInfoHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = serviceInfoHandler_;
    }
    if (handler) handler(serviceInfo);
}

void SVBroadcastExtensionProxy::reportBroadcastError() const {
    ErrorHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = errorHandler_;
    }
    if (handler) handler(_svUserErrorForCode(kSVRecordingErrorBroadcast));
}

ipc::ErrorHandler SVBroadcastExtensionProxy::remoteErrorHandler() const {
    std::weak_ptr<const SVBroadcastExtensionProxy> weak = weak_from_this();
    return [weak](const Error& error) {
        static log::RateLimit limit;
        log::error(limit, "error getting remote proxy to extension: %i", int32_t(error.code));
        if (auto self = weak.lock()) self->reportBroadcastError();
    };
}

void SVBroadcastExtensionProxy::processPayload(Value payload, Completion completion) {
    auto c = connection();
    if (!c) return;  // no extension connected: dropped, never acknowledged
    ipc::Arguments args;
    args.add(std::move(payload));
    c->remoteObjectProxyWithErrorHandler(remoteErrorHandler())
        .call(kBroadcastProcessPayloadMethod, args,
              [completion = std::move(completion)](const ipc::Received&) {
                  if (completion) completion();
              });
}

bool SVBroadcastExtensionProxy::processSamplePayload(SampleKind kind, ipc::Arguments args,
                                                     std::shared_ptr<void> keep) {
    const bool video = kind == SampleKind::Video;
    auto& inFlight = video ? videoInFlight_ : audioInFlight_;
    auto& dropped = video ? videoDropped_ : audioDropped_;
    auto c = connection();
    const int limit = video ? kMaxVideoPayloadsInFlight : kMaxAudioPayloadsInFlight;
    if (!c || inFlight.fetch_add(1) >= limit) {
        if (c) inFlight.fetch_sub(1);
        dropped.fetch_add(1);
        return false;
    }
    (video ? videoSent_ : audioSent_).fetch_add(1);
    if (video && args.size() == 1 && args.values()[0].is_object()) {
        uint64_t copied = 0;
        for (const auto& [key, value] : args.values()[0].items())
            if (const Bytes* bytes = bytesOf(value); bytes && key != kPayloadKeyTimingInfo)
                copied += bytes->size();
        videoBytesCopied_.fetch_add(copied);
    }
    // One of the two closures runs, once: each gives the slot back.
    std::weak_ptr<SVBroadcastExtensionProxy> weak = weak_from_this();
    auto release = [weak, video] {
        if (auto self = weak.lock()) (video ? self->videoInFlight_ : self->audioInFlight_)--;
    };
    auto failed = remoteErrorHandler();
    c->remoteObjectProxyWithErrorHandler([failed, release](const Error& error) {
         release();
         failed(error);
     })
        .call(kBroadcastProcessPayloadMethod, args,
              [release, keep = std::move(keep)](const ipc::Received&) { release(); });
    return true;
}

void SVBroadcastExtensionProxy::invalidateConnection() {
    log::info("invalidating connection with extension");
    std::shared_ptr<ipc::Connection> connection;
    std::shared_ptr<ipc::Listener> listener;
    {
        std::lock_guard lock(mutex_);
        if (invalidated_) return;
        invalidated_ = true;
        connectionReadyHandler_ = nullptr;
        connection.swap(connection_);
        listener.swap(listener_);
    }
    if (connection) {
        // Cleared first, so ending the link reports nothing.
        connection->setInvalidationHandler(nullptr);
        connection->setInterruptionHandler(nullptr);
        connection->invalidate();
    }
    if (listener) listener->invalidate();
    extension_->_kill(SIGKILL);
}

SVBroadcastExtensionProxy::Statistics SVBroadcastExtensionProxy::statistics() const {
    return {videoSent_.load(), videoDropped_.load(), audioSent_.load(), audioDropped_.load(),
            videoBytesCopied_.load()};
}

}  // namespace sv
