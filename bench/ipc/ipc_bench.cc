// IPC costs against their floor: a call with a reply (round trip, p50 and
// p99) and one-way messages carrying a 1600x900 surface (messages per
// second), each measured through the IPC library and as the same exchange
// over a bare socketpair. The other end is a forked child process.
// Prints "name value unit" lines.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "platform/dispatch.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"

using namespace sv;
using namespace sv::ipc;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRoundTrips = 20000;
constexpr int kFrames = 20000;
constexpr int kWindow = 256;  // frames in flight before the sender waits for the receiver
constexpr const char* kService = "org.sorvel.bench";

std::shared_ptr<const Interface> benchInterface() {
    using K = ArgKind;
    static auto i = std::make_shared<const Interface>(
        "SVBenchProtocol", std::vector<MethodSpec>{
                               {"echo:withReply:", {{K::Any}, {K::Handler}}, {{K::Any}}},
                               {"frame:", {{K::Surface}}, {}},
                           });
    return i;
}

// The child: an IPC server and a bare-socket echo loop.
[[noreturn]] void runChild(int rawFd) {
    std::thread([rawFd] {
        std::vector<uint8_t> buf(4096);
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
        while (true) {
            iovec iov{buf.data(), buf.size()};
            msghdr msg{};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            ssize_t n = recvmsg(rawFd, &msg, MSG_CMSG_CLOEXEC);
            if (n <= 0) _exit(0);
            for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
                close(fd);
            }
            if (buf[0] == 'R') send(rawFd, buf.data(), size_t(n), MSG_NOSIGNAL);
        }
    }).detach();
    auto listener = Listener::named(kService).valueOr(nullptr);
    if (!listener) _exit(3);
    struct Delegate : ListenerDelegate {
        std::shared_ptr<MethodTable> object = std::make_shared<MethodTable>();
        std::atomic<long> frames{0};
        Delegate() {
            object
                ->on("echo:withReply:",
                     [](Invocation& inv) { inv.handler()(Arguments().add(inv.at(0))); })
                .on("frame:", [this](Invocation& inv) {
                    if (inv.surfaceAt(0)) frames++;
                });
        }
        bool listenerShouldAcceptNewConnection(Listener&,
                                               const std::shared_ptr<Connection>& c) override {
            c->setExportedInterface(benchInterface());
            c->setExportedObject(object);
            c->resume();
            return true;
        }
    };
    auto d = std::make_shared<Delegate>();
    listener->setDelegate(d);
    listener->resume();
    pause();
    _exit(0);
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

}  // namespace

int main() {
    log::setOutputEnabled(false);
    std::string dir =
        std::filesystem::temp_directory_path() / ("sv-ipc-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    setRuntimeDirectory(dir);
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return 1;
    pid_t child = fork();  // before any thread exists in this process
    if (child == 0) {
        close(pair[0]);
        runChild(pair[1]);
    }
    close(pair[1]);
    int raw = pair[0];
    while (access(servicePath(kService).c_str(), F_OK) != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    auto c = Connection::toService(kService);
    c->setRemoteObjectInterface(benchInterface());
    c->resume();
    auto proxy = c->remoteObjectProxyWithErrorHandler([](const Error& e) {
        std::fprintf(stderr, "ipc_bench: %s\n", e.description().c_str());
        std::exit(1);
    });
    auto echo = [&](const Value& v) {
        auto done = std::make_shared<Semaphore>();
        proxy.call("echo:withReply:", Arguments().add(v),
                   [done](const Received&) { done->signal(); });
        done->wait();
    };

    // Round trips. The value is about the size of a small request.
    Value request = {{"bundleID", "org.example.app"}, {"urgency", 3}, {"flag", true}};
    std::vector<uint8_t> rawRequest = encodeCbor(request);
    rawRequest.insert(rawRequest.begin(), 'R');
    for (int i = 0; i < 1000; ++i) echo(request);  // warm-up
    std::vector<double> ipcTimes, rawTimes;
    for (int i = 0; i < kRoundTrips; ++i) {
        auto t0 = Clock::now();
        echo(request);
        ipcTimes.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    std::vector<uint8_t> back(4096);
    for (int i = 0; i < kRoundTrips + 1000; ++i) {
        auto t0 = Clock::now();
        send(raw, rawRequest.data(), rawRequest.size(), MSG_NOSIGNAL);
        recv(raw, back.data(), back.size(), 0);
        if (i >= 1000)
            rawTimes.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    double ipc50 = percentile(ipcTimes, 0.5), ipc99 = percentile(ipcTimes, 0.99);
    double raw50 = percentile(rawTimes, 0.5), raw99 = percentile(rawTimes, 0.99);
    bench::report("ipc_call_reply_roundtrip_p50", ipc50, "us");
    bench::report("ipc_call_reply_roundtrip_p99", ipc99, "us");
    bench::report("socketpair_roundtrip_p50", raw50, "us");
    bench::report("socketpair_roundtrip_p99", raw99, "us");
    bench::report("ipc_roundtrip_p50_vs_socketpair", ipc50 / raw50, "x");
    bench::report("ipc_roundtrip_p99_vs_socketpair", ipc99 / raw99, "x");

    // One-way frames carrying a surface; every kWindow frames the sender
    // waits for an answer, so both runs keep the same number in flight.
    auto surface = SharedSurface::create(1600, 900).value();
    if (!surface) return 1;
    auto t0 = Clock::now();
    for (int i = 0; i < kFrames; ++i) {
        proxy.call("frame:", Arguments().add(surface));
        if (i % kWindow == kWindow - 1) echo(0);
    }
    echo(0);
    double ipcRate = kFrames / std::chrono::duration<double>(Clock::now() - t0).count();

    Value ref = {{"$object", "surface"},
                 {"index", 0},
                 {"width", 1600},
                 {"height", 900},
                 {"bytesPerRow", surface->bytesPerRow()},
                 {"pixelFormat", uint32_t(PixelFormat::BGRA)}};
    std::vector<uint8_t> frame = encodeCbor(
        Value{{"v", 1}, {"t", 1}, {"m", "frame:"}, {"a", Value::array({ref})}, {"n", 1}});
    frame.insert(frame.begin(), 'F');
    auto sendFrame = [&] {
        iovec iov{frame.data(), frame.size()};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr* cm = CMSG_FIRSTHDR(&msg);
        cm->cmsg_level = SOL_SOCKET;
        cm->cmsg_type = SCM_RIGHTS;
        cm->cmsg_len = CMSG_LEN(sizeof(int));
        int fd = surface->fd();
        std::memcpy(CMSG_DATA(cm), &fd, sizeof fd);
        sendmsg(raw, &msg, MSG_NOSIGNAL);
    };
    auto rawSync = [&] {
        send(raw, rawRequest.data(), rawRequest.size(), MSG_NOSIGNAL);
        recv(raw, back.data(), back.size(), 0);
    };
    t0 = Clock::now();
    for (int i = 0; i < kFrames; ++i) {
        sendFrame();
        if (i % kWindow == kWindow - 1) rawSync();
    }
    rawSync();
    double rawRate = kFrames / std::chrono::duration<double>(Clock::now() - t0).count();
    bench::report("ipc_oneway_surface_messages", ipcRate, "msg/s");
    bench::report("socketpair_oneway_surface_messages", rawRate, "msg/s");
    bench::report("ipc_oneway_surface_vs_socketpair", ipcRate / rawRate, "x");

    c->invalidate();
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    close(raw);
    std::filesystem::remove_all(dir);
    return 0;
}
