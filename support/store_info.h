// Store details of an application (display name, seller, genres, short store
// link), the source of a movie's metadata. A plain value.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/value.h"

namespace sv {

struct SVStoreInfo {
    std::string bundleID;
    std::optional<std::string> appName;
    std::string author;   // empty when unknown
    std::string itemURL;  // empty when unknown
    std::optional<std::vector<std::string>> categories;

    // String keys to string values: "SVStoreInfoBundleIDKey",
    // "SVStoreInfoAppNameKey" (when known), "SVStoreInfoAuthorKey",
    // "SVStoreInfoItemURLKey", and "SVStoreInfoCategoriesKey" (joined by ","
    // and only when there is at least one category).
    Value dictionary() const;
    // categories joined by ",", or nullopt when there are none at all.
    std::optional<std::string> joinedCategories() const;
    std::string description() const { return describe(dictionary()); }
};

}  // namespace sv
