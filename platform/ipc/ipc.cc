#include "platform/ipc/ipc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>

#include "platform/log.h"

namespace sv::ipc {
namespace {

// The one I/O thread of the process. Never destroyed: connections may still
// be torn down by threads that outlive static destruction.
struct IoThread {
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> guard{io.get_executor()};
    IoThread() {
        std::thread([this] {
            pthread_setname_np(pthread_self(), "sv-ipc-io");
            io.run();
        }).detach();
    }
};

asio::io_context& ioContext() {
    static IoThread* t = new IoThread;
    return t->io;
}

template <typename F>
void onIoThread(F&& f) {
    asio::post(ioContext(), std::forward<F>(f));
}

std::atomic<size_t> gOpenConnections{0};
std::mutex gRuntimeMutex;
std::string gRuntimeDirectory;

struct Credentials {
    pid_t pid = 0;
    uid_t uid = uid_t(-1);
};

Credentials peerCredentials(int fd) {
    struct ucred cred {};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return {};
    return {cred.pid, cred.uid};
}

bool fillAddress(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.data(), path.size());
    return true;
}

void setBufferSizes(int fd) {
    // The kernel doubles the value; a full-size message must fit one send.
    int size = int(kMaxMessageBytes * 2);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

void setNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// One datagram with its descriptors; descriptors are closed unless taken.
struct Datagram {
    std::vector<uint8_t> bytes;
    std::vector<UniqueFd> fds;
    int flags = 0;
};

// Reads one datagram. 1: got one; 0: end of stream; -1: would block;
// -2: error (errno set).
int receiveDatagram(int fd, std::vector<uint8_t>& buffer, Datagram& out) {
    if (buffer.size() < kMaxMessageBytes + 1) buffer.resize(kMaxMessageBytes + 1);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxObjectsPerMessage)];
    iovec iov{buffer.data(), buffer.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n;
    do {
        n = recvmsg(fd, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? -1 : -2;
    out.fds.clear();
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int f;
            std::memcpy(&f, CMSG_DATA(c) + i * sizeof(int), sizeof f);
            out.fds.emplace_back(f);
        }
    }
    out.flags = msg.msg_flags;
    if (n == 0 && out.fds.empty()) return 0;
    out.bytes.assign(buffer.begin(), buffer.begin() + std::min<size_t>(n, kMaxMessageBytes + 1));
    return 1;
}

// 0 on success, else errno.
int sendDatagram(int fd, const EncodedMessage& m) {
    iovec iov{const_cast<uint8_t*>(m.bytes.data()), m.bytes.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxObjectsPerMessage)];
    if (!m.fds.empty()) {
        size_t len = sizeof(int) * m.fds.size();
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(len);
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(len);
        for (size_t i = 0; i < m.fds.size(); ++i) {
            int f = m.fds[i].get();
            std::memcpy(CMSG_DATA(c) + i * sizeof(int), &f, sizeof f);
        }
    }
    ssize_t n;
    do {
        n = sendmsg(fd, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? errno : 0;
}

// A socket systemd passed for `name` (LISTEN_FDS / LISTEN_FDNAMES), or -1.
int takeActivatedSocket(const std::string& name) {
    static std::mutex m;
    static std::vector<std::pair<std::string, int>>* fds = nullptr;
    std::lock_guard lock(m);
    if (!fds) {
        fds = new std::vector<std::pair<std::string, int>>;
        const char* pid = std::getenv("LISTEN_PID");
        const char* count = std::getenv("LISTEN_FDS");
        if (pid && count && std::atol(pid) == getpid()) {
            std::string names = std::getenv("LISTEN_FDNAMES") ? std::getenv("LISTEN_FDNAMES") : "";
            long n = std::atol(count);
            size_t pos = 0;
            for (long i = 0; i < n && i < 64; ++i) {
                size_t end = names.find(':', pos);
                std::string fdName = names.empty() ? "" : names.substr(pos, end - pos);
                pos = end == std::string::npos ? names.size() : end + 1;
                int fd = 3 + int(i);
                fcntl(fd, F_SETFD, FD_CLOEXEC);
                fds->emplace_back(fdName, fd);
            }
        }
    }
    for (auto it = fds->begin(); it != fds->end(); ++it) {
        if (it->first == name || it->first.empty()) {
            int fd = it->second;
            fds->erase(it);
            return fd;
        }
    }
    return -1;
}

// An error handler that runs at most once, on a connection's queue.
struct OnceError {
    ErrorHandler handler;
    std::atomic<bool> fired{false};
};
using OnceErrorPtr = std::shared_ptr<OnceError>;

struct PendingCall {
    ReplyClosure reply;
    OnceErrorPtr error;
    std::vector<ArgSpec> replySpec;
};

struct Outgoing {
    EncodedMessage message;
    OnceErrorPtr error;
    uint64_t replyId = 0;
};

}  // namespace

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
    return gOpenConnections.load();
}

// ---------------------------------------------------------------------------
// Connection

struct ReplyHandler::State {
    std::weak_ptr<Connection> connection;
    uint64_t replyId = 0;
    std::vector<ArgSpec> signature;
    std::atomic<bool> sent{false};
};

struct Connection::Impl {
    std::mutex mutex;
    enum class State { Created, Active, Interrupted, Invalidated } state = State::Created;
    bool resumed = false;
    std::atomic<bool> locallyInvalidated{false};
    Credentials creds;
    std::shared_ptr<const Interface> exportedInterface, remoteInterface;
    std::shared_ptr<ExportedObject> exported;
    std::function<void()> interruptionHandler, invalidationHandler;
    std::map<uint64_t, PendingCall> pending;
    uint64_t nextReplyId = 1;
    std::atomic<size_t> queuedBytes{0}, queuedMessages{0};
    std::atomic<size_t> undelivered{0};
    std::atomic<bool> readPaused{false};

    // Sending: callers send directly while nothing waits before them;
    // otherwise messages queue in `out` for the I/O thread, in call order.
    std::mutex sendMutex;
    int sendFd = -1;           // the socket while it is open
    size_t postsInFlight = 0;  // messages on their way to `out` through the I/O thread
    std::deque<Outgoing> out;
    bool writeWaiting = false;

    // I/O thread only.
    std::unique_ptr<asio::posix::stream_descriptor> socket;
    uint64_t generation = 0;
    int rejected = 0;
    std::vector<uint8_t> buffer;
    UniqueFd acceptedFd;  // accepted connections, until resume
    Endpoint endpoint;    // endpoint connections

    ~Impl() {
        if (socket) gOpenConnections--;
    }

    // ---- all of the following run on the I/O thread ----

    static void fire(const std::shared_ptr<Connection>& c, const OnceErrorPtr& e, int64_t code,
                     bool suppressAfterInvalidate = true) {
        if (!e || !e->handler || e->fired.exchange(true)) return;
        c->queue_->async([c, e, code, suppressAfterInvalidate] {
            if (suppressAfterInvalidate && c->impl_->locallyInvalidated) return;
            e->handler(makeError(code));
        });
    }

    static void openSocket(const std::shared_ptr<Connection>& c, int fd) {
        Impl& s = *c->impl_;
        setNonBlocking(fd);
        setBufferSizes(fd);
        s.socket = std::make_unique<asio::posix::stream_descriptor>(ioContext(), fd);
        {
            std::lock_guard lock(s.sendMutex);
            s.sendFd = fd;
        }
        ++s.generation;
        ++gOpenConnections;
        s.rejected = 0;
        startRead(c);
        flush(c);
    }

    static void closeSocket(Impl& s) {
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
        ++s.generation;
        --gOpenConnections;
        s.readPaused = false;
    }

    // Connects a client connection; false when the service is not there.
    static bool connectClient(const std::shared_ptr<Connection>& c) {
        Impl& s = *c->impl_;
        if (c->kind_ == Kind::Service) {
            sockaddr_un addr;
            std::string path = servicePath(c->name_);
            if (!fillAddress(path, addr)) return false;
            // Non-blocking: a service whose backlog is full must not stall
            // the I/O thread; the call then fails as an interruption.
            int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            if (fd < 0) return false;
            if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
                log::debug("ipc: cannot connect to %@: %@", path, std::strerror(errno));
                ::close(fd);
                return false;
            }
            Credentials cr = peerCredentials(fd);
            {
                std::lock_guard lock(s.mutex);
                s.creds = cr;
            }
            openSocket(c, fd);
            return true;
        }
        // Endpoint: make a socket pair and hand one end to the listener.
        if (!s.endpoint.valid()) return false;
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return false;
        UniqueFd mine(pair[0]);
        EncodedMessage hello = encodeConnect(UniqueFd(pair[1]));
        int err = sendDatagram(s.endpoint.fd(), hello);
        if (err == EAGAIN) {  // the listener's queue is full: wait a little
            pollfd p{s.endpoint.fd(), POLLOUT, 0};
            if (poll(&p, 1, 1000) == 1) err = sendDatagram(s.endpoint.fd(), hello);
        }
        if (err != 0) return false;
        Credentials cr = peerCredentials(s.endpoint.fd());
        {
            std::lock_guard lock(s.mutex);
            s.creds = cr;
        }
        openSocket(c, mine.release());
        return true;
    }

    static void startRead(const std::shared_ptr<Connection>& c) {
        Impl& s = *c->impl_;
        if (!s.socket) return;
        s.socket->async_wait(asio::posix::stream_descriptor::wait_read,
                             [c, gen = s.generation](const std::error_code& ec) {
                                 if (ec || gen != c->impl_->generation) return;
                                 onReadable(c);
                             });
    }

    static void onReadable(const std::shared_ptr<Connection>& c) {
        Impl& s = *c->impl_;
        for (int i = 0; i < 64 && s.socket; ++i) {
            if (s.undelivered >= kMaxUndeliveredMessages) {
                s.readPaused = true;
                if (s.undelivered >= kMaxUndeliveredMessages) {  // resumed by delivery
                    log::debug("ipc: reading paused on %@: its queue is behind", c->name_);
                    return;
                }
                s.readPaused = false;
            }
            Datagram d;
            int r = receiveDatagram(s.socket->native_handle(), s.buffer, d);
            if (r == -1) break;
            if (r == 0 || r == -2) {
                peerGone(c);
                return;
            }
            uint64_t gen = s.generation;
            handleDatagram(c, std::move(d));
            if (gen != s.generation) return;  // disconnected while handling
        }
        startRead(c);
    }

    static void reject(const std::shared_ptr<Connection>& c, const std::string& why) {
        Impl& s = *c->impl_;
        log::error("ipc: dropped a message from pid %i on %@: %@", int(c->processIdentifier()),
                   c->name_, why);
        if (++s.rejected >= kMaxRejectedMessages) {
            log::error("ipc: disconnecting pid %i after %i rejected messages",
                       int(c->processIdentifier()), s.rejected);
            peerGone(c);
        }
    }

    static void handleDatagram(const std::shared_ptr<Connection>& c, Datagram d) {
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
        if (m.type == MessageType::Connect) return reject(c, "connect message on a connection");
        if (m.type == MessageType::Reply) {
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
            return;
        }
        std::shared_ptr<ExportedObject> object;
        {
            std::lock_guard lock(s.mutex);
            object = s.exported;
        }
        if (!object) {
            log::error("ipc: %@ has no exported object; dropped %@", c->name_, m.method);
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

    template <typename F>
    static void deliver(const std::shared_ptr<Connection>& c, F&& task) {
        Impl& s = *c->impl_;
        ++s.undelivered;
        c->queue_->async([c, task = std::forward<F>(task)]() mutable {
            Impl& st = *c->impl_;
            if (!st.locallyInvalidated) task();
            if (st.undelivered.fetch_sub(1) - 1 < kMaxUndeliveredMessages / 2 && st.readPaused) {
                onIoThread([c] {
                    if (c->impl_->readPaused.exchange(false)) onReadable(c);
                });
            }
        });
    }

    static bool isPeerGoneError(int err) {
        return err == EPIPE || err == ECONNRESET || err == ENOTCONN || err == EBADF;
    }
    static bool isWouldBlock(int err) {
        return err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS;
    }

    static void flush(const std::shared_ptr<Connection>& c) {
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
                if (err != 0) failed.emplace_back(std::move(done), err);
            }
        }
        for (auto& [f, err] : failed) {
            log::error("ipc: cannot send on %@: %@", c->name_, std::strerror(err));
            dropPending(s, f.replyId);
            fire(c, f.error, kErrorMessageRejected);
        }
        if (gone) {
            peerGone(c);
            return;
        }
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
        }
    }

    static void dropPending(Impl& s, uint64_t replyId) {
        if (replyId == 0) return;
        std::lock_guard lock(s.mutex);
        s.pending.erase(replyId);
    }

    // Takes every queued message out (their bytes no longer count).
    static std::deque<Outgoing> takeOutgoing(Impl& s) {
        std::deque<Outgoing> taken;
        {
            std::lock_guard lock(s.sendMutex);
            taken.swap(s.out);
        }
        for (auto& o : taken) {
            s.queuedBytes -= o.message.bytes.size();
            s.queuedMessages--;
        }
        return taken;
    }

    static void peerGone(const std::shared_ptr<Connection>& c) {
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

    // Queues a message for sending; counts it against the bounds first.
    static void enqueue(const std::shared_ptr<Connection>& c, EncodedMessage m, OnceErrorPtr error,
                        uint64_t replyId) {
        Impl& s = *c->impl_;
        size_t bytes = m.bytes.size();
        if (s.queuedBytes + bytes > kMaxQueuedBytes || s.queuedMessages >= kMaxQueuedMessages) {
            log::error("ipc: %@ is not reading; message not sent", c->name_);
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
            Impl& st = *c->impl_;
            State state;
            {
                std::lock_guard lock(st.mutex);
                state = st.state;
            }
            auto drop = [&](int64_t code) {
                {
                    std::lock_guard lock(st.sendMutex);
                    st.postsInFlight--;
                }
                st.queuedBytes -= m.bytes.size();
                st.queuedMessages--;
                dropPending(st, replyId);
                fire(c, error, code);
            };
            if (state == State::Invalidated) return drop(kErrorConnectionInvalid);
            if (!st.socket && state == State::Interrupted) {
                if (!connectClient(c)) return drop(kErrorConnectionInterrupted);
                std::lock_guard lock(st.mutex);
                if (st.state == State::Interrupted) st.state = State::Active;
            }
            {
                std::lock_guard lock(st.sendMutex);
                st.postsInFlight--;
                st.out.push_back(Outgoing{std::move(m), std::move(error), replyId});
            }
            flush(c);
        });
    }
};

void ReplyHandler::operator()(const Arguments& args) const {
    if (!state_) return;
    if (state_->sent.exchange(true)) {
        log::error("ipc: a completion handler was called more than once; reply dropped");
        return;
    }
    auto c = state_->connection.lock();
    if (!c || c->isInvalidated()) return;
    std::string error;
    auto m = encodeReply(state_->replyId, state_->signature, args, &error);
    if (!m) {
        log::error("ipc: reply on %@ not sent: %@", c->name(), error);
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
    log::error("ipc: no implementation of %@", invocation.method());
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
        log::error("ipc: %@ is not a method of the remote interface of %@", method, c->name());
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
        log::error("ipc: call not sent on %@: %@", c->name(), why);
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

std::shared_ptr<Connection> Connection::toService(std::string serviceName) {
    return std::make_shared<Connection>(Kind::Service, std::move(serviceName));
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
        Impl& s = *c->impl_;
        bool ok;
        if (c->kind_ == Kind::Accepted) {
            ok = s.acceptedFd.valid();
            if (ok) Impl::openSocket(c, s.acceptedFd.release());
        } else {
            ok = Impl::connectClient(c);
        }
        {
            std::lock_guard lock(s.mutex);
            if (s.state != Impl::State::Created) return;  // invalidated meanwhile
            if (ok) {
                s.state = Impl::State::Active;
                return;
            }
            if (c->kind_ == Kind::Service) {
                // The service is not running: the next call connects again.
                s.state = Impl::State::Interrupted;
            } else {
                s.state = Impl::State::Invalidated;
            }
        }
        int64_t code =
            c->kind_ == Kind::Service ? kErrorConnectionInterrupted : kErrorConnectionInvalid;
        for (auto& o : Impl::takeOutgoing(s)) {
            Impl::dropPending(s, o.replyId);
            Impl::fire(c, o.error, code);
        }
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
    });
    if (handler) queue_->async(std::move(handler));
}

std::string Connection::description() const {
    return "<Connection " + name_ + " pid " + std::to_string(processIdentifier()) + ">";
}

// ---------------------------------------------------------------------------
// Listener

struct Listener::Impl {
    std::mutex mutex;
    std::weak_ptr<ListenerDelegate> delegate;
    bool resumed = false, invalidated = false;
    bool anonymous = false;
    bool ownsPath = false;
    std::vector<uid_t> allowedUsers;
    Endpoint endpoint;
    std::shared_ptr<DispatchQueue> queue;
    // I/O thread only.
    std::unique_ptr<asio::posix::stream_descriptor> socket;
    std::vector<uint8_t> buffer;
    int pendingFd = -1;  // until resume

    static void arm(std::weak_ptr<Listener> weak, std::shared_ptr<Impl> s) {
        if (!s->socket) return;
        s->socket->async_wait(asio::posix::stream_descriptor::wait_read,
                              [weak, s](const std::error_code& ec) {
                                  if (ec || !s->socket) return;
                                  auto l = weak.lock();
                                  if (!l) return;
                                  s->anonymous ? receiveConnects(l, s) : acceptAll(l, s);
                                  arm(weak, s);
                              });
    }

    static void acceptAll(const std::shared_ptr<Listener>& l, const std::shared_ptr<Impl>& s) {
        for (int i = 0; i < 64; ++i) {
            int fd = accept4(s->socket->native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR &&
                    errno != ECONNABORTED)
                    log::error("ipc: accept on %@ failed: %@", l->name_, std::strerror(errno));
                return;
            }
            Credentials cr = peerCredentials(fd);
            bool allowed = false;
            for (uid_t u : s->allowedUsers) allowed = allowed || u == cr.uid;
            if (!allowed) {
                log::error("ipc: refused connection to %@ from user %u (pid %i)", l->name_,
                           unsigned(cr.uid), int(cr.pid));
                ::close(fd);
                continue;
            }
            offer(l, s, fd, cr);
        }
    }

    static void receiveConnects(const std::shared_ptr<Listener>& l,
                                const std::shared_ptr<Impl>& s) {
        for (int i = 0; i < 64; ++i) {
            Datagram d;
            int r = receiveDatagram(s->socket->native_handle(), s->buffer, d);
            if (r < 0) return;
            if (r == 0) continue;  // an empty datagram; the listener's own end keeps it open
            if (d.flags & (MSG_TRUNC | MSG_CTRUNC)) {
                log::error("ipc: dropped an oversized connect message on %@", l->name_);
                continue;
            }
            DecodeResult m = decodeMessage(d.bytes, std::move(d.fds), nullptr, nullptr);
            if (!m.message || m.message->type != MessageType::Connect) {
                log::error("ipc: dropped a message on the endpoint of %@: %@", l->name_,
                           m.message ? std::string("not a connect message") : m.error);
                continue;
            }
            int fd = m.message->socket.release();
            offer(l, s, fd, peerCredentials(fd));
        }
    }

    static void offer(const std::shared_ptr<Listener>& l, const std::shared_ptr<Impl>& s, int fd,
                      Credentials cr) {
        auto c = std::make_shared<Connection>(Connection::Kind::Accepted, l->name_);
        c->impl_->acceptedFd.reset(fd);
        c->impl_->creds = cr;
        s->queue->async([l, s, c] {
            std::shared_ptr<ListenerDelegate> d;
            {
                std::lock_guard lock(s->mutex);
                if (s->invalidated) return;
                d = s->delegate.lock();
            }
            bool accepted = d && d->listenerShouldAcceptNewConnection(*l, c);
            if (!accepted) {
                log::info("ipc: connection to %@ from pid %i refused", l->name_,
                          int(c->processIdentifier()));
                c->setInvalidationHandler(nullptr);
                c->setInterruptionHandler(nullptr);
                c->invalidate();
            }
        });
    }
};

Listener::Listener(std::string name, std::string path)
    : name_(std::move(name)), path_(std::move(path)), impl_(std::make_shared<Impl>()) {
    impl_->queue = DispatchQueue::serial("org.sorvel.ipc.listener." + name_);
}

Listener::~Listener() {
    auto s = impl_;
    std::string path = path_;
    {
        std::lock_guard lock(s->mutex);
        if (!s->invalidated && s->ownsPath) ::unlink(path.c_str());
        s->invalidated = true;
    }
    onIoThread([s] {
        if (s->socket) s->socket.reset();
        if (s->pendingFd >= 0) ::close(s->pendingFd), s->pendingFd = -1;
    });
}

std::shared_ptr<Listener> Listener::named(const std::string& serviceName, std::string* error,
                                          Options options) {
    auto fail = [&](std::string why) -> std::shared_ptr<Listener> {
        log::error("ipc: cannot listen on %@: %@", serviceName, why);
        if (error) *error = std::move(why);
        return nullptr;
    };
    if (serviceName.empty() || serviceName.find('/') != std::string::npos || serviceName[0] == '.')
        return fail("bad service name");
    std::string path = servicePath(serviceName);
    auto l = std::make_shared<Listener>(serviceName, path);
    l->impl_->allowedUsers = options.allowedUsers;
    if (l->impl_->allowedUsers.empty()) l->impl_->allowedUsers.push_back(getuid());

    int fd = takeActivatedSocket(serviceName);
    if (fd < 0) {
        sockaddr_un addr;
        if (!fillAddress(path, addr)) return fail("socket path too long: " + path);
        struct stat st {};
        if (lstat(path.c_str(), &st) == 0) {
            if (!S_ISSOCK(st.st_mode)) return fail(path + " exists and is not a socket");
            int probe = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            bool live = probe >= 0 &&
                        (::connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ||
                         errno == EAGAIN);  // a full backlog still means someone listens
            if (probe >= 0) ::close(probe);
            if (live) return fail("service " + serviceName + " is already running");
            ::unlink(path.c_str());  // left behind by a process that ended
        }
        fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) return fail(std::strerror(errno));
        // Created private: fchmod does not apply to a socket's path, so the
        // mode is set right after bind; peer credentials are checked on
        // every accept as well, which closes the window in between.
        if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::chmod(path.c_str(), 0600) != 0 || ::listen(fd, 128) != 0) {
            std::string why = std::strerror(errno);
            ::close(fd);
            return fail(why);
        }
        l->impl_->ownsPath = true;
    }
    setNonBlocking(fd);
    l->impl_->pendingFd = fd;
    return l;
}

std::shared_ptr<Listener> Listener::anonymous(std::string* error) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        if (error) *error = std::strerror(errno);
        return nullptr;
    }
    auto l = std::make_shared<Listener>("anonymous", "");
    l->impl_->anonymous = true;
    setNonBlocking(pair[0]);
    l->impl_->pendingFd = pair[0];
    l->impl_->endpoint = Endpoint::adopt(pair[1]);
    return l;
}

void Listener::setDelegate(std::weak_ptr<ListenerDelegate> delegate) {
    std::lock_guard lock(impl_->mutex);
    impl_->delegate = std::move(delegate);
}

void Listener::resume() {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->resumed || impl_->invalidated) return;
        impl_->resumed = true;
    }
    onIoThread([weak = weak_from_this(), s = impl_] {
        if (s->pendingFd < 0) return;
        s->socket = std::make_unique<asio::posix::stream_descriptor>(ioContext(), s->pendingFd);
        s->pendingFd = -1;
        Impl::arm(weak, s);
    });
}

void Listener::invalidate() {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->invalidated) return;
        impl_->invalidated = true;
        if (impl_->ownsPath) ::unlink(path_.c_str());
        impl_->endpoint = Endpoint();
    }
    onIoThread([s = impl_] {
        if (s->socket) {
            std::error_code ec;
            s->socket->close(ec);
            s->socket.reset();
        }
        if (s->pendingFd >= 0) ::close(s->pendingFd), s->pendingFd = -1;
    });
}

Endpoint Listener::endpoint() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->invalidated ? Endpoint() : impl_->endpoint;
}

}  // namespace sv::ipc
