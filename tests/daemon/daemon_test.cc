// sorveld as a process in a temporary home and runtime directory, driven
// through the shell channel like the operating system's side drives it, and
// by a hostile local process of its own user on raw sockets (descriptor
// exhaustion, integers the daemon cannot hold), judged from /proc and the
// daemon's log. The purge and lock-button rules during a recording are
// tested end to end in recording_test.cc; the per-user connection cap and
// the stalled peer are the IPC library's, tested there.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "client/shell_client.h"
#include "protocol/service_names.h"
#include "tests/daemon/hostile_peer.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace std::chrono_literals;
using namespace sv::test;

namespace {

constexpr const char* kPurgeable = "purgeableSpaceWithUrgency:handler:";
constexpr const char* kPurge = "purgeWithAmount:urgency:handler:";

Bytes purgeableCall(uint64_t replyId) {
    return rawCall(kPurgeable, {cborInt(0), cborInt(int64_t(replyId))});
}

// Writes `size` bytes at `path` and dates it `age` in the past.
void makeFile(const std::string& path, size_t size, std::chrono::seconds age) {
    std::ofstream(path, std::ios::binary) << std::string(size, 'm');
    std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - age);
}

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(daemon.root.empty());
        ipc::setRuntimeDirectory(run_);
        signal(SIGPIPE, SIG_IGN);  // raw peers write to closed sockets
    }
    void TearDown() override {
        if (HasFailure()) daemon.keep();
    }
    void startDaemon() { ASSERT_TRUE(daemon.start(SORVELD)) << daemon.log(); }

    PrivateDaemon daemon;
    const std::string shell_ = daemon.run + "/" + kShellServiceName;
    const std::string &home_ = daemon.home, &run_ = daemon.run, &store_ = daemon.store,
                      &log_ = daemon.logPath;
};

// One idle daemon through its life: its store and socket, a second daemon
// refused, purge calls by urgency, the lock button, the command-line shell,
// and the end on SIGTERM.
TEST_F(DaemonTest, AnIdleDaemonAnswersTheShellAndEndsOnSigterm) {
    startDaemon();
    struct stat st {};
    ASSERT_EQ(stat(store_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFDIR | 0700u);
    EXPECT_TRUE(exists(ipc::servicePath(kDaemonServiceName)));
    // A second daemon on the same runtime directory refuses to start.
    pid_t second =
        spawnProcess({SORVELD, "--runtime-dir", run_, "--home", home_, "--log-level", "quiet"});
    EXPECT_EQ(waitForExit(second), 1);

    makeFile(store_ + "old1.mp4", 1000, 2 * 86400s);
    makeFile(store_ + "old2.mp4", 2000, 86400s + 60s);
    makeFile(store_ + "new.mp4", 500, 3600s);
    ShellClient shell;
    auto r = shell.purgeableSpaceAndWait(0);
    ASSERT_FALSE(r.error) << r.error->description();
    ASSERT_EQ(stat(store_.c_str(), &st), 0);
    EXPECT_EQ(r.bytes, int64_t(st.st_size));  // the size attribute of the store directory

    r = shell.purgeAndWait(1 << 20, 2);  // low urgency, idle: only files older than a day
    ASSERT_FALSE(r.error);
    EXPECT_EQ(r.bytes, 3000);
    EXPECT_FALSE(exists(store_ + "old1.mp4"));
    EXPECT_FALSE(exists(store_ + "old2.mp4"));
    EXPECT_TRUE(exists(store_ + "new.mp4"));

    EXPECT_FALSE(shell.cancelPurgeAndWait().error);

    // The lock button while idle changes nothing; the command-line tool
    // speaks for the shell as well.
    EXPECT_FALSE(shell.lockButtonPressedAndWait().error);
    EXPECT_TRUE(daemon.logged("SVRecordingManager: _handleLockButtonWasPressedNotification"));
    pid_t cli = spawnProcess({SORVEL, "shell", "--runtime-dir", run_, "lock"});
    EXPECT_EQ(waitForExit(cli), 0);
    EXPECT_TRUE(daemon.logged("SVRecordingManager: _handleLockButtonWasPressedNotification", 2));
    EXPECT_EQ(daemon.logCount("stopRecordingWithHandler"), 0u);
    EXPECT_TRUE(exists(store_ + "new.mp4"));

    // A sparse file: byte counts beyond 32 bits travel whole.
    constexpr int64_t kHuge = int64_t(3) << 30;
    std::ofstream(store_ + "huge.mp4").close();
    ASSERT_EQ(truncate((store_ + "huge.mp4").c_str(), kHuge), 0) << std::strerror(errno);
    r = shell.purgeAndWait(0, 3);  // urgent: everything goes
    EXPECT_EQ(r.bytes, 500 + kHuge);
    EXPECT_TRUE(std::filesystem::is_empty(store_));
    EXPECT_TRUE(daemon.logged("SVRecordingManager: cache delete purge callback"));

    // A write to a peer that went away (an X server's socket shut down
    // during a frame) fails that write; it once ended the daemon silently.
    ASSERT_EQ(kill(daemon.pid(), SIGPIPE), 0);
    ASSERT_TRUE(daemon.answers(10s));

    EXPECT_EQ(daemon.stop(SIGTERM), 255);  // the entry point returns -1 when its run loop ends
    EXPECT_EQ(daemon.logCount("sorveld Starting!"), 1u);
    EXPECT_FALSE(exists(ipc::servicePath(kShellServiceName)));
    cli = spawnProcess({SORVEL, "shell", "--runtime-dir", run_, "purge", "--urgency", "3"});
    EXPECT_EQ(waitForExit(cli), 1);  // nobody answers
}

// Started on demand by socket activation, the daemon answers the connection
// that woke it and ends by itself once nothing is open but a consent agent
// (which runs beside it for as long as the user's session).
TEST_F(DaemonTest, SocketActivatedDaemonEndsWhenIdle) {
    if (access("/usr/bin/systemd-socket-activate", X_OK) != 0)
        GTEST_SKIP() << "no systemd-socket-activate";
    std::string daemonPath = ipc::servicePath(kDaemonServiceName);
    std::string shellPath = ipc::servicePath(kShellServiceName);
    pid_t activator = spawnProcess(
        {"/usr/bin/systemd-socket-activate", "--seqpacket", "-l", daemonPath, "-l", shellPath,
         std::string("--fdname=") + kDaemonServiceName + ":" + kShellServiceName, SORVELD,
         "--runtime-dir", run_, "--home", home_, "--log-level", "default", "--idle-exit", "1"},
        {}, log_);
    // The activator makes each socket (bind, then listen) and says so; only
    // then does a connection wake the daemon.
    ASSERT_TRUE(daemon.logged("Listening on " + shellPath));
    EXPECT_EQ(ShellClient().purgeAndWait(0, 3).bytes, 0);  // answered, then closed
    const std::string agentLog = daemon.root + "/agent.log";
    pid_t agent = spawnProcess(
        {SORVEL, "consent-agent", "--answer", "decline", "--runtime-dir", run_}, {}, agentLog);
    EXPECT_TRUE(eventually([&] { return contains(readFile(agentLog), "registered"); }));
    EXPECT_EQ(waitForExit(activator, 15s), 255);
    // The agent outlives the service and waits for it to come back.
    EXPECT_TRUE(
        eventually([&] { return contains(readFile(agentLog), "waiting for the service"); }));
    kill(agent, SIGTERM);
    waitForExit(agent);
    EXPECT_EQ(daemon.logCount("idle with no open transaction; ending"), 1u);
}

// With its descriptors used up, the daemon stops accepting instead of
// retrying at once: it spends next to no CPU, writes one line for the
// episode, keeps serving the peers it has, and accepts again once
// descriptors are free.
TEST_F(DaemonTest, DescriptorExhaustionPausesAcceptingWithoutSpinning) {
    startDaemon();
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
TEST_F(DaemonTest, OutOfRangeIntegersAreRejectedNotClamped) {
    startDaemon();
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

    // Ended by abort() (as an uncaught exception ends it), the daemon's log
    // says so instead of simply stopping.
    rlimit noCore{0, 0};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_CORE, &noCore, nullptr), 0);
    EXPECT_EQ(daemon.stop(SIGABRT), 128 + SIGABRT);
    EXPECT_TRUE(daemon.logged("<critical> ended by signal 6 (SIGABRT)")) << daemon.log();
}

}  // namespace
