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
// - out_of_range: a purge whose urgency is -2^63-1 (and 2^31); whether a
//   fresh movie survives.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/bench_util.h"
#include "tests/daemon/hostile_peer.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace sv::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kShellService = "org.sorvel.sorveld.shell";
constexpr const char* kPurgeable = "purgeableSpaceWithUrgency:handler:";
constexpr const char* kPurge = "purgeWithAmount:urgency:handler:";
// Answered without a log line of the daemon's own.
constexpr const char* kCancel = "cancelPurgeWithHandler:";

std::string gDaemon = SORVELD_PATH;

// A private daemon in a temporary home and runtime directory.
class Daemon {
  public:
    Daemon() { ready_ = daemon_.start(gDaemon, {.answerTimeout = 10s}); }
    ~Daemon() {
        if (daemon_.stop(SIGTERM, 5s) < 0) std::fprintf(stderr, "sorveld did not end on SIGTERM\n");
    }
    bool ready() const { return ready_; }
    pid_t pid() const { return daemon_.pid(); }
    std::string shellPath() const { return daemon_.run + "/" + kShellService; }
    std::string store() const { return daemon_.store; }
    LogFile log() const { return LogFile(daemon_.logPath, SIZE_MAX); }

    // One purgeable-space call answered within `timeout`.
    static bool roundTrip(RawPeer& p, uint64_t id, std::chrono::milliseconds timeout = 2s) {
        return callAndWait(p, rawCall(kPurgeable, {cborInt(0), cborInt(int64_t(id))}), id, timeout);
    }

  private:
    PrivateDaemon daemon_{"sv-hostile-bench-"};
    bool ready_ = false;
};

void idleConnections() {
    Daemon d;
    if (!d.ready()) return (void)std::fprintf(stderr, "idle: daemon not ready\n");
    constexpr int kConnections = 2000;
    size_t before = residentKiB(d.pid());
    std::vector<RawPeer> peers;
    int served = 0;
    for (int i = 0; i < kConnections; ++i) {
        peers.push_back(RawPeer::connect(d.shellPath()));
        if (peers.back().valid() && Daemon::roundTrip(peers.back(), 1, 1s)) ++served;
    }
    size_t after = residentKiB(d.pid());
    bench::report("idle_connections_opened", kConnections, "connections");
    bench::report("idle_connections_served", served, "connections");
    bench::report("idle_rss_before", double(before) / 1024, "MiB");
    bench::report("idle_rss_after", double(after) / 1024, "MiB");
    bench::report("idle_rss_growth_per_served_connection",
                  served ? double(after - before) / served : 0, "KiB");
}

void descriptorExhaustion() {
    Daemon d;
    if (!d.ready()) return (void)std::fprintf(stderr, "descriptors: daemon not ready\n");
    RawPeer good = RawPeer::connect(d.shellPath());
    uint64_t id = 1;
    Daemon::roundTrip(good, id++);
    rlimit limit{64, 64};
    rlimit old{};
    if (prlimit(d.pid(), RLIMIT_NOFILE, &limit, &old) != 0) {
        std::perror("prlimit");
        return;
    }
    LogFile log = d.log();
    log.mark();
    std::vector<RawPeer> hostile;
    for (int i = 0; i < 100; ++i) hostile.push_back(RawPeer::connect(d.shellPath()));
    eventually([&] { return descriptorCount(d.pid()) >= 60; }, 2s);
    double cpu0 = cpuSeconds(d.pid());
    auto t0 = Clock::now();
    std::this_thread::sleep_for(3s);  // the measurement window
    double cpu = cpuSeconds(d.pid()) - cpu0;
    double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    auto g0 = Clock::now();
    bool goodServed = Daemon::roundTrip(good, id++, 5s);
    double goodMs = std::chrono::duration<double, std::milli>(Clock::now() - g0).count();
    size_t lines = log.linesSinceMark();
    hostile.clear();
    bool newServed = eventually(
        [&] {
            RawPeer p = RawPeer::connect(d.shellPath());
            return p.valid() && Daemon::roundTrip(p, 1, 1s);
        },
        10s);
    bench::report("fd_exhaustion_daemon_cpu", cpu / seconds, "s/s");
    bench::report("fd_exhaustion_log_lines", double(lines), "lines");
    bench::report("fd_exhaustion_connected_peer_served", goodServed, "bool");
    bench::report("fd_exhaustion_connected_peer_round_trip", goodMs, "ms");
    bench::report("fd_exhaustion_new_peer_served_after_release", newServed, "bool");
}

void neverReadingPeer() {
    Daemon d;
    if (!d.ready()) return (void)std::fprintf(stderr, "never_reading: daemon not ready\n");
    RawPeer good = RawPeer::connect(d.shellPath());
    RawPeer hostile = RawPeer::connect(d.shellPath(), 4096);
    LogFile log = d.log();
    log.mark();
    double cpu0 = cpuSeconds(d.pid());
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
            if (!Daemon::roundTrip(good, goodId++, 2s)) ++goodFailures;
            goodMaxMs = std::max(
                goodMaxMs, std::chrono::duration<double, std::milli>(Clock::now() - g0).count());
            nextGood = Clock::now() + 250ms;
        }
    }
    std::this_thread::sleep_for(1s);  // what the daemon still spends after the flood
    double cpu = cpuSeconds(d.pid()) - cpu0;
    double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    bench::report("never_reading_calls_sent", double(sent), "calls");
    bench::report("never_reading_daemon_cpu", cpu / seconds, "s/s");
    bench::report("never_reading_log_lines", double(log.linesSinceMark()), "lines");
    bench::report("never_reading_log_bytes", double(log.bytesSinceMark()), "bytes");
    bench::report("never_reading_good_peer_calls", goodCalls, "calls");
    bench::report("never_reading_good_peer_failures", goodFailures, "calls");
    bench::report("never_reading_good_peer_max_round_trip", goodMaxMs, "ms");
    bool closed = hostile.hungUp(20s);
    bench::report("never_reading_peer_disconnected_after",
                  closed ? std::chrono::duration<double>(Clock::now() - t0).count() : -1, "s");
}

void outOfRangeUrgency() {
    Daemon d;
    if (!d.ready()) return (void)std::fprintf(stderr, "out_of_range: daemon not ready\n");
    std::string movie = d.store() + "fresh.mp4";
    auto attempt = [&](const Bytes& urgency) {
        std::ofstream(movie) << "movie";
        RawPeer p = RawPeer::connect(d.shellPath());
        p.send(rawCall(kPurge, {cborInt(0), urgency, cborInt(7)}));
        bool replied = replyIdOf(p.receive(1s)) == 7;
        bool kept = access(movie.c_str(), F_OK) == 0;
        return std::make_pair(replied, kept);
    };
    auto [replied1, kept1] = attempt(cborNegative(uint64_t(INT64_MAX) + 1));
    bench::report("out_of_range_below_int64_answered", replied1, "bool");
    bench::report("out_of_range_below_int64_movie_kept", kept1, "bool");
    auto [replied2, kept2] = attempt(cborInt(int64_t(INT32_MAX) + 1));
    bench::report("out_of_range_above_int32_answered", replied2, "bool");
    bench::report("out_of_range_above_int32_movie_kept", kept2, "bool");
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
    if (wanted("out_of_range")) outOfRangeUrgency();
    return 0;
}
