// sorveld against a hostile local process of its own user, on raw sockets:
// idle connections by the hundred, descriptor exhaustion, a peer that never
// reads its replies, and integers the daemon cannot hold. Each bound is
// measured on a private daemon from /proc and from its log.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "platform/ipc/ipc.h"
#include "protocol/service_names.h"
#include "tests/daemon/hostile_peer.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace sv::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // shadow memory dominates the resident size
#else
constexpr bool kSanitized = false;
#endif

constexpr const char* kPurgeable = "purgeableSpaceWithUrgency:handler:";
constexpr const char* kPurge = "purgeWithAmount:urgency:handler:";

Bytes purgeableCall(uint64_t replyId) {
    return rawCall(kPurgeable, {cborInt(0), cborInt(int64_t(replyId))});
}
// A call the daemon answers without a log line of its own.
Bytes cancelCall(uint64_t replyId) {
    return rawCall("cancelPurgeWithHandler:", {cborInt(int64_t(replyId))});
}

class HostilePeerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(daemon.start(SORVELD)) << daemon.log();
        daemon_ = daemon.pid();
    }
    void TearDown() override {
        if (HasFailure()) daemon.keep();
    }

    LogFile log() const { return LogFile(daemon.logPath); }

    // CPU the daemon spends over `window` (a measurement, not a wait for
    // something to happen).
    double cpuOver(std::chrono::milliseconds window) const {
        double before = cpuSeconds(daemon_);
        std::this_thread::sleep_for(window);
        return cpuSeconds(daemon_) - before;
    }

    PrivateDaemon daemon{"sv-hostile-"};
    const std::string& home_ = daemon.home;
    const std::string shell_ = daemon.run + "/" + kShellServiceName;
    pid_t daemon_ = -1;
};

// Every idle connection costs a few KiB at most, and one user cannot hold
// more than the per-user limit: further connections are closed at once,
// with one log line for the whole episode.
TEST_F(HostilePeerTest, IdleConnectionsCostLittleAndEachUserIsCapped) {
    constexpr size_t kMeasured = 200;
    std::vector<RawPeer> peers;
    size_t before = residentKiB(daemon_);
    for (size_t i = 0; i < kMeasured; ++i) {
        peers.push_back(RawPeer::connect(shell_));
        ASSERT_TRUE(callAndWait(peers.back(), purgeableCall(i + 1), i + 1)) << i;
    }
    size_t after = residentKiB(daemon_);
    double perConnection = double(after - before) / double(kMeasured);
    RecordProperty("rss_kib_per_idle_connection", std::to_string(perConnection));
    if (!kSanitized) {
        EXPECT_LT(perConnection, 16.0) << before << " KiB -> " << after << " KiB";
    }

    // Up to the limit (one connection of the set-up may still be closing).
    while (peers.size() < ipc::kDefaultMaxConnectionsPerUser - 1) {
        peers.push_back(RawPeer::connect(shell_));
        ASSERT_TRUE(callAndWait(peers.back(), purgeableCall(1), 1)) << peers.size();
    }
    LogFile lines = log();
    lines.mark();
    ASSERT_TRUE(eventually([&] {
        RawPeer p = RawPeer::connect(shell_);
        if (callAndWait(p, purgeableCall(1), 1, 2s)) {
            peers.push_back(std::move(p));  // the last place
            return false;
        }
        return true;
    }));
    for (int i = 0; i < 20; ++i) {
        RawPeer refused = RawPeer::connect(shell_);
        ASSERT_TRUE(refused.valid());
        EXPECT_TRUE(refused.closedByPeer()) << i;
    }
    EXPECT_TRUE(
        eventually([&] { return lines.linesSinceMarkContaining("refusing connections") == 1; }));
    EXPECT_EQ(lines.linesSinceMarkContaining("refusing connections"), 1u);

    // A place that frees up is taken again, and the others are still served.
    peers.pop_back();
    EXPECT_TRUE(eventually([&] {
        RawPeer p = RawPeer::connect(shell_);
        return callAndWait(p, purgeableCall(2), 2, 1s);
    }));
    EXPECT_TRUE(callAndWait(peers.front(), purgeableCall(3), 3));
}

// With its descriptors used up, the daemon stops accepting instead of
// retrying at once: it spends next to no CPU, writes one line for the
// episode, keeps serving the peers it has, and accepts again once
// descriptors are free.
TEST_F(HostilePeerTest, DescriptorExhaustionPausesAcceptingWithoutSpinning) {
    RawPeer connected = RawPeer::connect(shell_);
    ASSERT_TRUE(callAndWait(connected, purgeableCall(1), 1));
    rlimit limit{64, 64};
    ASSERT_EQ(prlimit(daemon_, RLIMIT_NOFILE, &limit, nullptr), 0);
    LogFile lines = log();
    lines.mark();

    std::vector<RawPeer> hoard;
    for (int i = 0; i < 100; ++i) hoard.push_back(RawPeer::connect(shell_));
    // The daemon has taken what it can (a few of its descriptors come and go).
    ASSERT_TRUE(eventually([&] { return descriptorCount(daemon_) >= 60; }));

    double cpu = cpuOver(2s);
    RecordProperty("cpu_seconds_in_2s_without_descriptors", std::to_string(cpu));
    EXPECT_LT(cpu, 0.4);  // a retry loop spends the whole window
    EXPECT_TRUE(callAndWait(connected, purgeableCall(2), 2));
    EXPECT_EQ(lines.linesSinceMarkContaining("out of descriptors"), 1u);
    EXPECT_LT(lines.linesSinceMark(), 20u) << lines.sinceMark().substr(0, 2000);

    hoard.clear();
    EXPECT_TRUE(eventually(
        [&] {
            RawPeer p = RawPeer::connect(shell_);
            return callAndWait(p, purgeableCall(3), 3, 1s);
        },
        10s));
    EXPECT_TRUE(callAndWait(connected, purgeableCall(4), 4));
}

// A peer that sends calls and never reads a reply stops being read from
// (its sends block), costs no CPU and few log lines, and is disconnected
// once it has taken nothing for the stall timeout; a well-formed peer is
// served throughout.
TEST_F(HostilePeerTest, APeerThatNeverReadsIsThrottledThenDisconnected) {
    RawPeer wellFormed = RawPeer::connect(shell_);
    RawPeer hostile = RawPeer::connect(shell_, 4096);
    LogFile lines = log();
    lines.mark();
    uint64_t sent = 0;
    auto blockedSince = Clock::now();
    bool blocked = false;
    ASSERT_TRUE(eventually(
        [&] {
            for (int i = 0; i < 64; ++i) {
                if (!hostile.trySend(cancelCall(++sent))) {
                    if (!blocked) blockedSince = Clock::now();
                    blocked = true;
                    // Blocked for a while: the daemon no longer reads.
                    return Clock::now() - blockedSince > 500ms;
                }
                blocked = false;
            }
            return false;
        },
        30s));
    RecordProperty("calls_sent_before_blocking", std::to_string(sent));
    uint64_t id = 100;
    EXPECT_TRUE(callAndWait(wellFormed, purgeableCall(id), id));

    double cpu = cpuOver(1500ms);
    RecordProperty("cpu_seconds_in_1500ms_of_back_pressure", std::to_string(cpu));
    EXPECT_LT(cpu, 0.3);
    ++id;
    EXPECT_TRUE(callAndWait(wellFormed, purgeableCall(id), id));
    EXPECT_LT(lines.linesSinceMark(), 50u) << lines.sinceMark().substr(0, 2000);

    EXPECT_TRUE(hostile.hungUp(ipc::kDefaultStalledPeerTimeout + 15s));
    ++id;
    EXPECT_TRUE(callAndWait(wellFormed, purgeableCall(id), id));
    EXPECT_EQ(lines.linesSinceMarkContaining("it has taken nothing sent to it"), 1u);
}

// An urgency below INT64_MIN once read as INT32_MAX and deleted fresh
// movies. Integers the daemon cannot hold are rejected, never clamped: the
// message is dropped, the movie stays, and the connection goes on working.
TEST_F(HostilePeerTest, OutOfRangeIntegersAreRejectedNotClamped) {
    std::string movie = home_ + "/Library/Sorvel/fresh.mp4";
    std::ofstream(movie) << "movie";
    RawPeer peer = RawPeer::connect(shell_);
    LogFile lines = log();
    lines.mark();
    struct Case {
        const char* what;
        Bytes amount, urgency;
    };
    std::vector<Case> cases = {
        {"urgency -2^63-1", cborInt(0), cborNegative(uint64_t(INT64_MAX) + 1)},
        {"urgency -2^64", cborInt(0), cborNegative(UINT64_MAX)},
        {"urgency 2^31", cborInt(0), cborInt(int64_t(INT32_MAX) + 1)},
        {"urgency -2^31-1", cborInt(0), cborInt(int64_t(INT32_MIN) - 1)},
        {"amount 2^64-1", encodeCbor(Value(UINT64_MAX)), cborInt(3)},
    };
    uint64_t id = 1;
    for (const auto& c : cases) {
        EXPECT_FALSE(callAndWait(peer, rawCall(kPurge, {c.amount, c.urgency, cborInt(int64_t(id))}),
                                 id, 300ms))
            << c.what;
        ++id;
    }
    // In order on one connection: every rejected call came before this one.
    EXPECT_TRUE(callAndWait(peer, purgeableCall(id), id));
    EXPECT_EQ(access(movie.c_str(), F_OK), 0);
    EXPECT_TRUE(
        eventually([&] { return lines.linesSinceMarkContaining("dropped a message") >= 5; }));

    // The same call in range does what it says.
    ++id;
    EXPECT_TRUE(
        callAndWait(peer, rawCall(kPurge, {cborInt(0), cborInt(3), cborInt(int64_t(id))}), id));
    EXPECT_NE(access(movie.c_str(), F_OK), 0);
}

}  // namespace
