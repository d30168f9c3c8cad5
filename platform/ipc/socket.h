// Inside sv_ipc only: the process's one I/O thread and the socket calls that
// connections and listeners share (datagrams with descriptors, peer
// credentials, addresses of named services, sockets passed by systemd).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include "platform/ipc/wire.h"

struct sockaddr_un;

namespace sv::ipc::detail {

// The one I/O thread of the process; it runs every socket wait and timer of
// connections and listeners. Never destroyed: connections may still be torn
// down by threads that outlive static destruction.
asio::io_context& ioContext();

template <typename F>
void onIoThread(F&& f) {
    asio::post(ioContext(), std::forward<F>(f));
}

struct Credentials {
    pid_t pid = 0;
    uid_t uid = uid_t(-1);
};
Credentials peerCredentials(int fd);

// False when `path` does not fit a socket address.
bool fillAddress(const std::string& path, sockaddr_un& addr);
// Room for a full-size message in one send, and the same for receiving.
void setBufferSizes(int fd);
void setNonBlocking(int fd);

// One datagram with its descriptors; descriptors are closed unless taken.
struct Datagram {
    std::vector<uint8_t> bytes;  // only as long as what arrived
    std::vector<UniqueFd> fds;
    int flags = 0;  // MSG_TRUNC, MSG_CTRUNC
};

enum class ReceiveResult { Datagram, EndOfStream, WouldBlock, Failed };
// Reads one datagram without waiting. The bytes are read into a scratch
// buffer of the calling thread (for the I/O thread: one for the whole
// process) and only what arrived is copied out, so an idle connection holds
// no buffer. A zero-length datagram without descriptors cannot be told from
// the end of the stream and reads as EndOfStream.
ReceiveResult receiveDatagram(int fd, Datagram& out);

// 0 when the whole message went to the kernel, else errno (EAGAIN: no room).
int sendDatagram(int fd, const EncodedMessage& m);

// True for errno values of accept/socket/recvmsg that mean the process or
// the system has run out of descriptors or kernel memory: retrying at once
// would fail the same way.
bool isResourceExhaustion(int err);

// A socket systemd passed for `name` (LISTEN_FDS / LISTEN_FDNAMES): the one
// named `name`, else the one whose socket file is called `name`, else one
// without a name; -1 when none is left.
int takeActivatedSocket(const std::string& name);

}  // namespace sv::ipc::detail
