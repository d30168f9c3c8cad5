// The installed client library (libsorvel-client) against a scripted daemon
// in the test process: what each request puts on the wire, how each answer
// and callback reaches the application, and what becomes of handlers when
// the daemon misbehaves, dies or comes back.
#include <cmath>
#include <thread>

#include <gtest/gtest.h>

#include "platform/dispatch.h"
#include "protocol/recording_protocol.h"
#include "protocol/service_names.h"
#include "sorvel/recorder_client.h"
#include "tests/client/fake_service.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;
using sv::test::FakeService;
using sv::test::recordingError;

namespace {

constexpr const char* kStart = method::kStartRecording;
constexpr const char* kStop = method::kStopRecording;
constexpr const char* kStopClip = method::kStopRecordingWithClip;
constexpr const char* kSetup = method::kSetupBroadcast;
constexpr const char* kDiscard = method::kDiscardRecording;
constexpr const char* kBecomeActive = method::kClientDidBecomeActive;
constexpr const char* kResignActive = method::kClientDidResignActive;

// The application's executor: a serial queue that marks the tasks it runs.
thread_local bool tInExecutor = false;

struct Executor {
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::serial("test.app-executor");
    std::atomic<int> tasks{0};
    SVRecorderClient::Executor function() {
        return [this](std::function<void()> task) {
            tasks++;
            queue->async([task = std::move(task)] {
                tInExecutor = true;
                task();
                tInExecutor = false;
            });
        };
    }
};

// A stop report: the error's code (0 for none) and the movie.
using Stops = std::vector<std::pair<int64_t, std::optional<std::string>>>;

// Records delegate callbacks (and whether they ran on the executor).
struct Delegate : SVRecorderClientDelegate {
    std::mutex mutex;
    Stops stops;
    std::vector<std::string> serviceInfos;
    std::atomic<int> offExecutor{0};
    Semaphore called;
    void stopRecordingWithError(const std::optional<SVRecorderError>& error,
                                const std::optional<std::string>& movie) override {
        if (!tInExecutor) offExecutor++;
        {
            std::lock_guard lock(mutex);
            stops.emplace_back(error ? error->code : 0, movie);
        }
        called.signal();
    }
    Stops stopped() {
        std::lock_guard lock(mutex);
        return stops;
    }
    void updateBroadcastServiceInfo(const std::string& json) override {
        if (!tInExecutor) offExecutor++;
        {
            std::lock_guard lock(mutex);
            serviceInfos.push_back(json);
        }
        called.signal();
    }
};

using StartResult = std::tuple<std::optional<SVRecorderError>, bool, bool>;
using StopResult = std::pair<std::optional<std::string>, std::optional<SVRecorderError>>;

class RecorderClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ipc::setRuntimeDirectory(dir_);
        static int counter = 0;
        service_ =
            "org.sorvel.test.daemon." + std::to_string(getpid()) + "." + std::to_string(counter++);
    }
    void TearDown() override {
        client_.reset();
        if (daemon_) daemon_->die();
        daemon_.reset();
    }

    // A daemon that answers with `script` (replies of any shape allowed).
    void startDaemon(FakeService::Script script) {
        daemon_ = FakeService::start(service_, sv::test::withAnyReplies(daemonProtocolInterface()),
                                     clientProtocolInterface(), std::move(script));
        ASSERT_TRUE(daemon_);
    }
    SVRecorderClient& client() {
        if (!client_) {
            SVRecorderClient::Options o;
            o.executor = executor_.function();
            o.serviceName = service_;
            o.runtimeDirectory = dir_;
            client_ = std::make_unique<SVRecorderClient>(o);
            client_->setDelegate(delegate_);
        }
        return *client_;
    }

    StartResult start(std::vector<uint32_t> ids = {5}) {
        return sv::test::awaitOnce<StartResult>([&](auto done) {
            client().startRecordingWindowLayerContextIDs(
                ids, {1334, 750.5f}, true, false, false, false,
                [done](std::optional<SVRecorderError> e, bool m, bool c) {
                    done(StartResult{e, m, c});
                });
        });
    }
    StopResult stop() {
        return sv::test::awaitOnce<StopResult>([&](auto done) {
            client().stopRecordingWithHandler(
                [done](std::optional<std::string> m, std::optional<SVRecorderError> e) {
                    done(StopResult{m, e});
                });
        });
    }
    std::optional<SVRecorderError> discard() {
        return sv::test::awaitOnce<std::optional<SVRecorderError>>(
            [&](auto done) { client().discardRecordingWithHandler(done); });
    }

    sv::test::TempDir tmp_;
    const std::string& dir_ = tmp_.path();
    std::string service_;
    std::shared_ptr<FakeService> daemon_;
    Executor executor_;
    std::shared_ptr<Delegate> delegate_ = std::make_shared<Delegate>();
    std::unique_ptr<SVRecorderClient> client_;
};

// Every request as the daemon sees it, and every answer as the application
// gets it.
TEST_F(RecorderClientTest, RequestsReachTheDaemonAndAnswersDecode) {
    startDaemon([](const FakeService::Call& c) {
        if (c.method == kStart)
            c.reply(ipc::Arguments().addNull().add(Value(true)).add(Value(false)));
        if (c.method == kStop)
            c.reply(ipc::Arguments().add(Value("file:///tmp/my%20movie.mp4")).addNull());
        if (c.method == kStopClip)
            c.reply(ipc::Arguments()
                        .add(Value("file:///tmp/t.mp4"))
                        .add(recordingError(-5804, "Failed during recording").toValue()));
        if (c.method == kSetup) c.reply(ipc::Arguments().add(recordingError(-5808).toValue()));
        if (c.method == kDiscard) c.reply();
    });
    client().clientDidBecomeActiveWithBundleID("com.example.notes");
    auto [error, mic, camera] = start({5, 4000000000u});
    EXPECT_FALSE(error);
    EXPECT_TRUE(mic);
    EXPECT_FALSE(camera);
    client().pauseRecording();
    client().resumeRecordingWithWindowLayerContextID(4000000000u);
    client().setMicrophoneEnabled(false);

    auto [movie, stopError] = stop();
    EXPECT_EQ(movie, "/tmp/my movie.mp4");
    EXPECT_FALSE(stopError);

    auto clipped = sv::test::awaitOnce<StopResult>([&](auto done) {
        client().stopRecordingWithStartClipDuration(1.5, 2, [done](auto m, auto e) {
            done(StopResult{m, e});
        });
    });
    EXPECT_EQ(clipped.first, "/tmp/t.mp4");  // a failed finish may still hand back a movie
    ASSERT_TRUE(clipped.second);
    EXPECT_EQ(clipped.second->code, -5804);
    EXPECT_EQ(clipped.second->description(),
              "Failed during recording (org.sorvel.SVRecordingErrorDomain -5804)");

    // The set-up error has no message of its own: the standard one stands in.
    auto setup = sv::test::awaitOnce<std::optional<SVRecorderError>>([&](auto done) {
        client().setupBroadcastWithHostBundleID("com.example.notes", "com.example.notes.upload",
                                                std::vector<uint8_t>{1, 2, 3},
                                                R"({"quality": "high", "n": 2})", done);
    });
    ASSERT_TRUE(setup);
    EXPECT_TRUE(setup->isRecordingError());
    EXPECT_EQ(setup->code, -5808);
    EXPECT_EQ(setup->localizedDescription, "Unknown recording error");
    EXPECT_FALSE(discard());
    client().clientDidResignActiveWithBundleID("com.example.notes");
    ASSERT_TRUE(daemon_->waitFor([](auto& calls) { return calls.size() == 10; }));
    // Booleans are real ones (a JSON true is not equal to 1), bytes binary,
    // and a handler's place is null.
    const std::vector<std::pair<std::string, Value>> expected{
        {kBecomeActive, Value::array({"com.example.notes"})},
        {kStart, Value::array({Value::array({5, 4000000000u}),
                               Value({{"width", 1334.0}, {"height", 750.5}}), true, false, false,
                               false, nullptr})},
        {"pauseRecording", Value::array()},
        {"resumeRecordingWithWindowLayerContextID:", Value::array({4000000000u})},
        {"setMicrophoneEnabled:", Value::array({false})},
        {kStop, Value::array({nullptr})},
        {kStopClip, Value::array({1.5, 2.0, nullptr})},
        {kSetup,
         Value::array({"com.example.notes", "com.example.notes.upload", bytesValue(Bytes{1, 2, 3}),
                       Value({{"quality", "high"}, {"n", 2}}), nullptr})},
        {kDiscard, Value::array({nullptr})},
        {kResignActive, Value::array({"com.example.notes"})}};
    std::vector<std::pair<std::string, Value>> calls;
    for (const auto& c : daemon_->calls()) calls.emplace_back(c.method, Value(c.args));
    EXPECT_EQ(calls, expected);
}

// Handlers and callbacks run on the application's executor, in the order
// the daemon sent them.
TEST_F(RecorderClientTest, CallbacksRunOnTheChosenExecutorInOrder) {
    startDaemon([](const FakeService::Call& c) {
        if (c.method == kStart)
            c.reply(ipc::Arguments().addNull().add(Value(false)).add(Value(false)));
    });
    auto handlerOnExecutor = sv::test::awaitOnce<bool>([&](auto done) {
        client().startRecordingWindowLayerContextIDs(
            {1}, {100, 100}, false, false, false, true,
            [done](auto, bool, bool) { done(tInExecutor); });
    });
    EXPECT_TRUE(handlerOnExecutor);

    daemon_->callBack(
        "updateBroadcastServiceInfo:",
        ipc::Arguments().add(Value({{"viewers", 3}, {"token", bytesValue(Bytes{'h', 'i'})}})));
    daemon_->callBack("stopRecordingWithError:movieURL:",
                      ipc::Arguments()
                          .add(recordingError(-5807,
                                              "Recording interrupted by multitasking and "
                                              "content resizing")
                                   .toValue())
                          .add(Value("file:///tmp/interrupted.mp4")));
    daemon_->callBack("updateBroadcastServiceInfo:", ipc::Arguments().add(Value::object()));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(delegate_->called.waitFor(20s));
    EXPECT_EQ(delegate_->offExecutor, 0);
    std::lock_guard lock(delegate_->mutex);
    ASSERT_EQ(delegate_->serviceInfos.size(), 2u);
    EXPECT_EQ(Value::parse(delegate_->serviceInfos[0]),
              Value({{"viewers", 3}, {"token", "aGk="}}));  // bytes as base64
    EXPECT_EQ(delegate_->serviceInfos[1], "{}");
    EXPECT_EQ(delegate_->stops, (Stops{{-5807, "/tmp/interrupted.mp4"}}));
}

// The library's own errors: no daemon, arguments it cannot send; messages in
// the user's language.
TEST_F(RecorderClientTest, FailuresOfTheLinkAreErrorsWithLocalizedMessages) {
    auto [error, mic, camera] = start();
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->isClientError());
    EXPECT_EQ(error->code, SVRecorderError::kClientServiceNotRunning);
    EXPECT_EQ(error->description(),
              "The screen recording service is not running. "
              "(org.sorvel.SVRecorderClientErrorDomain 1)");
    EXPECT_FALSE(mic);
    {
        auto german = sv::test::languageEnv("de-AT");
        EXPECT_EQ(stop().second->localizedDescription, "Der Bildschirmaufnahmedienst läuft nicht.");
        auto french = sv::test::languageEnv("fr");
        EXPECT_EQ(discard()->localizedDescription,
                  "Le service d’enregistrement de l’écran n’est pas lancé.");
    }

    startDaemon(nullptr);
    auto nan = sv::test::awaitOnce<std::optional<SVRecorderError>>([&](auto done) {
        client().startRecordingWindowLayerContextIDs({1}, {NAN, 10}, false, false, false, false,
                                                     [done](auto e, bool, bool) { done(e); });
    });
    EXPECT_EQ(nan->code, SVRecorderError::kClientInvalidArgument);
    auto notAnObject = sv::test::awaitOnce<std::optional<SVRecorderError>>([&](auto done) {
        client().setupBroadcastWithHostBundleID("a", "b", std::nullopt, "[1, 2]", done);
    });
    EXPECT_EQ(notAnObject->code, SVRecorderError::kClientInvalidArgument);
    // More layer identifiers than one message holds.
    auto tooMany = std::get<0>(start(std::vector<uint32_t>(100000, 0xFFFFFFFFu)));
    EXPECT_EQ(tooMany->code, SVRecorderError::kClientRequestRejected);
    EXPECT_TRUE(daemon_->calls().empty());
}

// Every pending handler is called once when the daemon goes away; a
// recording in progress is reported over; the next request finds no daemon.
TEST_F(RecorderClientTest, PendingHandlersCompleteOnceWhenTheDaemonDies) {
    startDaemon([](const FakeService::Call& c) {
        if (c.method == kStart)
            c.reply(ipc::Arguments().addNull().add(Value(true)).add(Value(false)));
        // Stop and discard are never answered.
    });
    EXPECT_FALSE(std::get<0>(start()));
    // The codes the handlers get (-1 for a movie).
    auto codes = std::make_shared<sv::test::Collected<int64_t>>();
    client().stopRecordingWithHandler(
        [codes](auto movie, auto error) { codes->add(movie || !error ? -1 : error->code); });
    client().discardRecordingWithHandler(
        [codes](auto error) { codes->add(error ? error->code : -1); });
    ASSERT_TRUE(daemon_->waitFor([](auto& calls) { return calls.size() == 3; }));
    daemon_->die();
    ASSERT_TRUE(codes->waitFor(2));
    ASSERT_TRUE(delegate_->called.waitFor(20s));
    const int64_t interrupted = SVRecorderError::kClientConnectionInterrupted;
    EXPECT_EQ(delegate_->stopped(), (Stops{{interrupted, std::nullopt}}));
    EXPECT_EQ(stop().second->code, SVRecorderError::kClientServiceNotRunning);
    EXPECT_EQ(codes->all(), (std::vector<int64_t>{interrupted, interrupted}));  // once each
}

// After the daemon comes back, the request that reconnects is preceded by
// the application's last activity report, once; a report made while the
// daemon was away arrives the same way.
TEST_F(RecorderClientTest, ReconnectingRepeatsTheLastActivityReport) {
    auto answerDiscard = [](const FakeService::Call& c) {
        if (c.method == kDiscard) c.reply();
    };
    for (const char* report : {kBecomeActive, kResignActive}) {
        startDaemon(answerDiscard);
        client().clientDidBecomeActiveWithBundleID("com.example.first");
        if (report == kResignActive)
            client().clientDidResignActiveWithBundleID("com.example.app");
        else
            client().clientDidBecomeActiveWithBundleID("com.example.app");
        EXPECT_FALSE(discard());
        // A request left waiting tells when the client has seen the break.
        auto broken = std::make_shared<Semaphore>();
        client().stopRecordingWithHandler([broken](auto, auto e) {
            EXPECT_EQ(e->code, SVRecorderError::kClientConnectionInterrupted);
            broken->signal();
        });
        ASSERT_TRUE(daemon_->waitForCall(kStop));
        daemon_->die();
        ASSERT_TRUE(broken->waitFor(20s));

        startDaemon(answerDiscard);
        EXPECT_FALSE(discard());
        EXPECT_FALSE(discard());
        // The script answers before the call is recorded.
        ASSERT_TRUE(daemon_->waitForCall(kDiscard, 1));
        EXPECT_EQ(daemon_->methods(), (std::vector<std::string>{report, kDiscard, kDiscard}));
        EXPECT_EQ(daemon_->calls()[0].args[0], "com.example.app");
        daemon_->die();
        client_.reset();
    }
    client().clientDidBecomeActiveWithBundleID("com.example.early");
    EXPECT_EQ(discard()->code, SVRecorderError::kClientServiceNotRunning);
    startDaemon(answerDiscard);
    EXPECT_FALSE(discard());
    // The script answers before the call is recorded.
    ASSERT_TRUE(daemon_->waitForCall(kDiscard));
    EXPECT_EQ(daemon_->methods(), (std::vector<std::string>{kBecomeActive, kDiscard}));
}

// Answers that do not decode complete their handler with an error; the
// client keeps working.
TEST_F(RecorderClientTest, MalformedAnswersCompleteWithAnError) {
    std::atomic<int> variant{0};
    startDaemon([&variant](const FakeService::Call& c) {
        int v = variant;
        if (c.method == kStart) {
            if (v == 0) c.reply(ipc::Arguments().add(Value("no")).add(Value(1)).addNull());
            if (v == 1)
                c.reply(
                    ipc::Arguments().add(Value({{"domain", 5}})).add(Value(true)).add(Value(true)));
            if (v == 2) c.reply(ipc::Arguments().addNull().add(Value(true)).add(Value(false)));
        }
        if (c.method == kStop) {
            if (v == 0) c.reply(ipc::Arguments().add(Value("http://example.com/m.mp4")).addNull());
            if (v == 1) c.reply(ipc::Arguments().add(Value("file://relative")).addNull());
            if (v == 2) c.reply(ipc::Arguments().add(Value("file:///a%00b")).addNull());
        }
    });
    for (int v : {0, 1}) {
        variant = v;
        EXPECT_EQ(std::get<0>(start())->code, SVRecorderError::kClientInvalidReply) << v;
    }
    for (int v : {0, 1, 2}) {
        variant = v;
        auto [movie, error] = stop();
        EXPECT_FALSE(movie);
        EXPECT_EQ(error->code, SVRecorderError::kClientInvalidReply) << v;
    }
    variant = 2;
    EXPECT_FALSE(std::get<0>(start()));

    // A stop report with an unreadable error and movie still says that the
    // recording ended.
    daemon_->callBack("stopRecordingWithError:movieURL:",
                      ipc::Arguments().add(Value({{"code", "x"}})).add(Value("movie.mp4")));
    ASSERT_TRUE(delegate_->called.waitFor(20s));
    EXPECT_EQ(delegate_->stopped(), (Stops{{SVRecorderError::kClientInvalidReply, std::nullopt}}));
}

// invalidate() and destruction complete what waits, once, and silence the
// delegate.
TEST_F(RecorderClientTest, InvalidatingCompletesPendingHandlers) {
    startDaemon(nullptr);  // answers nothing
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto done = std::make_shared<Semaphore>();
    auto expectInvalidated = [calls, done](std::optional<std::string>,
                                           std::optional<SVRecorderError> e) {
        EXPECT_EQ(e->code, SVRecorderError::kClientInvalidated);
        (*calls)++;
        done->signal();
    };
    client().stopRecordingWithHandler(expectInvalidated);
    ASSERT_TRUE(daemon_->waitForCall(kStop));
    client().invalidate();
    ASSERT_TRUE(done->waitFor(20s));
    client().stopRecordingWithHandler(expectInvalidated);  // after: at once
    ASSERT_TRUE(done->waitFor(20s));
    daemon_->callBack("stopRecordingWithError:movieURL:", ipc::Arguments().addNull().addNull());

    // Destroying a client with a request in flight.
    auto other = std::make_unique<SVRecorderClient>(
        SVRecorderClient::Options{executor_.function(), service_, dir_});
    other->stopRecordingWithHandler(expectInvalidated);
    ASSERT_TRUE(daemon_->waitFor([](auto& c) { return c.size() == 2; }));
    other.reset();
    ASSERT_TRUE(done->waitFor(20s));
    sv::test::awaitOnce<>([&](auto flushed) { executor_.queue->async(flushed); });
    EXPECT_EQ(*calls, 3);
    EXPECT_TRUE(delegate_->stopped().empty());
}

// A daemon that floods callbacks while the application's executor is stuck
// costs a bounded backlog, not unbounded memory.
TEST_F(RecorderClientTest, AFloodOfCallbacksIsBoundedWhileTheExecutorIsBusy) {
    startDaemon([](const FakeService::Call& c) {
        if (c.method == kDiscard) c.reply();
    });
    Semaphore release, blocked;
    executor_.queue->async([&] {
        blocked.signal();
        release.wait();
    });
    ASSERT_TRUE(blocked.waitFor(20s));
    client().clientDidBecomeActiveWithBundleID("x");  // connects
    ASSERT_TRUE(daemon_->waitForCall(kBecomeActive));
    // Sent in rounds the daemon's own send queue can hold; each round is
    // known to have been handled once an answer behind it was handed to the
    // executor (the executor counts what it is handed, run or not).
    constexpr int kRounds = 6, kPerRound = 400;
    for (int round = 0; round < kRounds; ++round) {
        for (int i = 0; i < kPerRound; ++i)
            daemon_->callBack("updateBroadcastServiceInfo:",
                              ipc::Arguments().add(Value({{"i", round * kPerRound + i}})));
        client().discardRecordingWithHandler([](auto) {});
        int handed = std::min(1024, (round + 1) * kPerRound) + round + 1;
        ASSERT_TRUE(sv::test::eventually([&] { return executor_.tasks >= handed; }, 20s))
            << "round " << round << ": " << executor_.tasks << " of " << handed;
    }
    EXPECT_EQ(executor_.tasks, 1024 + kRounds);  // the flood stopped at the bound
    release.signal();
    sv::test::awaitOnce<>([&](auto flushed) { executor_.queue->async(flushed); });
    std::lock_guard lock(delegate_->mutex);
    ASSERT_EQ(delegate_->serviceInfos.size(), 1024u);
    EXPECT_EQ(Value::parse(delegate_->serviceInfos.back()), Value({{"i", 1023}}));
}

}  // namespace
