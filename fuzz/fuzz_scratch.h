// What the fuzz targets share: a NaN-tolerant comparison of decoded values,
// and a private scratch directory for targets whose decoders read files:
// under /dev/shm when it is writable (no disk I/O per input), else under
// $TMPDIR or /tmp. Created on first use, removed when the process exits.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/value.h"

namespace sv::fuzz {

// Equal, with NaN equal to NaN (a NaN never compares equal to itself).
inline bool sameValue(const Value& a, const Value& b) {
    using H = Value::error_handler_t;
    return a == b || a.dump(-1, ' ', false, H::replace) == b.dump(-1, ' ', false, H::replace);
}

inline const std::string& scratchDirectory() {
    // Never destroyed: the exit handler below still needs it.
    static const std::string* dir = [] {
        std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm"
                           : std::getenv("TMPDIR")       ? std::getenv("TMPDIR")
                                                         : "/tmp";
        std::string tmpl = base + "/sv-fuzz-XXXXXX";
        if (!mkdtemp(tmpl.data())) std::abort();
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(scratchDirectory(), ec);
        });
        return new std::string(tmpl);
    }();
    return *dir;
}

// Replaces the file at `path` (creating its directory) with `size` bytes.
inline void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out.write(reinterpret_cast<const char*>(data), std::streamsize(size))) std::abort();
}

inline void writeFile(const std::string& path, const std::string& text) {
    writeFile(path, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

}  // namespace sv::fuzz
