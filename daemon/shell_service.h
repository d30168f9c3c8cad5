// The daemon's end of the shell channel: a listener on
// "org.sorvel.sorveld.shell" exporting SVShellProtocol to the operating
// system's side. It turns the calls into the platform events the rest of the
// daemon observes: the lock button becomes the lock-button-pressed
// notification, the purge calls reach the registered purgeable-space
// callbacks. Calls run on the calling connection's queue.
#pragma once

#include <memory>
#include <string>

#include "platform/ipc/ipc.h"

namespace sv {

class SVShellService : public ipc::ListenerDelegate,
                       public std::enable_shared_from_this<SVShellService> {
  public:
    // Null (with `error`) when the listener cannot be created.
    static std::shared_ptr<SVShellService> create(std::string* error = nullptr);
    void resume();
    void invalidate();

    bool listenerShouldAcceptNewConnection(
        ipc::Listener& listener, const std::shared_ptr<ipc::Connection>& connection) override;

  private:
    std::shared_ptr<ipc::Listener> listener_;
    std::shared_ptr<ipc::MethodTable> object_;
};

}  // namespace sv
