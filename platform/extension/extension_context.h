// The extension's side of extension requests: the process that a host
// started (AppExtension) connects back to it and receives its requests.
//
// Threads: `handler` runs on the connection's serial queue, one request at a
// time in arrival order; `reply` may be called from any thread, at most once
// (later calls are ignored). The invalidation handler runs on the same queue,
// once, when the host goes away.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/extension/extension_item.h"
#include "platform/ipc/ipc.h"

namespace sv {

// The method the host calls on the extension's connection:
//   beginExtensionRequestWithIdentifier:inputItems:fileTokens:handler:
//     (text identifier, array of items, map token -> file object)
//     -> (array of returned items or null, error or null)
inline constexpr const char* kBeginExtensionRequestMethod =
    "beginExtensionRequestWithIdentifier:inputItems:fileTokens:handler:";
std::shared_ptr<const ipc::Interface> extensionProtocolInterface();

class ExtensionContext {
  public:
    using Reply = std::function<void(std::vector<ExtensionItem> returnedItems, OptionalError)>;
    using RequestHandler =
        std::function<void(const std::string& requestIdentifier, std::vector<ExtensionItem> items,
                           std::map<std::string, ipc::FileToken> files, Reply reply)>;

    // Connects to the host named by $SORVEL_EXTENSION_ENDPOINT_FD. An error
    // when this process was not started as an extension.
    static Result<std::shared_ptr<ExtensionContext>> connectToHost(
        RequestHandler handler, std::function<void()> invalidationHandler);
    ~ExtensionContext();

    const std::shared_ptr<ipc::Connection>& connection() const { return connection_; }
    void invalidate();

  private:
    ExtensionContext() = default;
    std::shared_ptr<ipc::Connection> connection_;
};

}  // namespace sv
