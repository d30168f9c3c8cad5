// sorveld as a process in a temporary home and runtime directory, driven
// through the shell channel like the operating system's side drives it (the
// purge and lock-button rules during a recording are tested end to end in
// recording_test.cc).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "client/shell_client.h"
#include "protocol/service_names.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace std::chrono_literals;
using sv::test::contains;
using sv::test::eventually;
using sv::test::exists;
using sv::test::PrivateDaemon;
using sv::test::spawnProcess;
using sv::test::waitForExit;

namespace {

// Writes `size` bytes at `path` and dates it `age` in the past.
void makeFile(const std::string& path, size_t size, std::chrono::seconds age) {
    std::ofstream(path, std::ios::binary) << std::string(size, 'm');
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= age.count();
    times[1] = times[0];
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(daemon.root.empty());
        ipc::setRuntimeDirectory(run_);
    }
    void TearDown() override {
        if (HasFailure()) daemon.keep();
    }
    void startDaemon() { ASSERT_TRUE(daemon.start(SORVELD)) << daemon.log(); }

    PrivateDaemon daemon;
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
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);
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

    makeFile(store_ + "stale.mp4", 700, 3 * 86400s);
    r = shell.periodicAndWait(0, 0);
    EXPECT_EQ(r.bytes, 700);
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
    EXPECT_TRUE(daemon.logged("SVRecordingManager: cache delete periodic callback"));

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
    {
        ShellClient shell;
        auto r = shell.purgeAndWait(0, 3);
        EXPECT_FALSE(r.error);
        EXPECT_EQ(r.bytes, 0);
    }
    const std::string agentLog = daemon.root + "/agent.log";
    pid_t agent = spawnProcess(
        {SORVEL, "consent-agent", "--answer", "decline", "--runtime-dir", run_}, {}, agentLog);
    EXPECT_TRUE(eventually([&] { return contains(sv::test::readFile(agentLog), "registered"); }));
    EXPECT_EQ(waitForExit(activator, 15s), 255);
    kill(agent, SIGTERM);
    waitForExit(agent);
    EXPECT_EQ(daemon.logCount("idle with no open transaction; ending"), 1u);
}

}  // namespace
