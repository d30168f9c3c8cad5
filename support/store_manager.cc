#include "support/store_manager.h"

#include <cstdlib>
#include <mutex>

#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/system/reachability.h"
#include "platform/system/store_lookup.h"
#include "support/localization.h"

namespace sv {

std::shared_ptr<SVStoreManager> SVStoreManager::sharedManager() {
    static OnceFlag once;
    static std::shared_ptr<SVStoreManager>* manager;
    dispatchOnce(once, [] { manager = new std::shared_ptr<SVStoreManager>(new SVStoreManager); });
    return *manager;
}

void SVStoreManager::loadItemDetailsForBundleIdentifier(const std::string& bundleID,
                                                        CompletionHandler completionHandler) {
    if (!completionHandler) {
        log::error("SVStoreManager:loadItemDetailsForBundleIdentifier: no completion handler");
        return;
    }
    StoreLookupRequest request;
    request.keyProfile = StoreLookupRequest::KeyProfile::Product;
    request.localizationStyle = 1;
    request.bundleIdentifiers = {bundleID};
    // Runs on the lookup service's thread: only builds the record, then hands
    // over to the main queue. A failed lookup is logged and yields the same
    // fallback record as one without results.
    request.start([bundleID, completionHandler](const StoreLookupResponse& response,
                                                OptionalError error) {
        if (error)
            log::info("SVStoreManager: store lookup for %@ failed: %@", bundleID, error->message());
        const StoreItem* item = response.results.empty() ? nullptr : &response.results.front();
        auto info = std::make_shared<SVStoreInfo>();
        info->bundleID = bundleID;
        info->appName = item && item->displayName ? item->displayName
                                                  : _svLocalizedAppNameFromBundleID(bundleID);
        info->author = item && item->artistName ? *item->artistName : std::string();
        info->itemURL = item && item->shortProductURL ? *item->shortProductURL : std::string();
        if (item) info->categories = item->genreNames;
        DispatchQueue::main()->async([completionHandler, info] { completionHandler(info); });
    });
}

namespace {

std::mutex gReachabilityMutex;
std::optional<std::string> gHostName;
SVReachability::FlagsProvider gFlagsProvider;

}  // namespace

void SVReachability::setHostName(std::optional<std::string> host) {
    std::lock_guard lock(gReachabilityMutex);
    gHostName = std::move(host);
}

std::string SVReachability::hostName() {
    {
        std::lock_guard lock(gReachabilityMutex);
        if (gHostName) return *gHostName;
    }
    const char* env = std::getenv("SORVEL_REACHABILITY_HOST");
    return env && *env ? env : kDefaultHostName;
}

void SVReachability::setFlagsProvider(FlagsProvider provider) {
    std::lock_guard lock(gReachabilityMutex);
    gFlagsProvider = std::move(provider);
}

bool SVReachability::isNetworkAvailableWithFlags(std::optional<uint32_t> flags) {
    if (!flags) return false;
    return (*flags & kReachabilityReachable) && !(*flags & kReachabilityConnectionRequired);
}

bool SVReachability::isNetworkAvailable() {
    std::string host = hostName();
    FlagsProvider provider;
    {
        std::lock_guard lock(gReachabilityMutex);
        provider = gFlagsProvider;
    }
    std::optional<uint32_t> flags;
    if (provider) {
        flags = provider(host);
    } else if (auto query = ReachabilityQuery::createWithName(host)) {
        flags = query->getFlags();
    }
    return isNetworkAvailableWithFlags(flags);
}

}  // namespace sv
