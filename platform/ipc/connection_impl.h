// Inside sv_ipc only: the state of a Connection and the steps that run on
// the I/O thread (reading, sending, back-pressure, connecting, ending), and
// what a listener hands to the connections it accepts.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include "platform/ipc/ipc.h"
#include "platform/ipc/socket.h"

namespace sv::ipc {
namespace detail {

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

// Counts the open connections of each user on one listener. Shared by the
// listener and the slots of its connections, which may outlive it; any
// thread.
class UserConnectionCounts : public std::enable_shared_from_this<UserConnectionCounts> {
  public:
    // One connection's place among its user's; gives it back when destroyed.
    class Slot {
      public:
        Slot(std::shared_ptr<UserConnectionCounts> counts, uid_t uid)
            : counts_(std::move(counts)), uid_(uid) {}
        ~Slot() { counts_->release(uid_); }
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;

      private:
        std::shared_ptr<UserConnectionCounts> counts_;
        uid_t uid_;
    };

    UserConnectionCounts(std::string listenerName, size_t limit)
        : name_(std::move(listenerName)), limit_(limit) {}
    // A place for one more connection of `uid`, or null when the user is at
    // the limit (the refusal is logged when it starts an episode).
    std::unique_ptr<Slot> acquire(uid_t uid, pid_t pid);

  private:
    void release(uid_t uid);

    struct Entry {
        size_t open = 0;
        size_t refused = 0;     // in the current episode
        bool refusing = false;  // an episode of refusals is under way
    };
    std::mutex mutex_;
    const std::string name_;
    const size_t limit_;
    std::map<uid_t, Entry> users_;
};

// Connections of this process whose socket is open.
std::atomic<size_t>& openConnectionCounter();
// Messages of this process queued for sending and not yet handed to the
// kernel (sent, or dropped with their connection).
std::atomic<size_t>& outgoingMessageCounter();

// A connection's socket closed: listeners that ran out of descriptors try
// accepting again. I/O thread.
void descriptorsReleased();

}  // namespace detail

struct ReplyHandler::State {
    std::weak_ptr<Connection> connection;
    uint64_t replyId = 0;
    std::vector<ArgSpec> signature;
    std::atomic<bool> sent{false};
};

struct Connection::Impl {
    using Credentials = detail::Credentials;
    using OnceErrorPtr = detail::OnceErrorPtr;
    using Outgoing = detail::Outgoing;

    std::mutex mutex;
    enum class State { Created, Active, Interrupted, Invalidated } state = State::Created;
    bool resumed = false;
    std::atomic<bool> locallyInvalidated{false};
    Credentials creds;
    std::shared_ptr<const Interface> exportedInterface, remoteInterface;
    std::shared_ptr<ExportedObject> exported;
    std::function<void()> interruptionHandler, invalidationHandler;
    std::map<uint64_t, detail::PendingCall> pending;
    uint64_t nextReplyId = 1;
    std::atomic<size_t> queuedBytes{0}, queuedMessages{0};
    std::atomic<size_t> undelivered{0};
    std::atomic<bool> readPaused{false};  // the connection's queue is behind

    // Sending: callers send directly while nothing waits before them;
    // otherwise messages queue in `out` for the I/O thread, in call order.
    std::mutex sendMutex;
    int sendFd = -1;           // the socket while it is open
    size_t postsInFlight = 0;  // messages on their way to `out` through the I/O thread
    std::deque<Outgoing> out;
    bool writeWaiting = false;

    // Set before resume (by the factory or the accepting listener).
    std::optional<uid_t> serviceUser;  // service connections: who must listen
    std::chrono::milliseconds stalledPeerTimeout = kDefaultStalledPeerTimeout;

    // I/O thread only.
    std::unique_ptr<asio::posix::stream_descriptor> socket;
    uint64_t generation = 0;
    int rejected = 0;
    UniqueFd acceptedFd;  // accepted connections, until resume
    // Accepted connections: the place among its user's connections, held
    // while the descriptor is open.
    std::unique_ptr<detail::UserConnectionCounts::Slot> userSlot;
    Endpoint endpoint;                // endpoint connections
    bool readBlockedBySends = false;  // the peer does not read; neither do we
    uint64_t messagesSent = 0;        // taken off `out` into the kernel
    std::unique_ptr<asio::steady_timer> stallTimer;
    bool stallTimerArmed = false;
    uint64_t sentAtStallCheck = 0;

    ~Impl();

    // ---- all of the following run on the I/O thread ----
    static void fire(const std::shared_ptr<Connection>& c, const OnceErrorPtr& e, int64_t code,
                     bool suppressAfterInvalidate = true);

    // Connecting and ending.
    static void openSocket(const std::shared_ptr<Connection>& c, int fd);
    static void closeSocket(Impl& s);
    static UniqueFd connectToService(const std::shared_ptr<Connection>& c);
    static void connectToEndpoint(const std::shared_ptr<Connection>& c,
                                  std::function<void(UniqueFd)> done);
    static void finishResume(const std::shared_ptr<Connection>& c, UniqueFd fd);
    static void peerGone(const std::shared_ptr<Connection>& c);

    // Reading.
    static void startRead(const std::shared_ptr<Connection>& c);
    static void onReadable(const std::shared_ptr<Connection>& c);
    static bool readingMustWait(const std::shared_ptr<Connection>& c);
    static void reject(const std::shared_ptr<Connection>& c, const std::string& why);
    static void handleDatagram(const std::shared_ptr<Connection>& c, detail::Datagram d);
    static void handleReply(const std::shared_ptr<Connection>& c, DecodedMessage& m);
    static void handleCall(const std::shared_ptr<Connection>& c, DecodedMessage& m,
                           const std::shared_ptr<const Interface>& exported);
    static void deliver(const std::shared_ptr<Connection>& c, std::function<void()> task);

    // Sending.
    static void flush(const std::shared_ptr<Connection>& c);
    static void watchForStall(const std::shared_ptr<Connection>& c);
    static void dropPending(Impl& s, uint64_t replyId);
    static std::deque<Outgoing> takeOutgoing(Impl& s);

    // Any thread: queues a message for sending; counts it against the
    // bounds first.
    static void enqueue(const std::shared_ptr<Connection>& c, EncodedMessage m, OnceErrorPtr error,
                        uint64_t replyId);
    static void sendWhenConnected(const std::shared_ptr<Connection>& c, EncodedMessage m,
                                  OnceErrorPtr error, uint64_t replyId);
};

}  // namespace sv::ipc
