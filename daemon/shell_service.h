// The daemon's end of the shell channel: a listener on
// "org.sorvel.sorveld.shell" exporting SVShellProtocol, with the recording
// service's methods, to the operating system's side. It turns the calls into
// the platform events the rest of the daemon observes: the lock button
// becomes the lock-button-pressed notification, the purge calls reach the
// registered purgeable-space callbacks, a consent agent's registration
// reaches the consent-agent registry, and the synthetic platform's calls
// reach the window system and the display (SVDaemonPlatform).
//
// Threads: calls run on the calling connection's queue; those that need the
// manager's state wait for its queue, which never waits for a shell
// connection, so a consent agent's answer always gets through.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "daemon/consent_agent.h"
#include "daemon/recording_manager.h"
#include "platform/ipc/ipc.h"

namespace sv {

class SVShellService : public ipc::ListenerDelegate,
                       public std::enable_shared_from_this<SVShellService> {
  public:
    // Null (with `error`) when the listener cannot be created.
    static std::shared_ptr<SVShellService> create(std::shared_ptr<SVRecordingManager> manager,
                                                  std::shared_ptr<SVConsentAgentRegistry> agents,
                                                  std::string* error = nullptr);
    void resume();
    void invalidate();

    bool listenerShouldAcceptNewConnection(
        ipc::Listener& listener, const std::shared_ptr<ipc::Connection>& connection) override;

    // The interface exported on every shell connection.
    static std::shared_ptr<const ipc::Interface> exportedInterface();

  private:
    void addRecordingMethods(ipc::MethodTable& table);

    std::shared_ptr<ipc::Listener> listener_;
    std::shared_ptr<ipc::MethodTable> object_;
    std::shared_ptr<SVRecordingManager> manager_;
    std::shared_ptr<SVConsentAgentRegistry> agents_;
    // Shell connections whose process is a trusted executable (the only
    // ones that may register as the consent agent), until they end.
    std::shared_ptr<std::mutex> trustedMutex_ = std::make_shared<std::mutex>();
    std::shared_ptr<std::set<const ipc::Connection*>> trusted_ =
        std::make_shared<std::set<const ipc::Connection*>>();
};

}  // namespace sv
