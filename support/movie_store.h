// The temporary movie store: one flat private directory, "Library/Sorvel/"
// under the service user's home, holding finished recordings, trimmed copies
// and broadcast fragments. The store never falls back to a shared directory:
// without a home directory it has no path, and every operation on the store
// directory fails as for a missing directory (no space, nothing to list). Synchronous operations
// run on the caller's thread and may be called from any thread; removal runs on the
// background-priority shared queue, move and prefix deletion on the default-priority one, and their
// completions are called on that queue.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "platform/url.h"
#include "support/recording_errors.h"

namespace sv {

// Errors of file-system calls: this domain, errno as the code.
inline constexpr const char* kPOSIXErrorDomain = "org.sorvel.POSIXErrorDomain";
Error posixError(int err, const std::string& what);

class MovieStore {
  public:
    using Completion = std::function<void(OptionalError)>;
    using FreeSpaceProvider = std::function<std::optional<uint64_t>(const std::string& path)>;
    // The home directory of a user id in the password database, or nullopt
    // when the database has no entry (or no home) for it.
    using PasswordLookup = std::function<std::optional<std::string>(uid_t uid)>;
    using Clock = std::chrono::system_clock;

    // More than this many free bytes are needed to start a recording.
    static constexpr uint64_t kRequiredFreeBytes = 100000000;

    static MovieStore& shared();

    // The home directory under which the store lives, the first of: the one
    // set here (the daemon's --home; an empty string unsets it), $HOME, the
    // password database's entry for the effective uid (these two only when
    // they are absolute paths). Without any, an error (POSIX domain, ENOENT,
    // "cannot find a home directory for uid N").
    void setHomeDirectory(std::string home);
    Result<std::string> homeDirectory() const;
    // Replaces the getpwuid_r-based lookup (tests); nullptr restores it.
    void setPasswordLookup(PasswordLookup lookup);
    // Replaces the statvfs-based free-space reading (tests); nullptr restores it.
    void setFreeSpaceProvider(FreeSpaceProvider provider);

    // Absolute path of the store, ending in "/"; empty when there is no home
    // directory. No file-system access.
    std::string _srTempPath() const;
    // Creates the store if nothing exists at its path, with missing parents
    // (mode 0700 for each directory it creates).
    void _srSetupTempDirectory();
    // Size attribute of the store directory entry itself (not its contents);
    // an error when it cannot be read.
    Result<int64_t> _srSizeOfTempDir();
    int64_t _srDeleteAllTempFiles();
    // Removes entries whose modification is more than `ttl` seconds ago (all
    // with ttl 0); returns the bytes removed.
    int64_t _srDeleteFilesOlderThanTimeToLiveInSeconds(double ttl);
    void _srRemoveFile(const URL& url, Completion completion = nullptr);
    void _srMoveFileFromURL(const URL& from, const URL& to, Completion completion = nullptr);
    // Removes entries whose name begins with `prefix`, ignoring case and
    // diacritics; then calls `completion` (may be null) on that queue.
    void _srDeleteFilesWithPrefix(const std::string& prefix,
                                  std::function<void()> completion = nullptr);
    std::optional<Clock::time_point> _srGetCreationDateForFile(const URL& url);
    bool _srDeviceHasSufficientFreeSpaceForRecording();
    uint64_t _srDeviceFreeDiskSpace();

  private:
    mutable std::mutex mutex_;
    std::string home_;
    PasswordLookup passwordLookup_;
    FreeSpaceProvider freeSpace_;
};

// Folds case and Latin diacritics for prefix comparison ("É" -> "e").
std::string foldCaseAndDiacritics(const std::string& utf8);

}  // namespace sv
