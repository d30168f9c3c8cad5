// The temporary movie store: one flat private directory, "Library/Sorvel/"
// under the service user's home, holding finished recordings, trimmed copies
// and broadcast fragments. Synchronous operations run on the caller's thread
// and may be called from any thread; removal runs on the background-priority
// shared queue, move and prefix deletion on the default-priority one, and
// their completions are called on that queue.
#pragma once

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
    using Clock = std::chrono::system_clock;

    // More than this many free bytes are needed to start a recording.
    static constexpr uint64_t kRequiredFreeBytes = 100000000;

    static MovieStore& shared();

    // The home directory under which the store lives; $HOME unless set. The
    // daemon's home override and tests set it before the store is used.
    void setHomeDirectory(std::string home);
    std::string homeDirectory() const;
    // Replaces the statvfs-based free-space reading (tests); nullptr restores it.
    void setFreeSpaceProvider(FreeSpaceProvider provider);

    // Absolute path of the store, ending in "/". No file-system access.
    std::string _srTempPath() const;
    // Creates the store if nothing exists at its path, with missing parents
    // (mode 0700 for each directory it creates).
    void _srSetupTempDirectory();
    // Size attribute of the store directory entry itself (not its contents);
    // 0 with `error` set when it cannot be read.
    int64_t _srSizeOfTempDir(OptionalError* error = nullptr);
    int64_t _srDeleteAllTempFiles();
    // Removes entries whose modification is more than `ttl` seconds ago (all
    // with ttl 0); returns the bytes removed.
    int64_t _srDeleteFilesOlderThanTimeToLiveInSeconds(double ttl);
    void _srRemoveFile(const URL& url, Completion completion = nullptr);
    void _srMoveFileFromURL(const URL& from, const URL& to, Completion completion = nullptr);
    // Removes entries whose name begins with `prefix`, ignoring case and
    // diacritics.
    void _srDeleteFilesWithPrefix(const std::string& prefix);
    std::optional<Clock::time_point> _srGetCreationDateForFile(const URL& url);
    bool _srDeviceHasSufficientFreeSpaceForRecording();
    uint64_t _srDeviceFreeDiskSpace();

  private:
    mutable std::mutex mutex_;
    std::string home_;
    FreeSpaceProvider freeSpace_;
};

// Folds case and Latin diacritics for prefix comparison ("É" -> "e").
std::string foldCaseAndDiacritics(const std::string& utf8);

}  // namespace sv
