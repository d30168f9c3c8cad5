#include "daemon/consent_agent.h"

#include <algorithm>
#include <optional>

#include "platform/log.h"
#include "protocol/recording_protocol.h"

namespace sv {
namespace {

using method::kPresentAlert;

bool validLanguage(const std::string& l) {
    if (l.empty() || l.size() > kMaxLanguageIdentifierBytes) return false;
    return std::all_of(l.begin(), l.end(), [](unsigned char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '_';
    });
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
        agent_ = connection;
        languages_ = std::move(languages);
        waiting.swap(waiting_);
    }
    for (auto& w : waiting) {
        w.timer->cancel();
        send(connection, w.alertID, w.request, w.reply);
    }
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

pid_t SVConsentAgentRegistry::agentProcessIdentifier() const {
    std::lock_guard lock(mutex_);
    auto agent = agent_.lock();
    return agent ? agent->processIdentifier() : 0;
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
        if (pending_.size() >= kMaxAlertsAtAgent) {
            log::error("SVConsentAgentRegistry: %lu alerts already wait for the consent agent",
                       pending_.size());
            return false;
        }
        agent = agent_.lock();
        if (!agent || agent->isInvalidated()) {
            if (agentWait_.count() <= 0) {
                log::error("SVConsentAgentRegistry: no consent agent is registered");
                return false;
            }
            log::info("SVConsentAgentRegistry: alert %lu waits for a consent agent", alertID);
            pending_.emplace(alertID, reply);
            std::weak_ptr<SVConsentAgentRegistry> weak = weak_from_this();
            auto timer = Timer::schedule(
                DispatchQueue::global(), agentWait_, std::chrono::nanoseconds(0), [weak, alertID] {
                    auto self = weak.lock();
                    if (!self) return;
                    std::optional<AlertReply> expired;
                    {
                        std::lock_guard lock(self->mutex_);
                        auto& w = self->waiting_;
                        auto it = std::find_if(w.begin(), w.end(), [&](const Waiting& x) {
                            return x.alertID == alertID;
                        });
                        if (it == w.end()) return;
                        expired = it->reply;
                        w.erase(it);
                        self->pending_.erase(alertID);
                    }
                    log::error("SVConsentAgentRegistry: no consent agent registered for alert %lu",
                               alertID);
                    (*expired)(AlertResponse::Cancelled);
                });
            waiting_.push_back({alertID, request, std::move(reply), std::move(timer)});
            return true;
        }
        pending_.emplace(alertID, reply);
    }
    send(agent, alertID, request, reply);
    return true;
}

void SVConsentAgentRegistry::send(const std::shared_ptr<ipc::Connection>& agent, uint64_t alertID,
                                  const AlertRequest& request, const AlertReply& reply) {
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
        kPresentAlert, ipc::Arguments().add(request.toValue()),
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
    // The alert answered Cancelled already; the agent's late answer only
    // frees the slot. One still waiting for an agent is dropped.
    log::debug("SVConsentAgentRegistry: alert %lu withdrawn", alertID);
    std::shared_ptr<Timer> timer;
    {
        std::lock_guard lock(mutex_);
        auto it = std::find_if(waiting_.begin(), waiting_.end(),
                               [&](const Waiting& x) { return x.alertID == alertID; });
        if (it == waiting_.end()) return;
        timer = std::move(it->timer);
        waiting_.erase(it);
        pending_.erase(alertID);
    }
    timer->cancel();
}

void SVConsentAgentRegistry::alertDone(uint64_t alertID) {
    std::lock_guard lock(mutex_);
    pending_.erase(alertID);
}

}  // namespace sv
