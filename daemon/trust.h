// Who the daemon trusts, and who a connected process is.
//
// SVProcessIdentity: the executable of the process that made a connection,
// read once at acceptance through a process descriptor (pidfd) taken from
// the socket itself (SO_PEERPIDFD; pidfd_open of the peer's pid on older
// kernels). The descriptor names the process, not its number: when the
// process has exited and its number was given to another one before the
// executable was read, the check fails and the connection has no identity.
//
// SVTrustedExecutables: the executables that may register as the consent
// agent and start a system recording without asking the user. They are
// the project's own consent agent (the `sorvel` executable built or
// installed beside this daemon, found from the daemon's own executable), the
// absolute paths listed in the trusted-agents file (one a line, "#"
// comments; only taken when the file and its directory belong to root and
// nobody else may write them), and those named with the daemon's
// --trusted-agent option (tests). Executables are compared by device and
// inode, so a link, a copy or a bind mount of a path counts for what it is.
// An interpreter (a shell, python, perl, the dynamic loader, ...) is never
// trusted, listed or not: whatever script it runs would be.
//
// Bundle manifests: bundleIdentityForExecutable() takes an application's
// identifier from the bundle.json above its executable only when nobody but
// the bundle's installer (the owner of bundle.json) or root can change the
// bundle: bundle.json, the bundle directory and every directory above it
// belong to the installer or root and are writable by no one else
// (a directory open to all with the sticky bit, like /tmp, counts as
// closed, as only its entries' owners may replace them). A bundle below a
// directory named with the daemon's --trusted-bundle-dir option skips the
// check for that directory and those above it. An identifier that the
// platform knows from the bundle search path is taken only from the bundle
// it knows it by: a copied manifest elsewhere does not carry it.
//
// Threads: immutable after creation; any thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace sv {

inline constexpr const char* kTrustedAgentsFile = "/etc/sorvel/trusted-agents";

struct SVProcessIdentity {
    pid_t pid = 0;
    std::string executable;  // the path the kernel reports
    dev_t device = 0;
    ino_t inode = 0;

    // The identity of the peer process of an accepted socket, described by
    // `pidfd` (a descriptor of that process); nullopt when its executable
    // cannot be read or the process is gone. Reads the file system.
    static std::optional<SVProcessIdentity> ofProcess(pid_t pid, int pidfd);
};

class SVTrustedExecutables {
  public:
    struct Options {
        // Executables trusted besides the agent beside the daemon and the
        // file's entries.
        std::vector<std::string> executables;
        // Where the list is read from (kTrustedAgentsFile; tests may name
        // another, which must then belong to root just the same).
        std::string listFile = kTrustedAgentsFile;
        // Directories whose bundles are taken at their manifests' word.
        std::vector<std::string> trustedBundleDirectories;
    };
    static std::shared_ptr<const SVTrustedExecutables> create(Options options);

    bool isTrusted(const SVProcessIdentity& identity) const;
    // The bundle identifier of the application `executable` belongs to, or
    // "" (with the reason logged once per call) when it lies in no bundle
    // or its manifest is not trusted to name it.
    std::string bundleIdentityForExecutable(const std::string& executable) const;

    // Whether `path` names an interpreter by its file name, or is a script.
    static bool isInterpreter(const std::string& path);

  private:
    SVTrustedExecutables() = default;
    void add(const std::string& path, const char* source);
    bool directoryTrusted(const std::string& dir) const;

    struct Entry {
        std::string path;
        dev_t device;
        ino_t inode;
    };
    std::vector<Entry> entries_;
    std::vector<std::string> bundleDirectories_;
};

}  // namespace sv
