// Information about processes: the executable of a process identifier and
// the bundle that encloses an executable. Thread-safe, synchronous.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "platform/url.h"

namespace sv {

// Largest executable path read for a process.
inline constexpr size_t kMaxProcessPathBytes = 4096;

// Reads the executable path of `pid` (from /proc/<pid>/exe) into `buffer` of
// `size` bytes (at most kMaxProcessPathBytes are used) and returns its length
// in bytes, not NUL-terminated; 0 when the process does not exist, is not
// ours to inspect, or the path does not fit.
int processExecutablePath(pid_t pid, char* buffer, size_t size);

// The URL of the innermost bundle directory (one holding "bundle.json",
// platform/system/bundle.h) above `executable`, or nullopt. Open it with
// Bundle::bundleWithPath.
std::optional<URL> enclosingBundleURL(const URL& executable);

}  // namespace sv
