// SVConsentAgentRegistry: the daemon's alert presenter. The daemon has no
// screen of its own; a consent agent, a process of the logged-in user,
// registers on the shell channel (registerConsentAgentWithPreferredLanguages:)
// and exports SVConsentAgentProtocol on that connection. Every system alert
// the daemon creates is sent to the newest registered agent as
// presentAlert:handler:, and the agent's answer answers the alert.
//
// With no agent registered, or with one whose connection has ended, an alert
// cannot be created (presentAlert returns false), unless the registry was
// made to wait for one: then the alert waits up to that long for an agent to
// register (an agent started together with the service) and is sent to it,
// or answers Cancelled when none came. An agent that goes away
// while it shows alerts answers them all Cancelled (the IPC layer fails
// their pending calls); so does an answer that is not one of the four
// names. At most kMaxAlertsAtAgent alerts wait for answers at once; a
// further one cannot be created, so a flood of start requests cannot pile
// questions up in front of the user.
//
// Threads: every method may be called from any thread; alerts are answered
// on the agent connection's queue. Holds agent connections weakly (the IPC
// layer keeps them while they are open).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/ipc/ipc.h"
#include "platform/system/system_alert.h"

namespace sv {

inline constexpr size_t kMaxAlertsAtAgent = 8;
inline constexpr size_t kMaxAgents = 8;
// Languages an agent may name; more are ignored, as are over-long ones.
inline constexpr size_t kMaxAgentLanguages = 16;
inline constexpr size_t kMaxLanguageIdentifierBytes = 35;

class SVConsentAgentRegistry : public AlertPresenter,
                               public std::enable_shared_from_this<SVConsentAgentRegistry> {
  public:
    // `agentWait`: how long an alert waits for an agent when none is
    // registered (zero: it cannot be shown).
    static std::shared_ptr<SVConsentAgentRegistry> create(
        std::chrono::milliseconds agentWait = std::chrono::milliseconds(0));

    // `connection` becomes the consent agent, in front of any earlier one
    // (whose shown alerts stay with it): when it goes away, the newest
    // earlier agent still connected is the agent again (an agent run in a
    // terminal in front of the desktop's dialog agent). At
    // most kMaxAgents are kept, the oldest dropped first. Its remote object
    // interface must be SVConsentAgentProtocol. Languages are kept in order,
    // without entries that are empty, too long or hold anything but letters,
    // digits, "-" and "_".
    void registerAgent(const std::shared_ptr<ipc::Connection>& connection,
                       const std::vector<std::string>& preferredLanguages);
    // The connection ended: it is no longer an agent.
    void connectionEnded(const ipc::Connection* connection);

    bool hasAgent() const;
    // The process of the current agent (0 without one).
    pid_t agentProcessIdentifier() const;
    // Registered agents whose connections are open.
    size_t agentCount() const;
    // The current agent's preferred languages, most preferred first (empty
    // without an agent).
    std::vector<std::string> preferredLanguages() const;
    size_t alertsAtAgent() const;

    // AlertPresenter
    Result<void> presentAlert(uint64_t alertID, const AlertRequest& request,
                              AlertReply reply) override;
    // Tells the agent showing the alert to take it down, when that agent
    // asked for withdrawals; others keep showing it, and their answer, when
    // it comes, is ignored.
    void withdrawAlert(uint64_t alertID) override;
    // `connection` understands withdrawAlert: (it sent enableAlertWithdrawal).
    void enableWithdrawal(const std::shared_ptr<ipc::Connection>& connection);

  private:
    explicit SVConsentAgentRegistry(std::chrono::milliseconds agentWait) : agentWait_(agentWait) {}
    void alertDone(uint64_t alertID);
    // The wait of an alert for an agent is over: answered Cancelled.
    void expireWaiting(uint64_t alertID);
    // Sends an alert counted in pending_ to `agent`.
    void send(const std::shared_ptr<ipc::Connection>& agent, uint64_t alertID,
              const AlertRequest& request, const AlertReply& reply);

    // An alert waiting for an agent to register; its timer answers it
    // Cancelled when none comes.
    struct Waiting {
        uint64_t alertID;
        AlertRequest request;
        AlertReply reply;
        std::shared_ptr<Timer> timer;
    };

    const std::chrono::milliseconds agentWait_;
    struct Agent {
        std::weak_ptr<ipc::Connection> connection;
        std::vector<std::string> languages;
    };
    // The newest agent whose connection is open, or nullptr; under mutex_.
    const Agent* currentLocked(std::shared_ptr<ipc::Connection>* connection = nullptr) const;

    mutable std::mutex mutex_;
    std::vector<Agent> agents_;  // newest last
    struct Pending {
        AlertReply reply;
        std::weak_ptr<ipc::Connection> agent;  // the agent that shows it; empty while waiting
    };
    std::map<uint64_t, Pending> pending_;  // alerts at an agent or waiting, by identifier
    std::vector<Waiting> waiting_;
    // Agents that sent enableAlertWithdrawal (expired ones are pruned).
    std::vector<std::weak_ptr<ipc::Connection>> withdrawing_;
};

}  // namespace sv
