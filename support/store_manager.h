// Store details of an application for a movie's metadata, and whether the
// network can be used to fetch them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/store_info.h"

namespace sv {

class SVStoreManager {
  public:
    // Receives the new record, which the handler then owns (it is not kept
    // elsewhere). Always called on the main queue.
    using CompletionHandler = std::function<void(std::shared_ptr<SVStoreInfo> storeInfo)>;

    // The one manager of the process: created on the first call, exactly once
    // even when several threads call together; never destroyed. Any thread.
    static std::shared_ptr<SVStoreManager> sharedManager();

    // Starts one lookup of `bundleID` and returns at once; any thread. The
    // handler (must not be null; a null one is dropped) is posted to the main
    // queue once per answer of the lookup service with a record that always
    // carries `bundleID` and falls back, for missing details, to "" (author,
    // itemURL), the locally known display name or null (appName) and null
    // (categories). A failed lookup is handled like one without results.
    void loadItemDetailsForBundleIdentifier(const std::string& bundleID,
                                            CompletionHandler completionHandler);

    SVStoreManager() = default;
};

class SVReachability {
  public:
    // The host probed by default: a well-known public web host.
    static constexpr const char* kDefaultHostName = "www.example.com";
    using FlagsProvider = std::function<std::optional<uint32_t>(const std::string& host)>;

    // Whether the probed host can be reached: its flags have the reachable
    // bit (2) and not the connection-required bit (4). Synchronous on the
    // caller's thread, any thread; blocks for at most about two seconds while
    // the host name resolves. Unreadable flags mean no network.
    static bool isNetworkAvailable();
    // The rule above applied to a flag set (nullopt: flags unreadable).
    static bool isNetworkAvailableWithFlags(std::optional<uint32_t> flags);

    // The probed host: the last setHostName(), else $SORVEL_REACHABILITY_HOST,
    // else kDefaultHostName. Thread-safe.
    static void setHostName(std::optional<std::string> host);
    static std::string hostName();
    // Replaces the platform probe (tests, offline runs); nullptr restores it.
    static void setFlagsProvider(FlagsProvider provider);
};

}  // namespace sv
