#include "platform/system/languages.h"

#include <algorithm>
#include <cstdlib>

namespace sv {

std::optional<std::string> languageIdentifierFromLocaleName(const std::string& name) {
    std::string id = name.substr(0, name.find_first_of(".@"));
    if (id.empty() || id == "C" || id == "POSIX") return std::nullopt;
    std::replace(id.begin(), id.end(), '_', '-');
    return id;
}

std::vector<std::string> preferredLanguagesFromLocale(const char* language, const char* lcAll,
                                                      const char* lcMessages, const char* lang) {
    std::vector<std::string> out;
    auto add = [&out](const std::string& name) {
        auto id = languageIdentifierFromLocaleName(name);
        if (id && std::find(out.begin(), out.end(), *id) == out.end()) out.push_back(*id);
    };
    if (language && *language) {
        std::string list = language;
        for (size_t start = 0; start <= list.size();) {
            size_t end = list.find(':', start);
            if (end == std::string::npos) end = list.size();
            add(list.substr(start, end - start));
            start = end + 1;
        }
        if (!out.empty()) return out;
    }
    for (const char* v : {lcAll, lcMessages, lang}) {
        if (v && *v) {
            add(v);
            break;
        }
    }
    return out;
}

std::vector<std::string> preferredLanguages() {
    return preferredLanguagesFromLocale(std::getenv("LANGUAGE"), std::getenv("LC_ALL"),
                                        std::getenv("LC_MESSAGES"), std::getenv("LANG"));
}

std::string baseLanguage(const std::string& identifier) {
    return identifier.substr(0, identifier.find('-'));
}

std::string chooseLocalization(const std::vector<std::string>& preferred,
                               const std::vector<std::string>& available,
                               const std::string& fallback) {
    auto has = [&available](const std::string& l) {
        return std::find(available.begin(), available.end(), l) != available.end();
    };
    for (const auto& p : preferred) {
        if (has(p)) return p;
        if (std::string base = baseLanguage(p); has(base)) return base;
    }
    return fallback;
}

}  // namespace sv
