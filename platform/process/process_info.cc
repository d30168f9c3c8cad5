#include "platform/process/process_info.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/value.h"

namespace sv {

int processExecutablePath(pid_t pid, char* buffer, size_t size) {
    if (pid <= 0 || !buffer || size == 0) return 0;
    size = std::min(size, kMaxProcessPathBytes);
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t n = readlink(link.c_str(), buffer, size);
    if (n <= 0 || size_t(n) >= size) return 0;  // a path that filled the buffer may be cut off
    return int(n);
}

std::optional<URL> enclosingBundleURL(const URL& executable) {
    std::string dir = executable.path;
    if (dir.empty() || dir[0] != '/') return std::nullopt;
    while (true) {
        size_t slash = dir.find_last_of('/');
        if (slash == std::string::npos) return std::nullopt;
        dir.resize(slash);
        std::string manifest = (dir.empty() ? std::string() : dir) + "/bundle.json";
        struct stat st {};
        if (stat(manifest.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            return URL::fileURLWithPath(dir.empty() ? "/" : dir);
        if (dir.empty()) return std::nullopt;
    }
}

std::optional<std::string> bundleIdentifierAtURL(const URL& bundle) {
    std::string manifest = bundle.path + (bundle.path.ends_with('/') ? "" : "/") + "bundle.json";
    struct stat st {};
    if (stat(manifest.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > (1 << 20))
        return std::nullopt;
    std::ifstream in(manifest, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    Value v = Value::parse(text.str(), nullptr, false);
    if (v.is_discarded()) return std::nullopt;
    return stringAt(v, "identifier");
}

}  // namespace sv
