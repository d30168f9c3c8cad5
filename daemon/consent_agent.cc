#include "daemon/consent_agent.h"

#include <algorithm>
#include <optional>

#include "platform/log.h"
#include "protocol/recording_protocol.h"

namespace sv {
namespace {

using method::kPresentAlert;
using method::kWithdrawAlert;

bool validLanguage(const std::string& l) {
    if (l.empty() || l.size() > kMaxLanguageIdentifierBytes) return false;
    return std::all_of(l.begin(), l.end(), [](unsigned char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '_';
    });
}

// The alert as sent to an agent: its request and its identifier.
Value withID(Value request, uint64_t alertID) {
    request["alertID"] = alertID;
    return request;
}

}  // namespace

std::shared_ptr<SVConsentAgentRegistry> SVConsentAgentRegistry::create(
    std::chrono::milliseconds agentWait) {
    return std::shared_ptr<SVConsentAgentRegistry>(new SVConsentAgentRegistry(agentWait));
}

void SVConsentAgentRegistry::registerAgent(const std::shared_ptr<ipc::Connection>& connection,
                                           const std::vector<std::string>& preferredLanguages) {
    std::vector<std::string> languages;
    for (const auto& l : preferredLanguages) {
        if (languages.size() == kMaxAgentLanguages) break;
        if (validLanguage(l)) languages.push_back(l);
    }
    log::info("SVConsentAgentRegistry: consent agent registered (pid %i, languages %@)",
              int32_t(connection->processIdentifier()), Value(languages));
    std::vector<Waiting> waiting;
    {
        std::lock_guard lock(mutex_);
        std::erase_if(agents_, [&](const Agent& a) {
            auto c = a.connection.lock();
            return !c || c == connection;
        });
        if (agents_.size() == kMaxAgents) agents_.erase(agents_.begin());
        agents_.push_back({connection, std::move(languages)});
        waiting.swap(waiting_);
    }
    for (auto& w : waiting) {
        w.timer->cancel();
        send(connection, w.alertID, w.request, w.reply);
    }
}

void SVConsentAgentRegistry::connectionEnded(const ipc::Connection* connection) {
    std::lock_guard lock(mutex_);
    auto it = std::find_if(agents_.begin(), agents_.end(),
                           [&](const Agent& a) { return a.connection.lock().get() == connection; });
    if (it == agents_.end()) return;
    // It was the agent when no later one is still connected.
    const bool wasCurrent = std::none_of(std::next(it), agents_.end(), [](const Agent& a) {
        auto c = a.connection.lock();
        return c && !c->isInvalidated();
    });
    agents_.erase(it);
    std::erase_if(agents_, [](const Agent& a) { return a.connection.expired(); });
    if (!wasCurrent) return;
    log::info("SVConsentAgentRegistry: the consent agent went away");
    if (currentLocked()) log::info("SVConsentAgentRegistry: an earlier agent asks again");
}

const SVConsentAgentRegistry::Agent* SVConsentAgentRegistry::currentLocked(
    std::shared_ptr<ipc::Connection>* connection) const {
    for (auto it = agents_.rbegin(); it != agents_.rend(); ++it) {
        auto c = it->connection.lock();
        if (!c || c->isInvalidated()) continue;
        if (connection) *connection = std::move(c);
        return &*it;
    }
    return nullptr;
}

bool SVConsentAgentRegistry::hasAgent() const {
    std::lock_guard lock(mutex_);
    return currentLocked() != nullptr;
}

size_t SVConsentAgentRegistry::agentCount() const {
    std::lock_guard lock(mutex_);
    return size_t(std::count_if(agents_.begin(), agents_.end(), [](const Agent& a) {
        auto c = a.connection.lock();
        return c && !c->isInvalidated();
    }));
}

pid_t SVConsentAgentRegistry::agentProcessIdentifier() const {
    std::lock_guard lock(mutex_);
    std::shared_ptr<ipc::Connection> agent;
    return currentLocked(&agent) ? agent->processIdentifier() : 0;
}

std::vector<std::string> SVConsentAgentRegistry::preferredLanguages() const {
    std::lock_guard lock(mutex_);
    const Agent* current = currentLocked();
    return current ? current->languages : std::vector<std::string>{};
}

size_t SVConsentAgentRegistry::alertsAtAgent() const {
    std::lock_guard lock(mutex_);
    return pending_.size();
}

Result<void> SVConsentAgentRegistry::presentAlert(uint64_t alertID, const AlertRequest& request,
                                                  AlertReply reply) {
    // Logged where the alert fails (SystemAlert::create).
    auto unavailable = [](const std::string& why) {
        return Error::make(kSystemAlertErrorDomain, kSystemAlertErrorUnavailable, why);
    };
    std::shared_ptr<ipc::Connection> agent;
    {
        std::lock_guard lock(mutex_);
        if (pending_.size() >= kMaxAlertsAtAgent) {
            return unavailable(std::to_string(pending_.size()) +
                               " alerts already wait for the consent agent");
        }
        if (!currentLocked(&agent)) {
            if (agentWait_.count() <= 0) {
                return unavailable("no consent agent is registered");
            }
            log::info("SVConsentAgentRegistry: alert %lu waits for a consent agent", alertID);
            pending_.emplace(alertID, Pending{reply, {}});
            std::weak_ptr<SVConsentAgentRegistry> weak = weak_from_this();
            auto timer = Timer::schedule(DispatchQueue::global(), agentWait_,
                                         std::chrono::nanoseconds(0), [weak, alertID] {
                                             if (auto self = weak.lock())
                                                 self->expireWaiting(alertID);
                                         });
            waiting_.push_back({alertID, request, std::move(reply), std::move(timer)});
            return {};
        }
        pending_.emplace(alertID, Pending{reply, {}});
    }
    send(agent, alertID, request, reply);
    return {};
}

void SVConsentAgentRegistry::expireWaiting(uint64_t alertID) {
    std::optional<AlertReply> expired;
    {
        std::lock_guard lock(mutex_);
        auto it = std::find_if(waiting_.begin(), waiting_.end(),
                               [&](const Waiting& w) { return w.alertID == alertID; });
        if (it == waiting_.end()) return;
        expired = it->reply;
        waiting_.erase(it);
        pending_.erase(alertID);
    }
    log::error("SVConsentAgentRegistry: no consent agent registered for alert %lu", alertID);
    (*expired)(AlertResponse::Cancelled);
}

void SVConsentAgentRegistry::send(const std::shared_ptr<ipc::Connection>& agent, uint64_t alertID,
                                  const AlertRequest& request, const AlertReply& reply) {
    {
        std::lock_guard lock(mutex_);
        if (auto it = pending_.find(alertID); it != pending_.end()) it->second.agent = agent;
    }
    // The registry is held weakly: an alert outliving it is answered by its
    // reply's own end (Cancelled).
    std::weak_ptr<SVConsentAgentRegistry> weak = weak_from_this();
    auto proxy = agent->remoteObjectProxyWithErrorHandler([weak, alertID, reply](const Error& e) {
        log::error("SVConsentAgentRegistry: alert %lu not answered by the agent: %@", alertID,
                   e.description());
        reply(AlertResponse::Cancelled);
        if (auto self = weak.lock()) self->alertDone(alertID);
    });
    proxy.call(
        kPresentAlert, ipc::Arguments().add(withID(request.toValue(), alertID)),
        [weak, alertID, reply](const ipc::Received& answer) {
            const Value& name = answer.at(0);
            auto response =
                name.is_string() ? parseAlertResponse(name.get<std::string>()) : std::nullopt;
            if (!response) {
                static log::RateLimit limit;
                log::error(limit, "SVConsentAgentRegistry: unknown answer %@; cancelled", name);
            }
            reply(response.value_or(AlertResponse::Cancelled));
            if (auto self = weak.lock()) self->alertDone(alertID);
        });
}

void SVConsentAgentRegistry::withdrawAlert(uint64_t alertID) {
    // The alert answered Cancelled already; the agent's late answer, if it
    // still comes, only frees the slot. One still waiting for an agent is
    // dropped; one at an agent that takes withdrawals is taken down there.
    std::shared_ptr<Timer> timer;
    std::shared_ptr<ipc::Connection> agent;
    {
        std::lock_guard lock(mutex_);
        auto w = std::find_if(waiting_.begin(), waiting_.end(),
                              [&](const Waiting& x) { return x.alertID == alertID; });
        if (w != waiting_.end()) {
            timer = std::move(w->timer);
            waiting_.erase(w);
            pending_.erase(alertID);
        } else if (auto it = pending_.find(alertID); it != pending_.end()) {
            agent = it->second.agent.lock();
            const bool withdraws =
                agent && std::any_of(withdrawing_.begin(), withdrawing_.end(),
                                     [&](const auto& x) { return x.lock() == agent; });
            if (!withdraws) agent.reset();
        }
    }
    if (timer) {
        log::debug("SVConsentAgentRegistry: alert %lu withdrawn before an agent came", alertID);
        timer->cancel();
        return;
    }
    if (!agent) {
        log::debug("SVConsentAgentRegistry: alert %lu withdrawn; the agent keeps it", alertID);
        return;
    }
    log::info("SVConsentAgentRegistry: alert %lu withdrawn from the agent", alertID);
    agent
        ->remoteObjectProxyWithErrorHandler([alertID](const Error& e) {
            log::error("SVConsentAgentRegistry: withdrawal of alert %lu not delivered: %@", alertID,
                       e.description());
        })
        .call(kWithdrawAlert, ipc::Arguments().add(Value(alertID)));
}

void SVConsentAgentRegistry::enableWithdrawal(const std::shared_ptr<ipc::Connection>& connection) {
    std::lock_guard lock(mutex_);
    std::erase_if(withdrawing_, [](const auto& w) { return w.expired(); });
    for (const auto& w : withdrawing_)
        if (w.lock() == connection) return;
    withdrawing_.push_back(connection);
}

void SVConsentAgentRegistry::alertDone(uint64_t alertID) {
    std::lock_guard lock(mutex_);
    pending_.erase(alertID);
}

}  // namespace sv
