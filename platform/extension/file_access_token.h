// Read-only file-access tokens: access to one file for another process. A
// token is a text that names one grant and stands for a descriptor of the
// file opened read-only; the descriptor travels with the request that
// carries the token (AppExtension::beginExtensionRequestWithInputItems), so
// the receiving process can read that file through it, and the text alone
// gives nothing. The token class is a reverse-DNS identifier followed by
// ".read-only".
//
// Release: the issuer owns the token; dropping the last reference closes the
// descriptor. Immutable after issue; any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/ipc/wire.h"

namespace sv {

inline constexpr const char* kReadOnlyTokenClassSuffix = ".read-only";

class FileAccessToken {
  public:
    // Opens `path` read-only (a regular file, not through a final symbolic
    // link); null when it cannot, or when `tokenClass` does not end in
    // ".read-only".
    static std::shared_ptr<FileAccessToken> issueForPath(const std::string& path,
                                                         const std::string& tokenClass);

    // "<class>;<32 hex digits>".
    const std::string& string() const { return string_; }
    const std::string& path() const { return path_; }
    // The read-only descriptor (shared; still owned by the token).
    const ipc::FileToken& descriptor() const { return descriptor_; }

  private:
    FileAccessToken(std::string string, std::string path, ipc::FileToken descriptor)
        : string_(std::move(string)), path_(std::move(path)), descriptor_(std::move(descriptor)) {}
    std::string string_, path_;
    ipc::FileToken descriptor_;
};

}  // namespace sv
