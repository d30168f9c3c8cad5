// The consent agent: which button each answer policy picks, registration
// with the daemon's shell channel (and again after the daemon restarts),
// and `sorvel consent-agent` answering real alerts from the terminal, from a
// dialog and by policy.
#include <sys/stat.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "client/consent_agent.h"
#include "client/shell_channel.h"
#include "tests/client/cli_helpers.h"
#include "tests/client/fake_service.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;
using sv::test::FakeService;
using sv::test::has;

namespace {

constexpr const char* kRegister = "registerConsentAgentWithPreferredLanguages:handler:";

ConsentAlert threeButtons() {
    return {"Allow screen recording in “Notes”?", "Body. Mic sentence.", "Don’t Allow",
            "Record Screen and Microphone", "Record Screen Only"};
}
ConsentAlert twoButtons() {
    return {"Allow?", "Body.", "Don’t Allow", std::nullopt, "Record Screen"};
}

TEST(ConsentPolicyTest, EachPolicyPicksItsButtonForEveryAlertShape) {
    using P = ConsentPolicy;
    using R = ConsentResponse;
    ConsentAlert declineOnly{"t", "m", "No", std::nullopt, std::nullopt};
    struct Case {
        ConsentAlert alert;
        P policy;
        R expected;
    } cases[] = {
        {threeButtons(), P::Accept, R::Alternate},
        {threeButtons(), P::AcceptWithoutMicrophone, R::Other},
        {threeButtons(), P::Decline, R::Default},
        {twoButtons(), P::Accept, R::Other},
        {twoButtons(), P::AcceptWithoutMicrophone, R::Other},
        {twoButtons(), P::Decline, R::Default},
        {declineOnly, P::Accept, R::Cancel},
        {declineOnly, P::Decline, R::Default},
    };
    for (const auto& c : cases)
        EXPECT_EQ(responseForPolicy(c.alert, c.policy), c.expected)
            << c.alert.toValue().dump() << " " << int(c.policy);
    EXPECT_EQ(parseConsentPolicy("accept-without-mic"), P::AcceptWithoutMicrophone);
    EXPECT_FALSE(parseConsentPolicy("yes"));

    auto shown = buttonsInDisplayOrder(threeButtons());
    ASSERT_EQ(shown.size(), 3u);
    EXPECT_EQ(shown[0].first, R::Alternate);
    EXPECT_EQ(shown[2], std::make_pair(R::Default, std::string("Don’t Allow")));

    // The wire form round-trips; anything else is refused.
    EXPECT_EQ(ConsentAlert::fromValue(twoButtons().toValue())->toValue(), twoButtons().toValue());
    for (const char* bad : {R"([])", R"({"title": "t", "message": "m"})",
                            R"({"title": 1, "message": "m", "defaultButton": "d"})",
                            R"({"title": "t", "message": "m", "defaultButton": "d",
                                "otherButton": 5})"})
        EXPECT_FALSE(ConsentAlert::fromValue(Value::parse(bad))) << bad;
}

class ConsentAgentTest : public ::testing::Test {
  protected:
    void SetUp() override { ipc::setRuntimeDirectory(dir_); }
    void TearDown() override {
        if (agent_) agent_->stop();
        if (shell_) shell_->die();
    }
    // The daemon's shell channel: accepts registrations (or refuses them).
    void startShell(bool refuse = false) {
        shell_ = FakeService::start(
            kShellServiceName, shellChannelInterface(), consentAgentProtocolInterface(),
            [refuse](const FakeService::Call& c) {
                if (c.method == "layerContextIDsForCallerWithHandler:")
                    c.reply(ipc::Arguments().add(Value::array()).addNull());
                if (c.method != kRegister) return;
                if (refuse)
                    c.reply(ipc::Arguments().add(
                        Error{"org.sorvel.test", 1, {{"SVLocalizedDescription", "no agents"}}}
                            .toValue()));
                else
                    c.reply(ipc::Arguments().addNull());
            });
        ASSERT_TRUE(shell_);
    }
    // Sends an alert to the newest agent connection and waits for its answer.
    std::string ask(const Value& alert) {
        return sv::test::awaitOnce<std::string>([&](auto done) {
            shell_->callBack("presentAlert:handler:", ipc::Arguments().add(alert),
                             [done](const ipc::Received& r) {
                                 done(r.at(0).is_string() ? r.at(0).get<std::string>() : "?");
                             });
        });
    }
    std::string sorvel(const std::vector<std::string>& args, const std::string& input,
                       const std::vector<std::string>& env = {}) {
        std::string in = dir_ + "/stdin", out = dir_ + "/out";
        sv::test::writeFile(in, input);
        std::vector<std::string> argv{SORVEL, "consent-agent", "--runtime-dir", dir_};
        argv.insert(argv.end(), args.begin(), args.end());
        child_ = sv::test::spawnProcess(argv, env, out, in);
        EXPECT_GT(child_, 0);
        return out;
    }

    sv::test::TempDir tmp_;
    const std::string& dir_ = tmp_.path();
    std::shared_ptr<FakeService> shell_;
    std::shared_ptr<ConsentAgent> agent_;
    pid_t child_ = -1;
};

TEST_F(ConsentAgentTest, RegistersWithItsLanguagesAndAnswersThroughThePresenter) {
    startShell();
    ConsentAgent::Options o;
    o.preferredLanguages = {"fr-CA", "de"};
    o.presenter = [](const ConsentAlert& alert, ConsentAgent::Answer answer) {
        // Answered later, from another thread, as a user would.
        std::thread([alert, answer] {
            answer(alert.alternateButton ? ConsentResponse::Alternate : ConsentResponse::Default);
            answer(ConsentResponse::Cancel);  // ignored: the first answer counts
        }).detach();
    };
    agent_ = ConsentAgent::create(o);
    agent_->start();
    auto registration = shell_->waitForCall(kRegister);
    ASSERT_TRUE(registration);
    EXPECT_EQ(registration->args[0], Value::array({"fr-CA", "de"}));

    EXPECT_EQ(ask(threeButtons().toValue()), "alternate");
    EXPECT_EQ(ask(twoButtons().toValue()), "default");
    EXPECT_EQ(ask(Value({{"title", "no buttons"}})), "cancel");  // unreadable alert
    EXPECT_EQ(agent_->alertsAnswered(), 2u);
}

TEST_F(ConsentAgentTest, RegistersAgainWhenTheDaemonComesBack) {
    std::atomic<int> registered{0}, waiting{0};
    ConsentAgent::Options o;
    o.presenter = [](const ConsentAlert&, ConsentAgent::Answer a) { a(ConsentResponse::Other); };
    o.retryMin = 10ms;
    o.retryMax = 50ms;
    o.events = [&](ConsentAgent::Event e, const std::string&) {
        if (e == ConsentAgent::Event::Registered) registered++;
        if (e == ConsentAgent::Event::WaitingForService) waiting++;
    };
    agent_ = ConsentAgent::create(o);
    agent_->start();  // no daemon yet
    ASSERT_TRUE(sv::test::eventually([&] { return waiting > 0; }, 20s));
    startShell();
    ASSERT_TRUE(sv::test::eventually([&] { return registered == 1; }, 20s));
    shell_->die();
    startShell();
    ASSERT_TRUE(sv::test::eventually([&] { return registered == 2; }, 20s));
    EXPECT_EQ(ask(twoButtons().toValue()), "other");
}

TEST_F(ConsentAgentTest, AFloodOfAlertsIsCancelledBeyondTheOpenOnes) {
    startShell();
    ConsentAgent::Options o;
    o.presenter = [](const ConsentAlert&, ConsentAgent::Answer) {};  // a user who never answers
    agent_ = ConsentAgent::create(o);
    agent_->start();
    ASSERT_TRUE(shell_->waitForCall(kRegister));
    auto cancelled = std::make_shared<std::atomic<int>>(0);
    for (int i = 0; i < 40; ++i)
        shell_->callBack("presentAlert:handler:", ipc::Arguments().add(twoButtons().toValue()),
                         [cancelled](const ipc::Received& r) {
                             if (r.at(0) == "cancel") (*cancelled)++;
                         });
    EXPECT_TRUE(sv::test::eventually([&] { return *cancelled == 32; }, 20s)) << *cancelled;
}

// The command: by policy, from the terminal, from a dialog.
TEST_F(ConsentAgentTest, CommandAnswersByPolicyFromInputAndFromADialog) {
    startShell();
    std::string out = sorvel({"--answer", "accept-without-mic", "--once"}, "");
    ASSERT_TRUE(shell_->waitForCall(kRegister));
    EXPECT_EQ(ask(threeButtons().toValue()), "other");
    EXPECT_EQ(sv::test::waitForExit(child_, 20s), 0);
    EXPECT_TRUE(has(sv::test::readFile(out), "Allow screen recording in “Notes”?\": other"));

    // Terminal: numbered buttons, accept buttons first; a wrong number asks
    // again; end of input declines.
    struct Typed {
        std::string input;
        std::string answer;
    } typed[] = {{"2\n", "other"}, {"9\nnope\n1\n", "alternate"}, {"", "cancel"}};
    for (size_t i = 0; i < std::size(typed); ++i) {
        out = sorvel({"--once"}, typed[i].input, {"LANGUAGE=de"});
        ASSERT_TRUE(shell_->waitForCall(kRegister, i + 1));
        EXPECT_EQ(ask(threeButtons().toValue()), typed[i].answer) << typed[i].input;
        EXPECT_EQ(sv::test::waitForExit(child_, 20s), 0);
    }
    EXPECT_TRUE(has(sv::test::readFile(out),
                    "  1) Record Screen and Microphone\n  2) Record Screen Only\n"
                    "  3) Don’t Allow\nDeine Wahl [1-3]: "));

    // A dialog: a stand-in zenity that prints the extra button, as zenity
    // does when it is clicked, and records how it was asked.
    std::string bin = dir_ + "/bin";
    sv::test::writeFile(bin + "/zenity", "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\"; done > " +
                                             dir_ +
                                             "/zenity-args\necho 'Record Screen Only'\nexit 1\n");
    chmod((bin + "/zenity").c_str(), 0755);
    std::string path = "PATH=" + bin + ":/usr/bin:/bin";
    sorvel({"--gui", "--once"}, "", {path, "DISPLAY=:99"});
    ASSERT_TRUE(shell_->waitForCall(kRegister, 4));
    EXPECT_EQ(ask(threeButtons().toValue()), "other");
    EXPECT_EQ(sv::test::waitForExit(child_, 20s), 0);
    EXPECT_TRUE(has(sv::test::readFile(dir_ + "/zenity-args"),
                    "--ok-label=Record Screen and Microphone\n"
                    "--cancel-label=Don’t Allow\n--extra-button=Record Screen Only\n"));

    // Without zenity, --gui says so and ends.
    out = sorvel({"--gui"}, "", {"PATH=/nonexistent", "DISPLAY=:99"});
    EXPECT_EQ(sv::test::waitForExit(child_, 20s), 1);
    EXPECT_TRUE(has(sv::test::readFile(out), "needs zenity"));
}

TEST_F(ConsentAgentTest, CommandEndsWhenTheDaemonRefusesIt) {
    startShell(/*refuse=*/true);
    std::string out = sorvel({"--answer", "accept"}, "");
    EXPECT_EQ(sv::test::waitForExit(child_, 20s), 1);
    EXPECT_TRUE(has(sv::test::readFile(out), "the service refused: no agents"));
    // And one that is told to stop ends cleanly.
    shell_->die();
    startShell();
    sorvel({"--answer", "decline"}, "");
    ASSERT_TRUE(shell_->waitForCall(kRegister));
    kill(child_, SIGTERM);
    EXPECT_EQ(sv::test::waitForExit(child_, 20s), 0);
}

}  // namespace
