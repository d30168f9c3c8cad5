// The modal system alert: a title, a message and up to three buttons in the
// roles default, alternate and other, shown to the user; the caller blocks
// until the user answers.
//
// The daemon has no screen of its own, so an alert is handed to the alert
// presenter that the process installs (setAlertPresenter): the daemon's
// consent-agent registry forwards it to a process of the logged-in user, tests
// and demos install a ScriptedAlertPresenter (platform/ui). With no presenter
// installed, or one that cannot show alerts now, creating an alert fails.
//
// Texts are made safe for any display before they are presented: control
// characters (other than newlines and tabs in the message), bidirectional
// override and isolate marks and invalid UTF-8 become U+FFFD, newlines in the
// title and button titles become spaces. Over-long texts make creation fail.
//
// Threads: everything may be called from any thread. waitForResponse()
// blocks the calling thread for as long as the user takes while the
// presenter lives; a presenter that goes away (or drops the alert) answers
// Cancelled, so the wait never outlives it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/error.h"

#include "platform/value.h"

namespace sv {

// Errors of alerts that cannot be shown.
inline constexpr const char* kSystemAlertErrorDomain = "org.sorvel.SystemAlertErrorDomain";
enum SystemAlertErrorCode : int64_t {
    kSystemAlertErrorInvalidRequest = 1,  // not a valid request (missing or too long texts, ...)
    kSystemAlertErrorNoPresenter = 2,     // no presenter is installed
    kSystemAlertErrorUnavailable = 3,     // the presenter cannot show alerts now
};

// Which button answered an alert. Cancelled: dismissed without a button, timed
// out, withdrawn, or its presenter went away.
enum class AlertResponse : int32_t { Default = 0, Alternate = 1, Other = 2, Cancelled = 3 };

// The answers' names on the consent agent's wire: "default", "alternate",
// "other", "cancel".
inline constexpr const char* kAlertResponseDefaultName = "default";
inline constexpr const char* kAlertResponseAlternateName = "alternate";
inline constexpr const char* kAlertResponseOtherName = "other";
inline constexpr const char* kAlertResponseCancelName = "cancel";
const char* alertResponseName(AlertResponse response);
// nullopt for any other text.
std::optional<AlertResponse> parseAlertResponse(std::string_view name);

// Option flags: the low two bits are the alert's level, no other bit is
// defined (an alert with other bits set cannot be created).
inline constexpr uint32_t kAlertLevelDefault = 0;
inline constexpr uint32_t kAlertLevelInformational = 1;
inline constexpr uint32_t kAlertLevelWarning = 2;
inline constexpr uint32_t kAlertLevelCritical = 3;
inline constexpr uint32_t kAlertLevelMask = 3;

// Longest texts, in bytes.
inline constexpr size_t kAlertMaxTitleBytes = 1024;
inline constexpr size_t kAlertMaxMessageBytes = 16 * 1024;
inline constexpr size_t kAlertMaxButtonBytes = 256;

// Keys of an alert's wire form (what a consent agent receives).
inline constexpr const char* kAlertTitleKey = "title";
inline constexpr const char* kAlertMessageKey = "message";
inline constexpr const char* kAlertDefaultButtonKey = "defaultButton";
inline constexpr const char* kAlertAlternateButtonKey = "alternateButton";
inline constexpr const char* kAlertOtherButtonKey = "otherButton";

// What an alert shows; a value that travels to a presenter and over IPC.
struct AlertRequest {
    std::string title;
    std::string message;
    std::string defaultButton;
    std::optional<std::string> alternateButton;  // absent (or empty): no such button
    std::optional<std::string> otherButton;
    uint32_t options = kAlertLevelDefault;
    // Zero: no time-out. Otherwise the alert answers Cancelled after this long.
    std::chrono::milliseconds timeout{0};

    // The buttons that are shown, in role order (default, alternate, other).
    std::vector<std::pair<AlertResponse, std::string>> buttons() const;
    // Whether the request can be shown; an error of kSystemAlertErrorDomain
    // (kSystemAlertErrorInvalidRequest) saying why not.
    Result<void> validate() const;
    // The request with every text made safe (see above).
    AlertRequest sanitized() const;

    // Wire form: {"title", "message", "defaultButton", "alternateButton" (text
    // or null), "otherButton" (text or null)}. Options and time-out stay with
    // the daemon.
    Value toValue() const;
    // An error (kSystemAlertErrorInvalidRequest) for anything but such a
    // dictionary with texts within the limits. Unknown keys are ignored.
    static Result<AlertRequest> fromValue(const Value& value);

    std::string description() const;
    friend bool operator==(const AlertRequest&, const AlertRequest&) = default;
};

// The answer channel of one presented alert. Copyable; every copy answers
// the same alert. The first answer counts, later ones are ignored. When the
// last copy is destroyed without an answer the alert answers Cancelled.
class AlertReply {
  public:
    // Any thread.
    void operator()(AlertResponse response) const;
    bool isAnswered() const;
    uint64_t alertID() const;

    struct Token;
    explicit AlertReply(std::shared_ptr<Token> token) : token_(std::move(token)) {}

  private:
    std::shared_ptr<Token> token_;
};

class AlertPresenter {
  public:
    virtual ~AlertPresenter() = default;
    // Shows `request` and returns at once. Success: the alert is up and
    // `reply` will answer it (from any thread; dropping it unanswered answers
    // Cancelled). An error (kSystemAlertErrorDomain,
    // kSystemAlertErrorUnavailable) saying why no alert can be shown now
    // (nobody to show it to); `reply` is then ignored.
    virtual Result<void> presentAlert(uint64_t alertID, const AlertRequest& request,
                                      AlertReply reply) = 0;
    // The alert is no longer wanted (released unanswered, timed out,
    // cancelled): take it off the screen. Any thread, never while the
    // presenter is inside presentAlert for the same alert.
    virtual void withdrawAlert(uint64_t alertID) { (void)alertID; }
};

// The process's presenter; nullptr removes it. Alerts already shown stay with
// the presenter that shows them. Thread-safe.
void setAlertPresenter(std::shared_ptr<AlertPresenter> presenter);
std::shared_ptr<AlertPresenter> alertPresenter();

class SystemAlert {
  public:
    // Presents the alert through the installed presenter. An error
    // (SystemAlertErrorCode) when the request is invalid, no presenter is
    // installed, or the presenter cannot show alerts now.
    static Result<std::shared_ptr<SystemAlert>> create(
        const std::string& title, const std::string& message, const std::string& defaultButton,
        const std::optional<std::string>& alternateButton,
        const std::optional<std::string>& otherButton, uint32_t options);
    static Result<std::shared_ptr<SystemAlert>> create(AlertRequest request);
    // Through `presenter` instead of the installed one.
    static Result<std::shared_ptr<SystemAlert>> create(
        AlertRequest request, const std::shared_ptr<AlertPresenter>& presenter);

    // Releasing an unanswered alert withdraws it.
    ~SystemAlert();
    SystemAlert(const SystemAlert&) = delete;
    SystemAlert& operator=(const SystemAlert&) = delete;

    // Blocks until the alert is answered; every call returns the same answer.
    AlertResponse waitForResponse();
    // Nullopt when no answer came within `timeout` (the alert stays up).
    std::optional<AlertResponse> waitForResponseFor(std::chrono::nanoseconds timeout);
    // Calls `handler` once with the answer, on the thread that gives it (at
    // once, on the calling thread, when the alert is answered already); for
    // callers that must not hold a thread while the user thinks. Keep the
    // alert until then: releasing it unanswered answers Cancelled.
    void notifyOnResponse(std::function<void(AlertResponse)> handler);
    std::optional<AlertResponse> response() const;
    // Takes the alert down; it answers Cancelled unless already answered.
    void cancel();

    // The request as presented (sanitized).
    const AlertRequest& request() const { return request_; }
    uint64_t identifier() const;

    struct State;

  private:
    SystemAlert(AlertRequest request, std::shared_ptr<State> state);
    AlertRequest request_;
    std::shared_ptr<State> state_;
    std::shared_ptr<void> timer_;  // the time-out, when there is one
};

}  // namespace sv
