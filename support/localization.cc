#include "support/localization.h"

#include <sys/stat.h>

#include <cstdlib>

#include "platform/dispatch.h"
#include "platform/system/languages.h"

namespace sv {
namespace {

constexpr const char* kStringTable = "Localizable";

bool isDirectory(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

std::string _svFrameworkBundlePath() {
    if (const char* env = std::getenv("SORVEL_FRAMEWORK_DIR"); env && *env) return env;
    std::string installed = Bundle::installShareDirectory() + "/framework";
#ifdef SV_SOURCE_SHARE_DIR
    if (!isDirectory(installed)) return std::string(SV_SOURCE_SHARE_DIR) + "/framework";
#endif
    return installed;
}

std::shared_ptr<Bundle> _svFrameworkBundle() {
    static OnceFlag once;
    static std::shared_ptr<Bundle>* bundle;
    dispatchOnce(once, [] {
        bundle = new std::shared_ptr<Bundle>(Bundle::bundleWithPath(_svFrameworkBundlePath()));
    });
    return *bundle;
}

std::optional<Value> localizedDictionaryForLanguage(const std::string& language) {
    auto framework = _svFrameworkBundle();
    if (!framework) return std::nullopt;
    auto path = framework->pathForResource(kStringTable, "strings", "", language);
    if (!path) return std::nullopt;
    return readDictionaryFromFile(*path);
}

std::optional<std::string> _svLocalizedStringFromFrameworkBundleWithKey(
    const std::string& key, const std::string& /*bundleID*/) {
    auto framework = _svFrameworkBundle();
    if (!framework) return std::nullopt;
    auto languages = preferredLanguages();
    if (!languages.empty()) {
        const std::string& preferred = languages.front();
        auto lookup = [&key](const std::string& language) -> std::optional<std::string> {
            auto table = localizedDictionaryForLanguage(language);
            return table ? stringAt(*table, key.c_str()) : std::nullopt;
        };
        if (auto s = lookup(preferred)) return s;
        std::string base = baseLanguage(preferred);
        if (base != preferred) {
            if (auto s = lookup(base)) return s;
        }
    }
    return framework->localizedStringForKey(key, "", kStringTable);
}

std::string _svLocalizedAppName(const Bundle& bundle) {
    if (auto localized = bundle.localizedInfoDictionary()) {
        if (auto name = stringAt(*localized, kBundleDisplayNameKey)) return *name;
    }
    const Value& info = bundle.infoDictionary();
    if (auto name = stringAt(info, kBundleDisplayNameKey)) return *name;
    if (auto name = stringAt(info, kBundleNameKey)) return *name;
    return "";
}

std::optional<std::string> _svLocalizedAppNameFromBundleID(const std::string& bundleID) {
    auto bundle = Bundle::bundleWithIdentifier(bundleID);
    if (!bundle) return std::nullopt;
    return _svLocalizedAppName(*bundle);
}

}  // namespace sv
