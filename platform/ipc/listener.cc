// Listeners: named services and unnamed listeners, accepting within the
// per-user limit, and pausing while the process is out of descriptors.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/ipc/connection_impl.h"
#include "platform/log.h"

namespace sv::ipc {

using namespace detail;

// ---------------------------------------------------------------------------
// Per-user connection counts

std::unique_ptr<UserConnectionCounts::Slot> UserConnectionCounts::acquire(uid_t uid, pid_t pid) {
    bool episodeStarts = false;
    {
        std::lock_guard lock(mutex_);
        Entry& e = users_[uid];
        if (limit_ == 0 || e.open < limit_) {
            ++e.open;
            return std::make_unique<Slot>(shared_from_this(), uid);
        }
        ++e.refused;
        episodeStarts = !e.refusing;
        e.refusing = true;
    }
    if (episodeStarts) {
        // Once per episode, and rate-limited for users that hover at the limit.
        static log::RateLimit limit;
        log::error(limit,
                   "ipc: refusing connections to %@ from user %u (pid %i): %lu are open, the "
                   "limit per user",
                   name_, unsigned(uid), int(pid), limit_);
    }
    return nullptr;
}

void UserConnectionCounts::release(uid_t uid) {
    size_t refused = 0;
    {
        std::lock_guard lock(mutex_);
        auto it = users_.find(uid);
        if (it == users_.end()) return;
        Entry& e = it->second;
        --e.open;
        if (e.refusing && e.open < limit_) {
            refused = e.refused;
            e.refusing = false;
            e.refused = 0;
        }
        if (e.open == 0 && !e.refusing) users_.erase(it);
    }
    if (refused > 0) {
        static log::RateLimit limit;
        log::debug(limit, "ipc: user %u is below its connection limit on %@ again (%lu refused)",
                   unsigned(uid), name_, refused);
    }
}

// ---------------------------------------------------------------------------
// Listener

struct Listener::Impl : std::enable_shared_from_this<Listener::Impl> {
    std::mutex mutex;
    std::weak_ptr<ListenerDelegate> delegate;
    bool resumed = false, invalidated = false;
    bool anonymous = false;
    bool ownsPath = false;
    std::vector<uid_t> allowedUsers;
    std::chrono::milliseconds stalledPeerTimeout = kDefaultStalledPeerTimeout;
    std::shared_ptr<UserConnectionCounts> userCounts;
    Endpoint endpoint;
    std::shared_ptr<DispatchQueue> queue;

    // I/O thread only.
    std::weak_ptr<Listener> owner;
    std::unique_ptr<asio::posix::stream_descriptor> socket;
    int pendingFd = -1;  // until resume
    // Out of descriptors: not watching the socket, retrying on a timer
    // (backing off) and whenever a connection closes.
    bool starved = false;
    std::chrono::milliseconds retryDelay{0};
    std::unique_ptr<asio::steady_timer> retryTimer;

    static constexpr std::chrono::milliseconds kFirstRetry{50};
    static constexpr std::chrono::milliseconds kLongestRetry{2000};

    // Listeners that wait for descriptors. I/O thread only.
    static std::vector<std::weak_ptr<Impl>>& starvedListeners() {
        static auto* v = new std::vector<std::weak_ptr<Impl>>;
        return *v;
    }

    // Watches the socket for the next connections.
    void arm() {
        if (!socket) return;
        socket->async_wait(asio::posix::stream_descriptor::wait_read,
                           [s = shared_from_this()](const std::error_code& ec) {
                               if (ec || !s->socket) return;
                               if (s->takeConnections()) s->arm();
                           });
    }

    // Takes what has arrived; false while the process is out of descriptors
    // (the socket is then not watched until retry() succeeds).
    bool takeConnections() {
        auto l = owner.lock();
        if (!l) return false;
        return anonymous ? receiveConnects(l) : acceptAll(l);
    }

    bool acceptAll(const std::shared_ptr<Listener>& l) {
        for (int i = 0; i < 64; ++i) {
            int fd = accept4(socket->native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                int err = errno;
                if (err == EINTR || err == ECONNABORTED) continue;
                if (isResourceExhaustion(err)) return starve(l, err);
                if (err != EAGAIN && err != EWOULDBLOCK) {
                    static log::RateLimit limit;
                    log::error(limit, "ipc: accept on %@ failed: %@", l->name_, std::strerror(err));
                } else {
                    // The backlog is empty: an episode of starvation is over.
                    // (One accepted connection is not enough: a descriptor
                    // that frees for a moment would end it, and the next
                    // failure would start and log another.)
                    fed();
                }
                break;
            }
            Credentials cr = peerCredentials(fd);
            if (std::find(allowedUsers.begin(), allowedUsers.end(), cr.uid) == allowedUsers.end()) {
                static log::RateLimit limit;
                log::error(limit, "ipc: refused connection to %@ from user %u (pid %i)", l->name_,
                           unsigned(cr.uid), int(cr.pid));
                ::close(fd);
                continue;
            }
            offer(l, UniqueFd(fd), cr);
        }
        return true;
    }

    bool receiveConnects(const std::shared_ptr<Listener>& l) {
        for (int i = 0; i < 64; ++i) {
            Datagram d;
            ReceiveResult r = receiveDatagram(socket->native_handle(), d);
            if (r == ReceiveResult::Failed && isResourceExhaustion(errno)) return starve(l, errno);
            if (r == ReceiveResult::WouldBlock || r == ReceiveResult::Failed) break;
            // An empty datagram; the listener's own end keeps the pair open.
            if (r == ReceiveResult::EndOfStream) continue;
            static log::RateLimit dropped;
            if (d.flags & MSG_CTRUNC) {
                // The descriptor did not fit the process: the connection is lost.
                log::error(dropped, "ipc: dropped a connect message on %@: no room for its socket",
                           l->name_);
                continue;
            }
            if (d.flags & MSG_TRUNC) {
                log::error(dropped, "ipc: dropped an oversized connect message on %@", l->name_);
                continue;
            }
            DecodeResult m = decodeMessage(d.bytes, std::move(d.fds), nullptr, nullptr);
            if (!m.message || m.message->type != MessageType::Connect) {
                log::error(dropped, "ipc: dropped a message on the endpoint of %@: %@", l->name_,
                           m.message ? std::string("not a connect message") : m.error);
                continue;
            }
            UniqueFd fd = std::move(m.message->socket);
            Credentials cr = peerCredentials(fd.get());
            offer(l, std::move(fd), cr);
        }
        return true;
    }

    void offer(const std::shared_ptr<Listener>& l, UniqueFd fd, Credentials cr) {
        auto slot = userCounts->acquire(cr.uid, cr.pid);
        if (!slot) return;  // closed at once, before anyone sees it
        auto c = std::make_shared<Connection>(Connection::Kind::Accepted, l->name_);
        c->impl_->acceptedFd = std::move(fd);
        c->impl_->creds = cr;
        c->impl_->userSlot = std::move(slot);
        c->impl_->stalledPeerTimeout = stalledPeerTimeout;
        queue->async([l, s = shared_from_this(), c] {
            std::shared_ptr<ListenerDelegate> d;
            {
                std::lock_guard lock(s->mutex);
                if (s->invalidated) return;
                d = s->delegate.lock();
            }
            bool accepted = d && d->listenerShouldAcceptNewConnection(*l, c);
            if (!accepted) {
                static log::RateLimit limit;
                log::info(limit, "ipc: connection to %@ from pid %i refused", l->name_,
                          int(c->processIdentifier()));
                c->setInvalidationHandler(nullptr);
                c->setInterruptionHandler(nullptr);
                c->invalidate();
            }
        });
    }

    // Out of descriptors (or kernel memory): stop watching the socket, which
    // would only report the same connections again, and retry later. One
    // line per episode.
    bool starve(const std::shared_ptr<Listener>& l, int err) {
        if (!starved) {
            starved = true;
            retryDelay = kFirstRetry;
            auto& list = starvedListeners();
            list.erase(std::remove_if(list.begin(), list.end(),
                                      [](const std::weak_ptr<Impl>& w) { return w.expired(); }),
                       list.end());
            list.push_back(weak_from_this());
            static log::RateLimit limit;
            log::error(limit,
                       "ipc: out of descriptors (%@); accepting on %@ paused until some are free",
                       std::strerror(err), l->name_);
        } else {
            retryDelay = std::min(retryDelay * 2, kLongestRetry);
        }
        if (!retryTimer) retryTimer = std::make_unique<asio::steady_timer>(ioContext());
        retryTimer->expires_after(retryDelay);
        retryTimer->async_wait([s = shared_from_this()](const std::error_code& ec) {
            if (!ec) s->retry();
        });
        return false;
    }

    // The backlog was taken: an episode of starvation is over.
    void fed() {
        if (!starved) return;
        starved = false;
        if (retryTimer) retryTimer->cancel();
        auto& list = starvedListeners();
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [this](const std::weak_ptr<Impl>& w) {
                                      auto p = w.lock();
                                      return !p || p.get() == this;
                                  }),
                   list.end());
        if (auto l = owner.lock()) {
            static log::RateLimit limit;
            log::debug(limit, "ipc: accepting on %@ again", l->name_);
        }
    }

    void retry() {
        if (!starved || !socket) return;
        if (retryTimer) retryTimer->cancel();
        if (takeConnections()) {
            // Nothing more was waiting: the episode ends with the backlog empty.
            if (starved) fed();
            arm();
        }
    }

    void close() {
        if (retryTimer) retryTimer->cancel();
        starved = false;
        if (socket) {
            std::error_code ec;
            socket->close(ec);
            socket.reset();
        }
        if (pendingFd >= 0) ::close(pendingFd), pendingFd = -1;
    }
};

namespace detail {

void descriptorsReleased() {
    auto& list = Listener::Impl::starvedListeners();
    if (list.empty()) return;
    auto waiting = list;  // retry() may change the list
    for (auto& w : waiting)
        if (auto s = w.lock()) s->retry();
}

}  // namespace detail

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
    onIoThread([s] { s->close(); });
}

namespace {

// Binds and listens on `path` (mode 0600), replacing a socket left behind
// by a process that ended; an error (kErrorCannotListen) when the name is
// taken by a running service or the socket cannot be made.
Result<int> bindServiceSocket(const std::string& serviceName, const std::string& path) {
    auto fail = [](const std::string& why) {
        return Error::make(kIPCErrorDomain, kErrorCannotListen, why);
    };
    sockaddr_un addr;
    if (!fillAddress(path, addr)) return fail("socket path too long: " + path);
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) return fail(path + " exists and is not a socket");
        UniqueFd probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        bool live = probe.valid() &&
                    (::connect(probe.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ||
                     errno == EAGAIN);  // a full backlog still means someone listens
        if (live) return fail("service " + serviceName + " is already running");
        ::unlink(path.c_str());
    }
    // The socket is made under a temporary name in the same directory and
    // renamed into place once it listens: a client that sees the service's
    // path can connect at once (between bind and listen it would be refused).
    // Created private: fchmod does not apply to a socket's path, so the mode
    // is set right after bind; peer credentials are checked on every accept
    // as well, which closes the window in between.
    const std::string dir = path.substr(0, path.rfind('/') + 1);
    const std::string temporary = dir + ".sv-" + std::to_string(getpid()) + "-" + serviceName;
    sockaddr_un tmpAddr;
    if (!fillAddress(temporary, tmpAddr)) return fail("socket path too long: " + temporary);
    ::unlink(temporary.c_str());
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid() || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&tmpAddr), sizeof tmpAddr) != 0)
        return fail(std::strerror(errno));
    if (::chmod(temporary.c_str(), 0600) != 0 || ::listen(fd.get(), 128) != 0 ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        ::unlink(temporary.c_str());
        return fail(why);
    }
    return fd.release();
}

void applyOptions(Listener::Impl& s, const std::string& name, Listener::Options& options) {
    s.allowedUsers = std::move(options.allowedUsers);
    if (s.allowedUsers.empty()) s.allowedUsers.push_back(getuid());
    s.stalledPeerTimeout = options.stalledPeerTimeout;
    s.userCounts = std::make_shared<UserConnectionCounts>(name, options.maxConnectionsPerUser);
}

}  // namespace

Result<std::shared_ptr<Listener>> Listener::named(const std::string& serviceName, Options options) {
    auto fail = [&](const std::string& why) {
        log::error("ipc: cannot listen on %@: %@", serviceName, why);
        return Error::make(kIPCErrorDomain, kErrorCannotListen, why);
    };
    if (serviceName.empty() || serviceName.find('/') != std::string::npos || serviceName[0] == '.')
        return fail("bad service name");
    std::string path = servicePath(serviceName);
    auto l = std::make_shared<Listener>(serviceName, path);
    applyOptions(*l->impl_, serviceName, options);

    int fd = takeActivatedSocket(serviceName);
    if (fd < 0) {
        auto bound = bindServiceSocket(serviceName, path);
        if (!bound) return fail(bound.error().message());
        fd = *bound;
        l->impl_->ownsPath = true;
    }
    setNonBlocking(fd);
    l->impl_->pendingFd = fd;
    return l;
}

Result<std::shared_ptr<Listener>> Listener::anonymous(Options options) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return Error::make(kIPCErrorDomain, kErrorCannotListen, std::strerror(errno));
    auto l = std::make_shared<Listener>("anonymous", "");
    applyOptions(*l->impl_, "anonymous", options);
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
        s->owner = weak;
        s->socket = std::make_unique<asio::posix::stream_descriptor>(ioContext(), s->pendingFd);
        s->pendingFd = -1;
        s->arm();
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
    onIoThread([s = impl_] { s->close(); });
}

Endpoint Listener::endpoint() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->invalidated ? Endpoint() : impl_->endpoint;
}

}  // namespace sv::ipc
