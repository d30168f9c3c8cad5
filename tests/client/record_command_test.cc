// `sorvel record` as a process against a scripted daemon and shell channel:
// what it asks the service, how it ends (duration, signal, keys, an
// interruption, a failure) and what it leaves in FILE.
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

namespace {

constexpr const char* kStart =
    "startRecordingWindowLayerContextIDs:windowSize:microphoneEnabled:cameraEnabled:"
    "broadcast:systemRecording:withHandler:";
constexpr const char* kStop = "stopRecordingWithHandler:";
constexpr const char* kStopClip = "stopRecordingWithStartClipDuration:endClipDuration:handler:";
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

TEST_F(RecordCommandTest, RecordsItsLayersForADurationAndWritesTheMovie) {
    // The service hands back a real (if tiny) movie, summarized at the end.
    pid_t ffmpeg = sv::test::spawnProcess(
        {"/usr/bin/ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
         "testsrc=duration=1:size=64x48:rate=10", "-pix_fmt", "yuv420p", "-c:v", "libx264", movie_},
        {}, dir_ + "/ffmpeg.log");
    ASSERT_EQ(sv::test::waitForExit(ffmpeg, 60s), 0) << sv::test::readFile(dir_ + "/ffmpeg.log");
    std::string movieBytes = sv::test::readFile(movie_);
    startShell();
    startDaemon();
    int status = -1;
    std::string out = run({"--duration", "0.4"}, status);
    EXPECT_EQ(status, 0) << out;
    // It asks for warnings (to print them) before its first request.
    ASSERT_EQ(daemon_->methods(),
              (std::vector<std::string>{"enableRecordingWarnings",
                                        "clientDidBecomeActiveWithBundleID:", kStart, kStop}));
    auto calls = daemon_->calls();
    EXPECT_EQ(calls[1].args[0], "org.sorvel.recorder");  // from the bundle it runs in
    EXPECT_EQ(calls[2].args[0], Value::array({7}));
    EXPECT_EQ(calls[2].args[1], Value({{"width", 1600.0}, {"height", 900.0}}));
    EXPECT_EQ(calls[2].args[2], false);       // no microphone asked for
    EXPECT_EQ(calls[2].args[5], false);       // not a system recording
    EXPECT_GE(shell_->methods().size(), 3u);  // layers twice, then status
    // The movie moved from the service's store to FILE, and its inspection
    // follows its path.
    EXPECT_EQ(sv::test::readFile(output_), movieBytes);
    EXPECT_FALSE(std::filesystem::exists(movie_));
    EXPECT_TRUE(contains(out, output_ + "\n" + output_ + ": mov,mp4")) << out;
    EXPECT_TRUE(contains(out, "track 0: video h264")) << out;
}

TEST_F(RecordCommandTest, SystemRecordingWithMicrophoneTrimsWhenItStops) {
    startShell();
    startDaemon(Value(nullptr), /*microphone=*/true);
    int status = -1;
    std::string out = run({"--system", "--mic", "--size", "640x480", "--trim-start", "1",
                           "--trim-end", "2.5", "--duration", "0.2"},
                          status);
    EXPECT_EQ(status, 0) << out;
    auto start = daemon_->waitForCall(kStart);
    ASSERT_TRUE(start);
    EXPECT_EQ(start->args[0], Value::array());
    EXPECT_EQ(start->args[1], Value({{"width", 640.0}, {"height", 480.0}}));
    EXPECT_EQ(start->args[2], true);
    EXPECT_EQ(start->args[5], true);
    auto stop = daemon_->waitForCall(kStopClip);
    ASSERT_TRUE(stop);
    EXPECT_EQ(stop->args[0], 1.0);
    EXPECT_EQ(stop->args[1], 2.5);
    for (const auto& m : shell_->methods()) EXPECT_NE(m, kLayers);
    EXPECT_TRUE(std::filesystem::exists(output_));
}

// The service warns, then ends the recording: the warning is printed (an
// unreadable one is dropped), then message and code, the movie so far kept.
TEST_F(RecordCommandTest, AnInterruptionKeepsTheMovieAndFails) {
    startShell();
    startDaemon();
    std::string out = dir_ + "/output.txt";
    child_ = sv::test::spawnProcess(argv({}), {}, out);
    ASSERT_TRUE(daemon_->waitForCall(kStart));
    ASSERT_TRUE(shell_->waitForCall(kStatus));
    daemon_->callBack("recordingWarning:", ipc::Arguments().add(Value({{"code", "one"}})));
    daemon_->callBack(
        "recordingWarning:",
        ipc::Arguments().add(Value({{"code", 1}, {"message", "The audio is gone."}})));
    ASSERT_TRUE(sv::test::eventually(
        [&] { return contains(sv::test::readFile(out), "warning: The audio is gone."); }, 30s))
        << sv::test::readFile(out);
    Value error = Error{"org.sorvel.SVRecordingErrorDomain",
                        -5807,
                        {{"SVLocalizedDescription",
                          "Recording interrupted by multitasking and content resizing"}}}
                      .toValue();
    daemon_->callBack(
        "stopRecordingWithError:movieURL:",
        ipc::Arguments().add(error).add(Value(URL::fileURLWithPath(movie_).absoluteString())));
    EXPECT_EQ(sv::test::waitForExit(child_, 60s), 1);
    child_ = -1;
    std::string text = sv::test::readFile(out);
    EXPECT_TRUE(contains(text,
                         "Recording interrupted by multitasking and content resizing "
                         "(org.sorvel.SVRecordingErrorDomain -5807)"))
        << text;
    EXPECT_TRUE(contains(text, "sorvel record: warning: The audio is gone.\n")) << text;
    EXPECT_EQ(text.find("warning:"), text.rfind("warning:")) << text;
    EXPECT_EQ(sv::test::readFile(output_), "not really a movie");
}

TEST_F(RecordCommandTest, FailuresPrintMessageAndCodeAndUsageErrorsExitWithTwo) {
    int status = -1;
    std::string out = run({"--system"}, status);  // nothing is running
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(contains(out,
                         "The screen recording service is not running. "
                         "(org.sorvel.SVRecorderClientErrorDomain 1)"))
        << out;

    startShell(Value::array(), Error{"org.sorvel.SVRecordingErrorDomain",
                                     -5803,
                                     {{"SVLocalizedDescription", "not on this display"}}});
    startDaemon(Error{"org.sorvel.SVRecordingErrorDomain",
                      -5801,
                      {{"SVLocalizedDescription", "The user declined application recording"}}}
                    .toValue());
    out = run({}, status);  // no layers on a real display
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(contains(out, "not on this display")) << out;
    EXPECT_TRUE(contains(out, "--system")) << out;
    out = run({"--layer", "0x2a"}, status);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(contains(out,
                         "The user declined application recording "
                         "(org.sorvel.SVRecordingErrorDomain -5801)"))
        << out;
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
    EXPECT_TRUE(contains(out, "/dev/zero is not a movie file")) << out;
}

// SIGINT while recording stops and keeps the movie (giving up while the user
// is still asked is tested end to end in record_e2e_test.cc).
TEST_F(RecordCommandTest, InterruptSignalStopsAndKeepsTheMovie) {
    startShell();
    startDaemon();
    std::string out = dir_ + "/output.txt";
    child_ = sv::test::spawnProcess(argv({}), {}, out);
    ASSERT_TRUE(shell_->waitForCall(kStatus));
    kill(child_, SIGINT);
    EXPECT_EQ(sv::test::waitForExit(child_, 60s), 0) << sv::test::readFile(out);
    child_ = -1;
    EXPECT_TRUE(daemon_->waitForCall(kStop));
    EXPECT_TRUE(std::filesystem::exists(output_));
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
    EXPECT_TRUE(contains(text, "PAUSED")) << text;
    EXPECT_TRUE(contains(text, "mic off")) << text;
    EXPECT_TRUE(contains(text, "discarded")) << text;
}

}  // namespace
