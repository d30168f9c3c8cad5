// `sorvel record` as a process against a scripted daemon and shell channel:
// what only a scripted service can make it meet (warnings it cannot read,
// answers naming files outside the store, refusals), how it ends on a
// signal, keys or a failure, and what it leaves in FILE. A recording's
// ordinary course, trimmed or interrupted, is tested against a real daemon
// in record_e2e_test.cc.
#include <signal.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "client/shell_channel.h"
#include "platform/url.h"
#include "protocol/recording_protocol.h"
#include "tests/client/cli_helpers.h"
#include "tests/client/fake_service.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;
using sv::test::contains;
using sv::test::FakeService;
using sv::test::has;

namespace {

constexpr const char* kStart = method::kStartRecording;
constexpr const char* kStop = method::kStopRecording;
constexpr const char* kStopClip = method::kStopRecordingWithClip;
constexpr const char* kLayers = "layerContextIDsForCallerWithHandler:";
constexpr const char* kStatus = "recordingStatusForCallerWithHandler:";

class RecordCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ipc::setRuntimeDirectory(dir_);
        movie_ = dir_ + "/home/Library/Sorvel/movie.mp4";  // in the service's store
        output_ = dir_ + "/out/recording.mp4";
        std::filesystem::create_directories(dir_ + "/out");
        sv::test::writeFile(movie_, "not really a movie");
    }
    void TearDown() override {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            sv::test::waitForExit(child_);
        }
        if (daemon_) daemon_->die();
        if (shell_) shell_->die();
    }

    // The shell channel: layers (none at first, as before the daemon has
    // placed the application), then `layers`; a status while recording.
    void startShell(Value layers = Value::array({7}), OptionalError layerError = std::nullopt) {
        auto asked = std::make_shared<std::atomic<int>>(0);
        auto paused = paused_, microphone = microphone_;
        shell_ = FakeService::start(
            kShellServiceName, shellChannelInterface(), consentAgentProtocolInterface(),
            [=](const FakeService::Call& c) {
                if (c.method == kLayers) {
                    if (layerError)
                        c.reply(ipc::Arguments().addNull().add(layerError->toValue()));
                    else
                        c.reply(ipc::Arguments()
                                    .add((*asked)++ == 0 ? Value::array() : layers)
                                    .addNull());
                }
                if (c.method == kStatus)
                    c.reply(ipc::Arguments().add(Value({{"bundleID", "org.sorvel.recorder"},
                                                        {"recording", true},
                                                        {"paused", paused->load()},
                                                        {"microphoneEnabled", microphone->load()},
                                                        {"systemRecording", false},
                                                        {"elapsed", 1.25},
                                                        {"framesWritten", 75},
                                                        {"movieBytes", 2500000}})));
            });
        ASSERT_TRUE(shell_);
    }
    // The daemon: starts with `startReply` (null: never answers) and stops
    // with the movie.
    void startDaemon(std::optional<Value> startError = Value(nullptr), bool allowMic = false,
                     std::optional<std::string> moviePath = std::nullopt) {
        std::string url = URL::fileURLWithPath(moviePath.value_or(movie_)).absoluteString();
        auto paused = paused_, microphone = microphone_;
        daemon_ =
            FakeService::start(kDaemonServiceName, daemonProtocolInterface(),
                               clientProtocolInterface(), [=](const FakeService::Call& c) {
                                   if (c.method == kStart && startError)
                                       c.reply(ipc::Arguments()
                                                   .add(*startError)
                                                   .add(Value(startError->is_null() && allowMic))
                                                   .add(Value(false)));
                                   if (c.method == kStop || c.method == kStopClip)
                                       c.reply(ipc::Arguments().add(Value(url)).addNull());
                                   if (c.method == "discardRecordingWithHandler:") c.reply();
                                   if (c.method == "pauseRecording") *paused = true;
                                   if (c.method == "resumeRecordingWithWindowLayerContextID:")
                                       *paused = false;
                                   if (c.method == "setMicrophoneEnabled:")
                                       *microphone = c.args[0] == true;
                               });
        ASSERT_TRUE(daemon_);
    }
    std::vector<std::string> argv(std::vector<std::string> args) {
        std::vector<std::string> a{SORVEL, "record", "--runtime-dir", dir_, "-o", output_};
        a.insert(a.end(), args.begin(), args.end());
        return a;
    }
    std::string run(std::vector<std::string> args, int& status) {
        std::string out = dir_ + "/output.txt";
        child_ = sv::test::spawnProcess(argv(std::move(args)), {}, out);
        status = sv::test::waitForExit(child_, 60s);
        child_ = -1;
        return sv::test::readFile(out);
    }

    sv::test::TempDir tmp_;
    const std::string& dir_ = tmp_.path();
    std::string movie_, output_;
    std::shared_ptr<FakeService> daemon_, shell_;
    // The recording's state, as the daemon changes it and the shell reports it.
    std::shared_ptr<std::atomic<bool>> paused_ = std::make_shared<std::atomic<bool>>(false),
                                       microphone_ = std::make_shared<std::atomic<bool>>(true);
    pid_t child_ = -1;
};

// While it records, the service's warnings are printed (an unreadable one
// is dropped); SIGINT stops and keeps the movie (giving up while the user
// is still asked, and the service ending the recording, are tested end to
// end in record_e2e_test.cc).
TEST_F(RecordCommandTest, PrintsWarningsAndAnInterruptSignalStopsAndKeepsTheMovie) {
    startShell();
    startDaemon();
    std::string out = dir_ + "/output.txt";
    child_ = sv::test::spawnProcess(argv({}), {}, out);
    ASSERT_TRUE(shell_->waitForCall(kStatus));
    daemon_->callBack("recordingWarning:", ipc::Arguments().add(Value({{"code", "one"}})));
    daemon_->callBack(
        "recordingWarning:",
        ipc::Arguments().add(Value({{"code", 1}, {"message", "The audio is gone."}})));
    ASSERT_TRUE(sv::test::eventually(
        [&] { return contains(sv::test::readFile(out), "The audio is gone.\n"); }, 30s))
        << sv::test::readFile(out);
    kill(child_, SIGINT);
    EXPECT_EQ(sv::test::waitForExit(child_, 60s), 0) << sv::test::readFile(out);
    child_ = -1;
    EXPECT_TRUE(daemon_->waitForCall(kStop));
    EXPECT_EQ(sv::test::readFile(output_), "not really a movie");
    std::string text = sv::test::readFile(out);
    EXPECT_TRUE(has(text, "sorvel record: warning: The audio is gone.\n"));
    EXPECT_EQ(text.find("warning:"), text.rfind("warning:")) << text;
}

TEST_F(RecordCommandTest, FailuresPrintMessageAndCodeAndUsageErrorsExitWithTwo) {
    int status = -1;
    std::string out = run({"--system"}, status);  // nothing is running
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(has(out,
                    "The screen recording service is not running. "
                    "(org.sorvel.SVRecorderClientErrorDomain 1)"));

    startShell(Value::array(), sv::test::recordingError(-5803, "not on this display"));
    startDaemon(
        sv::test::recordingError(-5801, "The user declined application recording").toValue());
    out = run({}, status);  // no layers on a real display
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(has(out, "not on this display"));
    EXPECT_TRUE(has(out, "--system"));
    out = run({"--layer", "0x2a"}, status);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(has(out,
                    "The user declined application recording "
                    "(org.sorvel.SVRecordingErrorDomain -5801)"));
    EXPECT_EQ(daemon_->waitForCall(kStart)->args[0], Value::array({42}));
    EXPECT_FALSE(std::filesystem::exists(output_));

    for (auto args : std::vector<std::vector<std::string>>{
             {"--trim-start", "1"}, {"--layer", "x"}, {"--size", "9x9"}, {"--bogus"}}) {
        run(args, status);
        EXPECT_EQ(status, 2) << args[0];
    }
    child_ = sv::test::spawnProcess({SORVEL, "record", "--system"}, {}, dir_ + "/o");
    EXPECT_EQ(sv::test::waitForExit(child_, 60s), 2);  // no -o
    child_ = -1;
}

// Only a movie in the service's store is moved; anything else an answer
// names is copied if it is a regular file, and refused otherwise.
TEST_F(RecordCommandTest, OnlyAMovieInTheStoreIsMovedAndOnlyFilesAreCopied) {
    std::string elsewhere = dir_ + "/elsewhere.mp4";
    sv::test::writeFile(elsewhere, "elsewhere");
    startShell();
    startDaemon(Value(nullptr), false, elsewhere);
    int status = -1;
    std::string out = run({"--system", "--duration", "0.1"}, status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(sv::test::readFile(output_), "elsewhere");
    EXPECT_TRUE(std::filesystem::exists(elsewhere));

    daemon_->die();
    startDaemon(Value(nullptr), false, "/dev/zero");
    out = run({"--system", "--duration", "0.1"}, status);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(has(out, "/dev/zero is not a movie file"));
}

// Keys on a terminal: pause, resume (with the recorded layer), microphone
// off, discard.
TEST_F(RecordCommandTest, KeysPauseResumeSwitchTheMicrophoneAndDiscard) {
    std::filesystem::remove(output_);
    startShell();
    startDaemon(Value(nullptr), /*microphone=*/true);
    sv::test::PtyChild child(argv({"--mic"}), {});
    ASSERT_TRUE(shell_->waitForCall(kStatus));
    // The live status line shows the service's figures.
    ASSERT_TRUE(sv::test::eventually(
        [&] { return contains(child.drain(), "REC    00:01.2  2.5 MB  75 frames  mic on"); }, 20s))
        << child.drain();
    child.type("p");
    ASSERT_TRUE(daemon_->waitForCall("pauseRecording"));
    child.type("p");
    auto resume = daemon_->waitForCall("resumeRecordingWithWindowLayerContextID:");
    ASSERT_TRUE(resume);
    EXPECT_EQ(resume->args[0], 7);
    child.type("m");
    auto mic = daemon_->waitForCall("setMicrophoneEnabled:");
    ASSERT_TRUE(mic);
    EXPECT_EQ(mic->args[0], false);
    child.type("d");
    EXPECT_EQ(child.wait(60s), 0);
    EXPECT_TRUE(daemon_->waitForCall("discardRecordingWithHandler:"));
    EXPECT_FALSE(std::filesystem::exists(output_));
    const std::string& text = child.drain();
    EXPECT_TRUE(has(text, "PAUSED"));
    EXPECT_TRUE(has(text, "mic off"));
    EXPECT_TRUE(has(text, "discarded"));
}

}  // namespace
