#include "daemon/consent_agent.h"

#include <algorithm>

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

std::shared_ptr<SVConsentAgentRegistry> SVConsentAgentRegistry::create() {
    return std::shared_ptr<SVConsentAgentRegistry>(new SVConsentAgentRegistry);
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
    std::lock_guard lock(mutex_);
    agent_ = connection;
    languages_ = std::move(languages);
}

void SVConsentAgentRegistry::connectionEnded(const ipc::Connection* connection) {
    std::lock_guard lock(mutex_);
    auto agent = agent_.lock();
    if (agent && agent.get() != connection) return;
    if (agent) log::info("SVConsentAgentRegistry: the consent agent went away");
    agent_.reset();
    languages_.clear();
}

bool SVConsentAgentRegistry::hasAgent() const {
    std::lock_guard lock(mutex_);
    auto agent = agent_.lock();
    return agent && !agent->isInvalidated();
}

std::vector<std::string> SVConsentAgentRegistry::preferredLanguages() const {
    std::lock_guard lock(mutex_);
    return agent_.expired() ? std::vector<std::string>{} : languages_;
}

size_t SVConsentAgentRegistry::alertsAtAgent() const {
    std::lock_guard lock(mutex_);
    return pending_.size();
}

bool SVConsentAgentRegistry::presentAlert(uint64_t alertID, const AlertRequest& request,
                                          AlertReply reply) {
    std::shared_ptr<ipc::Connection> agent;
    {
        std::lock_guard lock(mutex_);
        agent = agent_.lock();
        if (!agent || agent->isInvalidated()) {
            log::error("SVConsentAgentRegistry: no consent agent is registered");
            return false;
        }
        if (pending_.size() >= kMaxAlertsAtAgent) {
            log::error("SVConsentAgentRegistry: %lu alerts already wait for the consent agent",
                       pending_.size());
            return false;
        }
        pending_.emplace(alertID, Pending{reply, agent});
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
    return true;
}

void SVConsentAgentRegistry::withdrawAlert(uint64_t alertID) {
    // The alert answered Cancelled already; the agent's late answer, if it
    // still comes, only frees the slot.
    std::shared_ptr<ipc::Connection> agent;
    {
        std::lock_guard lock(mutex_);
        auto it = pending_.find(alertID);
        if (it == pending_.end()) return;
        agent = it->second.agent.lock();
        const bool withdraws =
            agent && std::any_of(withdrawing_.begin(), withdrawing_.end(),
                                 [&](const auto& w) { return w.lock() == agent; });
        if (!withdraws) agent.reset();
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
