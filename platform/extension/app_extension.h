// Application extensions: installed extensions, found by their extension
// point, and requests to them. An extension is a bundle on the bundle search
// path (platform/system/bundle.h) whose bundle.json has an "extension" entry:
//
//   {"identifier": "com.example.game.upload",
//    "extension": {"point": "org.sorvel.broadcast-services",
//                  "executable": "bin/upload",
//                  "attributes": {"SVBroadcastProcessMode": "SVBroadcastProcessModeUpload"}}}
//
// "executable" is relative to the bundle and may not leave it. An extension
// that shows a user interface has the attribute kExtensionMainInterfaceKey.
//
// Requests: beginning a request starts the extension's executable as a child
// process of this process (or reuses the one already running for this
// handle), connects it over IPC (the endpoint of an unnamed listener is its
// descriptor 3, named by $SORVEL_EXTENSION_ENDPOINT_FD) and hands it the
// input items and the read-only files granted with them. The extension
// answers each request with returned items, which reach the request-completion
// handler with the request's identifier. Every handle owns at most one
// running process; a second handle of the same extension starts its own.
// _kill() sends a signal and forgets the process; every child is reaped, and
// a process that dies with requests outstanding breaks them (logged, and the
// request-cancellation handler runs), never more. docs/ipc-wire-format.md
// describes the extension's side of the wire.
//
// Threads: every method may be called from any thread. The begin
// completion, the request-completion and the request-cancellation handlers
// run on the handle's own serial queue, never on the caller's thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/extension/extension_item.h"
#include "platform/extension/file_access_token.h"
#include "platform/value.h"

namespace sv {

inline constexpr const char* kExtensionInfoKey = "extension";
inline constexpr const char* kExtensionPointKey = "point";
inline constexpr const char* kExtensionExecutableKey = "executable";
inline constexpr const char* kExtensionAttributesKey = "attributes";
// Present on extensions that show a user interface.
inline constexpr const char* kExtensionMainInterfaceKey = "mainInterface";
// The extension point of broadcast services.
inline constexpr const char* kBroadcastServicesExtensionPoint = "org.sorvel.broadcast-services";
// The environment variable that names the extension's connection descriptor.
inline constexpr const char* kExtensionEndpointFdVariable = "SORVEL_EXTENSION_ENDPOINT_FD";
inline constexpr const char* kExtensionIdentifierVariable = "SORVEL_EXTENSION_IDENTIFIER";
inline constexpr int kExtensionEndpointFd = 3;
// How long a started extension has to connect before its requests break.
inline constexpr std::chrono::seconds kExtensionConnectTimeout{10};
// Errors of extension requests (domain kExtensionErrorDomain).
inline constexpr const char* kExtensionErrorDomain = "org.sorvel.ExtensionErrorDomain";
enum ExtensionErrorCode : int64_t {
    kExtensionErrorCannotStart = 1,    // the executable is missing or could not be started
    kExtensionErrorNotConnected = 2,   // it did not connect in time
    kExtensionErrorEnded = 3,          // it ended (or was ended) before answering
    kExtensionErrorFailedRequest = 4,  // it answered the request with an error
};

class AppExtension : public std::enable_shared_from_this<AppExtension> {
  public:
    using QueryCompletion =
        std::function<void(std::vector<std::shared_ptr<AppExtension>> extensions, OptionalError)>;
    using BeginCompletion = std::function<void(std::string requestIdentifier, OptionalError)>;
    using RequestCompletion =
        std::function<void(const std::string& requestIdentifier, std::vector<ExtensionItem>)>;
    using RequestCancellation =
        std::function<void(const std::string& requestIdentifier, const Error& error)>;

    // All installed extensions of `point`, asynchronously; `completion` runs
    // once on a global queue. Order: the directories of the bundle search
    // path in order, and inside one directory the bundles by directory
    // name (byte order); an identifier seen earlier hides later bundles of
    // the same identifier. The error is always empty (unreadable entries
    // are skipped).
    static void extensionsWithMatchingPointName(std::string point, QueryCompletion completion);
    // The same, synchronously (the query's work).
    static std::vector<std::shared_ptr<AppExtension>> installedExtensions(const std::string& point);
    // The extension of the bundle at `bundlePath`, or null when it declares none.
    static std::shared_ptr<AppExtension> extensionWithBundlePath(const std::string& bundlePath);

    ~AppExtension();
    AppExtension(const AppExtension&) = delete;
    AppExtension& operator=(const AppExtension&) = delete;

    const std::string& identifier() const { return identifier_; }
    const std::string& bundlePath() const { return bundlePath_; }
    // The whole bundle.json.
    const Value& infoDictionary() const { return info_; }
    // The extension entry's attributes (an object, maybe empty).
    const Value& attributes() const { return attributes_; }
    const std::string& extensionPointIdentifier() const { return point_; }
    // The executable's absolute path ("" when the entry names none or one
    // outside the bundle).
    const std::string& executablePath() const { return executable_; }
    std::string description() const;

    // Replaces the handler for requests that complete (set before begin).
    void setRequestCompletionBlock(RequestCompletion handler);
    // Directories the extension's process may not touch at all (for a
    // process started from now on); what it needs of them comes with its
    // requests as file grants. Enforced by the kernel where it can
    // (platform/extension/extension_sandbox.h).
    void setInaccessibleDirectories(std::vector<std::string> directories);
    // Replaces the handler for requests that break.
    void setRequestCancellationBlock(RequestCancellation handler);
    // Starts (or reuses) the process and queues the request for it; the
    // completion gets the new request's identifier, or an error when the
    // process cannot be started (no request exists then). `grants` are sent
    // with the request and held until it completes or breaks.
    void beginExtensionRequestWithInputItems(std::vector<ExtensionItem> items,
                                             std::vector<std::shared_ptr<FileAccessToken>> grants,
                                             BeginCompletion completion);
    // The process of the running extension (or -1).
    pid_t pidForRunningProcess() const;
    // Sends `signal` to the running process and forgets it: its outstanding
    // requests break, its connection closes, it is reaped when it ends.
    void _kill(int signal);

    struct Impl;

  private:
    AppExtension(std::string identifier, std::string bundlePath, Value info);

    std::string identifier_, bundlePath_, point_, executable_;
    Value info_, attributes_;
    std::shared_ptr<Impl> impl_;
};

}  // namespace sv
