#include "platform/ui/scripted_alert_presenter.h"

#include <algorithm>

namespace sv {

ScriptedAlertPresenter::~ScriptedAlertPresenter() {
    // The replies are released with pending_: each answers Cancelled.
}

void ScriptedAlertPresenter::enqueueResponse(AlertResponse response) {
    std::lock_guard lock(mutex_);
    queued_.push_back(response);
}

void ScriptedAlertPresenter::setAvailable(bool available) {
    std::lock_guard lock(mutex_);
    available_ = available;
}

std::vector<AlertRequest> ScriptedAlertPresenter::shownAlerts() const {
    std::lock_guard lock(mutex_);
    return shown_;
}

size_t ScriptedAlertPresenter::pendingCount() const {
    std::lock_guard lock(mutex_);
    return pending_.size();
}

bool ScriptedAlertPresenter::waitForPending(size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return pending_.size() >= count; });
}

bool ScriptedAlertPresenter::answerPending(AlertResponse response) {
    std::optional<AlertReply> reply;
    {
        std::lock_guard lock(mutex_);
        if (pending_.empty()) return false;
        reply = std::move(pending_.front());
        pending_.pop_front();
    }
    (*reply)(response);
    changed_.notify_all();
    return true;
}

std::vector<uint64_t> ScriptedAlertPresenter::withdrawnAlerts() const {
    std::lock_guard lock(mutex_);
    return withdrawn_;
}

Result<void> ScriptedAlertPresenter::presentAlert(uint64_t alertID, const AlertRequest& request,
                                                  AlertReply reply) {
    (void)alertID;
    {
        std::lock_guard lock(mutex_);
        if (!available_)
            return Error::make(kSystemAlertErrorDomain, kSystemAlertErrorUnavailable,
                               "the alert presenter cannot show alerts now");
    }
    std::optional<AlertResponse> answer;
    if (script_) answer = script_(request);
    {
        // Shown and pending in one step, so that pending alerts are answered
        // in the order they were shown.
        std::lock_guard lock(mutex_);
        shown_.push_back(request);
        if (!answer && !queued_.empty()) {
            answer = queued_.front();
            queued_.pop_front();
        }
        if (!answer) pending_.push_back(reply);
    }
    if (answer) reply(*answer);
    changed_.notify_all();
    return {};
}

void ScriptedAlertPresenter::withdrawAlert(uint64_t alertID) {
    std::optional<AlertReply> removed;  // released outside the lock
    {
        std::lock_guard lock(mutex_);
        withdrawn_.push_back(alertID);
        auto it = std::find_if(pending_.begin(), pending_.end(),
                               [&](const AlertReply& r) { return r.alertID() == alertID; });
        if (it != pending_.end()) {
            removed = std::move(*it);
            pending_.erase(it);
        }
    }
    changed_.notify_all();
}

}  // namespace sv
