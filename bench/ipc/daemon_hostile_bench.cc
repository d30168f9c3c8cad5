// What a hostile local process of the same user costs the daemon. Each
// scenario runs against a private sorveld (the one built beside this
// program, or the one given with --daemon PATH) and prints "name value unit"
// lines:
// - idle: 2000 connections to the shell channel, each makes one call and
//   then idles; resident memory per connection and how many were served.
// - descriptors: with the daemon's descriptor limit lowered to 64, a peer
//   holds 100 connections; the daemon's CPU and log lines while it is out of
//   descriptors, and whether a peer connected before (and one connecting
//   after the connections are released) is served.
// - never_reading: a peer sends calls with replies for 4 s and never reads
//   one; the daemon's CPU, log lines and bytes, the round trips of a
//   well-formed peer meanwhile, and when the peer is disconnected.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "bench/bench_util.h"
#include "protocol/service_names.h"
#include "tests/daemon/hostile_peer.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace sv::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kPurgeable = "purgeableSpaceWithUrgency:handler:";
// Answered without a log line of the daemon's own.
constexpr const char* kCancel = "cancelPurgeWithHandler:";

std::string gDaemon = SORVELD_PATH;

// Lines and bytes the daemon's log gained since a mark.
struct LogMark {
    std::string path;
    size_t start = std::filesystem::file_size(path);
    size_t bytes() const { return std::filesystem::file_size(path) - start; }
    size_t lines() const {
        std::ifstream in(path, std::ios::binary);
        in.seekg(std::streamoff(start));
        return size_t(std::count(std::istreambuf_iterator<char>(in), {}, '\n'));
    }
};

// A private daemon, or null (with a message) when it did not answer.
std::unique_ptr<PrivateDaemon> startDaemon(const char* scenario) {
    auto d = std::make_unique<PrivateDaemon>("sv-hostile-bench-");
    if (d->start(gDaemon, {.answerTimeout = 10s})) return d;
    std::fprintf(stderr, "%s: daemon not ready\n", scenario);
    return nullptr;
}
std::string shellPath(const PrivateDaemon& d) {
    return d.run + "/" + kShellServiceName;
}
// One purgeable-space call answered within `timeout`.
bool roundTrip(RawPeer& p, uint64_t id, std::chrono::milliseconds timeout = 2s) {
    return callAndWait(p, rawCall(kPurgeable, {cborInt(0), cborInt(int64_t(id))}), id, timeout);
}

void idleConnections() {
    auto d = startDaemon("idle");
    if (!d) return;
    constexpr int kConnections = 2000;
    size_t before = residentKiB(d->pid());
    std::vector<RawPeer> peers;
    int served = 0;
    for (int i = 0; i < kConnections; ++i) {
        peers.push_back(RawPeer::connect(shellPath(*d)));
        if (peers.back().valid() && roundTrip(peers.back(), 1, 1s)) ++served;
    }
    size_t after = residentKiB(d->pid());
    bench::report("idle_connections_opened", kConnections, "connections");
    bench::report("idle_connections_served", served, "connections");
    bench::report("idle_rss_before", double(before) / 1024, "MiB");
    bench::report("idle_rss_after", double(after) / 1024, "MiB");
    bench::report("idle_rss_growth_per_served_connection",
                  served ? double(after - before) / served : 0, "KiB");
}

void descriptorExhaustion() {
    auto d = startDaemon("descriptors");
    if (!d) return;
    RawPeer good = RawPeer::connect(shellPath(*d));
    uint64_t id = 1;
    roundTrip(good, id++);
    rlimit limit{64, 64};
    rlimit old{};
    if (prlimit(d->pid(), RLIMIT_NOFILE, &limit, &old) != 0) {
        std::perror("prlimit");
        return;
    }
    LogMark log{d->logPath};
    std::vector<RawPeer> hostile;
    for (int i = 0; i < 100; ++i) hostile.push_back(RawPeer::connect(shellPath(*d)));
    eventually([&] { return descriptorCount(d->pid()) >= 60; }, 2s);
    double cpu0 = cpuSeconds(d->pid());
    auto t0 = Clock::now();
    std::this_thread::sleep_for(3s);  // the measurement window
    double cpu = cpuSeconds(d->pid()) - cpu0;
    double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    auto g0 = Clock::now();
    bool goodServed = roundTrip(good, id++, 5s);
    double goodMs = std::chrono::duration<double, std::milli>(Clock::now() - g0).count();
    size_t lines = log.lines();
    hostile.clear();
    bool newServed = eventually(
        [&] {
            RawPeer p = RawPeer::connect(shellPath(*d));
            return p.valid() && roundTrip(p, 1, 1s);
        },
        10s);
    bench::report("fd_exhaustion_daemon_cpu", cpu / seconds, "s/s");
    bench::report("fd_exhaustion_log_lines", double(lines), "lines");
    bench::report("fd_exhaustion_connected_peer_served", goodServed, "bool");
    bench::report("fd_exhaustion_connected_peer_round_trip", goodMs, "ms");
    bench::report("fd_exhaustion_new_peer_served_after_release", newServed, "bool");
}

void neverReadingPeer() {
    auto d = startDaemon("never_reading");
    if (!d) return;
    RawPeer good = RawPeer::connect(shellPath(*d));
    RawPeer hostile = RawPeer::connect(shellPath(*d), 4096);
    LogMark log{d->logPath};
    double cpu0 = cpuSeconds(d->pid());
    auto t0 = Clock::now();
    uint64_t sent = 0, goodId = 1;
    int goodFailures = 0, goodCalls = 0;
    double goodMaxMs = 0;
    auto nextGood = t0;
    while (Clock::now() - t0 < 4s) {
        for (int i = 0; i < 64; ++i) {
            if (!hostile.trySend(rawCall(kCancel, {cborInt(int64_t(sent + 1))}))) break;
            ++sent;
        }
        pollfd p{hostile.fd(), POLLOUT, 0};
        poll(&p, 1, 10);
        if (Clock::now() >= nextGood) {
            auto g0 = Clock::now();
            ++goodCalls;
            if (!roundTrip(good, goodId++, 2s)) ++goodFailures;
            goodMaxMs = std::max(
                goodMaxMs, std::chrono::duration<double, std::milli>(Clock::now() - g0).count());
            nextGood = Clock::now() + 250ms;
        }
    }
    std::this_thread::sleep_for(1s);  // what the daemon still spends after the flood
    double cpu = cpuSeconds(d->pid()) - cpu0;
    double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    bench::report("never_reading_calls_sent", double(sent), "calls");
    bench::report("never_reading_daemon_cpu", cpu / seconds, "s/s");
    bench::report("never_reading_log_lines", double(log.lines()), "lines");
    bench::report("never_reading_log_bytes", double(log.bytes()), "bytes");
    bench::report("never_reading_good_peer_calls", goodCalls, "calls");
    bench::report("never_reading_good_peer_failures", goodFailures, "calls");
    bench::report("never_reading_good_peer_max_round_trip", goodMaxMs, "ms");
    bool closed = hostile.hungUp(20s);
    bench::report("never_reading_peer_disconnected_after",
                  closed ? std::chrono::duration<double>(Clock::now() - t0).count() : -1, "s");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> only;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--daemon" && i + 1 < argc)
            gDaemon = argv[++i];
        else
            only.push_back(a);
    }
    signal(SIGPIPE, SIG_IGN);
    auto wanted = [&](const char* name) {
        return only.empty() || std::find(only.begin(), only.end(), name) != only.end();
    };
    if (wanted("idle")) idleConnections();
    if (wanted("descriptors")) descriptorExhaustion();
    if (wanted("never_reading")) neverReadingPeer();
    return 0;
}
