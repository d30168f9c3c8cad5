// Connections: connecting, reading and checking messages, delivering them on
// the connection's queue, sending with back-pressure, and ending.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/ipc/connection_impl.h"
#include "platform/log.h"

namespace sv::ipc {

using namespace detail;

namespace {

bool isPeerGoneError(int err) {
    return err == EPIPE || err == ECONNRESET || err == ENOTCONN || err == EBADF;
}
bool isWouldBlock(int err) {
    return err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS;
}

// The peer has taken so little of what was sent to it that reading from it
// stops (and until it has taken most of it, reading stays stopped).
bool sendsBacklogged(const Connection::Impl& s) {
    return s.queuedMessages >= kReadPauseQueuedMessages || s.queuedBytes >= kReadPauseQueuedBytes;
}
bool sendsDrained(const Connection::Impl& s) {
    return s.queuedMessages <= kReadResumeQueuedMessages && s.queuedBytes <= kReadResumeQueuedBytes;
}

}  // namespace

Connection::Impl::~Impl() {
    if (socket) openConnectionCounter()--;
}

void Connection::Impl::fire(const std::shared_ptr<Connection>& c, const OnceErrorPtr& e,
                            int64_t code, bool suppressAfterInvalidate) {
    if (!e || !e->handler || e->fired.exchange(true)) return;
    c->queue_->async([c, e, code, suppressAfterInvalidate] {
        if (suppressAfterInvalidate && c->impl_->locallyInvalidated) return;
        e->handler(makeError(code));
    });
}

// ---------------------------------------------------------------------------
// Connecting and ending

void Connection::Impl::openSocket(const std::shared_ptr<Connection>& c, int fd) {
    Impl& s = *c->impl_;
    setNonBlocking(fd);
    setBufferSizes(fd);
    s.socket = std::make_unique<asio::posix::stream_descriptor>(ioContext(), fd);
    {
        std::lock_guard lock(s.sendMutex);
        s.sendFd = fd;
    }
    ++s.generation;
    ++openConnectionCounter();
    s.rejected = 0;
    startRead(c);
    flush(c);
}

void Connection::Impl::closeSocket(Impl& s) {
    s.userSlot.reset();
    if (!s.socket) return;
    {
        // No caller sends on the descriptor once this returns.
        std::lock_guard lock(s.sendMutex);
        s.sendFd = -1;
        s.writeWaiting = false;
    }
    std::error_code ec;
    s.socket->close(ec);
    s.socket.reset();
    if (s.stallTimer) s.stallTimer->cancel();
    s.stallTimerArmed = false;
    ++s.generation;
    --openConnectionCounter();
    s.readPaused = false;
    s.readBlockedBySends = false;
    descriptorsReleased();
}

// Connects a service connection without waiting: a service whose backlog is
// full fails at once (as an interruption), and so does one that runs as
// another user than expected.
UniqueFd Connection::Impl::connectToService(const std::shared_ptr<Connection>& c) {
    Impl& s = *c->impl_;
    sockaddr_un addr;
    std::string path = servicePath(c->name_);
    if (!fillAddress(path, addr)) return UniqueFd();
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) return UniqueFd();
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        static log::RateLimit limit;
        log::debug(limit, "ipc: cannot connect to %@: %@", path, std::strerror(errno));
        return UniqueFd();
    }
    Credentials cr = peerCredentials(fd.get());
    uid_t expected = s.serviceUser.value_or(geteuid());
    if (cr.uid != expected) {
        static log::RateLimit limit;
        log::error(limit, "ipc: %@ is served by user %u (pid %i), not by user %u; not connecting",
                   path, unsigned(cr.uid), int(cr.pid), unsigned(expected));
        return UniqueFd();
    }
    std::lock_guard lock(s.mutex);
    s.creds = cr;
    return fd;
}

namespace {

// Hands one end of a new socket pair to an unnamed listener. When the
// listener's queue is full, waits for room on the I/O thread's reactor (not
// by blocking it) until `deadline`.
struct EndpointConnect : std::enable_shared_from_this<EndpointConnect> {
    Endpoint endpoint;
    UniqueFd mine;
    EncodedMessage hello;
    std::chrono::steady_clock::time_point deadline;
    std::function<void(UniqueFd, Credentials)> done;
    std::unique_ptr<asio::posix::stream_descriptor> waiter;
    std::unique_ptr<asio::steady_timer> timer;
    bool finished = false;

    void attempt() {
        int err = sendDatagram(endpoint.fd(), hello);
        if (err == 0) return finish(true);
        if (!isWouldBlock(err) || std::chrono::steady_clock::now() >= deadline)
            return finish(false);
        // A descriptor of our own for the wait: several connections may wait
        // on the same endpoint, and the reactor takes each descriptor once.
        int copy = fcntl(endpoint.fd(), F_DUPFD_CLOEXEC, 0);
        if (copy < 0) return finish(false);
        waiter = std::make_unique<asio::posix::stream_descriptor>(ioContext(), copy);
        if (!timer) {
            timer = std::make_unique<asio::steady_timer>(ioContext(), deadline);
            timer->async_wait([self = shared_from_this()](const std::error_code& ec) {
                if (!ec && !self->finished) self->finish(false);
            });
        }
        waiter->async_wait(asio::posix::stream_descriptor::wait_write,
                           [self = shared_from_this()](const std::error_code& ec) {
                               if (self->finished) return;
                               self->waiter.reset();
                               if (ec) return self->finish(false);
                               self->attempt();
                           });
    }

    void finish(bool sent) {
        finished = true;
        if (timer) timer->cancel();
        if (waiter) {
            std::error_code ec;
            waiter->cancel(ec);
        }
        auto d = std::move(done);
        if (sent)
            d(std::move(mine), peerCredentials(endpoint.fd()));
        else
            d(UniqueFd(), {});
    }
};

}  // namespace

void Connection::Impl::connectToEndpoint(const std::shared_ptr<Connection>& c,
                                         std::function<void(UniqueFd)> done) {
    Impl& s = *c->impl_;
    int pair[2];
    if (!s.endpoint.valid() || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return done(UniqueFd());
    auto op = std::make_shared<EndpointConnect>();
    op->endpoint = s.endpoint;
    op->mine.reset(pair[0]);
    op->hello = encodeConnect(UniqueFd(pair[1]));
    op->deadline = std::chrono::steady_clock::now() + kEndpointConnectTimeout;
    op->done = [c, done = std::move(done)](UniqueFd fd, Credentials cr) {
        if (fd.valid()) {
            std::lock_guard lock(c->impl_->mutex);
            c->impl_->creds = cr;
        }
        done(std::move(fd));
    };
    op->attempt();
}

// The end of resume(): the connection is open on `fd`, or could not be made.
void Connection::Impl::finishResume(const std::shared_ptr<Connection>& c, UniqueFd fd) {
    Impl& s = *c->impl_;
    bool ok = fd.valid();
    {
        std::lock_guard lock(s.mutex);
        if (s.state != State::Created) return;  // invalidated meanwhile: fd closes here
        if (ok) {
            s.state = State::Active;
        } else if (c->kind_ == Kind::Service) {
            // The service is not running: the next call connects again.
            s.state = State::Interrupted;
        } else {
            s.state = State::Invalidated;
        }
    }
    if (ok) {
        openSocket(c, fd.release());
        return;
    }
    int64_t code =
        c->kind_ == Kind::Service ? kErrorConnectionInterrupted : kErrorConnectionInvalid;
    for (auto& o : takeOutgoing(s)) {
        dropPending(s, o.replyId);
        fire(c, o.error, code);
    }
    s.userSlot.reset();
    if (c->kind_ != Kind::Service) {
        std::function<void()> handler;
        {
            std::lock_guard lock(s.mutex);
            handler = std::move(s.invalidationHandler);
            s.invalidationHandler = nullptr;
            s.interruptionHandler = nullptr;
            s.exported.reset();
        }
        if (handler) c->queue_->async(std::move(handler));
    }
}

void Connection::Impl::peerGone(const std::shared_ptr<Connection>& c) {
    Impl& s = *c->impl_;
    closeSocket(s);
    std::function<void()> handler;
    std::map<uint64_t, PendingCall> pending;
    int64_t code;
    {
        std::lock_guard lock(s.mutex);
        if (s.state == State::Invalidated) {
            takeOutgoing(s);
            return;
        }
        pending.swap(s.pending);
        if (c->kind_ == Kind::Service) {
            s.state = State::Interrupted;
            code = kErrorConnectionInterrupted;
            handler = s.interruptionHandler;
        } else {
            s.state = State::Invalidated;
            code = kErrorConnectionInvalid;
            handler = std::move(s.invalidationHandler);
            s.invalidationHandler = nullptr;
            s.interruptionHandler = nullptr;
            s.exported.reset();
        }
    }
    for (auto& o : takeOutgoing(s)) fire(c, o.error, code);
    for (auto& [id, p] : pending) fire(c, p.error, code);
    if (handler) {
        c->queue_->async([c, handler = std::move(handler)] {
            if (!c->impl_->locallyInvalidated) handler();
        });
    }
}

// ---------------------------------------------------------------------------
// Reading

void Connection::Impl::startRead(const std::shared_ptr<Connection>& c) {
    Impl& s = *c->impl_;
    if (!s.socket) return;
    s.socket->async_wait(asio::posix::stream_descriptor::wait_read,
                         [c, gen = s.generation](const std::error_code& ec) {
                             if (ec || gen != c->impl_->generation) return;
                             onReadable(c);
                         });
}

void Connection::Impl::onReadable(const std::shared_ptr<Connection>& c) {
    Impl& s = *c->impl_;
    for (int i = 0; i < 64 && s.socket; ++i) {
        if (readingMustWait(c)) return;  // resumed by delivery or by sending
        Datagram d;
        switch (receiveDatagram(s.socket->native_handle(), d)) {
            case ReceiveResult::WouldBlock:
                return startRead(c);
            case ReceiveResult::EndOfStream:
            case ReceiveResult::Failed:
                return peerGone(c);
            case ReceiveResult::Datagram:
                break;
        }
        uint64_t gen = s.generation;
        handleDatagram(c, std::move(d));
        if (gen != s.generation) return;  // disconnected while handling
    }
    startRead(c);
}

// Whether reading stops for now: the connection's queue is behind (resumed
// by deliver()), or the peer does not take what is sent to it (resumed by
// flush() once the queue has drained).
bool Connection::Impl::readingMustWait(const std::shared_ptr<Connection>& c) {
    Impl& s = *c->impl_;
    if (sendsBacklogged(s)) {
        s.readBlockedBySends = true;
        static log::RateLimit limit;
        log::debug(limit, "ipc: reading paused on %@ (pid %i): it does not read its messages",
                   c->name_, int(c->processIdentifier()));
        return true;
    }
    if (s.undelivered >= kMaxUndeliveredMessages) {
        s.readPaused = true;
        if (s.undelivered >= kMaxUndeliveredMessages) {
            static log::RateLimit limit;
            log::debug(limit, "ipc: reading paused on %@: its queue is behind", c->name_);
            return true;
        }
        s.readPaused = false;  // delivery caught up in between
    }
    return false;
}

void Connection::Impl::reject(const std::shared_ptr<Connection>& c, const std::string& why) {
    Impl& s = *c->impl_;
    static log::RateLimit dropped;
    log::error(dropped, "ipc: dropped a message from pid %i on %@: %@", int(c->processIdentifier()),
               c->name_, why);
    if (++s.rejected >= kMaxRejectedMessages) {
        static log::RateLimit disconnected;
        log::error(disconnected, "ipc: disconnecting pid %i after %i rejected messages",
                   int(c->processIdentifier()), s.rejected);
        peerGone(c);
    }
}

void Connection::Impl::handleDatagram(const std::shared_ptr<Connection>& c, Datagram d) {
    Impl& s = *c->impl_;
    if (d.flags & MSG_TRUNC) return reject(c, "message larger than the limit");
    if (d.flags & MSG_CTRUNC) return reject(c, "too many descriptors");
    std::shared_ptr<const Interface> exported;
    {
        std::lock_guard lock(s.mutex);
        exported = s.exportedInterface;
    }
    std::vector<ArgSpec> replySpec;
    auto lookup = [&](uint64_t id) -> const std::vector<ArgSpec>* {
        std::lock_guard lock(s.mutex);
        auto it = s.pending.find(id);
        if (it == s.pending.end()) return nullptr;
        replySpec = it->second.replySpec;
        return &replySpec;
    };
    DecodeResult r = decodeMessage(d.bytes, std::move(d.fds), exported.get(), lookup);
    if (!r.message) return reject(c, r.error);
    DecodedMessage& m = *r.message;
    switch (m.type) {
        case MessageType::Connect:
            return reject(c, "connect message on a connection");
        case MessageType::Reply:
            return handleReply(c, m);
        case MessageType::Call:
            return handleCall(c, m, exported);
    }
}

void Connection::Impl::handleReply(const std::shared_ptr<Connection>& c, DecodedMessage& m) {
    Impl& s = *c->impl_;
    ReplyClosure closure;
    {
        std::lock_guard lock(s.mutex);
        auto it = s.pending.find(m.replyId);
        if (it == s.pending.end()) return;  // invalidated meanwhile
        closure = std::move(it->second.reply);
        s.pending.erase(it);
    }
    deliver(c, [closure = std::move(closure), args = std::move(m.arguments)]() {
        if (closure) closure(args);
    });
}

void Connection::Impl::handleCall(const std::shared_ptr<Connection>& c, DecodedMessage& m,
                                  const std::shared_ptr<const Interface>& exported) {
    Impl& s = *c->impl_;
    std::shared_ptr<ExportedObject> object;
    {
        std::lock_guard lock(s.mutex);
        object = s.exported;
    }
    if (!object) {
        static log::RateLimit limit;
        log::error(limit, "ipc: %@ has no exported object; dropped %@", c->name_, m.method);
        return;
    }
    ReplyHandler handler;
    const MethodSpec* signature = exported->method(m.method);
    if (signature && signature->handlerIndex() >= 0 && m.replyId != 0) {
        auto st = std::make_shared<ReplyHandler::State>();
        st->connection = c;
        st->replyId = m.replyId;
        st->signature = signature->replyArguments;
        handler = ReplyHandler(std::move(st));
    }
    auto inv = std::make_shared<Invocation>(std::move(m.arguments), std::move(m.method),
                                            std::move(handler), c);
    deliver(c, [object = std::move(object), inv]() mutable {
        object->invoke(*inv);
        inv.reset();
    });
}

void Connection::Impl::deliver(const std::shared_ptr<Connection>& c, std::function<void()> task) {
    Impl& s = *c->impl_;
    ++s.undelivered;
    c->queue_->async([c, task = std::move(task)]() mutable {
        Impl& st = *c->impl_;
        if (!st.locallyInvalidated) task();
        task = nullptr;  // what the task holds goes before reading resumes
        if (st.undelivered.fetch_sub(1) - 1 < kMaxUndeliveredMessages / 2 && st.readPaused) {
            onIoThread([c] {
                if (c->impl_->readPaused.exchange(false)) onReadable(c);
            });
        }
    });
}

// ---------------------------------------------------------------------------
// Sending

void Connection::Impl::flush(const std::shared_ptr<Connection>& c) {
    Impl& s = *c->impl_;
    std::vector<std::pair<Outgoing, int>> failed;
    bool gone = false, wait = false;
    {
        std::lock_guard lock(s.sendMutex);
        while (s.sendFd >= 0 && !s.writeWaiting && !s.out.empty()) {
            int err = sendDatagram(s.sendFd, s.out.front().message);
            if (isWouldBlock(err)) {
                s.writeWaiting = wait = true;
                break;
            }
            if (isPeerGoneError(err)) {
                gone = true;
                break;
            }
            Outgoing done = std::move(s.out.front());
            s.out.pop_front();
            s.queuedBytes -= done.message.bytes.size();
            s.queuedMessages--;
            --outgoingMessageCounter();
            s.messagesSent++;
            if (err != 0) failed.emplace_back(std::move(done), err);
        }
    }
    for (auto& [f, err] : failed) {
        static log::RateLimit limit;
        log::error(limit, "ipc: cannot send on %@: %@", c->name_, std::strerror(err));
        dropPending(s, f.replyId);
        fire(c, f.error, kErrorMessageRejected);
    }
    if (gone) return peerGone(c);
    if (wait && s.socket) {
        s.socket->async_wait(asio::posix::stream_descriptor::wait_write,
                             [c, gen = s.generation](const std::error_code& ec) {
                                 if (ec || gen != c->impl_->generation) return;
                                 {
                                     std::lock_guard lock(c->impl_->sendMutex);
                                     c->impl_->writeWaiting = false;
                                 }
                                 flush(c);
                             });
        watchForStall(c);
    }
    if (s.readBlockedBySends && sendsDrained(s)) {
        s.readBlockedBySends = false;
        onReadable(c);
    }
}

// While messages wait for room in the peer's socket: a peer that takes none
// of them within the stall timeout is disconnected.
void Connection::Impl::watchForStall(const std::shared_ptr<Connection>& c) {
    Impl& s = *c->impl_;
    if (s.stallTimerArmed) return;
    s.stallTimerArmed = true;
    s.sentAtStallCheck = s.messagesSent;
    if (!s.stallTimer) s.stallTimer = std::make_unique<asio::steady_timer>(ioContext());
    s.stallTimer->expires_after(s.stalledPeerTimeout);
    s.stallTimer->async_wait([weak = std::weak_ptr<Connection>(c),
                              gen = s.generation](const std::error_code& ec) {
        auto conn = weak.lock();
        if (ec || !conn || gen != conn->impl_->generation) return;
        Impl& st = *conn->impl_;
        st.stallTimerArmed = false;
        bool waiting;
        {
            std::lock_guard lock(st.sendMutex);
            waiting = !st.out.empty();
        }
        if (!waiting) return;
        if (st.messagesSent != st.sentAtStallCheck) return watchForStall(conn);
        static log::RateLimit limit;
        log::error(
            limit, "ipc: disconnecting pid %i on %@: it has taken nothing sent to it for %li ms",
            int(conn->processIdentifier()), conn->name_, int64_t(st.stalledPeerTimeout.count()));
        peerGone(conn);
    });
}

void Connection::Impl::dropPending(Impl& s, uint64_t replyId) {
    if (replyId == 0) return;
    std::lock_guard lock(s.mutex);
    s.pending.erase(replyId);
}

// Takes every queued message out (their bytes no longer count).
std::deque<Outgoing> Connection::Impl::takeOutgoing(Impl& s) {
    std::deque<Outgoing> taken;
    {
        std::lock_guard lock(s.sendMutex);
        taken.swap(s.out);
    }
    for (auto& o : taken) {
        s.queuedBytes -= o.message.bytes.size();
        s.queuedMessages--;
        --outgoingMessageCounter();
    }
    return taken;
}

void Connection::Impl::enqueue(const std::shared_ptr<Connection>& c, EncodedMessage m,
                               OnceErrorPtr error, uint64_t replyId) {
    Impl& s = *c->impl_;
    size_t bytes = m.bytes.size();
    if (s.queuedBytes + bytes > kMaxQueuedBytes || s.queuedMessages >= kMaxQueuedMessages) {
        static log::RateLimit limit;
        log::error(limit, "ipc: %@ is not reading; message not sent", c->name_);
        dropPending(s, replyId);
        fire(c, error, kErrorSendQueueFull, false);
        return;
    }
    {
        std::unique_lock lock(s.sendMutex);
        bool nothingBefore = s.postsInFlight == 0 && s.out.empty() && !s.writeWaiting;
        if (s.sendFd >= 0 && nothingBefore) {
            int err = sendDatagram(s.sendFd, m);
            if (err == 0) return;  // handed to the kernel on the caller's thread
        }
        s.queuedBytes += bytes;
        s.queuedMessages++;
        ++outgoingMessageCounter();
        if (s.sendFd >= 0 && s.postsInFlight == 0) {
            // Connected: queue behind the others; the I/O thread sends
            // (and reports a broken peer).
            s.out.push_back(Outgoing{std::move(m), std::move(error), replyId});
            lock.unlock();
            onIoThread([c] { flush(c); });
            return;
        }
        s.postsInFlight++;
    }
    // Not connected (yet, or any more): the I/O thread decides.
    onIoThread([c, m = std::move(m), error = std::move(error), replyId]() mutable {
        sendWhenConnected(c, std::move(m), std::move(error), replyId);
    });
}

// A message that was sent while the connection had no socket: connects a
// service connection that was interrupted, queues the message behind those
// before it, or fails it when the connection cannot be used.
void Connection::Impl::sendWhenConnected(const std::shared_ptr<Connection>& c, EncodedMessage m,
                                         OnceErrorPtr error, uint64_t replyId) {
    Impl& s = *c->impl_;
    State state;
    {
        std::lock_guard lock(s.mutex);
        state = s.state;
    }
    auto drop = [&](int64_t code) {
        {
            std::lock_guard lock(s.sendMutex);
            s.postsInFlight--;
        }
        s.queuedBytes -= m.bytes.size();
        s.queuedMessages--;
        --outgoingMessageCounter();
        dropPending(s, replyId);
        fire(c, error, code);
    };
    if (state == State::Invalidated) return drop(kErrorConnectionInvalid);
    if (!s.socket && state == State::Interrupted) {
        UniqueFd fd = connectToService(c);
        if (!fd.valid()) return drop(kErrorConnectionInterrupted);
        {
            std::lock_guard lock(s.mutex);
            if (s.state == State::Invalidated) return drop(kErrorConnectionInvalid);
            s.state = State::Active;
        }
        openSocket(c, fd.release());
    }
    {
        std::lock_guard lock(s.sendMutex);
        s.postsInFlight--;
        s.out.push_back(Outgoing{std::move(m), std::move(error), replyId});
    }
    flush(c);
}

// ---------------------------------------------------------------------------
// Public classes

void ReplyHandler::operator()(const Arguments& args) const {
    if (!state_) return;
    if (state_->sent.exchange(true)) {
        static log::RateLimit limit;
        log::error(limit, "ipc: a completion handler was called more than once; reply dropped");
        return;
    }
    auto c = state_->connection.lock();
    if (!c || c->isInvalidated()) return;
    std::string error;
    auto m = encodeReply(state_->replyId, state_->signature, args, &error);
    if (!m) {
        static log::RateLimit limit;
        log::error(limit, "ipc: reply on %@ not sent: %@", c->name(), error);
        return;
    }
    Connection::Impl::enqueue(c, std::move(*m), nullptr, 0);
}

MethodTable& MethodTable::on(std::string name, Method method) {
    methods_.emplace_back(std::move(name), std::move(method));
    return *this;
}

void MethodTable::invoke(Invocation& invocation) {
    for (auto& [name, m] : methods_) {
        if (name == invocation.method()) {
            m(invocation);
            return;
        }
    }
    static log::RateLimit limit;
    log::error(limit, "ipc: no implementation of %@", invocation.method());
}

void RemoteProxy::call(const std::string& method, const Arguments& args, ReplyClosure reply) const {
    auto& c = connection_;
    auto& s = *c->impl_;
    auto error = std::make_shared<OnceError>();
    error->handler = errorHandler_;
    std::shared_ptr<const Interface> remote;
    uint64_t replyId = 0;
    {
        std::lock_guard lock(s.mutex);
        if (s.state == Connection::Impl::State::Invalidated) {
            Connection::Impl::fire(c, error, kErrorConnectionInvalid, false);
            return;
        }
        remote = s.remoteInterface;
    }
    const MethodSpec* signature = remote ? remote->method(method) : nullptr;
    if (!signature || (reply && signature->handlerIndex() < 0)) {
        static log::RateLimit limit;
        log::error(limit, "ipc: %@ is not a method of the remote interface of %@", method,
                   c->name());
        Connection::Impl::fire(c, error, kErrorMessageRejected, false);
        return;
    }
    if (reply) {
        std::lock_guard lock(s.mutex);
        if (s.pending.size() >= kMaxPendingReplies) {
            Connection::Impl::fire(c, error, kErrorTooManyPendingReplies, false);
            return;
        }
        replyId = s.nextReplyId++;
        s.pending[replyId] = PendingCall{std::move(reply), error, signature->replyArguments};
    }
    std::string why;
    auto m = encodeCall(*signature, args, replyId, &why);
    if (!m) {
        static log::RateLimit limit;
        log::error(limit, "ipc: call not sent on %@: %@", c->name(), why);
        Connection::Impl::dropPending(s, replyId);
        Connection::Impl::fire(c, error, kErrorMessageRejected, false);
        return;
    }
    Connection::Impl::enqueue(c, std::move(*m), std::move(error), replyId);
}

Connection::Connection(Kind kind, std::string name)
    : kind_(kind),
      name_(std::move(name)),
      queue_(DispatchQueue::serial("org.sorvel.ipc." + name_)),
      impl_(std::make_shared<Impl>()) {}

Connection::~Connection() = default;

std::shared_ptr<Connection> Connection::toService(std::string serviceName,
                                                  std::optional<uid_t> serviceUser) {
    auto c = std::make_shared<Connection>(Kind::Service, std::move(serviceName));
    c->impl_->serviceUser = serviceUser;
    return c;
}

std::shared_ptr<Connection> Connection::toEndpoint(Endpoint endpoint) {
    auto c = std::make_shared<Connection>(Kind::Endpoint, "endpoint");
    c->impl_->endpoint = std::move(endpoint);
    return c;
}

pid_t Connection::processIdentifier() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->creds.pid;
}

UniqueFd Connection::peerProcessDescriptor() const {
#ifndef SO_PEERPIDFD
    constexpr int SO_PEERPIDFD = 77;  // Linux 6.5; older headers lack it
#endif
    std::lock_guard lock(impl_->mutex);
    if (impl_->acceptedFd.valid()) {
        int pidfd = -1;
        socklen_t len = sizeof pidfd;
        if (getsockopt(impl_->acceptedFd.get(), SOL_SOCKET, SO_PEERPIDFD, &pidfd, &len) == 0 &&
            pidfd >= 0)
            return UniqueFd(pidfd);
    }
    if (impl_->creds.pid <= 0) return UniqueFd();
    return UniqueFd(int(syscall(SYS_pidfd_open, impl_->creds.pid, 0)));
}

uid_t Connection::effectiveUserIdentifier() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->creds.uid;
}

void Connection::setExportedInterface(std::shared_ptr<const Interface> interface) {
    std::lock_guard lock(impl_->mutex);
    impl_->exportedInterface = std::move(interface);
}

void Connection::setExportedObject(std::shared_ptr<ExportedObject> object) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->state != Impl::State::Invalidated) impl_->exported = std::move(object);
}

void Connection::setRemoteObjectInterface(std::shared_ptr<const Interface> interface) {
    std::lock_guard lock(impl_->mutex);
    impl_->remoteInterface = std::move(interface);
}

void Connection::setInterruptionHandler(std::function<void()> handler) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->state != Impl::State::Invalidated) impl_->interruptionHandler = std::move(handler);
}

void Connection::setInvalidationHandler(std::function<void()> handler) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->state != Impl::State::Invalidated) impl_->invalidationHandler = std::move(handler);
}

void Connection::resume() {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->resumed || impl_->state != Impl::State::Created) return;
        impl_->resumed = true;
    }
    onIoThread([c = shared_from_this()] {
        switch (c->kind_) {
            case Kind::Accepted:
                return Impl::finishResume(c, std::move(c->impl_->acceptedFd));
            case Kind::Service:
                return Impl::finishResume(c, Impl::connectToService(c));
            case Kind::Endpoint:
                return Impl::connectToEndpoint(
                    c, [c](UniqueFd fd) { Impl::finishResume(c, std::move(fd)); });
        }
    });
}

bool Connection::isInvalidated() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->state == Impl::State::Invalidated;
}

void Connection::invalidate() {
    std::function<void()> handler;
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->state == Impl::State::Invalidated) return;
        impl_->state = Impl::State::Invalidated;
        impl_->locallyInvalidated = true;
        handler = std::move(impl_->invalidationHandler);
        impl_->invalidationHandler = nullptr;
        impl_->interruptionHandler = nullptr;
        impl_->exported.reset();
        impl_->pending.clear();
    }
    onIoThread([c = shared_from_this()] {
        Impl::closeSocket(*c->impl_);
        Impl::takeOutgoing(*c->impl_);
        c->impl_->acceptedFd.reset();
        c->impl_->userSlot.reset();
    });
    if (handler) queue_->async(std::move(handler));
}

std::string Connection::description() const {
    return "<Connection " + name_ + " pid " + std::to_string(processIdentifier()) + ">";
}

}  // namespace sv::ipc
