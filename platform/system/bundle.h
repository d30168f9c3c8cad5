// Bundles: a directory that holds an application, extension or framework
// together with its resources.
//
// Layout on this platform:
//   <bundle>/bundle.json              information dictionary (JSON object)
//   <bundle>/<lang>.lproj/<name>.<type>  resource of a localization
//   <bundle>/<name>.<type>            resource without localization
// The information dictionary's keys are kBundleIdentifierKey ("identifier"),
// kBundleNameKey ("name"), kBundleDisplayNameKey ("displayName"),
// "developmentLanguage" (default "en") and kLocalizedInfoKey ("localized"):
// an object from language identifier to a dictionary of localized entries,
// e.g. {"de": {"displayName": "Fotos"}}; that entry for the user's language
// is the bundle's localized information dictionary.
// String tables (type "strings", e.g. "Localizable.strings") hold one JSON
// object from keys to localized strings.
//
// Bundles the platform knows are the subdirectories (one level deep) of the
// bundle search path: the directories of $SORVEL_BUNDLE_PATH (colon
// separated), then $XDG_DATA_HOME/sorvel/bundles (or
// ~/.local/share/sorvel/bundles), then <install share dir>/bundles.
//
// Bundles are immutable after loading and may be used from any thread; every
// call is synchronous and reads the file system as needed (tables are not
// cached, so a changed file is seen at the next lookup).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/value.h"

namespace sv {

inline constexpr const char* kBundleInfoFileName = "bundle.json";
inline constexpr const char* kBundleIdentifierKey = "identifier";
inline constexpr const char* kBundleNameKey = "name";
inline constexpr const char* kBundleDisplayNameKey = "displayName";
inline constexpr const char* kBundleDevelopmentLanguageKey = "developmentLanguage";
inline constexpr const char* kLocalizedInfoKey = "localized";

class Bundle {
  public:
    // The bundle of the directory at `path`, or nullptr when no directory is
    // there. A directory without (or with an unreadable) bundle.json is a
    // bundle with an empty information dictionary.
    static std::shared_ptr<Bundle> bundleWithPath(const std::string& path);
    // The known bundle whose identifier is `identifier`, or nullptr.
    static std::shared_ptr<Bundle> bundleWithIdentifier(const std::string& identifier);
    // The innermost directory above `executablePath` that holds a
    // bundle.json, or nullptr.
    static std::shared_ptr<Bundle> bundleForExecutablePath(const std::string& executablePath);
    // The directories searched by bundleWithIdentifier, in order.
    static std::vector<std::string> searchPath();
    // Path of the install's share directory for this system
    // (<prefix>/share/sorvel): the one beside the installed program or
    // library that holds this code, else the configured one.
    static std::string installShareDirectory();

    const std::string& bundlePath() const { return path_; }
    std::optional<std::string> bundleIdentifier() const;
    const Value& infoDictionary() const { return info_; }
    // The localized entries for the user's preferred language (chosen as for
    // string tables), or nullopt when the bundle has none for it.
    std::optional<Value> localizedInfoDictionary() const;
    std::string developmentLocalization() const;
    // Languages with a "<lang>.lproj" directory.
    std::vector<std::string> localizations() const;

    // Path of the resource `name`.`type` (type may be empty) in
    // `subdirectory` (may be empty) of the given localization, or of the
    // unlocalized resources when `localization` is empty; nullopt when no
    // regular file is there.
    std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                               const std::string& subdirectory,
                                               const std::string& localization) const;
    // The string table `table` of a localization, or nullopt when missing or
    // not a JSON object.
    std::optional<Value> stringTable(const std::string& table,
                                     const std::string& localization) const;
    // Standard lookup: the localization is the first preferred language (or
    // its base language) that the bundle has, else the development language;
    // the key is looked up in that table, then in the development language's
    // table; when neither has it the result is `value` unless empty, else
    // `key`.
    std::string localizedStringForKey(const std::string& key, const std::string& value,
                                      const std::string& table) const;

  private:
    Bundle(std::string path, Value info) : path_(std::move(path)), info_(std::move(info)) {}
    std::string path_;
    Value info_;
};

// Reads a JSON object from a file (at most 4 MiB); nullopt when the file is
// missing, too large, malformed, nested more than 64 levels deep or not an
// object.
std::optional<Value> readDictionaryFromFile(const std::string& path);
// The same for text already read.
std::optional<Value> parseDictionary(std::string_view text);

}  // namespace sv
