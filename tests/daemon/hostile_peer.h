// A local process that talks to the daemon's sockets directly, the way a
// hostile peer of the same user would: raw SOCK_SEQPACKET connections,
// hand-made CBOR (including values the library would never encode), and the
// daemon's own figures read from /proc. Used by the hostile-peer and IPC
// tests and by bench/ipc/daemon_hostile_bench.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/value.h"

namespace sv::test {

// ---- the daemon's figures ----

// Resident set size (VmRSS) of `pid` in KiB; 0 when it cannot be read.
inline size_t residentKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6));
    return 0;
}

// User plus system CPU time of `pid` in seconds (utime + stime of /proc/<pid>/stat).
inline double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t end = text.rfind(')');  // the command name may contain spaces
    if (end == std::string::npos) return 0;
    std::istringstream fields(text.substr(end + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    // Fields after the name start at 3 (state); utime is 14, stime 15.
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

// Descriptors open in `pid`.
inline size_t descriptorCount(pid_t pid) {
    std::error_code ec;
    std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd", ec);
    return ec ? 0 : size_t(std::distance(fds, {}));
}

// ---- hand-made messages ----

// CBOR of one integer argument; `negativeArgument` encodes the negative
// integer -1 - n for any 64-bit n, also those below INT64_MIN.
inline Bytes cborInt(int64_t v) {
    return encodeCbor(Value(v));
}
inline Bytes cborNegative(uint64_t n) {
    Bytes b{0x3b};
    for (int shift = 56; shift >= 0; shift -= 8) b.push_back(uint8_t(n >> shift));
    return b;
}

// A call envelope whose arguments are given as encoded CBOR items, in wire
// order (the reply identifier in the handler's position).
inline Bytes rawCall(const std::string& method, const std::vector<Bytes>& encodedArgs) {
    Bytes out{0xa5};  // map of five pairs
    auto text = [&](const std::string& s) {
        Bytes t = encodeCbor(Value(s));
        out.insert(out.end(), t.begin(), t.end());
    };
    auto item = [&](const Bytes& b) { out.insert(out.end(), b.begin(), b.end()); };
    text("v");
    item(cborInt(1));
    text("t");
    item(cborInt(1));
    text("m");
    text(method);
    text("a");
    out.push_back(uint8_t(0x80 | encodedArgs.size()));  // fewer than 24 arguments
    for (const auto& a : encodedArgs) item(a);
    text("n");
    item(cborInt(0));
    return out;
}

// ---- a raw connection ----

class RawPeer {
  public:
    RawPeer() = default;
    explicit RawPeer(int fd) : fd_(fd) {}
    RawPeer(RawPeer&& o) noexcept : fd_(std::exchange(o.fd_, -1)), buffer_(std::move(o.buffer_)) {}
    ~RawPeer() { close(); }

    // Connects to the socket at `path`; invalid when the connection is
    // refused or the backlog is full. `receiveBuffer` > 0 shrinks the socket's
    // receive buffer (a peer that means not to read); `sendBuffer` > 0 sets
    // the send buffer (a peer that sends oversized messages).
    static RawPeer connect(const std::string& path, int receiveBuffer = 0, int sendBuffer = 0) {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) return RawPeer();
        if (receiveBuffer > 0)
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        if (sendBuffer > 0) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            ::close(fd);
            return RawPeer();
        }
        return RawPeer(fd);
    }

    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    // Sends one datagram (with `fds` attached) without waiting; false when
    // the socket would block or is broken.
    bool trySend(const Bytes& bytes, const std::vector<int>& fds = {}) {
        iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        std::vector<char> control(CMSG_SPACE(sizeof(int) * fds.size()));
        if (!fds.empty()) {
            msg.msg_control = control.data();
            msg.msg_controllen = control.size();
            cmsghdr* c = CMSG_FIRSTHDR(&msg);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
            std::memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
        }
        return ::sendmsg(fd_, &msg, MSG_NOSIGNAL | MSG_DONTWAIT) == ssize_t(bytes.size());
    }
    // Sends one datagram, waiting up to `timeout` for room.
    bool send(const Bytes& bytes, const std::vector<int>& fds = {},
              std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        auto end = std::chrono::steady_clock::now() + timeout;
        while (!trySend(bytes, fds)) {
            if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
            if (!waitFor(POLLOUT, end)) return false;
        }
        return true;
    }

    // The next message, decoded; nullopt on timeout, end of stream or garbage.
    std::optional<Value> receive(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        auto end = std::chrono::steady_clock::now() + timeout;
        std::vector<uint8_t>& buf = buffer();
        while (true) {
            ssize_t n = ::recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
            if (n > 0) {
                auto r = decodeCbor(std::span<const uint8_t>(buf.data(), size_t(n)));
                if (!r) return std::nullopt;
                return std::move(*r.value);
            }
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return std::nullopt;
            if (!waitFor(POLLIN, end)) return std::nullopt;
        }
    }

    // True once the other side has closed the connection (end of stream or
    // reset), read within `timeout`; messages before it are skipped.
    bool closedByPeer(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        auto end = std::chrono::steady_clock::now() + timeout;
        std::vector<uint8_t>& buf = buffer();
        while (true) {
            ssize_t n = ::recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
            if (n == 0) return true;
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return errno != EINTR;
            if (n < 0 && !waitFor(POLLIN, end)) return false;
        }
    }

    // True once the other side has closed the connection, seen within
    // `timeout` without reading anything (what waits to be read stays).
    bool hungUp(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        auto end = std::chrono::steady_clock::now() + timeout;
        while (short revents = waitFor(POLLRDHUP, end))
            if (revents & (POLLHUP | POLLRDHUP)) return true;
        return false;
    }

  private:
    // The events seen before `end`; 0 for none.
    short waitFor(short events, std::chrono::steady_clock::time_point end) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd p{fd_, events, 0};
        return left.count() > 0 && ::poll(&p, 1, int(left.count())) > 0 ? p.revents : 0;
    }

    std::vector<uint8_t>& buffer() {
        if (buffer_.empty()) buffer_.resize(256 * 1024 + 1);  // the largest datagram, and one more
        return buffer_;
    }

    int fd_ = -1;
    std::vector<uint8_t> buffer_;
};

// The reply identifier of a decoded reply, or 0.
inline uint64_t replyIdOf(const std::optional<Value>& m) {
    if (!m || !m->is_object() || m->value("t", 0) != 2) return 0;
    auto it = m->find("r");
    return it != m->end() && it->is_number_unsigned() ? it->get<uint64_t>() : 0;
}

// Sends `call`, whose reply identifier is `replyId`, and waits for that
// reply (skipping others); false on timeout or when the peer closes.
inline bool callAndWait(RawPeer& p, const Bytes& call, uint64_t replyId,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    using Clock = std::chrono::steady_clock;
    auto end = Clock::now() + timeout;
    if (!p.send(call, {}, timeout)) return false;
    while (Clock::now() < end) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        auto m = p.receive(left + std::chrono::milliseconds(1));
        if (!m) return false;
        if (replyIdOf(m) == replyId) return true;
    }
    return false;
}

}  // namespace sv::test
