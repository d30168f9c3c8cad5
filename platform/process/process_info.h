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

// A bundle is a directory that holds "bundle.json"; its "identifier" names
// the application or extension. Returns the innermost bundle directory that
// encloses `executable` (walking up from the file's directory), or nullopt.
std::optional<URL> enclosingBundleURL(const URL& executable);

// The "identifier" of the bundle at `bundle`, or nullopt when its bundle.json
// is missing, unreadable, larger than 1 MiB or has no text identifier.
std::optional<std::string> bundleIdentifierAtURL(const URL& bundle);

}  // namespace sv
