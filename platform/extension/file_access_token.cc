#include "platform/extension/file_access_token.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <random>

#include "platform/log.h"

namespace sv {

namespace {

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string randomHex() {
    std::random_device rd;
    char text[33];
    std::snprintf(text, sizeof text, "%08x%08x%08x%08x", rd(), rd(), rd(), rd());
    return text;
}

}  // namespace

std::shared_ptr<FileAccessToken> FileAccessToken::issueForPath(const std::string& path,
                                                               const std::string& tokenClass) {
    if (path.empty() || !endsWith(tokenClass, kReadOnlyTokenClassSuffix) ||
        tokenClass.size() == std::string(kReadOnlyTokenClassSuffix).size())
        return nullptr;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
    if (fd < 0) return nullptr;
    auto descriptor = ipc::FileToken::adopt(fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;  // closes fd
    return std::shared_ptr<FileAccessToken>(
        new FileAccessToken(tokenClass + ";" + randomHex(), path, std::move(descriptor)));
}

}  // namespace sv
