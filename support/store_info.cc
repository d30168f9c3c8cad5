#include "support/store_info.h"

namespace sv {

std::optional<std::string> SVStoreInfo::joinedCategories() const {
    if (!categories) return std::nullopt;
    std::string joined;
    for (size_t i = 0; i < categories->size(); ++i) {
        if (i) joined += ",";
        joined += (*categories)[i];
    }
    return joined;
}

Value SVStoreInfo::dictionary() const {
    Value d = Value::object();
    d["SVStoreInfoBundleIDKey"] = bundleID;
    if (appName) d["SVStoreInfoAppNameKey"] = *appName;
    d["SVStoreInfoAuthorKey"] = author;
    d["SVStoreInfoItemURLKey"] = itemURL;
    if (categories && !categories->empty()) d["SVStoreInfoCategoriesKey"] = *joinedCategories();
    return d;
}

}  // namespace sv
