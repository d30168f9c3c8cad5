#include "platform/system/bundle.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/system/languages.h"

namespace sv {
namespace fs = std::filesystem;

namespace {

constexpr std::uintmax_t kMaxDictionaryFileBytes = 4 * 1024 * 1024;
// Deeper values are refused: copying, comparing and printing a value
// recurse once per level, so a file of nothing but brackets would otherwise
// exhaust the stack of whoever uses it. As deep as CBOR values may nest.
constexpr int kMaxDictionaryDepth = 64;

bool isDirectory(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isRegularFile(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

std::optional<Value> readDictionaryFromFile(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
        std::uintmax_t(st.st_size) > kMaxDictionaryFileBytes)
        return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    return parseDictionary(text.str());
}

std::optional<Value> parseDictionary(std::string_view text) {
    bool tooDeep = false;
    // Returning false for the start of a nested value skips it whole, so
    // nothing of a too deep value is built before the parse is refused.
    Value v = Value::parse(
        text,
        [&tooDeep](int depth, Value::parse_event_t, Value&) {
            if (depth <= kMaxDictionaryDepth) return true;
            tooDeep = true;
            return false;
        },
        /*allow_exceptions=*/false);
    if (tooDeep || !v.is_object()) return std::nullopt;
    return v;
}

namespace {

// The directory of the file that holds this code: the executable, or the
// shared library an application loaded.
std::string directoryOfThisModule() {
    Dl_info info{};
    std::error_code ec;
    if (dladdr(reinterpret_cast<void*>(&directoryOfThisModule), &info) && info.dli_fname &&
        info.dli_fname[0] == '/') {
        auto path = fs::canonical(info.dli_fname, ec);
        if (!ec) return path.parent_path().string();
    }
    auto exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : exe.parent_path().string();
}

// An installed tree is found from where its programs are, so the prefix
// given at install time (or a package's) counts, not the configured one:
// <bindir>/sorveld, <libdir>/libsorvel-client.so and the bundles'
// executables (<share>/bundles/<bundle>/) each lead to <share>.
std::string findInstallShareDirectory() {
    const std::string module = directoryOfThisModule();
    if (!module.empty()) {
        for (const char* relative : {SV_SHARE_FROM_BINDIR, SV_SHARE_FROM_LIBDIR, "../.."}) {
            std::error_code ec;
            auto candidate = fs::weakly_canonical(fs::path(module) / relative, ec);
            if (!ec && isRegularFile((candidate / "framework" / kBundleInfoFileName).string()))
                return candidate.string();
        }
    }
    return SV_SHARE_DIR;
}

}  // namespace

std::string Bundle::installShareDirectory() {
    static const std::string directory = findInstallShareDirectory();
    return directory;
}

std::vector<std::string> Bundle::searchPath() {
    std::vector<std::string> dirs;
    if (const char* env = std::getenv("SORVEL_BUNDLE_PATH"); env && *env) {
        std::string list = env;
        for (size_t start = 0; start <= list.size();) {
            size_t end = list.find(':', start);
            if (end == std::string::npos) end = list.size();
            if (end > start) dirs.push_back(list.substr(start, end - start));
            start = end + 1;
        }
    }
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
        dirs.push_back(std::string(xdg) + "/sorvel/bundles");
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        dirs.push_back(std::string(home) + "/.local/share/sorvel/bundles");
    }
    dirs.push_back(installShareDirectory() + "/bundles");
    return dirs;
}

std::shared_ptr<Bundle> Bundle::bundleWithPath(const std::string& path) {
    if (path.empty() || !isDirectory(path)) return nullptr;
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    Value info = readDictionaryFromFile(p + "/" + kBundleInfoFileName).value_or(Value::object());
    return std::shared_ptr<Bundle>(new Bundle(std::move(p), std::move(info)));
}

std::shared_ptr<Bundle> Bundle::bundleWithIdentifier(const std::string& identifier) {
    if (identifier.empty()) return nullptr;
    for (const auto& dir : searchPath()) {
        std::error_code ec;
        fs::directory_iterator it(dir, ec), end;
        for (; !ec && it != end; it.increment(ec)) {
            std::string candidate = it->path().string();
            auto info = readDictionaryFromFile(candidate + "/" + kBundleInfoFileName);
            if (!info || stringAt(*info, kBundleIdentifierKey) != identifier) continue;
            return std::shared_ptr<Bundle>(new Bundle(std::move(candidate), std::move(*info)));
        }
    }
    return nullptr;
}

std::shared_ptr<Bundle> Bundle::bundleForExecutablePath(const std::string& executablePath) {
    if (executablePath.empty() || executablePath.front() != '/') return nullptr;
    fs::path dir = fs::path(executablePath).lexically_normal().parent_path();
    for (;;) {
        if (isRegularFile((dir / kBundleInfoFileName).string()))
            return bundleWithPath(dir.string());
        if (!dir.has_relative_path()) return nullptr;  // reached "/"
        dir = dir.parent_path();
    }
}

std::optional<std::string> Bundle::bundleIdentifier() const {
    return stringAt(info_, kBundleIdentifierKey);
}

std::string Bundle::developmentLocalization() const {
    return stringAt(info_, kBundleDevelopmentLanguageKey).value_or("en");
}

std::vector<std::string> Bundle::localizations() const {
    std::vector<std::string> out;
    std::error_code ec;
    fs::directory_iterator it(path_, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        const fs::path& p = it->path();
        if (p.extension() == ".lproj" && it->is_directory(ec)) out.push_back(p.stem().string());
    }
    return out;
}

std::optional<Value> Bundle::localizedInfoDictionary() const {
    const Value* localized = dictAt(info_, kLocalizedInfoKey);
    if (!localized) return std::nullopt;
    std::vector<std::string> available;
    for (const auto& [lang, entries] : localized->items())
        if (entries.is_object()) available.push_back(lang);
    std::string chosen =
        chooseLocalization(preferredLanguages(), available, developmentLocalization());
    const Value* entries = dictAt(*localized, chosen.c_str());
    if (!entries) return std::nullopt;
    return *entries;
}

std::optional<std::string> Bundle::pathForResource(const std::string& name, const std::string& type,
                                                   const std::string& subdirectory,
                                                   const std::string& localization) const {
    // Names come from callers, not from the file system: refuse anything
    // that could leave the bundle.
    for (const std::string* part : {&name, &type, &localization})
        if (part->find('/') != std::string::npos || *part == "..") return std::nullopt;
    if (name.empty() || subdirectory.find("..") != std::string::npos) return std::nullopt;
    std::string path = path_;
    if (!localization.empty()) path += "/" + localization + ".lproj";
    if (!subdirectory.empty()) path += "/" + subdirectory;
    path += "/" + name;
    if (!type.empty()) path += "." + type;
    if (!isRegularFile(path)) return std::nullopt;
    return path;
}

std::optional<Value> Bundle::stringTable(const std::string& table,
                                         const std::string& localization) const {
    auto path = pathForResource(table, "strings", "", localization);
    if (!path) return std::nullopt;
    return readDictionaryFromFile(*path);
}

std::string Bundle::localizedStringForKey(const std::string& key, const std::string& value,
                                          const std::string& table) const {
    std::string tableName = table.empty() ? "Localizable" : table;
    std::string development = developmentLocalization();
    std::string chosen = chooseLocalization(preferredLanguages(), localizations(), development);
    for (const std::string& loc : {chosen, development}) {
        if (auto strings = stringTable(tableName, loc)) {
            if (auto s = stringAt(*strings, key.c_str())) return *s;
        }
        if (loc == development) break;
    }
    return value.empty() ? key : value;
}

}  // namespace sv
