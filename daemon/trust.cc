#include "daemon/trust.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

#include "platform/log.h"
#include "platform/process/process_info.h"
#include "platform/system/bundle.h"

namespace sv {
namespace fs = std::filesystem;

namespace {

// Longest line taken from the trusted-agents file.
constexpr size_t kMaxListLineBytes = 4096;

bool writableByOthers(const struct stat& st) {
    return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// A directory that others may write but only entries' owners may rename in.
bool stickyDirectory(const struct stat& st) {
    return S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0;
}

std::string ownPathRelative(const char* relative) {
    char self[kMaxProcessPathBytes];
    int n = processExecutablePath(getpid(), self, sizeof self);
    if (n <= 0 || !relative || !*relative) return {};
    return (fs::path(std::string(self, size_t(n))).parent_path() / relative)
        .lexically_normal()
        .string();
}

}  // namespace

std::optional<SVProcessIdentity> SVProcessIdentity::ofProcess(pid_t pid, int pidfd) {
    if (pid <= 0 || pidfd < 0) return std::nullopt;
    SVProcessIdentity id;
    id.pid = pid;
    char path[kMaxProcessPathBytes];
    int n = processExecutablePath(pid, path, sizeof path);
    if (n <= 0) return std::nullopt;
    id.executable.assign(path, size_t(n));
    struct stat st {};
    if (stat(("/proc/" + std::to_string(pid) + "/exe").c_str(), &st) != 0) return std::nullopt;
    id.device = st.st_dev;
    id.inode = st.st_ino;
    // Still the process that connected: had it ended, its number could have
    // named another process while the executable was read.
    if (syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) != 0) return std::nullopt;
    return id;
}

bool SVTrustedExecutables::isInterpreter(const std::string& path) {
    static const std::regex names(
        "(python|pypy|perl|ruby|node|nodejs|deno|bun|lua|luajit|php|tclsh|wish|java|gjs|guile|"
        "Rscript|R|awk|gawk|mawk|busybox|env|sh|bash|dash|zsh|ksh|mksh|fish|csh|tcsh|rbash|"
        "ld-linux.*|ld|ld\\.so)[-0-9.]*");
    if (std::regex_match(fs::path(path).filename().string(), names)) return true;
    std::ifstream in(path, std::ios::binary);
    char magic[2] = {};
    return in.read(magic, 2) && magic[0] == '#' && magic[1] == '!';
}

void SVTrustedExecutables::add(const std::string& path, const char* source) {
    if (path.empty()) return;
    if (path.front() != '/') {
        log::error("sorveld: trusted agent %@ (%@) is not an absolute path; ignored", path, source);
        return;
    }
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        log::debug("sorveld: trusted agent %@ (%@) is no file here; ignored", path, source);
        return;
    }
    std::error_code ec;
    const std::string resolved = fs::canonical(path, ec).string();
    if (isInterpreter(ec ? path : resolved)) {
        log::error("sorveld: %@ (%@) is an interpreter or a script; never trusted by itself", path,
                   source);
        return;
    }
    entries_.push_back({ec ? path : resolved, st.st_dev, st.st_ino});
    log::info("sorveld: trusted consent agent %@ (%@)", entries_.back().path, source);
}

std::shared_ptr<const SVTrustedExecutables> SVTrustedExecutables::create(Options options) {
    std::shared_ptr<SVTrustedExecutables> t(new SVTrustedExecutables);
    // The project's own agent, as built beside this daemon or installed
    // with it.
    t->add(ownPathRelative(SV_AGENT_FROM_DAEMON_BUILD), "built beside the daemon");
    t->add(ownPathRelative(SV_AGENT_FROM_DAEMON_INSTALL), "installed with the daemon");
    // The list only root may write.
    struct stat file {
    }, dir{};
    const std::string list = options.listFile;
    if (stat(list.c_str(), &file) == 0) {
        const std::string parent = fs::path(list).parent_path().string();
        if (stat(parent.c_str(), &dir) != 0 || file.st_uid != 0 || dir.st_uid != 0 ||
            writableByOthers(file) || writableByOthers(dir) || !S_ISREG(file.st_mode)) {
            log::error(
                "sorveld: %@ is ignored: it and its directory must belong to root and be "
                "writable by root only",
                list);
        } else {
            std::ifstream in(list);
            std::string line;
            while (std::getline(in, line)) {
                if (line.size() > kMaxListLineBytes) continue;
                line.erase(0, line.find_first_not_of(" \t"));
                line.erase(line.find_last_not_of(" \t\r") + 1);
                if (line.empty() || line.front() == '#') continue;
                t->add(line, list.c_str());
            }
        }
    }
    for (const auto& e : options.executables) t->add(e, "--trusted-agent");
    for (const auto& d : options.trustedBundleDirectories) {
        std::error_code ec;
        auto c = fs::canonical(d, ec);
        if (ec) {
            log::error("sorveld: --trusted-bundle-dir %@: no such directory; ignored", d);
            continue;
        }
        t->bundleDirectories_.push_back(c.string());
    }
    return t;
}

bool SVTrustedExecutables::isTrusted(const SVProcessIdentity& identity) const {
    if (isInterpreter(identity.executable)) return false;
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) {
        if (e.device == identity.device && e.inode == identity.inode) return true;
        // The file at a trusted path now (an agent rebuilt or upgraded since
        // the daemon started); whoever may replace it there is trusted anyway.
        struct stat st {};
        return stat(e.path.c_str(), &st) == 0 && st.st_dev == identity.device &&
               st.st_ino == identity.inode;
    });
}

bool SVTrustedExecutables::directoryTrusted(const std::string& dir) const {
    for (const auto& trusted : bundleDirectories_) {
        if (dir == trusted) return true;
        if (dir.size() > trusted.size() && dir.compare(0, trusted.size(), trusted) == 0 &&
            (trusted == "/" || dir[trusted.size()] == '/'))
            return true;
    }
    return false;
}

std::string SVTrustedExecutables::bundleIdentityForExecutable(const std::string& executable) const {
    auto bundle = Bundle::bundleForExecutablePath(executable);
    if (!bundle) return {};
    std::string id = bundle->bundleIdentifier().value_or("");
    if (id.empty()) return {};
    std::error_code ec;
    const fs::path bundleDir = fs::canonical(bundle->bundlePath(), ec);
    if (ec) return {};
    // Nobody but the installer (or root) may change the manifest or move
    // another one into its place.
    struct stat manifest {};
    const std::string manifestPath = (bundleDir / kBundleInfoFileName).string();
    if (lstat(manifestPath.c_str(), &manifest) != 0 || !S_ISREG(manifest.st_mode)) return {};
    const uid_t installer = manifest.st_uid;
    auto untrusted = [&](const std::string& what) {
        static log::RateLimit limit;
        log::error(limit,
                   "sorveld: the bundle %@ of %@ is not trusted to name %@: %@; taken as no bundle",
                   bundleDir.string(), executable, id, what);
        return std::string();
    };
    if (writableByOthers(manifest) && !directoryTrusted(bundleDir.string()))
        return untrusted(manifestPath + " is writable by others than its owner");
    for (fs::path dir = bundleDir;; dir = dir.parent_path()) {
        if (directoryTrusted(dir.string())) break;
        struct stat st {};
        if (stat(dir.c_str(), &st) != 0) return untrusted("cannot read " + dir.string());
        if (st.st_uid != installer && st.st_uid != 0)
            return untrusted(dir.string() + " belongs to another user");
        if (writableByOthers(st) && !stickyDirectory(st))
            return untrusted(dir.string() + " is writable by others than its owner");
        if (!dir.has_relative_path()) break;
    }
    // A known identifier comes only from the bundle the platform knows.
    if (auto known = Bundle::bundleWithIdentifier(id)) {
        auto knownDir = fs::canonical(known->bundlePath(), ec);
        if (ec || knownDir != bundleDir)
            return untrusted("that identifier belongs to " + known->bundlePath());
    }
    return id;
}

}  // namespace sv
