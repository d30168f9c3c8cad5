// sorveld against a hostile local process of its own user, on raw sockets:
// descriptor exhaustion and integers the daemon cannot hold, judged from
// /proc and the daemon's log. (The per-user connection cap and the stalled
// peer are the IPC library's, tested there; what they cost is measured by
// bench/ipc/daemon.pid()hostile_bench.)
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/ipc/ipc.h"
#include "protocol/service_names.h"
#include "tests/daemon/hostile_peer.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace sv::test;
using namespace std::chrono_literals;

namespace {

constexpr const char* kPurgeable = "purgeableSpaceWithUrgency:handler:";
constexpr const char* kPurge = "purgeWithAmount:urgency:handler:";

Bytes purgeableCall(uint64_t replyId) {
    return rawCall(kPurgeable, {cborInt(0), cborInt(int64_t(replyId))});
}

class HostilePeerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(daemon.start(SORVELD)) << daemon.log();
    }
    void TearDown() override {
        if (HasFailure()) daemon.keep();
    }

    PrivateDaemon daemon{"sv-hostile-"};
    const std::string shell_ = daemon.run + "/" + kShellServiceName;
};

// With its descriptors used up, the daemon stops accepting instead of
// retrying at once: it spends next to no CPU, writes one line for the
// episode, keeps serving the peers it has, and accepts again once
// descriptors are free.
TEST_F(HostilePeerTest, DescriptorExhaustionPausesAcceptingWithoutSpinning) {
    RawPeer connected = RawPeer::connect(shell_);
    ASSERT_TRUE(callAndWait(connected, purgeableCall(1), 1));
    rlimit limit{64, 64};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    const size_t mark = daemon.log().size();

    std::vector<RawPeer> hoard;
    for (int i = 0; i < 100; ++i) hoard.push_back(RawPeer::connect(shell_));
    // The daemon has taken what it can (a few of its descriptors come and go).
    ASSERT_TRUE(eventually([&] { return descriptorCount(daemon.pid()) >= 60; }));

    // A retry loop would spend the whole window (what it costs otherwise is
    // the benchmark's figure).
    const double before = cpuSeconds(daemon.pid());
    EXPECT_TRUE(stays([&] { return cpuSeconds(daemon.pid()) - before > 0.4; }, 2s));
    EXPECT_TRUE(callAndWait(connected, purgeableCall(2), 2));
    const std::string since = daemon.log().substr(mark);
    EXPECT_EQ(daemon.logCount("out of descriptors"), 1u);
    EXPECT_LT(std::count(since.begin(), since.end(), '\n'), 20) << since.substr(0, 2000);

    hoard.clear();
    EXPECT_TRUE(eventually(
        [&] {
            RawPeer p = RawPeer::connect(shell_);
            return callAndWait(p, purgeableCall(3), 3, 1s);
        },
        10s));
    EXPECT_TRUE(callAndWait(connected, purgeableCall(4), 4));
}

// An urgency below INT64_MIN once read as INT32_MAX and deleted fresh
// movies. Integers the daemon cannot hold are rejected, never clamped: the
// message is dropped, the movie stays, and the connection goes on working.
TEST_F(HostilePeerTest, OutOfRangeIntegersAreRejectedNotClamped) {
    std::string movie = daemon.store + "fresh.mp4";
    std::ofstream(movie) << "movie";
    RawPeer peer = RawPeer::connect(shell_);
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
    for (const auto& c : cases)
        ASSERT_TRUE(peer.send(rawCall(kPurge, {c.amount, c.urgency, cborInt(int64_t(id++))})))
            << c.what;
    // In order on one connection: the first reply is to the call after them.
    ASSERT_TRUE(peer.send(purgeableCall(id)));
    EXPECT_EQ(replyIdOf(peer.receive()), id);
    EXPECT_EQ(access(movie.c_str(), F_OK), 0);
    EXPECT_TRUE(daemon.logged("dropped a message", 5));

    // The same call in range does what it says.
    ++id;
    EXPECT_TRUE(
        callAndWait(peer, rawCall(kPurge, {cborInt(0), cborInt(3), cborInt(int64_t(id))}), id));
    EXPECT_NE(access(movie.c_str(), F_OK), 0);
}

}  // namespace
