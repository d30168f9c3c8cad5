// A consent agent: a process of the logged-in user that shows the recording
// service's consent alerts. It registers over the shell channel with the
// user's preferred languages (the service localizes the alert in them) and
// exports SVConsentAgentProtocol on that connection; the service then sends
// it every alert and waits for the answer.
//
// Threads: presentAlert: calls and the agent's events run on the shell
// connection's serial queue. The presenter is called there and may answer
// later from any thread (it must not block that queue while the user
// thinks: the agent would not notice the service going away meanwhile).
// Every method may be called from any thread.
//
// Lifetime: the agent keeps registering while it runs: when the service is
// not running, or goes away, it tries again (backing off up to
// Options::retryMax) until stop(). Closures hold the agent weakly.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/ipc/ipc.h"
#include "platform/value.h"

namespace sv {

// One alert as the service sends it.
struct ConsentAlert {
    std::string title;
    std::string message;
    std::string defaultButton;  // always there: declines
    std::optional<std::string> alternateButton;
    std::optional<std::string> otherButton;
    // Names the alert in a withdrawal; 0 when the service sent none.
    uint64_t alertID = 0;

    // nullopt for anything that is not such a record.
    static std::optional<ConsentAlert> fromValue(const Value& v);
    Value toValue() const;
};

enum class ConsentResponse { Default, Alternate, Other, Cancel };
// The wire name: "default", "alternate", "other", "cancel".
const char* consentResponseName(ConsentResponse response);

// What a non-interactive agent answers (sorvel consent-agent --answer).
enum class ConsentPolicy { Accept, AcceptWithoutMicrophone, Decline };
std::optional<ConsentPolicy> parseConsentPolicy(const std::string& text);

// accept: the first accept button (alternate when the alert has three
// buttons, other when it has two); accept-without-mic: other;
// decline: default. An alert without the button a policy needs is
// answered "cancel".
ConsentResponse responseForPolicy(const ConsentAlert& alert, ConsentPolicy policy);

// The buttons in the order an agent shows them: the accept buttons first
// (alternate, then other), decline last.
std::vector<std::pair<ConsentResponse, std::string>> buttonsInDisplayOrder(
    const ConsentAlert& alert);

class ConsentAgent : public std::enable_shared_from_this<ConsentAgent> {
  public:
    using Answer = std::function<void(ConsentResponse)>;
    using Presenter = std::function<void(const ConsentAlert& alert, Answer answer)>;
    // The service no longer wants the answer to alert `alertID`: take it
    // down. On the connection's queue; must not block. The alert's answer,
    // if it still comes, goes nowhere.
    using Withdraw = std::function<void(uint64_t alertID)>;

    enum class Event {
        Registered,          // the service accepted the registration
        WaitingForService,   // not running, or gone: trying again
        RegistrationFailed,  // the service refused; detail is its error
        Answered,            // an alert was answered; detail is the answer's name
        Withdrawn,           // the service withdrew an alert; detail is its title
    };
    using EventHandler = std::function<void(Event event, const std::string& detail)>;

    struct Options {
        std::string serviceName;  // empty: the daemon's shell channel
        std::vector<std::string> preferredLanguages;
        Presenter presenter;
        // Empty: alerts are never withdrawn (the service is not asked to).
        Withdraw withdraw;
        EventHandler events;  // may be empty
        std::chrono::milliseconds retryMin{100};
        std::chrono::milliseconds retryMax{2000};
        // Alerts with the presenter and not answered yet; one more is
        // answered "cancel" at once (a service that floods the agent must
        // not pile up questions for the user).
        size_t maxUnansweredAlerts = 8;
    };

    static std::shared_ptr<ConsentAgent> create(Options options);
    ~ConsentAgent();

    void start();
    // Ends the connection; an alert still on screen is answered nowhere.
    void stop();
    // Calls `done` once every answer given so far has reached the service
    // (a round trip on the agent's connection), or the connection failed.
    void flush(std::function<void()> done);

    size_t alertsAnswered() const { return answered_; }

  private:
    explicit ConsentAgent(Options options) : options_(std::move(options)) {}
    void registerNow();
    void scheduleRegistration();
    void emit(Event event, const std::string& detail = {});
    std::shared_ptr<ipc::ExportedObject> makeExportedObject();

    Options options_;
    std::shared_ptr<ipc::Connection> connection_;
    std::mutex mutex_;
    bool stopped_ = false;
    bool retryScheduled_ = false;
    std::chrono::milliseconds retryDelay_{0};
    std::atomic<size_t> answered_{0};
    std::atomic<size_t> unanswered_{0};
    // Alerts with the presenter: whether each is settled (answered or
    // withdrawn), and its title. Under mutex_.
    struct Open {
        std::shared_ptr<std::atomic<bool>> settled;
        std::string title;
    };
    std::map<uint64_t, Open> open_;
};

}  // namespace sv
