// The modal system alert through the presenter seam: answers, creation
// failures, presenters that go away, withdrawal, safe texts and the wire form.
#include <algorithm>
#include <future>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include "platform/system/system_alert.h"
#include "platform/ui/scripted_alert_presenter.h"

using namespace sv;
using namespace std::chrono_literals;

namespace {

constexpr auto kGenerous = 20s;

AlertRequest consentRequest(bool threeButtons) {
    AlertRequest r;
    r.title = "Allow Notes to record the screen?";
    r.message = "Screen recordings may contain private information.";
    r.defaultButton = "Don't Allow";
    if (threeButtons) r.alternateButton = "Record Screen and Microphone";
    r.otherButton = threeButtons ? "Record Screen Only" : "Record Screen";
    return r;
}

// Installs a presenter for one test and removes it afterwards.
struct InstalledPresenter {
    std::shared_ptr<ScriptedAlertPresenter> presenter = std::make_shared<ScriptedAlertPresenter>();
    InstalledPresenter() { setAlertPresenter(presenter); }
    ~InstalledPresenter() { setAlertPresenter(nullptr); }
};

TEST(SystemAlertTest, AnswersReachTheWaiterAndThePresenterSeesEveryAlertInOrder) {
    InstalledPresenter installed;
    auto& p = *installed.presenter;
    for (auto r : {AlertResponse::Alternate, AlertResponse::Other, AlertResponse::Default,
                   AlertResponse::Cancelled})
        p.enqueueResponse(r);

    std::vector<AlertResponse> answers;
    for (int i = 0; i < 4; ++i) {
        auto created = SystemAlert::create(consentRequest(i % 2 == 0));
        ASSERT_TRUE(created) << created.error().description();
        answers.push_back((*created)->waitForResponse());
        EXPECT_EQ((*created)->waitForResponse(), answers.back());  // the same answer every time
    }
    EXPECT_EQ(answers,
              (std::vector<AlertResponse>{AlertResponse::Alternate, AlertResponse::Other,
                                          AlertResponse::Default, AlertResponse::Cancelled}));

    auto shown = p.shownAlerts();
    ASSERT_EQ(shown.size(), 4u);
    EXPECT_EQ(shown[0], consentRequest(true));
    EXPECT_EQ(shown[1], consentRequest(false));
    // The two-button alert has no alternate button, in its role list and on
    // the wire.
    EXPECT_EQ(shown[1].buttons(), (std::vector<std::pair<AlertResponse, std::string>>{
                                      {AlertResponse::Default, "Don't Allow"},
                                      {AlertResponse::Other, "Record Screen"}}));
    EXPECT_TRUE(shown[1].toValue()[kAlertAlternateButtonKey].is_null());

    // The convenience form with option flags builds the same request.
    p.enqueueResponse(AlertResponse::Other);
    auto alert =
        SystemAlert::create("T", "M", "No", std::nullopt, std::string("Yes"), kAlertLevelWarning)
            .valueOr(nullptr);
    ASSERT_TRUE(alert);
    EXPECT_EQ(alert->waitForResponse(), AlertResponse::Other);
    EXPECT_EQ(p.shownAlerts().back().options, kAlertLevelWarning);
}

TEST(SystemAlertTest, CreationFailsWithoutAPresenterForUnshowableAlertsAndForBadRequests) {
    setAlertPresenter(nullptr);
    auto refused = SystemAlert::create(consentRequest(true));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), Error::make(kSystemAlertErrorDomain, kSystemAlertErrorNoPresenter,
                                           "no alert presenter is installed"));

    InstalledPresenter installed;
    installed.presenter->setAvailable(false);  // as with no consent agent registered
    refused = SystemAlert::create(consentRequest(true));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), Error::make(kSystemAlertErrorDomain, kSystemAlertErrorUnavailable,
                                           "the alert presenter cannot show alerts now"));
    installed.presenter->setAvailable(true);

    auto noDefault = consentRequest(false);
    noDefault.defaultButton.clear();
    auto unknownOption = consentRequest(false);
    unknownOption.options = 0x100;
    auto longTitle = consentRequest(false);
    longTitle.title.assign(kAlertMaxTitleBytes + 1, 'x');
    auto longButton = consentRequest(true);
    longButton.alternateButton = std::string(kAlertMaxButtonBytes + 1, 'x');
    for (const auto& bad : {noDefault, unknownOption, longTitle, longButton}) {
        refused = SystemAlert::create(bad);
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().code, kSystemAlertErrorInvalidRequest);
        EXPECT_FALSE(refused.error().message().empty());
    }
    // None reached the user: unavailable presenters refuse before showing,
    // invalid requests never get to the presenter.
    EXPECT_EQ(installed.presenter->shownAlerts().size(), 0u);
}

TEST(SystemAlertTest, TheFirstAnswerCountsUnwantedAlertsAreWithdrawnAndLostOnesCancelled) {
    auto presenter = std::make_shared<ScriptedAlertPresenter>();

    // Answered from another thread while the caller waits; later answers are
    // ignored.
    auto answered = SystemAlert::create(consentRequest(true), presenter).valueOr(nullptr);
    ASSERT_TRUE(answered);
    EXPECT_EQ(answered->waitForResponseFor(10ms), std::nullopt);
    std::thread user([&] {
        presenter->waitForPending(1, kGenerous);
        presenter->answerPending(AlertResponse::Other);
    });
    EXPECT_EQ(answered->waitForResponse(), AlertResponse::Other);
    user.join();
    answered->cancel();
    EXPECT_EQ(answered->response(), AlertResponse::Other);
    EXPECT_TRUE(presenter->withdrawnAlerts().empty());  // nothing to withdraw

    // Cancelled by the caller, released unanswered, timed out: each one
    // answers Cancelled and is taken off the presenter.
    auto cancelled = SystemAlert::create(consentRequest(true), presenter).valueOr(nullptr);
    auto released = SystemAlert::create(consentRequest(true), presenter).valueOr(nullptr);
    auto timedRequest = consentRequest(true);
    timedRequest.timeout = 30ms;
    auto timed = SystemAlert::create(timedRequest, presenter).valueOr(nullptr);
    ASSERT_TRUE(cancelled && released && timed);
    EXPECT_EQ(presenter->pendingCount(), 3u);
    uint64_t releasedID = released->identifier();
    cancelled->cancel();
    EXPECT_EQ(cancelled->waitForResponse(), AlertResponse::Cancelled);
    released.reset();
    EXPECT_EQ(timed->waitForResponseFor(kGenerous), AlertResponse::Cancelled);
    auto withdrawn = presenter->withdrawnAlerts();
    // The timer may fire first on a loaded machine; the other two go in order.
    ASSERT_EQ(withdrawn.size(), 3u);
    auto at = [&](uint64_t id) { return std::find(withdrawn.begin(), withdrawn.end(), id); };
    EXPECT_NE(at(timed->identifier()), withdrawn.end());
    EXPECT_LT(at(cancelled->identifier()), at(releasedID));
    EXPECT_NE(at(releasedID), withdrawn.end());
    EXPECT_EQ(presenter->pendingCount(), 0u);

    // A wait ends Cancelled when the presenter goes away (the agent) or
    // accepts the alert and forgets its reply.
    auto orphan = SystemAlert::create(consentRequest(true), presenter).valueOr(nullptr);
    ASSERT_TRUE(orphan);
    auto waiter = std::async(std::launch::async, [&] { return orphan->waitForResponse(); });
    ASSERT_TRUE(presenter->waitForPending(1, kGenerous));
    presenter.reset();
    ASSERT_EQ(waiter.wait_for(kGenerous), std::future_status::ready);
    EXPECT_EQ(waiter.get(), AlertResponse::Cancelled);
    struct Forgetful : AlertPresenter {
        Result<void> presentAlert(uint64_t, const AlertRequest&, AlertReply) override { return {}; }
    };
    auto forgotten =
        SystemAlert::create(consentRequest(false), std::make_shared<Forgetful>()).valueOr(nullptr);
    ASSERT_TRUE(forgotten);
    EXPECT_EQ(forgotten->waitForResponseFor(kGenerous), AlertResponse::Cancelled);
}

TEST(SystemAlertTest, ManyCallersBlockedAtOnceAllGetTheirOwnAnswer) {
    // Consent requests of several applications arrive on different IPC
    // threads while the user answers one alert after the other.
    auto presenter = std::make_shared<ScriptedAlertPresenter>();
    constexpr int kCallers = 32;
    std::vector<std::future<std::pair<std::string, AlertResponse>>> callers;
    for (int i = 0; i < kCallers; ++i) {
        callers.push_back(std::async(std::launch::async, [&, i] {
            AlertRequest r = consentRequest(false);
            r.title = "app " + std::to_string(i);
            auto alert = SystemAlert::create(r, presenter).valueOr(nullptr);
            return std::make_pair(r.title,
                                  alert ? alert->waitForResponse() : AlertResponse::Cancelled);
        }));
    }
    ASSERT_TRUE(presenter->waitForPending(kCallers, kGenerous));
    // Pending alerts are answered oldest first, in the order they were shown.
    std::map<std::string, AlertResponse> expected;
    for (const auto& shown : presenter->shownAlerts()) {
        auto response = expected.size() % 2 ? AlertResponse::Other : AlertResponse::Default;
        expected[shown.title] = response;
        ASSERT_TRUE(presenter->answerPending(response));
    }
    EXPECT_FALSE(presenter->answerPending(AlertResponse::Other));
    std::map<std::string, AlertResponse> received;
    for (auto& f : callers) {
        ASSERT_EQ(f.wait_for(kGenerous), std::future_status::ready);
        received.insert(f.get());
    }
    EXPECT_EQ(received.size(), size_t(kCallers));
    EXPECT_EQ(received, expected);
}

TEST(SystemAlertTest, TextsAreMadeSafeForATerminalBeforeTheyAreShown) {
    auto presenter = std::make_shared<ScriptedAlertPresenter>();
    presenter->enqueueResponse(AlertResponse::Default);
    AlertRequest r;
    // An application controls its own display name, which goes into the
    // title: escape sequences, line breaks, bidi overrides, broken UTF-8.
    r.title =
        "Allow \x1b[2J\x1b]0;owned\x07"
        "Evil\nApp \xE2\x80\xAEtxt.exe\xFF?";
    r.message = "First line\r\nSecond\tline\rThird \xC3\xA9\xC0\xAF";
    r.defaultButton = "OK\n";
    r.otherButton = "";  // empty: no such button
    auto alert = SystemAlert::create(r, presenter).valueOr(nullptr);
    ASSERT_TRUE(alert);
    const auto shown = presenter->shownAlerts().at(0);
    const std::string bad = "\xEF\xBF\xBD";
    EXPECT_EQ(shown.title, "Allow " + bad + "[2J" + bad + "]0;owned" + bad + "Evil App " + bad +
                               "txt.exe" + bad + "?");
    EXPECT_EQ(shown.message, "First line\nSecond\tline\nThird \xC3\xA9" + bad + bad);
    EXPECT_EQ(shown.defaultButton, "OK ");
    EXPECT_FALSE(shown.otherButton);
    EXPECT_EQ(alert->request(), shown);
    EXPECT_EQ(shown.toValue().dump().find('\x1b'), std::string::npos);
}

TEST(SystemAlertTest, WireFormRoundTripsAndRejectsMalformedAlerts) {
    auto r = consentRequest(true);
    auto v = r.toValue();
    EXPECT_EQ(v, Value::parse(R"({"title": "Allow Notes to record the screen?",
        "message": "Screen recordings may contain private information.",
        "defaultButton": "Don't Allow", "alternateButton": "Record Screen and Microphone",
        "otherButton": "Record Screen Only"})"));
    EXPECT_EQ(AlertRequest::fromValue(v).valueOr({}), r);
    v["extra"] = 1;  // unknown keys are ignored
    EXPECT_EQ(AlertRequest::fromValue(v).valueOr({}), r);

    for (const char* bad : {R"([1, 2])", R"({"message": "m", "defaultButton": "d"})",
                            R"({"title": "t", "message": "m", "defaultButton": 3})",
                            R"({"title": "t", "message": "m", "defaultButton": "d",
                                "otherButton": ["x"]})",
                            R"({"title": "t", "message": "m", "defaultButton": ""})"}) {
        auto refused = AlertRequest::fromValue(Value::parse(bad));
        ASSERT_FALSE(refused) << bad;
        EXPECT_EQ(refused.error().domain, kSystemAlertErrorDomain) << bad;
        EXPECT_EQ(refused.error().code, kSystemAlertErrorInvalidRequest) << bad;
        EXPECT_FALSE(refused.error().message().empty()) << bad;
    }
    auto huge = consentRequest(false).toValue();
    huge[kAlertMessageKey] = std::string(kAlertMaxMessageBytes + 1, 'm');
    EXPECT_FALSE(AlertRequest::fromValue(huge));

    for (auto response : {AlertResponse::Default, AlertResponse::Alternate, AlertResponse::Other,
                          AlertResponse::Cancelled})
        EXPECT_EQ(parseAlertResponse(alertResponseName(response)), response);
    EXPECT_STREQ(alertResponseName(AlertResponse::Cancelled), "cancel");
    EXPECT_FALSE(parseAlertResponse("Default"));
    EXPECT_FALSE(parseAlertResponse(""));
}

}  // namespace
