// The store lookup service: answers requests for an application's store
// details by bundle identifier.
//
// Backend: a local catalog, a JSON object from bundle identifier to item
// properties, e.g.
//   {"com.example.app": {"shortProductURL": "https://...", "displayName": "App",
//                        "artistName": "Example Ltd", "genreNames": ["Games", "Puzzle"]}}
// at the path given to setCatalogPath(), else at $SORVEL_STORE_CATALOG. Without
// a catalog every lookup answers with an empty response (no items, no error);
// an unreadable or malformed catalog answers with an empty response and an
// error. The catalog is read for every request, so edits apply at once.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"

namespace sv {

// Errors of a lookup: the catalog exists but cannot be read or parsed.
inline constexpr const char* kStoreLookupErrorDomain = "org.sorvel.StoreLookupErrorDomain";
inline constexpr int64_t kStoreLookupErrorCatalogUnreadable = 1;

struct StoreItem {
    std::optional<std::string> shortProductURL;
    std::optional<std::string> displayName;
    std::optional<std::string> artistName;
    std::optional<std::vector<std::string>> genreNames;
};

struct StoreLookupResponse {
    std::vector<StoreItem> results;  // in the service's order
};

class StoreLookupRequest {
  public:
    enum class KeyProfile { Product };
    // Response closure: called once per response on a thread of the service
    // (never the caller's, never the main thread). The response is owned by
    // the service and valid for the duration of the call.
    using ResponseHandler =
        std::function<void(const StoreLookupResponse& response, OptionalError error)>;

    KeyProfile keyProfile = KeyProfile::Product;
    int localizationStyle = 1;
    std::vector<std::string> bundleIdentifiers;

    // Starts the request and returns at once. The service keeps its own copy
    // of the request; the caller need not keep the object alive.
    void start(ResponseHandler handler) const;

    // Catalog path for every later request; nullopt restores the environment
    // variable. Thread-safe.
    static void setCatalogPath(std::optional<std::string> path);
};

}  // namespace sv
