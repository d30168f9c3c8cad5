#include "support/movie_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {
namespace fs = std::filesystem;

Error posixError(int err, const std::string& what) {
    Value info = Value::object();
    info[kLocalizedDescriptionKey] = what + ": " + std::strerror(err);
    return Error{kPOSIXErrorDomain, err, std::move(info)};
}

MovieStore& MovieStore::shared() {
    static MovieStore* store = new MovieStore;
    return *store;
}

namespace {

std::optional<std::string> passwordDatabaseHome(uid_t uid) {
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size_t(hint > 0 ? hint : 4096));
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        int err = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (err == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (err != 0 || !found || !found->pw_dir) return std::nullopt;
        return std::string(found->pw_dir);
    }
}

bool isAbsolute(const std::optional<std::string>& path) {
    return path && !path->empty() && path->front() == '/';
}

}  // namespace

void MovieStore::setHomeDirectory(std::string home) {
    std::lock_guard lock(mutex_);
    home_ = std::move(home);
}

void MovieStore::setPasswordLookup(PasswordLookup lookup) {
    std::lock_guard lock(mutex_);
    passwordLookup_ = std::move(lookup);
}

Result<std::string> MovieStore::homeDirectory() const {
    PasswordLookup lookup;
    {
        std::lock_guard lock(mutex_);
        if (!home_.empty()) return home_;
        lookup = passwordLookup_;
    }
    if (const char* h = std::getenv("HOME"); h && h[0] == '/') return std::string(h);
    const uid_t uid = geteuid();
    auto home = lookup ? lookup(uid) : passwordDatabaseHome(uid);
    if (isAbsolute(home)) return *home;
    return Error::make(kPOSIXErrorDomain, ENOENT,
                       "cannot find a home directory for uid " + std::to_string(uid));
}

void MovieStore::setFreeSpaceProvider(FreeSpaceProvider provider) {
    std::lock_guard lock(mutex_);
    freeSpace_ = std::move(provider);
}

std::string MovieStore::_srTempPath() const {
    auto found = homeDirectory();
    if (!found) return {};
    std::string home = std::move(*found);
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    return home + "/Library/Sorvel/";
}

void MovieStore::_srSetupTempDirectory() {
    log::info("_srSetupTempDirectory");
    std::string path = _srTempPath();
    if (path.empty()) {
        log::console("error: %@", homeDirectory().error());
        log::error("error creating temp directory");
        return;
    }
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) return;  // anything there counts as existing
    // Linux homes have no "Library": create each missing component, private.
    std::string partial;
    int err = 0;
    for (const auto& part : fs::path(path)) {
        if (part.empty()) continue;
        partial = (partial.empty() || partial == "/") && part == "/" ? "/"
                  : partial == "/"                                   ? "/" + part.string()
                                   : partial + "/" + part.string();
        if (partial == "/") continue;
        if (mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) {
            err = errno;
            break;
        }
    }
    if (err != 0) {
        log::console("error: %@", posixError(err, "mkdir " + partial));
        log::error("error creating temp directory");
    }
}

Result<int64_t> MovieStore::_srSizeOfTempDir() {
    const std::string path = _srTempPath();
    struct stat st {};
    if (path.empty()) return homeDirectory().error();
    if (stat(path.c_str(), &st) != 0) return posixError(errno, "stat");
    return static_cast<int64_t>(st.st_size);
}

int64_t MovieStore::_srDeleteAllTempFiles() {
    return _srDeleteFilesOlderThanTimeToLiveInSeconds(0.0);
}

namespace {

void reportPurgeError(const Error& e) {
    log::error("error in _svRemoveFile_srDeleteFilesOlderThanTimeToLiveInSeconds, error code: %i",
               e.code);
    log::console("error = %@", e);
}

Result<std::vector<std::string>> listNames(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (!d) return posixError(errno, "opendir " + dir);
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        if (!std::strcmp(e->d_name, ".") || !std::strcmp(e->d_name, "..")) continue;
        names.emplace_back(e->d_name);
    }
    closedir(d);
    return names;
}

OptionalError removeItem(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
    if (ec) return posixError(ec.value(), "remove " + path);
    return std::nullopt;
}

}  // namespace

int64_t MovieStore::_srDeleteFilesOlderThanTimeToLiveInSeconds(double ttl) {
    log::info("_srDeleteFilesOlderThanTimeToLiveInSeconds: %i",
              std::isfinite(ttl) ? static_cast<int32_t>(std::trunc(ttl)) : 0);
    std::string dir = _srTempPath();
    auto names =
        dir.empty() ? Result<std::vector<std::string>>(homeDirectory().error()) : listNames(dir);
    if (!names) {
        reportPurgeError(names.error());
        return 0;
    }
    int64_t total = 0;
    for (const auto& name : *names) {
        std::string path = dir + "/" + name;
        struct stat st {};
        bool haveAttrs = lstat(path.c_str(), &st) == 0;
        if (!haveAttrs) reportPurgeError(posixError(errno, "stat " + path));
        bool old = true;  // no attributes: older than any time to live
        if (haveAttrs) {
            auto mtime = Clock::time_point(std::chrono::seconds(st.st_mtim.tv_sec) +
                                           std::chrono::nanoseconds(st.st_mtim.tv_nsec));
            double age = std::chrono::duration<double>(Clock::now() - mtime).count();
            old = age > ttl;
        }
        if (ttl == 0.0 || old) {
            log::info("deleting old file");
            if (auto err = removeItem(path)) {
                reportPurgeError(*err);
            } else if (haveAttrs) {
                total += static_cast<int64_t>(st.st_size);
            }
        }
    }
    return total;
}

void MovieStore::_srRemoveFile(const URL& url, Completion completion) {
    DispatchQueue::global(QueuePriority::Background)->async([path = url.path, completion] {
        OptionalError error;
        struct stat st {};
        if (lstat(path.c_str(), &st) == 0) {
            error = removeItem(path);
            if (error) log::info("_svRemoveFile error: %i", error->code);
        }
        if (completion) completion(error);
    });
}

void MovieStore::_srMoveFileFromURL(const URL& from, const URL& to, Completion completion) {
    DispatchQueue::global(QueuePriority::Default)->async([from, to, completion] {
        struct stat st {};
        if (lstat(to.path.c_str(), &st) == 0) removeItem(to.path);
        OptionalError error;
        std::error_code ec;
        fs::rename(from.path, to.path, ec);
        if (ec) {
            error = posixError(ec.value(), "move " + from.path);
            log::error("_svMoveFileFromURL error: %i", error->code);
        }
        if (completion) completion(error);
    });
}

void MovieStore::_srDeleteFilesWithPrefix(const std::string& prefix,
                                          std::function<void()> completion) {
    std::string dir = _srTempPath();
    DispatchQueue::global(QueuePriority::Default)->async([dir, prefix, completion] {
        if (dir.empty()) {
            if (completion) completion();
            return;
        }
        auto names = listNames(dir);
        if (!names) {
            if (completion) completion();
            return;
        }
        std::string folded = foldCaseAndDiacritics(prefix);
        for (const auto& name : *names) {
            if (foldCaseAndDiacritics(name).compare(0, folded.size(), folded) != 0) continue;
            if (auto err = removeItem(dir + "/" + name))
                log::error("_svDeleteFilesWithPrefix error: %i", err->code);
        }
        if (completion) completion();
    });
}

std::optional<MovieStore::Clock::time_point> MovieStore::_srGetCreationDateForFile(const URL& url) {
    struct statx sx {};
    if (statx(AT_FDCWD, url.path.c_str(), 0, STATX_BTIME | STATX_MTIME, &sx) != 0)
        return std::nullopt;
    // File systems without a birth time report the modification time instead.
    const auto& t = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_mtime;
    return Clock::time_point(std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec));
}

uint64_t MovieStore::_srDeviceFreeDiskSpace() {
    FreeSpaceProvider provider;
    {
        std::lock_guard lock(mutex_);
        provider = freeSpace_;
    }
    std::string path = _srTempPath();
    if (path.empty()) return 0;  // nowhere to record
    if (provider) return provider(path).value_or(0);
    struct statvfs vfs {};
    if (statvfs(path.c_str(), &vfs) != 0) return 0;
    return uint64_t(vfs.f_bavail) * uint64_t(vfs.f_frsize);
}

bool MovieStore::_srDeviceHasSufficientFreeSpaceForRecording() {
    return _srDeviceFreeDiskSpace() > kRequiredFreeBytes;
}

std::string foldCaseAndDiacritics(const std::string& s) {
    // Base letters of U+00C0..U+017F; '\0' keeps the character as it is.
    static const char kLatin1[] =
        "aaaaaaaceeeeiiii\0nooooo\0ouuuuy\0\0aaaaaaaceeeeiiii\0nooooo\0ouuuuy\0y";
    static const char kExtA[] =
        "aaaaaaccccccccddddeeeeeeeeeegggggggghhhhiiiiiiiiii\0\0jjkk\0llllllllllnnnnnn\0\0\0oooooo"
        "\0\0rrrrrrssssssssttttttuuuuuuuuuuuuwwyyyzzzzzz\0";
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            out += static_cast<char>(std::tolower(c));
            ++i;
            continue;
        }
        if ((c & 0xE0) == 0xC0 && i + 1 < s.size()) {
            unsigned cp = ((c & 0x1Fu) << 6) | (static_cast<unsigned char>(s[i + 1]) & 0x3Fu);
            char base = 0;
            if (cp >= 0xC0 && cp <= 0xFF)
                base = kLatin1[cp - 0xC0];
            else if (cp >= 0x100 && cp <= 0x17F)
                base = kExtA[cp - 0x100];
            if (base) {
                out += base;
            } else {
                out.append(s, i, 2);
            }
            i += 2;
            continue;
        }
        out += s[i++];
    }
    return out;
}

}  // namespace sv
