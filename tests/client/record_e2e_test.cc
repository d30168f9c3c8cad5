// `sorvel record` against the real daemon on the synthetic platform, with
// `sorvel consent-agent` answering: the movie it writes, judged by the movie
// inspector, and how it ends when the service interrupts it or the user
// declines. Each test has its own daemon, runtime directory and home.
#include <signal.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "movie/movie_inspector.h"
#include "platform/ipc/ipc.h"
#include "protocol/service_names.h"
#include "tests/client/cli_helpers.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;

namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class RecordEndToEndTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = sv::test::makeTempDir("sv-e2e-");
        ASSERT_FALSE(dir_.empty());
        std::filesystem::create_directories(dir_ + "/run");
        std::filesystem::create_directories(dir_ + "/home");
        ipc::setRuntimeDirectory(dir_ + "/run");
        env_ = {"SORVEL_RUNTIME_DIR=" + dir_ + "/run", "SORVEL_BUNDLE_PATH=" BUNDLES_DIR,
                "LANGUAGE=en"};
        startDaemon();
    }
    void TearDown() override {
        for (pid_t* p : {&agent_, &daemon_}) {
            if (*p > 0) {
                kill(*p, SIGTERM);
                sv::test::waitForExit(*p, 20s);
                *p = -1;
            }
        }
        if (!HasFailure()) std::filesystem::remove_all(dir_);
    }

    void startDaemon() {
        daemon_ = sv::test::spawnWithInput(
            {SORVELD, "--runtime-dir", dir_ + "/run", "--home", dir_ + "/home", "--screen-backend",
             "synthetic", "--audio-backend", "synthetic", "--log-level", "default"},
            env_, "", dir_ + "/sorveld.log");
        ASSERT_TRUE(sv::test::eventually(
            [&] { return std::filesystem::exists(ipc::servicePath(kShellServiceName)); }, 30s));
    }
    // A consent agent that answers every question with `answer`.
    void startAgent(const std::string& answer) {
        std::string log = dir_ + "/agent-" + answer + ".log";
        agent_ =
            sv::test::spawnWithInput({SORVEL, "consent-agent", "--answer", answer}, env_, "", log);
        ASSERT_TRUE(sv::test::eventually(
            [&] { return contains(sv::test::readFile(log), "registered with the service"); }, 30s));
    }
    std::string output() const { return dir_ + "/recording.mp4"; }
    pid_t record(std::vector<std::string> args) {
        std::vector<std::string> argv{SORVEL, "record", "-o", output()};
        argv.insert(argv.end(), args.begin(), args.end());
        return sv::test::spawnWithInput(argv, env_, "", dir_ + "/record.log");
    }
    std::string recordLog() const { return sv::test::readFile(dir_ + "/record.log"); }
    void waitForRecording() {
        ASSERT_TRUE(sv::test::eventually([&] { return contains(recordLog(), "Recording."); }, 60s))
            << recordLog();
    }
    int shell(std::vector<std::string> args) {
        std::vector<std::string> argv{SORVEL, "shell"};
        argv.insert(argv.end(), args.begin(), args.end());
        pid_t p = sv::test::spawnWithInput(argv, env_, "", dir_ + "/shell.log");
        return sv::test::waitForExit(p, 30s);
    }

    std::string dir_;
    std::vector<std::string> env_;
    pid_t daemon_ = -1, agent_ = -1;
};

TEST_F(RecordEndToEndTest, RecordsAMovieWithBothAudioTracks) {
    startAgent("accept");
    pid_t p = record({"--duration", "2", "--mic"});
    EXPECT_EQ(sv::test::waitForExit(p, 120s), 0) << recordLog();
    std::string error;
    auto movie = inspectMovie(output(), &error);
    ASSERT_TRUE(movie) << error;
    ASSERT_EQ(movie->movie.tracks.size(), 3u);  // video, application audio, microphone
    EXPECT_EQ(movie->movie.tracks[0].kind, media::TrackKind::Video);
    EXPECT_NEAR(movie->movie.duration, 2.0, 0.5);
    ASSERT_TRUE(movie->stamps);
    // Frames once and in order; whether the encoder kept up is the release
    // benchmark's question, not this test's (a debug build under load).
    EXPECT_GT(movie->stamps->stamped, 10);
    EXPECT_EQ(movie->stamps->duplicates + movie->stamps->outOfOrder, 0);
    EXPECT_TRUE(contains(recordLog(), output() + ": "));  // the inspection follows
    // The service's copy went to FILE: the store keeps nothing of it.
    for (const auto& e : std::filesystem::directory_iterator(dir_ + "/home/Library/Sorvel"))
        ADD_FAILURE() << "left in the store: " << e.path();
}

// The service ends the recording: the message with its code, exit 1, and
// the movie recorded so far in FILE.
TEST_F(RecordEndToEndTest, ALayoutChangeInterruptsAndKeepsTheMovie) {
    startAgent("accept");
    pid_t p = record({});
    waitForRecording();
    EXPECT_EQ(shell({"layout", "0", "1"}), 0) << sv::test::readFile(dir_ + "/shell.log");
    EXPECT_EQ(sv::test::waitForExit(p, 120s), 1) << recordLog();
    EXPECT_TRUE(contains(recordLog(),
                         "Recording interrupted by multitasking and content resizing "
                         "(org.sorvel.SVRecordingErrorDomain -5807)"))
        << recordLog();
    std::string error;
    EXPECT_TRUE(inspectMovie(output(), &error)) << error;
}

TEST_F(RecordEndToEndTest, DecliningOrNoAgentFailsWithTheUsersAnswer) {
    pid_t p = record({"--duration", "1"});  // nobody can ask the user
    EXPECT_EQ(sv::test::waitForExit(p, 120s), 1);
    EXPECT_TRUE(contains(recordLog(), "(org.sorvel.SVRecordingErrorDomain -5801)")) << recordLog();
    startAgent("decline");
    p = record({"--duration", "1"});
    EXPECT_EQ(sv::test::waitForExit(p, 120s), 1);
    EXPECT_TRUE(contains(recordLog(),
                         "The user declined application recording "
                         "(org.sorvel.SVRecordingErrorDomain -5801)"))
        << recordLog();
    EXPECT_FALSE(std::filesystem::exists(output()));
}

// The daemon goes away mid-recording and comes back: the recording fails as
// interrupted, the agent registers again, and the next recording works.
TEST_F(RecordEndToEndTest, ADaemonRestartEndsTheRecordingAndTheAgentComesBack) {
    startAgent("accept");
    pid_t p = record({});
    waitForRecording();
    kill(daemon_, SIGKILL);
    sv::test::waitForExit(daemon_);
    daemon_ = -1;
    EXPECT_EQ(sv::test::waitForExit(p, 60s), 1);
    EXPECT_TRUE(contains(recordLog(), "(org.sorvel.SVRecorderClientErrorDomain 2)")) << recordLog();
    std::filesystem::remove(ipc::servicePath(kDaemonServiceName));
    std::filesystem::remove(ipc::servicePath(kShellServiceName));
    startDaemon();
    std::string agentLog = dir_ + "/agent-accept.log";
    ASSERT_TRUE(sv::test::eventually(
        [&] {
            std::string log = sv::test::readFile(agentLog);
            auto first = log.find("registered with the service");
            return first != std::string::npos &&
                   log.find("registered with the service", first + 1) != std::string::npos;
        },
        30s))
        << sv::test::readFile(agentLog);
    p = record({"--duration", "1"});
    EXPECT_EQ(sv::test::waitForExit(p, 120s), 0) << recordLog();
}

}  // namespace
