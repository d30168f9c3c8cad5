#include "platform/system/store_lookup.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "platform/dispatch.h"
#include "platform/system/bundle.h"
#include "platform/value.h"

namespace sv {
namespace {

std::mutex gCatalogMutex;
std::optional<std::string> gCatalogPath;

std::optional<std::string> catalogPath() {
    {
        std::lock_guard lock(gCatalogMutex);
        if (gCatalogPath) return gCatalogPath;
    }
    const char* env = std::getenv("SORVEL_STORE_CATALOG");
    if (env && *env) return std::string(env);
    return std::nullopt;
}

// Answers run one at a time on the service's own queue, off every caller.
std::shared_ptr<DispatchQueue> serviceQueue() {
    static OnceFlag once;
    static std::shared_ptr<DispatchQueue>* queue;
    dispatchOnce(once, [] {
        queue = new std::shared_ptr<DispatchQueue>(DispatchQueue::serial("org.sorvel.storelookup"));
    });
    return *queue;
}

StoreItem itemFromValue(const Value& v) {
    StoreItem item;
    item.shortProductURL = stringAt(v, "shortProductURL");
    item.displayName = stringAt(v, "displayName");
    item.artistName = stringAt(v, "artistName");
    if (auto it = v.find("genreNames"); it != v.end() && it->is_array()) {
        std::vector<std::string> genres;
        for (const auto& g : *it)
            if (g.is_string()) genres.push_back(g.get<std::string>());
        item.genreNames = std::move(genres);
    }
    return item;
}

}  // namespace

void StoreLookupRequest::setCatalogPath(std::optional<std::string> path) {
    std::lock_guard lock(gCatalogMutex);
    gCatalogPath = std::move(path);
}

void StoreLookupRequest::start(ResponseHandler handler) const {
    if (!handler) return;
    serviceQueue()->async([ids = bundleIdentifiers, handler = std::move(handler)] {
        StoreLookupResponse response;
        OptionalError error;
        if (auto path = catalogPath()) {
            if (auto catalog = readDictionaryFromFile(*path)) {
                for (const auto& id : ids) {
                    auto it = catalog->find(id);
                    if (it != catalog->end() && it->is_object())
                        response.results.push_back(itemFromValue(*it));
                }
            } else {
                error = Error::make(kStoreLookupErrorDomain, kStoreLookupErrorCatalogUnreadable,
                                    "the store catalog " + *path + " cannot be read");
            }
        }
        handler(response, error);
    });
}

}  // namespace sv
