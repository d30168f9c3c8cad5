// The synthetic alert presenter: answers alerts from a script instead of a
// user, for tests and demos, and records every alert it was shown.
//
// An alert is answered, in this order of preference, by the script function
// (when it returns an answer), by the next queued response, or else stays
// up until answerPending() answers it, it is withdrawn, or the presenter is
// destroyed (then it answers Cancelled). Scripted and queued answers are
// given at once, before SystemAlert::create returns.
//
// Threads: every method may be called from any thread; the script function
// runs on the thread that creates the alert, without the presenter's lock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/system/system_alert.h"

namespace sv {

class ScriptedAlertPresenter : public AlertPresenter {
  public:
    using Script = std::function<std::optional<AlertResponse>(const AlertRequest&)>;

    ScriptedAlertPresenter() = default;
    explicit ScriptedAlertPresenter(Script script) : script_(std::move(script)) {}
    // Pending alerts answer Cancelled.
    ~ScriptedAlertPresenter() override;

    void enqueueResponse(AlertResponse response);
    // False: no alert can be shown (as when no consent agent is registered).
    void setAvailable(bool available);

    // Every alert shown, in order (sanitized, as the user would see them).
    std::vector<AlertRequest> shownAlerts() const;
    size_t pendingCount() const;
    // Waits until at least `count` alerts are up unanswered.
    bool waitForPending(size_t count, std::chrono::milliseconds timeout);
    // Answers the oldest unanswered alert; false when there is none.
    bool answerPending(AlertResponse response);
    // Identifiers of the alerts withdrawn by their callers, in order.
    std::vector<uint64_t> withdrawnAlerts() const;

    Result<void> presentAlert(uint64_t alertID, const AlertRequest& request,
                              AlertReply reply) override;
    void withdrawAlert(uint64_t alertID) override;

  private:
    Script script_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool available_ = true;
    std::deque<AlertResponse> queued_;
    std::vector<AlertRequest> shown_;
    std::deque<AlertReply> pending_;
    std::vector<uint64_t> withdrawn_;
};

}  // namespace sv
