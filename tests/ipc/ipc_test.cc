// The IPC library across real processes: acceptance, identity, ordering,
// replies, failures of the peer, endpoints, surfaces, and peers that send
// garbage; then the message decoder on its own: what it accepts, what it
// refuses, and that descriptors of refused messages are closed.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>

#include <gtest/gtest.h>

#include "platform/log.h"
#include "tests/daemon/hostile_peer.h"
#include "tests/ipc/test_protocol.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace sv::ipc;
using namespace std::chrono_literals;
using sv::test::eventually;
using sv::test::spawnProcess;
using sv::test::stays;
using sv::test::waitForExit;

namespace {

// The parent's side of the test interface.
class Server : public ListenerDelegate, public std::enable_shared_from_this<Server> {
  public:
    std::mutex mutex;
    std::atomic<bool> accept{true};
    std::vector<pid_t> connectionPids;
    std::vector<int64_t> hellos, counts;
    std::vector<pid_t> pingPids;
    std::vector<std::shared_ptr<Connection>> connections;
    std::atomic<int> invalidations{0}, interruptions{0}, echoes{0};
    std::atomic<bool> blocked{false};
    Semaphore release;
    std::shared_ptr<Listener> anonymous;
    std::function<void(const std::shared_ptr<Connection>&)> configure;

    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& c) override {
        std::lock_guard lock(mutex);
        connectionPids.push_back(c->processIdentifier());
        if (!accept) return false;
        c->setExportedInterface(ipctest::testInterface());
        c->setRemoteObjectInterface(ipctest::testInterface());
        c->setExportedObject(object(c));
        // Handlers hold the server weakly: they may run after the test ends.
        c->setInvalidationHandler([w = weak_from_this()] {
            if (auto s = w.lock()) s->invalidations++;
        });
        c->setInterruptionHandler([w = weak_from_this()] {
            if (auto s = w.lock()) s->interruptions++;
        });
        if (configure) configure(c);
        connections.push_back(c);
        c->resume();
        return true;
    }

    std::shared_ptr<MethodTable> object(const std::shared_ptr<Connection>& c) {
        auto t = std::make_shared<MethodTable>();
        pid_t pid = c->processIdentifier();
        std::weak_ptr<Server> w = weak_from_this();
        t->on("hello:",
              [w](Invocation& inv) {
                  if (auto s = w.lock()) s->record(s->hellos, inv.at(0).get<int64_t>());
              })
            .on("count:",
                [w](Invocation& inv) {
                    if (auto s = w.lock()) s->record(s->counts, inv.at(0).get<int64_t>());
                })
            .on("ping",
                [w, pid](Invocation&) {
                    if (auto s = w.lock()) s->record(s->pingPids, pid);
                })
            .on("echo:withReply:",
                [w](Invocation& inv) {
                    if (auto s = w.lock()) s->echoes++;
                    inv.handler()(Arguments().add(inv.at(0)));
                })
            .on("dropReply:withReply:", [](Invocation&) {})
            .on("block:",
                [w](Invocation&) {
                    if (auto s = w.lock()) {
                        s->blocked = true;
                        s->release.waitFor(10s);
                    }
                })
            .on("readFile:withReply:",
                [](Invocation& inv) {
                    auto token = inv.fileTokenAt(0);
                    Bytes content(4096);
                    ssize_t n = token ? pread(token->fd(), content.data(), content.size(), 0) : -1;
                    content.resize(n > 0 ? size_t(n) : 0);
                    inv.handler()(Arguments().add(bytesValue(std::move(content))));
                })
            .on("endpointWithReply:", [w](Invocation& inv) {
                if (auto s = w.lock()) inv.handler()(Arguments().add(s->anonymous->endpoint()));
            });
        return t;
    }

    template <typename T>
    void record(std::vector<T>& v, T value) {
        std::lock_guard lock(mutex);
        v.push_back(value);
    }
    template <typename T>
    std::vector<T> snapshot(const std::vector<T>& v) {
        std::lock_guard lock(mutex);
        return v;
    }
};

// `c` speaking the test interface, resumed.
std::shared_ptr<Connection> resumed(std::shared_ptr<Connection> c) {
    c->setRemoteObjectInterface(ipctest::testInterface());
    c->resume();
    return c;
}

// Calls `method` on `c`; the code of the error it failed with, 0 while none.
// Shared: the error handler may run after the test returns.
std::shared_ptr<std::atomic<int64_t>> callForError(Connection& c, const std::string& method,
                                                   Arguments args = {},
                                                   ReplyClosure reply = nullptr) {
    auto code = std::make_shared<std::atomic<int64_t>>(0);
    c.remoteObjectProxyWithErrorHandler([code](const Error& e) {
         *code = e.code;
     }).call(method, std::move(args), std::move(reply));
    return code;
}

class IpcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setRuntimeDirectory(dir_);
        static int counter = 0;
        service_ = "org.sorvel.test" + std::to_string(getpid()) + "." + std::to_string(++counter);
        server_ = std::make_shared<Server>();
    }
    void TearDown() override {
        if (listener_) listener_->invalidate();
        for (auto& c : server_->connections) c->invalidate();
    }

    void listen(ListenerOptions options = {}, bool resume = true) {
        listener_ = Listener::named(service_, std::move(options)).valueOr(nullptr);
        ASSERT_TRUE(listener_);
        listener_->setDelegate(server_);
        if (resume) listener_->resume();
    }

    // The descriptors open once a first connection has come and gone, so
    // that what the IPC layer opens once (its I/O thread's) is counted.
    size_t descriptorsAfterAFirstConnection() {
        test::RawPeer::connect(servicePath(service_));
        EXPECT_TRUE(eventually([&] { return server_->invalidations == 1; }));
        std::lock_guard lock(server_->mutex);  // the listener adds the next ones
        server_->connections.clear();
        return sv::test::openDescriptorCount();
    }

    pid_t peer(std::vector<std::string> args) {
        args.insert(args.begin(), IPC_TEST_PEER);
        return spawnProcess(args, {"SORVEL_RUNTIME_DIR=" + dir_});
    }

    sv::test::TempDir tmp_;
    const std::string& dir_ = tmp_.path();
    std::string service_;
    std::shared_ptr<Server> server_;
    std::shared_ptr<Listener> listener_;
};

// Nothing is accepted before the listener resumes; then the peer is
// identified by its process, and only its user may connect. A refused
// connection delivers nothing.
TEST_F(IpcTest, AcceptedPeerIsIdentifiedByItsProcessARefusedOneDeliversNothing) {
    listen({}, false);
    pid_t child = peer({"client", service_, "hello"});
    ASSERT_GT(child, 0);
    EXPECT_TRUE(stays([&] { return !server_->snapshot(server_->connectionPids).empty(); }, 200ms));
    listener_->resume();
    EXPECT_EQ(waitForExit(child), 0);
    EXPECT_EQ(server_->snapshot(server_->connectionPids), std::vector<pid_t>{child});
    EXPECT_EQ(server_->snapshot(server_->hellos), std::vector<int64_t>{child});
    struct stat st {};
    ASSERT_EQ(stat(listener_->path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    server_->accept = false;
    pid_t refused = peer({"client", service_, "hello"});
    EXPECT_EQ(waitForExit(refused), 3);  // the child's call failed through its error handler
    // Offered (once or more: the child's second call connects again), never served.
    auto offered = server_->snapshot(server_->connectionPids);
    EXPECT_EQ(std::set<pid_t>(offered.begin(), offered.end()), (std::set<pid_t>{child, refused}));
    EXPECT_EQ(server_->snapshot(server_->hellos), std::vector<int64_t>{child});
}

// A blocked handler holds up only its own connection, whose messages then
// arrive late but whole and in order; a dropped reply never arrives; peers
// that end take their connections' descriptors with them.
TEST_F(IpcTest, BlockedHandlerHoldsUpOnlyItsOwnConnectionAndNothingIsLostOrLeaked) {
    log::Capture capture;
    log::setDebugEnabled(true);
    listen();
    const size_t descriptors = descriptorsAfterAFirstConnection();
    pid_t blocked = peer({"client", service_, "block"});
    ASSERT_TRUE(eventually([&] { return server_->blocked.load(); }));
    EXPECT_EQ(waitForExit(peer({"client", service_, "dropped"})), 0);
    EXPECT_TRUE(server_->snapshot(server_->counts).empty());
    // The blocked peer's messages pile up until reading pauses (however slowly
    // the peer gets to send them); then the handler is released.
    EXPECT_TRUE(
        eventually([&] { return capture.countContaining("ipc: reading paused") >= 1; }, 30s));
    server_->release.signal();
    EXPECT_EQ(waitForExit(blocked), 0);
    auto counts = server_->snapshot(server_->counts);
    ASSERT_EQ(counts.size(), 1000u);
    for (int64_t i = 0; i < 1000; ++i) ASSERT_EQ(counts[i], i);
    EXPECT_TRUE(eventually([&] { return server_->invalidations == 3; }));
    server_->connections.clear();
    EXPECT_TRUE(eventually([&] { return sv::test::openDescriptorCount() <= descriptors; }));
    log::setDebugEnabled(false);
}

TEST_F(IpcTest, AcceptedConnectionIsInvalidatedWhenThePeerDiesMidCall) {
    listen();
    pid_t child = peer({"client", service_, "exportdie"});
    ASSERT_TRUE(eventually([&] { return server_->snapshot(server_->connections).size() == 1; }));
    auto c = server_->snapshot(server_->connections)[0];
    ASSERT_TRUE(eventually([&] { return server_->echoes == 1; }));  // the child's "ready"
    auto code = callForError(*c, "die:withReply:", Arguments().add(0),
                             [](const Received&) { ADD_FAILURE() << "a reply from the dead"; });
    EXPECT_EQ(waitForExit(child), 0);
    ASSERT_TRUE(eventually([&] { return *code != 0; }));
    EXPECT_EQ(*code, kErrorConnectionInvalid);
    ASSERT_TRUE(eventually([&] { return server_->invalidations == 1; }));
    EXPECT_EQ(server_->interruptions, 0);
    // A call on the dead connection fails the same way instead of throwing.
    auto later = callForError(*c, "ping");
    EXPECT_TRUE(eventually([&] { return *later == kErrorConnectionInvalid; }));
}

TEST_F(IpcTest, ServiceConnectionIsInterruptedAndUsedAgain) {
    pid_t first = peer({"serve", service_});
    std::string path = servicePath(service_);
    ASSERT_TRUE(eventually([&] { return access(path.c_str(), F_OK) == 0; }));
    auto c = Connection::toService(service_);
    c->setRemoteObjectInterface(ipctest::testInterface());
    std::atomic<int> interrupted{0}, invalidated{0};
    c->setInterruptionHandler([&] { interrupted++; });
    c->setInvalidationHandler([&] { invalidated++; });
    c->resume();

    // 0 once echoed, else the error code of the call.
    auto echo = [&](const Value& v) {
        auto ok = std::make_shared<std::atomic<bool>>(false);
        auto code =
            callForError(*c, "echo:withReply:", Arguments().add(v), [ok, v](const Received& r) {
                EXPECT_EQ(r.at(0), v);
                *ok = true;
            });
        EXPECT_TRUE(eventually([&] { return *ok || *code != 0; }));
        return *ok ? int64_t(0) : code->load();
    };
    EXPECT_EQ(echo("one"), 0);
    EXPECT_EQ(c->processIdentifier(), first);

    auto code = callForError(*c, "die:withReply:", Arguments().add(0),
                             [](const Received&) { ADD_FAILURE() << "a reply from the dead"; });
    EXPECT_EQ(waitForExit(first), 0);
    ASSERT_TRUE(eventually([&] { return *code != 0 && interrupted == 1; }));
    EXPECT_EQ(*code, kErrorConnectionInterrupted);
    EXPECT_EQ(invalidated, 0);

    // While the service is away, calls fail as interruptions.
    EXPECT_EQ(echo("nobody"), kErrorConnectionInterrupted);

    pid_t second = peer({"serve", service_});
    ASSERT_TRUE(eventually([&] {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 && echo("two") == 0;
    }));
    EXPECT_EQ(c->processIdentifier(), second);

    c->invalidate();
    EXPECT_TRUE(eventually([&] { return invalidated == 1; }));
    EXPECT_EQ(echo("three"), kErrorConnectionInvalid);
    kill(second, SIGTERM);
    waitForExit(second);
    EXPECT_TRUE(stays([&] { return interrupted != 1 || invalidated != 1; }, 50ms));
    EXPECT_EQ(interrupted, 1);
    EXPECT_EQ(invalidated, 1);
}

TEST_F(IpcTest, EndpointLetsAChildConnectBack) {
    server_->anonymous = Listener::anonymous().valueOr(nullptr);
    ASSERT_TRUE(server_->anonymous);
    EXPECT_TRUE(server_->anonymous->path().empty());
    server_->anonymous->setDelegate(server_);
    server_->anonymous->resume();
    listen();
    pid_t child = peer({"client", service_, "endpoint"});
    EXPECT_EQ(waitForExit(child), 0);
    EXPECT_EQ(server_->snapshot(server_->pingPids), std::vector<pid_t>{child});
    auto pids = server_->snapshot(server_->connectionPids);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), child), 2);

    // After invalidation the endpoint no longer connects.
    auto ep = server_->anonymous->endpoint();
    server_->anonymous->invalidate();
    auto code = callForError(*resumed(Connection::toEndpoint(ep)), "ping");
    EXPECT_TRUE(eventually([&] { return *code == kErrorConnectionInvalid; }));
}

TEST_F(IpcTest, SurfaceCrossesWithoutCopyingItsPixels) {
    pid_t child = peer({"serve", service_});
    ASSERT_TRUE(eventually([&] { return access(servicePath(service_).c_str(), F_OK) == 0; }));
    auto surface = SharedSurface::create(1600, 900).value();
    ASSERT_TRUE(surface);
    uint64_t sum = 0;
    for (int32_t y = 0; y < 900; ++y) {
        uint8_t* row = surface->mutableData() + size_t(y) * surface->bytesPerRow();
        for (int32_t x = 0; x < 1600 * 4; ++x) {
            row[x] = uint8_t(x * 7 + y);
            sum += row[x];
        }
    }
    auto c = resumed(Connection::toService(service_));
    Semaphore done;
    Value info;
    c->remoteObjectProxyWithErrorHandler([&](const Error& e) {
         ADD_FAILURE() << e.description();
         done.signal();
     }).call("takeSurface:withReply:", Arguments().add(surface), [&](const Received& r) {
        info = r.at(0);
        done.signal();
    });
    ASSERT_TRUE(done.waitFor(5s));
    struct stat st {};
    ASSERT_EQ(fstat(surface->fd(), &st), 0);
    EXPECT_EQ(info.value("ino", uint64_t(0)), uint64_t(st.st_ino));  // the same memfd
    EXPECT_EQ(info.value("dev", uint64_t(0)), uint64_t(st.st_dev));
    EXPECT_EQ(info.value("sum", uint64_t(0)), sum);
    EXPECT_EQ(info.value("width", 0), 1600);
    c->invalidate();
    kill(child, SIGTERM);
    waitForExit(child);
}

Bytes call(const std::string& method, Value args, size_t fdCount = 0) {
    return encodeCbor(
        Value{{"v", 1}, {"t", 1}, {"m", method}, {"a", std::move(args)}, {"n", fdCount}});
}

TEST_F(IpcTest, HostileMessagesAreDroppedAndTheirDescriptorsClosed) {
    listen();
    log::Capture capture;
    const size_t before = descriptorsAfterAFirstConnection();
    auto raw = test::RawPeer::connect(servicePath(service_), 0, 1 << 20);
    ASSERT_TRUE(raw.valid());
    ASSERT_TRUE(eventually([&] { return server_->snapshot(server_->connections).size() == 1; }));

    int memfd = memfd_create("unsealed", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(memfd, 1 << 20), 0);
    int writable = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    Bytes good = call("hello:", Value::array({42}));

    EXPECT_TRUE(raw.send(Bytes{0xff, 0x00, 0x13, 0x37}));                // not CBOR
    EXPECT_TRUE(raw.send(Bytes(good.begin(), good.end() - 3)));          // truncated
    EXPECT_TRUE(raw.send(call("nosuchMethod:", Value::array({1}))));     // unknown method
    EXPECT_TRUE(raw.send(call("hello:", Value::array({"forty-two"}))));  // wrong kind
    EXPECT_TRUE(raw.send(call("hello:", Value::array({42})), {memfd}));  // fd not announced
    Value surfaceRef = {{"$object", "surface"}, {"index", 0},
                        {"width", 16},          {"height", 16},
                        {"bytesPerRow", 64},    {"pixelFormat", uint32_t(PixelFormat::BGRA)}};
    EXPECT_TRUE(raw.send(call("takeSurface:withReply:", Value::array({surfaceRef, 1}), 1),
                         {memfd}));  // unsealed memfd posing as a surface
    std::vector<int> many(kMaxObjectsPerMessage + 4, writable);
    EXPECT_TRUE(raw.send(call("hello:", Value::array({1}), many.size()), many));  // too many fds
    EXPECT_TRUE(raw.send(good));                                                  // still served
    ASSERT_TRUE(eventually([&] { return server_->snapshot(server_->hellos).size() == 1; }));
    EXPECT_EQ(server_->snapshot(server_->hellos)[0], 42);
    EXPECT_EQ(server_->invalidations, 1);  // the first connection's

    Bytes huge(kMaxMessageBytes + 1000, 0xa0);
    raw.send(huge);  // the eighth rejected message: disconnected
    ASSERT_TRUE(eventually([&] { return server_->invalidations == 2; }));
    EXPECT_TRUE(raw.closedByPeer());
    EXPECT_GE(capture.countContaining("ipc: dropped a message"), 7u);
    EXPECT_EQ(capture.countContaining("ipc: disconnecting pid"), 1u);
    raw.close();
    close(memfd);
    close(writable);
    server_->connections.clear();
    EXPECT_TRUE(eventually([&] { return sv::test::openDescriptorCount() <= before; }))
        << sv::test::openDescriptorCount() << " vs " << before;
}

TEST_F(IpcTest, SendsToAPeerThatDoesNotReadFailInsteadOfGrowing) {
    // A service that never accepts: whatever the client sends only fills
    // the socket's buffer.
    listen({}, false);
    auto c = resumed(Connection::toService(service_));
    // Shared, not on the stack: error handlers still queued when the test
    // returns may run after it.
    auto full = std::make_shared<std::atomic<int>>(0);
    auto other = std::make_shared<std::atomic<int>>(0);
    auto proxy = c->remoteObjectProxyWithErrorHandler(
        [full, other](const Error& e) { ++*(e.code == kErrorSendQueueFull ? full : other); });
    Value blob = bytesValue(Bytes(200 * 1024, 1));
    for (int i = 0; i < 80; ++i)
        proxy.call("echo:withReply:", Arguments().add(blob), [](const Received&) {});
    EXPECT_TRUE(eventually([&] { return *full > 0; }));
    EXPECT_EQ(*other, 0);
    c->invalidate();
}

// One user holds at most the limit of open connections; further ones are
// closed before the delegate sees them, with one line per episode, and a
// place that frees up can be taken again.
TEST_F(IpcTest, EachUserHoldsAtMostTheLimitOfConnections) {
    ListenerOptions options;
    options.maxConnectionsPerUser = 3;
    listen(options);
    log::Capture capture;
    std::vector<test::RawPeer> held;
    for (int i = 0; i < 3; ++i) held.push_back(test::RawPeer::connect(servicePath(service_)));
    ASSERT_TRUE(eventually([&] { return server_->snapshot(server_->connections).size() == 3; }));
    for (int i = 0; i < 5; ++i) {
        auto refused = test::RawPeer::connect(servicePath(service_));
        EXPECT_TRUE(refused.closedByPeer()) << i;
    }
    EXPECT_EQ(server_->snapshot(server_->connectionPids).size(), 3u);
    EXPECT_EQ(capture.countContaining("ipc: refusing connections"), 1u);

    // A zero-length datagram cannot be told from the end of the stream: that
    // connection ends and gives back its place.
    ASSERT_EQ(send(held.back().fd(), "", 0, MSG_NOSIGNAL), 0);
    EXPECT_TRUE(held.back().closedByPeer());
    ASSERT_TRUE(eventually([&] { return server_->invalidations == 1; }));
    auto again = test::RawPeer::connect(servicePath(service_));
    EXPECT_TRUE(eventually([&] { return server_->snapshot(server_->connections).size() == 4; }));
    EXPECT_TRUE(again.trySend(call("hello:", Value::array({7}))));
    EXPECT_TRUE(eventually([&] { return server_->snapshot(server_->hellos).size() == 1; }));

    // A new episode of refusals is logged again.
    auto refused = test::RawPeer::connect(servicePath(service_));
    EXPECT_TRUE(refused.closedByPeer());
    EXPECT_EQ(capture.countContaining("ipc: refusing connections"), 2u);
}

// Sends echo calls until the service stops reading them (the sends block
// for a while); how many were sent.
uint64_t sendUntilBlocked(test::RawPeer& peer) {
    const Value payload = std::string(2000, 'x');
    uint64_t sent = 0;
    auto blockedSince = std::chrono::steady_clock::now();
    bool blocked = false;
    EXPECT_TRUE(eventually(
        [&] {
            for (int i = 0; i < 64; ++i) {
                if (!peer.trySend(call("echo:withReply:", Value::array({payload, sent + 1})))) {
                    if (!blocked) blockedSince = std::chrono::steady_clock::now();
                    blocked = true;
                    return std::chrono::steady_clock::now() - blockedSince > 300ms;
                }
                ++sent;
                blocked = false;
            }
            return false;
        },
        30s));
    return sent;
}

// Back-pressure loses nothing: while a peer does not read its replies the
// service stops reading its calls (the peer's sends block), and once the
// peer reads again every call is answered, in order.
TEST_F(IpcTest, APeerThatStopsReadingIsPausedAndLosesNothing) {
    ListenerOptions options;
    options.stalledPeerTimeout = 10min;  // not what this test is about, even when slow
    listen(options);
    auto peer = test::RawPeer::connect(servicePath(service_));
    ASSERT_TRUE(peer.valid());
    const uint64_t sent = sendUntilBlocked(peer);
    // The service read only a bounded part of the calls.
    EXPECT_GT(sent, kReadPauseQueuedMessages);

    uint64_t expected = 1;
    while (expected <= sent) {
        auto reply = peer.receive(5s);
        ASSERT_TRUE(reply) << "reply " << expected << " of " << sent;
        ASSERT_EQ(test::replyIdOf(reply), expected);
        ++expected;
    }
    EXPECT_TRUE(
        test::callAndWait(peer, call("echo:withReply:", Value::array({1, sent + 1})), sent + 1));
    EXPECT_EQ(server_->invalidations, 0);
}

// A peer that takes nothing sent to it for the stall timeout is disconnected,
// with one line; a peer that reads is served throughout.
TEST_F(IpcTest, APeerThatNeverReadsIsDisconnectedAfterTheStallTimeout) {
    ListenerOptions options;
    options.stalledPeerTimeout = 1s;
    listen(options);
    log::Capture capture;
    auto reader = test::RawPeer::connect(servicePath(service_));
    auto hostile = test::RawPeer::connect(servicePath(service_), 4096);
    sendUntilBlocked(hostile);
    EXPECT_TRUE(test::callAndWait(reader, call("echo:withReply:", Value::array({1, 1})), 1));
    EXPECT_TRUE(hostile.hungUp(30s));
    EXPECT_TRUE(test::callAndWait(reader, call("echo:withReply:", Value::array({1, 2})), 2));
    EXPECT_EQ(capture.countContaining("it has taken nothing sent to it"), 1u);
}

// Nobody else can stand in for a service: a socket served by another user
// than expected is not connected to.
TEST_F(IpcTest, ServiceRunningAsAnotherUserIsNotConnectedTo) {
    listen();
    log::Capture capture;
    auto impostor = resumed(Connection::toService(service_, geteuid() + 1));
    auto code = callForError(*impostor, "hello:", Arguments().add(1));
    EXPECT_TRUE(eventually([&] { return *code != 0; }));
    EXPECT_EQ(*code, kErrorConnectionInterrupted);
    EXPECT_TRUE(server_->snapshot(server_->hellos).empty());
    EXPECT_GE(capture.countContaining("not connecting"), 1u);
    impostor->invalidate();

    auto genuine = resumed(Connection::toService(service_, geteuid()));
    genuine->remoteObjectProxyWithErrorHandler(nullptr).call("hello:", Arguments().add(2));
    EXPECT_TRUE(eventually([&] { return server_->snapshot(server_->hellos).size() == 1; }));
    genuine->invalidate();
}

// Connecting through an endpoint whose listener is not reading waits for
// room without holding up the I/O thread: other connections are served
// meanwhile, and the connection is made once the listener reads.
TEST_F(IpcTest, EndpointConnectWaitsForRoomWithoutBlockingOthers) {
    listen();
    auto anonymous = Listener::anonymous().valueOr(nullptr);
    ASSERT_TRUE(anonymous);
    anonymous->setDelegate(server_);
    // Not resumed: nothing reads the endpoint. Fill its queue.
    Endpoint endpoint = anonymous->endpoint();
    Bytes junk = encodeCbor(Value{{"v", 1}, {"t", 1}, {"n", 0}});
    while (send(endpoint.fd(), junk.data(), junk.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    ASSERT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);

    auto viaEndpoint = resumed(Connection::toEndpoint(endpoint));
    auto code = callForError(*viaEndpoint, "hello:", Arguments().add(99));

    auto other = resumed(Connection::toService(service_));
    auto proxy = other->remoteObjectProxyWithErrorHandler(nullptr);
    for (int i = 0; i < 3; ++i) proxy.call("hello:", Arguments().add(i));
    ASSERT_TRUE(eventually([&] { return server_->snapshot(server_->hellos).size() == 3; }));
    EXPECT_EQ(*code, 0);  // still waiting, not failed

    anonymous->resume();  // reads (and drops) the junk, then the connect message
    EXPECT_TRUE(eventually([&] { return server_->snapshot(server_->hellos).size() == 4; }));
    EXPECT_EQ(server_->snapshot(server_->hellos).back(), 99);
    EXPECT_EQ(*code, 0);
    viaEndpoint->invalidate();
    other->invalidate();
    anonymous->invalidate();
}

TEST_F(IpcTest, APythonPeerSpeaksTheDocumentedFormat) {
    listen();
    std::string script = std::string(IPC_TEST_SOURCE_DIR) + "/python_peer.py";
    pid_t child = spawnProcess({"/usr/bin/python3", script, servicePath(service_)});
    ASSERT_GT(child, 0);
    EXPECT_EQ(waitForExit(child, 20s), 0);
    EXPECT_EQ(server_->snapshot(server_->hellos), std::vector<int64_t>{child});
}

// The message decoder on its own.
DecodeResult decode(const EncodedMessage& m, const ReplySpecLookup& replies = nullptr) {
    std::vector<UniqueFd> fds;
    for (const auto& f : m.fds) fds.emplace_back(fcntl(f.get(), F_DUPFD_CLOEXEC, 0));
    return decodeMessage(m.bytes, std::move(fds), ipctest::testInterface().get(), replies);
}

// Calls carry the reply identifier where the handler is; replies are
// checked against the outstanding call.
TEST(WireTest, CallsCarryTheReplyIdentifierAndRepliesMatchTheirCall) {
    const MethodSpec* echo = ipctest::testInterface()->method("echo:withReply:");
    auto m = encodeCall(*echo, Arguments().add(Value{{"k", 1}}), 77);
    ASSERT_TRUE(m) << m.error().description();
    auto r = decode(*m);
    ASSERT_TRUE(r.message) << r.error;
    EXPECT_EQ(r.message->method, "echo:withReply:");
    EXPECT_EQ(r.message->replyId, 77u);
    EXPECT_EQ(r.message->arguments.at(0), (Value{{"k", 1}}));
    EXPECT_TRUE(r.message->arguments.at(1).is_null());  // the handler slot

    // The sender checks its own arguments too.
    EXPECT_FALSE(encodeCall(*echo, Arguments(), 1));
    EXPECT_FALSE(encodeCall(*ipctest::testInterface()->method("hello:"), Arguments().add("x"), 0));

    std::vector<ArgSpec> signature{{ArgKind::Bytes}};
    auto good = encodeReply(5, signature, Arguments().add(bytesValue(Bytes{1, 2})));
    ASSERT_TRUE(good) << good.error().description();
    auto lookup = [&](uint64_t id) { return id == 5 ? &signature : nullptr; };
    EXPECT_TRUE(decode(*good, lookup).message);
    EXPECT_EQ(decode(*good, nullptr).error, "reply to no outstanding call");
    std::vector<ArgSpec> other{{ArgKind::String}};
    auto wrong = encodeReply(5, other, Arguments().add("text"));
    ASSERT_TRUE(wrong);
    EXPECT_FALSE(decode(*wrong, lookup).message);
}

TEST(WireTest, ObjectsAreCheckedAndRefusedDescriptorsClosed) {
    size_t before = sv::test::openDescriptorCount();
    // A file token must be read-only.
    int rw = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    auto token = FileToken::adopt(rw);
    const MethodSpec* read = ipctest::testInterface()->method("readFile:withReply:");
    auto m = encodeCall(*read, Arguments().add(token), 1);
    ASSERT_TRUE(m) << m.error().description();
    auto ok = decode(*m);
    ASSERT_TRUE(ok.message) << ok.error;
    EXPECT_TRUE(ok.message->arguments.fileTokenAt(0));
    EXPECT_FALSE(ok.message->arguments.surfaceAt(0));  // asked as the wrong kind

    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    close(pipeFds[0]);
    EncodedMessage bad;
    bad.bytes = m->bytes;
    bad.fds.emplace_back(pipeFds[1]);  // a pipe posing as a read-only file
    auto refused = decode(bad);
    EXPECT_FALSE(refused.message);
    EXPECT_EQ(refused.error, "file token is not a read-only file");

    // The same descriptor referenced as two kinds.
    Value a = Value::array(
        {Value{{"$object", "file"}, {"index", 0}}, Value{{"$object", "endpoint"}, {"index", 0}}});
    EncodedMessage twice;
    twice.bytes = encodeCbor(
        Value{{"v", 1}, {"t", 1}, {"m", "echo:withReply:"}, {"a", Value::array({a, 1})}, {"n", 1}});
    twice.fds.emplace_back(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(decode(twice).message);

    ok.message.reset();
    token = FileToken();
    m = EncodedMessage();
    bad.fds.clear();
    twice.fds.clear();
    // Earlier tests may still be closing sockets on the I/O thread: fewer is fine.
    EXPECT_LE(sv::test::openDescriptorCount(), before);
}

// Integer kinds admit exactly their range; what does not fit is refused by
// the receiver (and by a sender that uses this library), never narrowed.
TEST(WireTest, IntegerKindsHoldOnlyTheirRange) {
    using K = ArgKind;
    Interface widths("SVWidths",
                     {{"int32:uint32:int64:", {{K::Int32}, {K::UInt32}, {K::Int64}}, {}}});
    auto decodeArgs = [&](Value a, Value b, Value c) {
        Bytes bytes = encodeCbor(Value{
            {"v", 1}, {"t", 1}, {"m", "int32:uint32:int64:"}, {"a", Value::array({a, b, c})}});
        return decodeMessage(bytes, {}, &widths, nullptr);
    };
    auto ok = decodeArgs(INT32_MIN, UINT32_MAX, INT64_MIN);
    ASSERT_TRUE(ok.message) << ok.error;
    EXPECT_EQ(ok.message->arguments.integerAt<int32_t>(0), INT32_MIN);
    EXPECT_EQ(ok.message->arguments.integerAt<uint32_t>(1), UINT32_MAX);
    EXPECT_EQ(ok.message->arguments.integerAt<int64_t>(2), INT64_MIN);
    EXPECT_FALSE(ok.message->arguments.integerAt<int32_t>(1));  // asked narrower than it is

    const std::string refused = "int32:uint32:int64:: argument ";
    EXPECT_EQ(decodeArgs(int64_t(INT32_MAX) + 1, 0, 0).error, refused + "0 is not a int32");
    EXPECT_EQ(decodeArgs(0, -1, 0).error, refused + "1 is not a uint32");
    EXPECT_EQ(decodeArgs(0, uint64_t(UINT32_MAX) + 1, 0).error, refused + "1 is not a uint32");
    EXPECT_EQ(decodeArgs(0, 0, uint64_t(INT64_MAX) + 1).error, refused + "2 is not a int64");
    EXPECT_FALSE(decodeArgs(0.5, 0, 0).message);

    // Outgoing values keep their type and width (a bool once went out as 1).
    EXPECT_TRUE(Arguments().add(true).values()[0].is_boolean());
    EXPECT_EQ(Arguments().add(uint64_t(UINT64_MAX)).values()[0], Value(UINT64_MAX));
    // The sender refuses what does not fit.
    auto wide = encodeCall(widths.methods()[0],
                           Arguments().add(int32_t(-1)).add(uint32_t(7)).add(int64_t(1) << 40), 0);
    ASSERT_TRUE(wide) << wide.error().description();
    auto back = decodeMessage(wide->bytes, {}, &widths, nullptr);
    ASSERT_TRUE(back.message) << back.error;
    EXPECT_EQ(back.message->arguments.integerAt<int64_t>(2), int64_t(1) << 40);
    auto narrowed =
        encodeCall(widths.methods()[0], Arguments().add(int64_t(1) << 40).add(0).add(0), 0);
    ASSERT_FALSE(narrowed);
    EXPECT_EQ(narrowed.error(), Error::make(kIPCErrorDomain, kErrorMessageRejected,
                                            "int32:uint32:int64:: argument 0 is not a int32"));
}

TEST(WireTest, EnvelopesThatLieAreRefused) {
    auto decodes = [](const Value& v, const Interface* i = ipctest::testInterface().get()) {
        return decodeMessage(encodeCbor(v), {}, i, nullptr);
    };
    const Value ping{{"v", 1}, {"t", 1}, {"m", "ping"}, {"a", Value::array()}};
    EXPECT_TRUE(decodes(ping).message);
    EXPECT_EQ(decodes(ping, nullptr).error, "call of ping but no interface is exported");
    Value deep = 1;
    for (int i = 0; i < 100; ++i) deep = Value::array({deep});
    // Not an envelope, another version, an unknown type, descriptors that
    // are not there, arguments the method does not take, nesting too deep.
    for (const Value& lie :
         {Value::array({1, 2}), Value{{"v", 2}, {"t", 1}, {"m", "ping"}, {"a", Value::array()}},
          Value{{"v", 1}, {"t", 9}, {"a", Value::array()}},
          Value{{"v", 1}, {"t", 1}, {"m", "ping"}, {"a", Value::array()}, {"n", 3}},
          Value{{"v", 1}, {"t", 1}, {"m", "ping"}, {"a", Value::array({1})}},
          Value{{"v", 1}, {"t", 1}, {"m", "echo:withReply:"}, {"a", Value::array({deep, 1})}}})
        EXPECT_FALSE(decodes(lie).message) << lie.dump();
}

}  // namespace
