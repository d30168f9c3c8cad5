// SVBroadcastExtensionProxy: the service's end of the live link to a
// processing extension (sample-buffer mode). It opens a private, unnamed IPC
// listener, starts the extension with a request whose one item is the
// listener's endpoint, accepts the extension's connection (the first one
// only; later ones are refused), reports the link ready at the extension's
// `ping`, and from then on sends it payloads and receives its service
// information. invalidateConnection() ends the link and the extension's
// process.
//
// Sample payloads (frames, audio) never wait: at most kMaxSamplePayloadsInFlight
// of them are unacknowledged at once; a payload beyond that is dropped and
// counted (a slow extension loses frames, the recording goes on). Each
// sample payload holds what it refers to (the frame's surface) until the
// extension acknowledges it, so the capture's pool cannot reuse the pixels
// while the extension reads them.
//
// Ownership: the session owns the proxy. The listener's delegate, the
// connection's handlers and every closure hold the proxy weakly.
//
// Threads: every method may be called from any thread. The ready handler
// runs on the connection's queue (at `ping`) or on the extension handle's
// queue (the request could not begin), never on the caller's thread, so a
// caller may wait for it. The service-information and error handlers and
// payload completions run on the connection's queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/error.h"
#include "platform/extension/app_extension.h"
#include "platform/ipc/ipc.h"
#include "platform/value.h"

namespace sv {

class SVBroadcastExtensionProxy : public ipc::ListenerDelegate,
                                  public std::enable_shared_from_this<SVBroadcastExtensionProxy> {
  public:
    using ServiceInfoHandler = std::function<void(const Value& serviceInfo)>;
    using ErrorHandler = std::function<void(const Error& error)>;
    using ReadyHandler = std::function<void(OptionalError error)>;
    using Completion = std::function<void()>;

    // Unacknowledged sample payloads of one kind (video, audio) at most.
    static constexpr int kMaxVideoPayloadsInFlight = 6;
    static constexpr int kMaxAudioPayloadsInFlight = 64;

    // A proxy with a running listener for `extension`; an error when the
    // listener cannot be made.
    static Result<std::shared_ptr<SVBroadcastExtensionProxy>> initWithBroadcastUploadExtension(
        std::shared_ptr<AppExtension> extension);
    ~SVBroadcastExtensionProxy() override;

    // Set before establishConnectionWithHandler.
    void setServiceInfoHandler(ServiceInfoHandler handler);
    // Called with error -5808 when the link breaks (the connection was
    // invalidated, or a payload could not be delivered).
    void setErrorHandler(ErrorHandler handler);

    // Starts the extension. `handler` is called with no error at every
    // `ping`, or once with the error when the request cannot begin.
    void establishConnectionWithHandler(ReadyHandler handler);

    // An action payload (a dictionary); `completion` runs when the extension
    // acknowledges it, never when it cannot be delivered (the error handler
    // runs instead) or before any connection exists (dropped).
    void processPayload(Value payload, Completion completion);
    // A sample payload: `args` holds the one dictionary argument (its
    // objects already referenced); `keep` stays alive until the extension
    // acknowledges it. False (and counted as dropped) when its kind has
    // too many payloads in flight or no connection exists yet.
    enum class SampleKind { Video, Audio };
    bool processSamplePayload(SampleKind kind, ipc::Arguments args, std::shared_ptr<void> keep);

    // Ends the link without reporting it, then the extension's process
    // (SIGKILL).
    void invalidateConnection();

    struct Statistics {
        uint64_t videoSent = 0, videoDropped = 0, audioSent = 0, audioDropped = 0;
        // Media bytes that video payloads carried in their message (every
        // byte string but the timing record): pixels copied into a message
        // would show here. 0 while frames cross as surfaces.
        uint64_t videoBytesCopied = 0;
    };
    Statistics statistics() const;
    const std::shared_ptr<AppExtension>& broadcastUploadExtension() const { return extension_; }

    // ipc::ListenerDelegate (on the listener's queue).
    bool listenerShouldAcceptNewConnection(
        ipc::Listener& listener, const std::shared_ptr<ipc::Connection>& connection) override;
    // SVBroadcastDaemonProtocol (on the connection's queue).
    void ping();
    void updateServiceInfo(const Value& serviceInfo);

  private:
    explicit SVBroadcastExtensionProxy(std::shared_ptr<AppExtension> extension)
        : extension_(std::move(extension)) {}
    std::shared_ptr<ipc::Connection> connection() const;
    ipc::ErrorHandler remoteErrorHandler() const;
    // Tells the error handler that the broadcast failed; on the calling thread.
    void reportBroadcastError() const;

    const std::shared_ptr<AppExtension> extension_;
    mutable std::mutex mutex_;
    std::shared_ptr<ipc::Listener> listener_;
    ipc::Endpoint listenerEndpoint_;
    std::shared_ptr<ipc::Connection> connection_;
    ServiceInfoHandler serviceInfoHandler_;
    ErrorHandler errorHandler_;
    ReadyHandler connectionReadyHandler_;
    bool invalidated_ = false;

    std::atomic<int> videoInFlight_{0}, audioInFlight_{0};
    std::atomic<uint64_t> videoSent_{0}, videoDropped_{0}, audioSent_{0}, audioDropped_{0},
        videoBytesCopied_{0};
};

}  // namespace sv
