// Localized strings of the client framework and display names of apps.
//
// The service's user-visible texts (the consent alert) live in the client
// framework's resource directory: <install share dir>/framework, with one
// "<lang>.lproj/Localizable.strings" table per language (a JSON object of
// strings). $SORVEL_FRAMEWORK_DIR, when set before first use, replaces that
// path; a build that is not installed falls back to the source tree's
// share/framework.
//
// Every operation is synchronous, may be called from any thread, and keeps no
// state besides the framework bundle, which is created once on first use and
// kept for the life of the process. None reports an error.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/system/bundle.h"
#include "platform/value.h"

namespace sv {

// The framework bundle, or nullptr when nothing is at its path.
std::shared_ptr<Bundle> _svFrameworkBundle();
// The framework's path (what _svFrameworkBundle loads or would load).
std::string _svFrameworkBundlePath();

// The "Localizable" table of one localization, or nullopt.
std::optional<Value> localizedDictionaryForLanguage(const std::string& language);

// The string for `key`: from the table of the user's first preferred language,
// else from its base language's table; else (also with no preferred language
// at all) the framework bundle's standard lookup, which yields `key` itself
// when no table has it. Only the first preferred language is tried before the
// standard lookup. nullopt only without a framework bundle. `bundleID` names
// the app concerned and takes no part in the choice.
std::optional<std::string> _svLocalizedStringFromFrameworkBundleWithKey(
    const std::string& key, const std::string& bundleID);

// The bundle's display name: the localized display name, else the display
// name, else the bundle name, else "".
std::string _svLocalizedAppName(const Bundle& bundle);

// _svLocalizedAppName of the known bundle with that identifier; nullopt when
// the platform knows no such bundle.
std::optional<std::string> _svLocalizedAppNameFromBundleID(const std::string& bundleID);

}  // namespace sv
