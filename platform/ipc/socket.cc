#include "platform/ipc/socket.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <asio/executor_work_guard.hpp>

namespace sv::ipc::detail {
namespace {

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

}  // namespace

asio::io_context& ioContext() {
    static IoThread* t = new IoThread;
    return t->io;
}

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

ReceiveResult receiveDatagram(int fd, Datagram& out) {
    // One more byte than the limit, so that MSG_TRUNC marks what is too long.
    // Left uninitialised: pages are touched only as far as messages reach.
    constexpr size_t kScratchBytes = kMaxMessageBytes + 1;
    thread_local std::unique_ptr<uint8_t[]> scratch(new uint8_t[kScratchBytes]);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxObjectsPerMessage)];
    iovec iov{scratch.get(), kScratchBytes};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n;
    do {
        n = recvmsg(fd, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? ReceiveResult::WouldBlock
                                                       : ReceiveResult::Failed;
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
    if (n == 0 && out.fds.empty()) return ReceiveResult::EndOfStream;
    out.bytes.assign(scratch.get(), scratch.get() + std::min<size_t>(size_t(n), kScratchBytes));
    return ReceiveResult::Datagram;
}

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

bool isResourceExhaustion(int err) {
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

namespace {

// The file name a passed Unix socket is bound to ("" for other sockets and
// abstract addresses).
std::string boundFileName(int fd) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        address.sun_family != AF_UNIX || length <= offsetof(sockaddr_un, sun_path) ||
        address.sun_path[0] == '\0')
        return {};
    std::string path(address.sun_path,
                     strnlen(address.sun_path, length - offsetof(sockaddr_un, sun_path)));
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

struct ActivatedSocket {
    std::string name;      // LISTEN_FDNAMES entry; "" when systemd knows none
    std::string fileName;  // the socket file's name in its directory
    int fd;
};

}  // namespace

int takeActivatedSocket(const std::string& name) {
    static std::mutex m;
    static std::vector<ActivatedSocket>* fds = nullptr;
    std::lock_guard lock(m);
    if (!fds) {
        fds = new std::vector<ActivatedSocket>;
        // The environment stays: the keep-alive reads it too. Names that
        // systemd sets to "unknown" (no FileDescriptorName=) match any name.
        char** names = nullptr;
        const int n = sd_listen_fds_with_names(0, &names);
        for (int i = 0; i < n; ++i) {
            const int fd = SD_LISTEN_FDS_START + i;
            fcntl(fd, F_SETFD, FD_CLOEXEC);
            std::string fdName = names && names[i] ? names[i] : "";
            if (fdName == "unknown") fdName.clear();
            fds->push_back({std::move(fdName), boundFileName(fd), fd});
        }
        if (names) {
            for (int i = 0; i < n; ++i) std::free(names[i]);
            std::free(names);
        }
    }
    // A socket named for the service; else one whose file has the service's
    // name (one socket unit for several services names every socket after
    // the unit); else one systemd knows no name for.
    auto take = [&](auto matches) {
        for (auto it = fds->begin(); it != fds->end(); ++it) {
            if (!matches(*it)) continue;
            const int fd = it->fd;
            fds->erase(it);
            return fd;
        }
        return -1;
    };
    int fd = take([&](const ActivatedSocket& s) { return s.name == name; });
    if (fd < 0) fd = take([&](const ActivatedSocket& s) { return s.fileName == name; });
    if (fd < 0) fd = take([&](const ActivatedSocket& s) { return s.name.empty(); });
    return fd;
}

}  // namespace sv::ipc::detail
