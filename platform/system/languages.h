// The user's preferred languages, most preferred first, as language
// identifiers ("fr-FR", "de"), read from the locale environment.
//
// Order of sources: LANGUAGE (a colon-separated list), then the first set one
// of LC_ALL, LC_MESSAGES and LANG. An entry's codeset (".UTF-8") and modifier
// ("@euro") are dropped and "_" becomes "-"; "C" and "POSIX" (with or
// without a codeset) name no language, so a plain C locale gives an empty
// list. Thread-safe; reads the environment on every call.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace sv {

std::vector<std::string> preferredLanguages();

// The rule above on explicit values (null or empty means unset).
std::vector<std::string> preferredLanguagesFromLocale(const char* language, const char* lcAll,
                                                      const char* lcMessages, const char* lang);

// "fr_FR.UTF-8@euro" -> "fr-FR"; nullopt for "C", "POSIX" and empty names.
std::optional<std::string> languageIdentifierFromLocaleName(const std::string& name);

// "fr-FR" -> "fr"; an identifier without "-" is its own base.
std::string baseLanguage(const std::string& identifier);

// The first of `preferred` that `available` holds, trying each preferred
// identifier as it is and then its base language; `fallback` when none
// matches. Localization choice of bundles.
std::string chooseLocalization(const std::vector<std::string>& preferred,
                               const std::vector<std::string>& available,
                               const std::string& fallback);

}  // namespace sv
