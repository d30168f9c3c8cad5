// The other process of the IPC tests: a client or a server of the test
// interface, driven by its command line. Exit status 0 means the scenario
// went as expected; other codes name what went wrong.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/dispatch.h"
#include "platform/log.h"
#include "tests/ipc/test_protocol.h"

using namespace sv;
using namespace sv::ipc;
using namespace std::chrono_literals;

namespace {

std::shared_ptr<MethodTable> serverObject() {
    auto t = std::make_shared<MethodTable>();
    t->on("echo:withReply:", [](Invocation& inv) { inv.handler()(Arguments().add(inv.at(0))); })
        .on("die:withReply:", [](Invocation& inv) { _exit(int(inv.at(0).get<int64_t>())); })
        .on("takeSurface:withReply:", [](Invocation& inv) {
            auto s = inv.surfaceAt(0);
            Value info = Value::object();
            if (s) {
                struct stat st {};
                fstat(s->fd(), &st);
                uint64_t sum = 0;
                for (int32_t y = 0; y < s->height(); ++y) {
                    const uint8_t* row = s->data() + size_t(y) * s->bytesPerRow();
                    for (int32_t x = 0; x < s->width() * 4; ++x) sum += row[x];
                }
                info["ino"] = uint64_t(st.st_ino);
                info["dev"] = uint64_t(st.st_dev);
                info["sum"] = sum;
                info["width"] = s->width();
            }
            inv.handler()(Arguments().add(info));
        });
    return t;
}

// Calls echo and waits for the answer; false on error or timeout.
bool echo(const std::shared_ptr<Connection>& c, const Value& v) {
    Semaphore done;
    std::atomic<bool> ok{false};
    auto proxy = c->remoteObjectProxyWithErrorHandler([&](const Error&) { done.signal(); });
    proxy.call("echo:withReply:", Arguments().add(v), [&](const Received& r) {
        ok = r.at(0) == v;
        done.signal();
    });
    return done.waitFor(5s) && ok;
}

std::shared_ptr<Connection> connect(const std::string& service,
                                    std::shared_ptr<ExportedObject> exported = nullptr) {
    auto c = Connection::toService(service);
    c->setRemoteObjectInterface(ipctest::testInterface());
    if (exported) {
        c->setExportedInterface(ipctest::testInterface());
        c->setExportedObject(exported);
    }
    c->resume();
    return c;
}

int runClient(const std::string& service, const std::string& mode) {
    if (mode == "hello") {
        auto c = connect(service);
        c->remoteObjectProxyWithErrorHandler(nullptr).call("hello:",
                                                           Arguments().add(int64_t(getpid())));
        return echo(c, "hi") ? 0 : 3;
    }
    if (mode == "dropped") {
        auto c = connect(service);
        std::atomic<bool> replied{false}, failed{false};
        c->remoteObjectProxyWithErrorHandler([&](const Error&) {
             failed = true;
         }).call("dropReply:withReply:", Arguments().add(1), [&](const Received&) {
            replied = true;
        });
        // Anything sent for the dropped call would come before this answer.
        bool alive = echo(c, "after");
        if (replied) return 4;
        if (failed) return 5;
        return alive ? 0 : 3;
    }
    if (mode == "exportdie") {  // exports die:withReply:, then waits to be called
        auto c = connect(service, serverObject());
        if (!echo(c, "ready")) return 3;
        std::this_thread::sleep_for(10s);
        return 6;
    }
    if (mode == "endpoint") {  // fetches an endpoint, connects back through it
        auto c = connect(service);
        Semaphore done;
        std::optional<Endpoint> ep;
        c->remoteObjectProxyWithErrorHandler([&](const Error&) {
             done.signal();
         }).call("endpointWithReply:", {}, [&](const Received& r) {
            ep = r.endpointAt(0);
            done.signal();
        });
        if (!done.waitFor(5s) || !ep) return 3;
        auto back = Connection::toEndpoint(*ep);
        back->setRemoteObjectInterface(ipctest::testInterface());
        back->resume();
        back->remoteObjectProxyWithErrorHandler(nullptr).call("ping");
        return echo(back, "through endpoint") ? 0 : 4;
    }
    if (mode == "block") {  // one connection blocks its handler; this one must still work
        auto c = connect(service);
        auto proxy = c->remoteObjectProxyWithErrorHandler([](const Error&) { _exit(4); });
        proxy.call("block:", Arguments().add(1));
        // Far more than the receiver reads ahead while its handler blocks.
        for (int i = 0; i < 1000; ++i) proxy.call("count:", Arguments().add(i));
        return echo(c, "unblocked") ? 0 : 3;
    }
    return 2;
}

int runServer(const std::string& service) {
    auto listener = Listener::named(service).valueOr(nullptr);
    if (!listener) return 7;
    struct Delegate : ListenerDelegate {
        bool listenerShouldAcceptNewConnection(Listener&,
                                               const std::shared_ptr<Connection>& c) override {
            c->setExportedInterface(ipctest::testInterface());
            c->setExportedObject(serverObject());
            c->resume();
            return true;
        }
    };
    auto d = std::make_shared<Delegate>();
    listener->setDelegate(d);
    listener->resume();
    std::this_thread::sleep_for(30s);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (!std::getenv("IPC_PEER_LOG")) log::setOutputEnabled(false);
    if (argc < 3) return 2;
    std::string role = argv[1], service = argv[2];
    if (role == "serve") return runServer(service);
    if (role == "client" && argc >= 4) return runClient(service, argv[3]);
    return 2;
}
