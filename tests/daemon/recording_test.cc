// The recording service end to end: a private sorveld per test (its own
// runtime directory and home, the synthetic screen and audio, the clock
// movable through the shell channel), test applications that record
// themselves through the client library (copies of sorvel_test_app in bundle
// directories), and a consent agent inside the test. Movies are judged by
// the movie inspector.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "client/consent_agent.h"
#include "client/shell_client.h"
#include "movie/movie_inspector.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"
#include "protocol/recording_protocol.h"
#include "protocol/service_names.h"
#include "tests/process/private_daemon.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;
using sv::test::eventually;
using sv::test::exists;
using sv::test::PrivateDaemon;
using sv::test::waitForExit;

namespace {

constexpr auto kAnswer = 30s;  // generous: sanitizer builds on a busy machine
const std::string kAlpha = "org.sorvel.tests.alpha";
const std::string kBeta = "org.sorvel.tests.beta";

// One test application: commands go to its standard input, its report
// lines come from its standard output.
class App {
  public:
    // Its standard input and output are pipes, reopened in the child
    // through /dev/fd before their ends close on exec.
    App(const std::string& executable, const std::string& runtimeDir) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        pid_ = test::spawnProcess({executable}, {"SORVEL_RUNTIME_DIR=" + runtimeDir},
                                  "/dev/fd/" + std::to_string(out[1]),
                                  "/dev/fd/" + std::to_string(in[0]));
        close(in[0]);
        close(out[1]);
        toApp_ = in[1];
        fromApp_ = out[0];
    }
    ~App() {
        if (toApp_ >= 0) close(toApp_);
        if (pid_ > 0 && waitForExit(pid_, 10s) < 0) pid_ = -1;
        if (fromApp_ >= 0) close(fromApp_);
    }

    void send(const std::string& command) {
        std::string line = command + "\n";
        ASSERT_EQ(write(toApp_, line.data(), line.size()), ssize_t(line.size()));
    }
    // The first unread line beginning with `prefix` (the prefix cut off), or
    // nullopt after `timeout` (with none, after reading what is there).
    std::optional<std::string> expect(const std::string& prefix,
                                      std::chrono::milliseconds timeout = kAnswer) {
        const auto end = std::chrono::steady_clock::now() + timeout;
        do {
            for (auto it = lines_.begin(); it != lines_.end(); ++it) {
                if (it->rfind(prefix, 0) == 0) {
                    std::string rest = it->substr(prefix.size());
                    lines_.erase(it);
                    return rest;
                }
            }
        } while (readSome(std::max(0ms, std::chrono::duration_cast<std::chrono::milliseconds>(
                                            end - std::chrono::steady_clock::now()))));
        return std::nullopt;
    }
    bool has(const std::string& prefix) { return expect(prefix, 0ms).has_value(); }
    void kill() {
        if (pid_ > 0) ::kill(pid_, SIGKILL);
    }

  private:
    bool readSome(std::chrono::milliseconds timeout) {
        pollfd p{fromApp_, POLLIN, 0};
        if (poll(&p, 1, int(timeout.count())) != 1) return false;
        char buf[4096];
        ssize_t n = read(fromApp_, buf, sizeof buf);
        if (n <= 0) return false;
        partial_.append(buf, size_t(n));
        for (size_t nl; (nl = partial_.find('\n')) != std::string::npos;) {
            lines_.push_back(partial_.substr(0, nl));
            partial_.erase(0, nl + 1);
        }
        return true;
    }

    pid_t pid_ = -1;
    int toApp_ = -1, fromApp_ = -1;
    std::string partial_;
    std::deque<std::string> lines_;
};

// "CODE PATH" of a stop answer or callback.
struct StopReport {
    int64_t code = 0;
    std::string path;  // "" for none
};

// The consent agent of the logged-in user, played by the test.
class Agent {
  public:
    explicit Agent(std::vector<std::string> languages = {"en"}) {
        ConsentAgent::Options o;
        o.preferredLanguages = std::move(languages);
        o.presenter = [this](const ConsentAlert& alert, ConsentAgent::Answer answer) {
            std::optional<ConsentResponse> scripted;
            {
                std::lock_guard lock(mutex_);
                if (!script_.empty()) scripted = script_.front(), script_.pop_front();
            }
            alerts_.add(alert);  // before the answer is held: counted once it can be given
            // Answered outside the lock: the agent may report an event from
            // within the answer.
            if (scripted)
                answer(*scripted);
            else
                held_.add(std::move(answer));
        };
        o.events = [this](ConsentAgent::Event e, const std::string&) {
            if (e == ConsentAgent::Event::Registered) registered_.add(true);
        };
        agent_ = ConsentAgent::create(std::move(o));
        agent_->start();
    }
    ~Agent() { agent_->stop(); }

    bool waitUntilRegistered() { return registered_.waitFor(1, kAnswer); }
    // Answers for the next alerts, in order; without one an alert is held.
    void script(std::initializer_list<ConsentResponse> answers) {
        std::lock_guard lock(mutex_);
        script_.insert(script_.end(), answers);
    }
    // Waits until `n` alerts are held unanswered.
    bool waitForHeld(size_t n) { return held_.waitFor(answered_ + n, kAnswer); }
    void answerHeld(ConsentResponse r) {
        auto held = held_.all();
        if (answered_ < held.size()) held[answered_++](r);
    }
    std::vector<ConsentAlert> alerts() const { return alerts_.all(); }
    void stop() { agent_->stop(); }

  private:
    std::shared_ptr<ConsentAgent> agent_;
    std::mutex mutex_;
    std::deque<ConsentResponse> script_;  // guarded by mutex_
    size_t answered_ = 0;                 // of held_; the test's thread only
    test::Collected<ConsentAgent::Answer> held_;
    test::Collected<ConsentAlert> alerts_;
    test::Collected<bool> registered_;
};

class RecordingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        log::setOutputEnabled(false);
        ASSERT_TRUE(startDaemon({"--test-clock"})) << daemon.log();
    }
    // The synthetic platform, the test bundles, and this test's own process
    // (the consent agent) trusted as such.
    bool startDaemon(std::vector<std::string> extra) {
        char self[4096];
        const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        std::vector<std::string> args{"--screen-backend", "synthetic", "--audio-backend",
                                      "synthetic", "--trusted-agent",
                                      n > 0 ? std::string(self, size_t(n)) : "",
                                      // an interpreter, which is never trusted
                                      "--trusted-agent", "/bin/sh",
                                      // whatever the umask made of the build tree
                                      "--trusted-bundle-dir", TEST_BUNDLES_DIR};
        args.insert(args.end(), extra.begin(), extra.end());
        return daemon.start(SORVELD,
                            {.args = std::move(args),
                             .env = {std::string("SORVEL_BUNDLE_PATH=") + TEST_BUNDLES_DIR}});
    }
    void TearDown() override {
        apps_.clear();
        agent_.reset();
        shell_.reset();
        if (daemon.running() && daemon.stop(SIGTERM) < 0)
            ADD_FAILURE() << "sorveld did not end on SIGTERM";
        if (HasFailure()) {
            std::fprintf(stderr, "--- sorveld log\n%s\n", daemon.log().c_str());
            daemon.keep();
        }
    }

    App& launch(const std::string& bundle) {
        std::string exe = bundle.empty()
                              ? std::string(TEST_APP)
                              : std::string(TEST_BUNDLES_DIR) + "/" + bundle + "/sorvel_test_app";
        apps_.push_back(std::make_unique<App>(exe, run_));
        return *apps_.back();
    }
    Agent& agent(std::vector<std::string> languages = {"en"}) {
        agent_ = std::make_unique<Agent>(std::move(languages));
        EXPECT_TRUE(agent_->waitUntilRegistered());
        return *agent_;
    }
    ShellClient& shell() {
        if (!shell_) shell_ = std::make_unique<ShellClient>();
        return *shell_;
    }
    // Moves the daemon's clock on through the shell channel.
    OptionalError advanceClock(double seconds) {
        return shell().waitFor([&](ShellClient::Completion c) {
            auto args = ipc::Arguments().add(Value(seconds));
            shell().call("advanceClockBy:handler:", args,
                         [c](ipc::Received reply, OptionalError e) {
                             if (!e && !reply.at(0).is_null()) e = Error::fromValue(reply.at(0));
                             c(e);
                         });
        });
    }
    OptionalError setApp(const std::string& bundle, bool foreground) {
        return shell().waitFor([&](ShellClient::Completion c) {
            shell().setApplicationState(bundle, foreground, 0, c);
        });
    }
    OptionalError setLayout(std::optional<std::vector<int64_t>> levels) {
        return shell().waitFor(
            [&](ShellClient::Completion c) { shell().setDisplayLayoutLevels(levels, c); });
    }
    bool logged(const std::string& line, size_t count = 1) {
        return daemon.logged(line, count, kAnswer);
    }
    size_t logCount(const std::string& line) { return daemon.logCount(line); }

    // Starts a recording of the app's own layers and waits for its answer.
    int64_t start(App& app, bool mic = false, const std::string& extra = "0 0 0") {
        app.send("start " + std::string(mic ? "1 " : "0 ") + extra + " own");
        auto answer = app.expect("started ");
        EXPECT_TRUE(answer) << "no answer to the start";
        return answer ? std::stoll(*answer) : 1;
    }
    // The app's recording status (its last recording's, once it ended); an
    // empty object when there is none or it cannot be read.
    Value status(App& app) {
        app.send("status");
        auto s = app.expect("status ");
        auto v = s ? Value::parse(*s, nullptr, false) : Value();
        return v.is_object() ? v : Value::object();
    }
    // Waits until the app's recording has written `frames` frames.
    bool recorded(App& app, int64_t frames) {
        return eventually([&] { return status(app).value("framesWritten", int64_t(0)) >= frames; },
                          kAnswer);
    }
    // The app's next line with `prefix` ("stopped ", "callback "), a report
    // with code `code` when given; nothing when none came.
    std::optional<StopReport> report(App& app, const std::string& prefix,
                                     std::optional<int64_t> code = std::nullopt) {
        auto text = app.expect(prefix);
        EXPECT_TRUE(text) << "no " << prefix;
        if (!text) return std::nullopt;
        std::istringstream in(*text);
        StopReport r;
        in >> r.code >> r.path;
        if (r.path == "-") r.path.clear();
        if (code) {
            EXPECT_EQ(r.code, *code) << *text;
        }
        return r;
    }
    std::optional<StopReport> stop(App& app, std::optional<int64_t> code = std::nullopt) {
        app.send("stop");
        return report(app, "stopped ", code);
    }
    // The movie as the inspector reads it; fails the test when unreadable.
    std::optional<MovieInspection> inspect(const std::string& path) {
        auto movie = inspectMovie(path);
        EXPECT_TRUE(movie) << path << ": " << movie.error().message();
        if (!movie) return std::nullopt;
        return std::move(*movie);
    }

    PrivateDaemon daemon{"sv-recording-"};
    const std::string &root_ = daemon.root, &run_ = daemon.run, &store_ = daemon.store;
    std::vector<std::unique_ptr<App>> apps_;
    std::unique_ptr<Agent> agent_;
    std::unique_ptr<ShellClient> shell_;
};

// ---------------------------------------------------------------------------

// The start request's refusals, each before the next check: a process that
// is no application, an application in the background (before any alert),
// the user declining (the alert's texts and buttons), no consent agent at
// all, and a broadcast without set-up (which never shows the alert).
TEST_F(RecordingTest, StartRefusalsInTheirOrder) {
    auto& nobody = launch("");
    nobody.send("start 0 0 0 1");  // even a system recording needs an application
    EXPECT_EQ(nobody.expect("started "), "-5803 0 0");

    // No consent agent registered: the alert cannot be shown.
    auto& alpha = launch("alpha");
    EXPECT_EQ(start(alpha, true), -5801);
    EXPECT_TRUE(logged("error showing acknowledgement alert"));

    auto& a = agent({"fr"});
    a.script({ConsentResponse::Default});
    alpha.send("start 1 1 0 0 own");
    EXPECT_EQ(alpha.expect("started "), "-5801 0 0");
    ASSERT_EQ(a.alerts().size(), 1u);
    const ConsentAlert alert = a.alerts()[0];
    // In the agent's language, with the application's name in it.
    EXPECT_EQ(alert.title, "Autoriser l’enregistrement de l’écran dans « Alpha en français » ?");
    EXPECT_NE(alert.message.find("la caméra"), std::string::npos) << alert.message;
    EXPECT_EQ(alert.message.find("votre voix grâce au micro."),
              alert.message.rfind("votre voix grâce au micro."));  // the camera sentence only
    ASSERT_TRUE(alert.alternateButton && alert.otherButton);
    EXPECT_TRUE(logged("user declined"));

    // Sent to the background: refused before anyone is asked.
    ASSERT_FALSE(setApp(kAlpha, false));
    EXPECT_EQ(start(alpha), -5803);
    EXPECT_EQ(a.alerts().size(), 1u);

    // Back in front: a broadcast without set-up fails without a message and
    // without an alert.
    ASSERT_FALSE(setApp(kAlpha, true));
    alpha.send("start 0 0 1 0 own");
    EXPECT_EQ(alpha.expect("started "), "-5808 0 0");
    EXPECT_TRUE(logged("attempted to start broadcast without a session, bailing out"));
    EXPECT_EQ(a.alerts().size(), 1u);
    // An application's system recording is asked about like any other; so
    // soon after the decline, it is refused without asking.
    alpha.send("start 0 0 0 1");
    EXPECT_EQ(alpha.expect("started "), "-5801 0 0");
    EXPECT_TRUE(logged("after the user declined; refused without asking"));
    EXPECT_EQ(a.alerts().size(), 1u);
    ASSERT_FALSE(advanceClock(10.0));  // the time a decline holds
    a.script({ConsentResponse::Other});
    alpha.send("start 0 0 0 1");
    EXPECT_EQ(alpha.expect("started "), "0 0 0");
    EXPECT_EQ(a.alerts().size(), 2u);
    auto movie = stop(alpha, 0);
    ASSERT_TRUE(movie);
    EXPECT_TRUE(exists(movie->path));
    // The keep-alive transactions of the failed broadcast and of the
    // recording are both closed: nothing is reported unbalanced.
    EXPECT_EQ(logCount("keep-alive transaction ended without being begun"), 0u);
}

// Started by systemd, the consent agent comes up beside the service: with
// --agent-wait a question asked before any agent registered waits for one
// and goes to the first that does. A newer agent asks in front of it until it
// goes away; with no agent left in time the start is refused.
TEST_F(RecordingTest, AQuestionWaitsForTheAgentStartedWithTheService) {
    ASSERT_GE(daemon.stop(SIGTERM), 0);
    ASSERT_TRUE(startDaemon({"--agent-wait", "5"})) << daemon.log();
    auto& alpha = launch("alpha");
    alpha.send("start 0 0 0 0 own");
    ASSERT_TRUE(logged("waits for a consent agent"));
    auto& a = agent();
    ASSERT_TRUE(a.waitForHeld(1));
    a.answerHeld(ConsentResponse::Other);
    EXPECT_EQ(alpha.expect("started "), "0 0 0");
    ASSERT_TRUE(stop(alpha));

    {
        Agent terminal;
        ASSERT_TRUE(terminal.waitUntilRegistered());
        terminal.stop();
        ASSERT_TRUE(logged("an earlier agent asks again"));
        EXPECT_TRUE(terminal.alerts().empty());
    }
    auto& beta = launch("beta");
    beta.send("start 0 0 0 0 own");
    ASSERT_TRUE(a.waitForHeld(1));
    a.answerHeld(ConsentResponse::Default);
    EXPECT_EQ(beta.expect("started "), "-5801 0 0");
    EXPECT_EQ(a.alerts().size(), 2u);

    a.stop();
    ASSERT_TRUE(logged("the consent agent went away", 2));
    // Alpha with the microphone, which its earlier answer did not allow
    // (beta's decline holds beta off for a while): nobody is there to ask.
    ASSERT_FALSE(setApp(kAlpha, true));
    EXPECT_EQ(start(alpha, true), -5801);
    EXPECT_TRUE(logged("no consent agent registered for alert"));
    EXPECT_EQ(a.alerts().size(), 2u);
}

// Consent is remembered per microphone choice and expires once the
// application has spent more than 480 s in the background (the daemon's clock
// moved through the shell channel). Allowed the screen only, an application
// cannot switch the microphone on, not even through a pause and resume.
TEST_F(RecordingTest, ConsentIsRememberedUntilLongInTheBackground) {
    auto& a = agent();
    auto& alpha = launch("alpha");
    alpha.send("active");
    // Accepted without the microphone: exempt for screen-only recordings.
    a.script({ConsentResponse::Other});
    alpha.send("start 1 0 0 0 own");
    EXPECT_EQ(alpha.expect("started "), "0 0 0");
    alpha.send("mic 1");
    ASSERT_TRUE(logged("may not record the microphone; not enabled"));
    alpha.send("pause");
    alpha.send("resume own");
    ASSERT_TRUE(logged("SVRecordingSession: resumeSessionWithContextID:"));
    ASSERT_TRUE(recorded(alpha, 150));
    auto silent = stop(alpha);
    ASSERT_TRUE(silent);
    auto inspection = inspect(silent->path);
    ASSERT_TRUE(inspection);
    for (const auto& sync : inspection->audioSync) EXPECT_TRUE(sync.track != 2 || sync.clicks == 0);
    EXPECT_EQ(start(alpha, false), 0);
    ASSERT_TRUE(stop(alpha));
    EXPECT_EQ(a.alerts().size(), 1u);
    // With the microphone it is asked again; accepted with it, exempt both ways.
    a.script({ConsentResponse::Alternate});
    alpha.send("start 1 0 0 0 own");
    EXPECT_EQ(alpha.expect("started "), "0 1 0");
    ASSERT_TRUE(stop(alpha));
    EXPECT_EQ(a.alerts().size(), 2u);
    EXPECT_EQ(a.alerts()[1].alternateButton.value_or(""), "Record Screen and Microphone");
    EXPECT_EQ(start(alpha, true), 0);
    ASSERT_TRUE(stop(alpha));
    EXPECT_EQ(start(alpha, false), 0);
    ASSERT_TRUE(stop(alpha));
    EXPECT_EQ(a.alerts().size(), 2u);

    // Eight minutes less a little in the background keep the exemption...
    alpha.send("resign");
    ASSERT_TRUE(logged("SVRecordingManager:clientDidResignActiveWithBundleID:"));
    ASSERT_FALSE(advanceClock(470.0));
    alpha.send("active");
    ASSERT_TRUE(
        logged("SVRecordingManager:removeAcknowledgementExemptionIfOverThreshholdForBundleID:", 2));
    EXPECT_EQ(start(alpha, true), 0);
    ASSERT_TRUE(stop(alpha));
    EXPECT_EQ(a.alerts().size(), 2u);
    // ...the first background date stays (a second resign does not renew
    // it), and past 480 s the application is asked again.
    alpha.send("resign");
    ASSERT_TRUE(logged("SVRecordingManager:clientDidResignActiveWithBundleID:", 2));
    ASSERT_FALSE(advanceClock(20.0));
    alpha.send("active");
    ASSERT_TRUE(logged("removedExemption"));
    a.script({ConsentResponse::Default});
    EXPECT_EQ(start(alpha, false), -5801);
    EXPECT_EQ(a.alerts().size(), 3u);
    // Only the daemon's own tests may move its clock.
    EXPECT_TRUE(advanceClock(-1.0));
}

// The user's answer is about the request it was asked for: another
// application's start while the question is up changes neither what the
// first one is granted nor what it is exempt for.
TEST_F(RecordingTest, ConsentAnswersTheRequestItWasAskedFor) {
    auto& a = agent();
    auto& alpha = launch("alpha");
    alpha.send("start 1 0 0 0 own");
    ASSERT_TRUE(a.waitForHeld(1));
    auto& beta = launch("beta");
    beta.send("start 0 0 0 0 own");  // without the microphone
    ASSERT_TRUE(a.waitForHeld(2));
    a.answerHeld(ConsentResponse::Alternate);  // alpha: screen and microphone
    EXPECT_EQ(alpha.expect("started "), "0 1 0");
    a.answerHeld(ConsentResponse::Default);
    EXPECT_EQ(beta.expect("started "), "-5801 0 0");
    ASSERT_TRUE(recorded(alpha, 5));
    ASSERT_TRUE(stop(alpha));
    // Exempt with the microphone: not asked again.
    ASSERT_FALSE(setApp(kAlpha, true));
    EXPECT_EQ(start(alpha, true), 0);
    ASSERT_TRUE(stop(alpha));
    EXPECT_EQ(a.alerts().size(), 2u);
}

// Another application's start ends the recording: the first application gets
// its movie at once; coming back while it records again, it is told once
// (-5806, with that movie) that another application cut it short. Callbacks
// and answers reach the application in the order they were sent, so a
// callback missing before an answer was never sent.
TEST_F(RecordingTest, AnotherApplicationsStartInterrupts) {
    auto& a = agent();
    a.script({ConsentResponse::Other, ConsentResponse::Other});
    auto& alpha = launch("alpha");
    EXPECT_EQ(start(alpha), 0);
    ASSERT_TRUE(recorded(alpha, 10));

    // Beta's launch takes the screen (alpha goes to the background without a
    // layout interruption); its start finishes alpha's recording.
    auto& beta = launch("beta");
    EXPECT_EQ(start(beta), 0);
    auto interrupted = report(alpha, "callback ", 0);
    ASSERT_TRUE(interrupted);
    ASSERT_FALSE(interrupted->path.empty());
    auto movie = inspect(interrupted->path);
    ASSERT_TRUE(movie && movie->stamps);
    EXPECT_GE(movie->stamps->stamped, 10);
    // Frames the encoder could not write are all the movie may miss.
    EXPECT_LE(movie->stamps->dropped, status(alpha).value("framesDropped", int64_t(0)));

    // Alpha comes back without recording: nothing yet. Its start (exempt
    // now) interrupts beta in turn.
    ASSERT_FALSE(setApp(kAlpha, true));
    alpha.send("active");
    EXPECT_EQ(start(alpha), 0);
    EXPECT_FALSE(alpha.has("callback "));
    auto betaMovie = report(beta, "callback ", 0);
    ASSERT_TRUE(betaMovie);

    // Active while recording: told once, with the earlier movie; the
    // recording goes on and its stop hands over the new movie.
    alpha.send("active");
    auto told = report(alpha, "callback ", -5806);
    ASSERT_TRUE(told);
    EXPECT_EQ(told->path, interrupted->path);
    alpha.send("active");
    ASSERT_TRUE(recorded(alpha, 5));
    auto second = stop(alpha, 0);
    ASSERT_TRUE(second);
    EXPECT_TRUE(exists(second->path));
    EXPECT_FALSE(alpha.has("callback "));
}

// Layout changes: an overlay shares the screen, another window takes it
// (-5807 with the movie); system recordings are never interrupted.
TEST_F(RecordingTest, LayoutChangesInterruptApplicationRecordings) {
    auto& a = agent();
    a.script({ConsentResponse::Other});
    auto& alpha = launch("alpha");
    EXPECT_EQ(start(alpha), 0);
    ASSERT_TRUE(recorded(alpha, 5));
    ASSERT_FALSE(setLayout(std::vector<int64_t>{1, 4}));  // a notification over the app
    ASSERT_FALSE(setLayout(std::vector<int64_t>{1}));     // gone again
    ASSERT_FALSE(setLayout(std::vector<int64_t>{1, 2}));  // a dialog
    // Layout updates reach the manager on their own queue: watched for a
    // while, not looked at once.
    EXPECT_TRUE(sv::test::stays([&] { return alpha.has("callback "); }, 1500ms));
    ASSERT_TRUE(recorded(alpha, 15));
    ASSERT_FALSE(setLayout(std::vector<int64_t>{0, 1}));  // two windows below the overlays
    auto told = report(alpha, "callback ", -5807);
    ASSERT_TRUE(told);
    auto movie = inspect(told->path);
    ASSERT_TRUE(movie && movie->stamps);
    EXPECT_GE(movie->stamps->stamped, 15);

    // A system recording stays through an empty layout and two windows.
    ASSERT_FALSE(setLayout(std::nullopt));
    a.script({ConsentResponse::Other});
    alpha.send("start 0 0 0 1");
    EXPECT_EQ(alpha.expect("started "), "0 0 0");
    // Asked although alpha is exempt for its own windows: it is no trusted
    // executable.
    EXPECT_EQ(a.alerts().size(), 2u);
    ASSERT_FALSE(setLayout(std::vector<int64_t>{}));
    ASSERT_FALSE(setLayout(std::vector<int64_t>{1, 1}));
    ASSERT_TRUE(recorded(alpha, 10));
    auto system = stop(alpha, 0);
    ASSERT_TRUE(system);
    EXPECT_FALSE(alpha.has("callback "));  // a report would have come before the answer
}

// The lock button stops with -5809 and hands over the movie; storage
// pressure below the urgent level leaves the recording alone, at the urgent
// level it ends it with -5805 and empties the store.
TEST_F(RecordingTest, LockButtonAndStoragePressure) {
    auto& a = agent();
    a.script({ConsentResponse::Other});
    auto& alpha = launch("alpha");
    EXPECT_EQ(start(alpha), 0);
    ASSERT_TRUE(recorded(alpha, 5));
    ASSERT_FALSE(shell().lockButtonPressedAndWait().error);
    auto locked = report(alpha, "callback ", -5809);
    ASSERT_TRUE(locked);
    ASSERT_TRUE(inspect(locked->path));

    EXPECT_EQ(start(alpha), 0);  // exempt now
    ASSERT_TRUE(recorded(alpha, 5));
    // Low urgency leaves even a days-old movie alone while recording; the
    // periodic clean-up takes it all the same.
    const std::string old = store_ + "old.mp4";
    std::ofstream(old) << std::string(1000, 'm');
    std::filesystem::last_write_time(old, std::filesystem::file_time_type::clock::now() - 48h);
    auto low = shell().purgeAndWait(0, 2);
    EXPECT_EQ(low.bytes, 0);
    EXPECT_TRUE(exists(old));
    EXPECT_EQ(shell().periodicAndWait(0, 0).bytes, 1000);
    ASSERT_TRUE(recorded(alpha, 15));
    EXPECT_FALSE(alpha.has("callback "));
    // The store holds the recording's partial movie alone (it took the
    // name of the one handed over at the lock); the purge removes it and
    // reports its bytes.
    auto urgent = shell().purgeAndWait(0, 3);
    EXPECT_FALSE(urgent.error);
    ASSERT_TRUE(urgent.bytes);
    EXPECT_GT(*urgent.bytes, 0) << "the recording's partial movie is counted";
    auto purged = report(alpha, "callback ", -5805);
    ASSERT_TRUE(purged);
    EXPECT_TRUE(purged->path.empty());
    EXPECT_TRUE(eventually([&] { return std::filesystem::is_empty(store_); }, kAnswer));
    // The application can record again.
    EXPECT_EQ(start(alpha), 0);
    ASSERT_TRUE(recorded(alpha, 2));
    ASSERT_TRUE(stop(alpha));
}

// Pause, resume and a trimmed stop: the movie holds the recorded time
// without the pause, cut by a second at each end; the pause is seen once.
// Discard removes the last movie; a discard while recording is never
// answered.
TEST_F(RecordingTest, PauseResumeTrimAndDiscard) {
    auto& a = agent();
    a.script({ConsentResponse::Other});
    auto& alpha = launch("alpha");
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(start(alpha), 0);
    ASSERT_TRUE(recorded(alpha, 100));  // over 1.5 s at 60 frames per second
    alpha.send("pause");
    ASSERT_TRUE(logged("SVRecordingSession: pauseSession"));
    alpha.send("discard");
    ASSERT_TRUE(logged("can't discard recording while recording is in progress"));
    // The pause itself: a stretch of real time for the movie to leave out.
    std::this_thread::sleep_for(1s);
    alpha.send("resume own");
    ASSERT_TRUE(logged("SVRecordingSession: resumeSessionWithContextID:"));
    ASSERT_TRUE(recorded(alpha, status(alpha).value("framesWritten", int64_t(0)) + 100));
    alpha.send("stopclip 1 1");
    auto trimmed = report(alpha, "stopped ", 0);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    ASSERT_TRUE(trimmed);
    EXPECT_FALSE(alpha.has("discarded"));  // the discard while recording got no answer
    EXPECT_NE(trimmed->path.find("_trimmed.mp4"), std::string::npos) << trimmed->path;
    auto movie = inspect(trimmed->path);
    ASSERT_TRUE(movie && movie->stamps);
    const std::string whole = store_ + "Alpha.mp4";
    auto full = inspect(whole);
    ASSERT_TRUE(full && full->stamps);
    ASSERT_EQ(full->stamps->pauses.size(), 1u);
    EXPECT_GE(full->stamps->pauses[0].duration, 0.9);
    EXPECT_LE(full->stamps->dropped, status(alpha).value("framesDropped", int64_t(0)));
    // The movie holds no pause: it is shorter than the time the recording
    // took by at least most of the pause (however slowly a loaded machine
    // made the 200 frames). A second is cut at each end.
    EXPECT_LT(full->movie.duration, took.count() - 0.8);
    EXPECT_NEAR(movie->movie.duration, full->movie.duration - 2.0, 0.5);

    alpha.send("discard");
    EXPECT_EQ(alpha.expect("discarded "), "0");
    EXPECT_FALSE(exists(whole));
}

// A disconnect during a recording ends it and throws the movie away; a
// second process of the same application replaces the connection without
// ending anything, and the recording's report goes to the newer one.
TEST_F(RecordingTest, DisconnectsAndReplacedConnections) {
    auto& a = agent();
    a.script({ConsentResponse::Other});
    auto& first = launch("alpha");
    EXPECT_EQ(start(first), 0);
    ASSERT_TRUE(recorded(first, 5));
    auto& second = launch("alpha");
    second.send("status");  // connects
    ASSERT_TRUE(logged("accepted client connection PID", 2));
    ASSERT_TRUE(recorded(second, 15));  // the same recording goes on
    EXPECT_EQ(logCount("SVRecordingManager: applicationDisconnected"), 0u);
    ASSERT_FALSE(shell().lockButtonPressedAndWait().error);
    auto told = report(second, "callback ", -5809);
    ASSERT_TRUE(told);
    ASSERT_TRUE(inspect(told->path));

    // The second process goes away while recording: stopped, thrown away.
    EXPECT_EQ(start(second), 0);
    ASSERT_TRUE(recorded(second, 5));
    second.kill();
    ASSERT_TRUE(logged("SVRecordingManager: applicationDisconnected"));
    ASSERT_TRUE(logged("recording stopped without handler!"));
    EXPECT_TRUE(eventually([&] { return !exists(store_ + "Alpha.mp4"); }, kAnswer));
    EXPECT_TRUE(logged("SVRecordingManager:resetStatesForSession:", 2));
    // The daemon serves on; a new process of the application starts afresh.
    auto& third = launch("alpha");
    EXPECT_EQ(start(third), 0);
    ASSERT_TRUE(stop(third));
}

// What another application may not do: record layers that are not its own,
// speak for another application, or pile up requests while it waits for the
// user. Malformed values get an error answer.
TEST_F(RecordingTest, ApplicationsCannotReachBeyondThemselves) {
    auto& a = agent();
    a.script({ConsentResponse::Other});
    auto& alpha = launch("alpha");
    alpha.send("layers");
    auto alphaLayers = alpha.expect("layers ");
    ASSERT_TRUE(alphaLayers && !alphaLayers->empty());
    auto& beta = launch("beta");
    // Only another's layers: refused before the user is asked.
    beta.send("start 0 0 0 0 " + *alphaLayers);
    EXPECT_EQ(beta.expect("started "), "-5803 0 0");
    EXPECT_TRUE(logged("do not belong to org.sorvel.tests.beta"));
    // Its own layers and another's: only its own are recorded.
    beta.send("start 0 0 0 0 own " + *alphaLayers);
    EXPECT_EQ(beta.expect("started "), "0 0 0");
    EXPECT_EQ(a.alerts().size(), 1u);
    beta.send("active-as " + kAlpha);
    EXPECT_TRUE(logged("reported org.sorvel.tests.alpha active, not its own; dropped"));
    ASSERT_TRUE(stop(beta));

    // Waiting for the user, alpha floods the daemon: its connection ends,
    // the daemon serves on, and the late answer starts nothing.
    ASSERT_FALSE(setApp(kAlpha, true));  // beta's launch sent it to the background
    alpha.send("start 0 0 0 0 own");
    ASSERT_TRUE(a.waitForHeld(1));
    for (int i = 0; i < 300; ++i) alpha.send("pause");
    EXPECT_TRUE(logged("requests while held; ending its connection"));
    auto abandoned = alpha.expect("started ");
    ASSERT_TRUE(abandoned);
    EXPECT_NE(abandoned->rfind("-58", 0), 0u) << *abandoned;  // the library's own error
    a.answerHeld(ConsentResponse::Other);
    EXPECT_TRUE(logged("start abandoned, the application went away while the user was asked"));
    EXPECT_EQ(logCount("recording session started"), 1u);
    ASSERT_FALSE(setApp(kBeta, true));
    // The state change reaches the manager after the shell's answer; a start
    // refused before it (-5803) changes nothing, so beta asks again.
    EXPECT_TRUE(eventually([&] { return start(beta) == 0; }, kAnswer));
    ASSERT_TRUE(stop(beta));
}

// Who the service trusts: an application's identity comes only from a
// bundle nobody else may change and that no other bundle names, and only a
// trusted executable registers as the consent agent (a copy of the
// project's own agent elsewhere is not it).
TEST_F(RecordingTest, IdentityAndAgentsMustBeTrusted) {
    namespace fs = std::filesystem;
    auto& a = agent();
    auto bundleCopy = [&](const std::string& dir, const std::string& manifest) {
        fs::create_directories(dir);
        std::ofstream(dir + "/bundle.json") << manifest;
        // Closed to others whatever the umask: only the directory a case
        // opens on purpose is open.
        using P = fs::perms;
        fs::permissions(
            dir, P::owner_all | P::group_read | P::group_exec | P::others_read | P::others_exec);
        fs::permissions(dir + "/bundle.json",
                        P::owner_read | P::owner_write | P::group_read | P::others_read);
        fs::copy_file(TEST_APP, dir + "/sorvel_test_app");
        return dir + "/sorvel_test_app";
    };
    // A copy of alpha's manifest: alpha's identifier belongs to alpha's bundle.
    const std::string fake = bundleCopy(root_ + "/fake", R"({"identifier": ")" + kAlpha + R"("})");
    // A bundle in a directory anyone may write.
    const std::string open =
        bundleCopy(root_ + "/open/gamma", R"({"identifier": "org.sorvel.tests.gamma"})");
    fs::permissions(root_ + "/open", fs::perms::all);
    for (const auto& [exe, why] :
         {std::pair{fake, "that identifier belongs to"}, {open, "is writable by others"}}) {
        apps_.push_back(std::make_unique<App>(exe, run_));
        apps_.back()->send("start 0 0 0 1");
        EXPECT_EQ(apps_.back()->expect("started "), "-5803 0 0") << exe;
        EXPECT_TRUE(logged(why)) << exe;
    }
    EXPECT_TRUE(a.alerts().empty());

    // The project's agent, copied elsewhere, is refused; the registered
    // agent stays.
    const std::string copy = root_ + "/agent/sorvel";
    fs::create_directories(root_ + "/agent");
    fs::copy_file(SORVEL, copy);
    const pid_t pid = test::spawnProcess({copy, "consent-agent", "--answer", "accept"},
                                         daemon.clientEnvironment(), root_ + "/copy.log");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitForExit(pid, kAnswer), 1);
    const std::string output = test::readFile(root_ + "/copy.log");
    EXPECT_TRUE(test::contains(output, "refused")) << output;
    EXPECT_TRUE(logged("is no trusted consent agent; registration refused"));
    EXPECT_TRUE(logged("/bin/sh (--trusted-agent) is an interpreter or a script"));
    a.script({ConsentResponse::Other});
    auto& alpha = launch("alpha");
    EXPECT_EQ(start(alpha), 0);
    EXPECT_EQ(a.alerts().size(), 1u);
    ASSERT_TRUE(stop(alpha));
}

// Values a client library would never send, from a raw connection: each
// such request is logged and dropped, never answered (an out-of-range layer
// identifier like any other malformed value), and the daemon serves on. A
// well-formed request sent after them is answered first: had the dropped
// ones been answered, their replies would have come before it.
TEST_F(RecordingTest, MalformedRequestsAreDropped) {
    auto connection = ipc::Connection::toService(kDaemonServiceName);
    connection->setRemoteObjectInterface(daemonProtocolInterface());
    connection->setExportedInterface(clientProtocolInterface());
    connection->setExportedObject(std::make_shared<ipc::MethodTable>());
    connection->resume();
    auto startArgs = [](Value ids, Value size) {
        ipc::Arguments a;
        a.add(std::move(ids)).add(std::move(size));
        for (int i = 0; i < 4; ++i) a.add(Value(false));
        return a;
    };
    const Value size{{"width", 10}, {"height", 10}};
    const std::tuple<std::string, const char*, ipc::Arguments> calls[] = {
        {"wide", method::kStartRecording,
         startArgs(Value::array({1, 2}), Value{{"width", "wide"}})},
        {"2^32", method::kStartRecording, startArgs(Value::array({int64_t(1) << 32}), size)},
        {"-1", method::kStartRecording, startArgs(Value::array({-1}), size)},
        {"nan", method::kStopRecordingWithClip,
         ipc::Arguments().add(Value(std::nan(""))).add(Value(1.0))},
        {"long", method::kSetupBroadcast,
         ipc::Arguments().add(Value(std::string(300, 'a'))).add(Value("x")).addNull().addNull()},
        // Well-formed: this process lies in no bundle, so it is refused -5803.
        {"last", method::kStartRecording, startArgs(Value::array({1}), size)},
    };
    auto answered = std::make_shared<test::Collected<std::string>>();
    for (const auto& [name, method, args] : calls)
        connection->remoteObjectProxyWithErrorHandler([](const Error&) {})
            .call(method, args,
                  [answered, name = name](const ipc::Received&) { answered->add(name); });
    ASSERT_TRUE(answered->waitFor(1, kAnswer));
    EXPECT_EQ(answered->all().front(), "last");
    EXPECT_TRUE(
        logged("dropped: a layer context identifier is an integer from 0 to 4294967295", 2));
    EXPECT_TRUE(logged("dropped: clip durations are finite numbers"));
    connection->invalidate();

    // Still serving.
    auto& a = agent();
    a.script({ConsentResponse::Other});
    auto& alpha = launch("alpha");
    EXPECT_EQ(start(alpha), 0);
    ASSERT_TRUE(stop(alpha));
}

}  // namespace
