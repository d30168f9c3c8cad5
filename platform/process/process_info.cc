#include "platform/process/process_info.h"

#include <unistd.h>

#include <algorithm>

#include "platform/system/bundle.h"

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
    auto bundle = Bundle::bundleForExecutablePath(executable.path);
    if (!bundle) return std::nullopt;
    return URL::fileURLWithPath(bundle->bundlePath());
}

}  // namespace sv
