// Connection-oriented object messaging between processes over Unix-domain
// sockets (SOCK_SEQPACKET: one datagram per message, descriptors with it).
//
// A Listener accepts connections, either on a named service (a socket under
// the runtime directory, reachable only by the users it serves) or unnamed,
// reachable only through its Endpoint. Each Connection exports an object
// under an Interface and calls the peer's exported object through a
// RemoteProxy; completion handlers cross processes as reply identifiers.
//
// Lifetime: an open connection is kept alive by the I/O thread for as long
// as its socket is open. Dropping every reference to it without
// invalidate() does not end it: it goes on delivering calls to its exported
// object until the peer goes away, then runs its invalidation (accepted and
// endpoint connections) or interruption handler (service connections) and
// is freed. A connection that was never resumed, or whose socket has closed,
// is freed with its last reference, without any handler running. To end a
// connection, call invalidate().
//
// Hostile peers: a listener accepts at most Options::maxConnectionsPerUser
// open connections per user and closes further ones at once. When the
// process runs out of descriptors it stops accepting and starts again as
// soon as one is free (a connection closes) or on a backing-off timer. A
// peer that does not read what is sent to it stops being read from (its own
// sends then block) and is disconnected if it takes nothing for a while.
// Lines a peer can cause at will are logged rate-limited.
//
// Threads: one I/O thread, shared by every socket of the process, reads,
// writes and checks messages; it never blocks. Each connection delivers its incoming calls,
// replies, error handlers and its interruption and invalidation handlers in
// order on its own serial queue (queue()), so a handler that blocks holds up
// only its own connection. Every method of Listener and Connection may be
// called from any thread. Nothing here throws on bad input or broken peers:
// failures reach the error handler of the call or are logged and dropped.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/dispatch.h"
#include "platform/error.h"
#include "platform/ipc/wire.h"
#include "platform/unique_fd.h"

namespace sv::ipc {

inline constexpr const char* kIPCErrorDomain = "org.sorvel.IPCErrorDomain";
// Codes of errors passed to error handlers (domain kIPCErrorDomain).
enum ErrorCode : int64_t {
    kErrorConnectionInterrupted = 4001,  // the service went away; the connection may be used again
    kErrorConnectionInvalid = 4002,      // the connection ended for good (or was never valid)
    kErrorSendQueueFull = 4003,          // the peer reads too slowly; the message was not sent
    kErrorMessageRejected = 4004,        // the call does not fit the interface or a limit
    kErrorTooManyPendingReplies = 4005,  // too many calls wait for a reply from this peer
};
Error makeError(int64_t code);

// Bounds of one connection.
inline constexpr size_t kMaxQueuedBytes = 8 * 1024 * 1024;  // outgoing, not yet in the kernel
inline constexpr size_t kMaxQueuedMessages = 1024;          // outgoing, not yet in the kernel
// Reading from a peer stops while this much waits to be sent to it (it does
// not read its replies), and starts again once the queue is down to the
// low-water mark, so a peer cannot make its replies pile up.
inline constexpr size_t kReadPauseQueuedBytes = 4 * 1024 * 1024;
inline constexpr size_t kReadPauseQueuedMessages = 512;
inline constexpr size_t kReadResumeQueuedBytes = 1024 * 1024;
inline constexpr size_t kReadResumeQueuedMessages = 128;
// A peer that takes none of the messages waiting for it for this long is
// disconnected (Listener::Options::stalledPeerTimeout for accepted ones).
inline constexpr std::chrono::milliseconds kDefaultStalledPeerTimeout{10000};
// How long connecting through an endpoint waits for room in the listener's
// queue before the connection fails.
inline constexpr std::chrono::milliseconds kEndpointConnectTimeout{5000};
// Open connections one user may have on one listener.
inline constexpr size_t kDefaultMaxConnectionsPerUser = 256;
inline constexpr size_t kMaxPendingReplies = 4096;      // calls waiting for a reply
inline constexpr size_t kMaxUndeliveredMessages = 256;  // read ahead of a busy queue
inline constexpr int kMaxRejectedMessages = 8;          // then the peer is disconnected

// Directory holding named services: set here, else $SORVEL_RUNTIME_DIR, else
// $XDG_RUNTIME_DIR, else /tmp. Set it before the first listener or connection.
void setRuntimeDirectory(std::string directory);
std::string runtimeDirectory();
// Socket path of a service name ("org.sorvel.sorveld" -> "<runtime>/org.sorvel.sorveld").
std::string servicePath(const std::string& serviceName);

// Connections of this process whose socket is open (keep-alive decisions).
size_t openConnectionCount();
// Messages of this process still queued for sending (a process about to exit
// waits for them to reach the kernel). Any thread.
size_t outgoingMessageCount();

class Connection;
class Listener;

// The receiving end of a completion handler: sends the reply at most once
// (later calls are logged and ignored). Copies share that once-only state.
// When every copy is dropped without a reply, the caller never hears back.
// An empty handler (the caller asked for no reply) accepts and ignores
// calls. Callable from any thread.
class ReplyHandler {
  public:
    ReplyHandler() = default;
    void operator()(const Arguments& args = {}) const;
    // False when the caller asked for no reply.
    explicit operator bool() const { return state_ != nullptr; }

    struct State;
    explicit ReplyHandler(std::shared_ptr<State> s) : state_(std::move(s)) {}

  private:
    std::shared_ptr<State> state_;
};

// One incoming call, valid while the exported object handles it (on the
// connection's queue). Objects taken from it stay valid afterwards.
class Invocation : public Received {
  public:
    Invocation(Received args, std::string method, ReplyHandler handler,
               std::shared_ptr<Connection> connection)
        : Received(std::move(args)),
          method_(std::move(method)),
          handler_(std::move(handler)),
          connection_(std::move(connection)) {}
    const std::string& method() const { return method_; }
    // The completion handler of the call (empty for methods without one, or
    // when the caller asked for no reply).
    const ReplyHandler& handler() const { return handler_; }
    const std::shared_ptr<Connection>& connection() const { return connection_; }

  private:
    std::string method_;
    ReplyHandler handler_;
    std::shared_ptr<Connection> connection_;
};

// The object a connection exports; invoke() runs on the connection's queue
// for every call that matched the exported interface.
class ExportedObject {
  public:
    virtual ~ExportedObject() = default;
    virtual void invoke(Invocation& invocation) = 0;
};

// An exported object made of one closure per method name.
class MethodTable : public ExportedObject {
  public:
    using Method = std::function<void(Invocation&)>;
    MethodTable& on(std::string name, Method method);
    void invoke(Invocation& invocation) override;

  private:
    std::vector<std::pair<std::string, Method>> methods_;
};

using ReplyClosure = std::function<void(const Received& reply)>;
using ErrorHandler = std::function<void(const Error& error)>;

// Sends calls of the connection's remote interface. A call that cannot be
// delivered (connection invalid or broken before the reply, peer too slow,
// arguments not matching the interface) calls the error handler instead,
// once, on the connection's queue; its reply closure then never runs. The
// reply closure runs on the connection's queue. Holds the connection.
class RemoteProxy {
  public:
    RemoteProxy(std::shared_ptr<Connection> connection, ErrorHandler errorHandler)
        : connection_(std::move(connection)), errorHandler_(std::move(errorHandler)) {}
    // `args` are the method's arguments without its handler. For a method
    // with a handler, `reply` receives the handler's parameters; without a
    // closure the peer is told that no reply is wanted.
    void call(const std::string& method, const Arguments& args = {},
              ReplyClosure reply = nullptr) const;

  private:
    std::shared_ptr<Connection> connection_;
    ErrorHandler errorHandler_;
};

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    // A connection to a named service; it connects on resume(). When the
    // service goes away the connection is interrupted, and the next call
    // connects again. The service must run as `serviceUser` (by default the
    // user this process runs as): a socket that another user listens on is
    // not connected to, so nobody else can stand in for the service; calls
    // then fail as interruptions and the mismatch is logged.
    static std::shared_ptr<Connection> toService(std::string serviceName,
                                                 std::optional<uid_t> serviceUser = std::nullopt);
    // A connection to the unnamed listener of `endpoint`; it connects on
    // resume(). It becomes invalid when the listener goes away.
    static std::shared_ptr<Connection> toEndpoint(Endpoint endpoint);
    ~Connection();

    // Process and user identifier of the peer from the kernel (SO_PEERCRED)
    // at connection time; 0 for a peer in another PID namespace or before
    // the connection is made.
    pid_t processIdentifier() const;
    uid_t effectiveUserIdentifier() const;
    // A process descriptor (pidfd) of the peer process of an accepted
    // connection, which names that process for as long as it is held, not
    // its number: from the socket (SO_PEERPIDFD), else pidfd_open of the
    // process identifier. Invalid when neither works. Only before resume(),
    // as the listener's delegate deciding on the connection.
    UniqueFd peerProcessDescriptor() const;
    const std::string& name() const { return name_; }

    // Set these before resume(). The exported object is held strongly until
    // the connection is invalidated.
    void setExportedInterface(std::shared_ptr<const Interface> interface);
    void setExportedObject(std::shared_ptr<ExportedObject> object);
    void setRemoteObjectInterface(std::shared_ptr<const Interface> interface);
    // Run on the connection's queue. Interruption: a named service went away
    // (the connection may be used again). Invalidation: the connection ended
    // for good, once. nullptr removes a handler. Held strongly until the
    // connection is invalidated.
    void setInterruptionHandler(std::function<void()> handler);
    void setInvalidationHandler(std::function<void()> handler);

    // Starts delivering messages (and connects a client connection).
    // Calls made before resume() are sent when it connects.
    void resume();
    // Ends the connection. The invalidation handler, if set, runs once more;
    // after that no handler, reply closure, error handler or call of this
    // connection starts again. One that is already running on the
    // connection's queue when another thread calls invalidate() finishes, so
    // closures hold what they touch weakly (or by shared ownership) rather
    // than by reference to the caller's stack. Calls made afterwards fail
    // with kErrorConnectionInvalid through their error handler.
    void invalidate();
    bool isInvalidated() const;

    RemoteProxy remoteObjectProxyWithErrorHandler(ErrorHandler handler) {
        return RemoteProxy(shared_from_this(), std::move(handler));
    }
    // The serial queue of this connection's handlers.
    const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

    std::string description() const;

    struct Impl;
    enum class Kind { Accepted, Service, Endpoint };
    Connection(Kind kind, std::string name);

  private:
    friend class Listener;
    friend class RemoteProxy;
    friend class ReplyHandler;
    friend struct Impl;

    const Kind kind_;
    const std::string name_;
    std::shared_ptr<DispatchQueue> queue_;
    std::shared_ptr<Impl> impl_;
};

// Decides about new connections; runs on the listener's serial queue. A
// connection it accepts must be resumed (usually inside this call); one it
// refuses is closed without any message of it being delivered.
class ListenerDelegate {
  public:
    virtual ~ListenerDelegate() = default;
    virtual bool listenerShouldAcceptNewConnection(
        Listener& listener, const std::shared_ptr<Connection>& connection) = 0;
};

// How a listener treats its peers (Listener::named, Listener::anonymous).
struct ListenerOptions {
    // Users allowed to connect to a named service; empty: only the
    // user this process runs as.
    std::vector<uid_t> allowedUsers;
    // Connections one user may have open on this listener at once
    // (0: no limit). A further connection is closed as soon as it is
    // accepted, before the delegate sees it; the first refusal of an
    // episode is logged, and the episode ends when the user is below
    // the limit again.
    size_t maxConnectionsPerUser = kDefaultMaxConnectionsPerUser;
    // Accepted connections whose peer takes nothing of what waits for
    // it for this long are disconnected.
    std::chrono::milliseconds stalledPeerTimeout = kDefaultStalledPeerTimeout;
};

class Listener : public std::enable_shared_from_this<Listener> {
  public:
    using Options = ListenerOptions;
    // Binds "<runtime directory>/<serviceName>" with mode 0600 (or adopts
    // the socket systemd passed under that name). Accepts nothing until
    // resume(). Null (with `error`) when the name is taken by a running
    // service or the socket cannot be created.
    static std::shared_ptr<Listener> named(const std::string& serviceName,
                                           std::string* error = nullptr, Options options = {});
    // A listener reachable only through endpoint(); `options.allowedUsers`
    // does not apply (the endpoint is the capability), the other options do.
    static std::shared_ptr<Listener> anonymous(std::string* error = nullptr, Options options = {});
    ~Listener();
    // The listener owns its socket's path (its destructor unlinks it): one
    // owner, never copied.
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Held weakly; a listener without a live delegate refuses connections.
    void setDelegate(std::weak_ptr<ListenerDelegate> delegate);
    void resume();
    // Stops accepting and removes the service's socket. Connections already
    // accepted are not affected.
    void invalidate();

    // The capability to connect (unnamed listeners only; invalid otherwise).
    Endpoint endpoint() const;
    const std::string& name() const { return name_; }
    // The socket path of a named listener.
    const std::string& path() const { return path_; }

    struct Impl;
    Listener(std::string name, std::string path);

  private:
    std::string name_;
    std::string path_;
    std::shared_ptr<Impl> impl_;
};

}  // namespace sv::ipc
