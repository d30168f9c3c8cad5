#include "platform/extension/extension_sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/landlock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>

#include "platform/log.h"
#include "platform/unique_fd.h"

// Rights of newer kernels than the headers of the build machine may know.
#ifndef LANDLOCK_ACCESS_FS_REFER
#define LANDLOCK_ACCESS_FS_REFER (1ULL << 13)
#endif
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif

namespace sv {
namespace fs = std::filesystem;

namespace {

constexpr uint64_t kFileRights =
    LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_READ_FILE;
constexpr uint64_t kDirectoryRights =
    LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
    LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
    LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
    LANDLOCK_ACCESS_FS_MAKE_SYM;

// The rights this kernel knows, split by what a rule on a file may carry.
struct Rights {
    uint64_t file = 0, all = 0;
};
Rights rightsFor(int abi) {
    Rights r{kFileRights, kFileRights | kDirectoryRights};
    if (abi >= 2) r.all |= LANDLOCK_ACCESS_FS_REFER;
    if (abi >= 3) {
        r.file |= LANDLOCK_ACCESS_FS_TRUNCATE;
        r.all |= LANDLOCK_ACCESS_FS_TRUNCATE;
    }
    return r;
}

// Everything beside the way to each denied directory: the entries of every
// directory above a denied one, except those that are (or lead to) one.
std::vector<std::string> allowedPaths(const std::vector<std::string>& denied) {
    std::set<std::string> blocked, parents;
    for (const auto& d : denied) {
        std::error_code ec;
        fs::path p = fs::weakly_canonical(d, ec);
        if (ec || p.empty()) continue;
        for (fs::path a = p;; a = a.parent_path()) {
            blocked.insert(a.string());
            if (a != p) parents.insert(a.string());
            if (a == a.root_path()) break;
        }
    }
    std::vector<std::string> allowed;
    for (const auto& parent : parents) {
        std::error_code ec;
        for (fs::directory_iterator it(parent, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string entry = it->path().string();
            if (!blocked.count(entry)) allowed.push_back(entry);
        }
    }
    return allowed;
}

// In the child, between fork and exec: raw system calls only (nothing that
// allocates, locks, or goes through a sanitizer's interceptors). Returns an
// errno value on failure.
long sys(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0) {
    return ::syscall(number, a, b, c, d, e);
}

int confine(const std::vector<const char*>& allowed, const Rights& rights) {
    landlock_ruleset_attr attr{};
    attr.handled_access_fs = rights.all;
    const int ruleset = int(sys(SYS_landlock_create_ruleset, long(&attr), long(sizeof attr), 0));
    if (ruleset < 0) return errno;
    for (const char* path : allowed) {
        const int fd = int(sys(SYS_openat, AT_FDCWD, long(path), O_PATH | O_CLOEXEC));
        if (fd < 0) continue;  // gone meanwhile
        struct stat st {};
        landlock_path_beneath_attr rule{};
        rule.parent_fd = fd;
        rule.allowed_access =
            sys(SYS_fstat, fd, long(&st)) == 0 && S_ISDIR(st.st_mode) ? rights.all : rights.file;
        sys(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, long(&rule), 0);
        sys(SYS_close, fd);
    }
    if (sys(SYS_prctl, PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return errno;
    if (sys(SYS_landlock_restrict_self, ruleset, 0) != 0) return errno;
    sys(SYS_close, ruleset);
    return 0;
}

// The kernel's form of a signal action (for rt_sigaction).
struct KernelSigaction {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    uint64_t mask;
};

}  // namespace

int fileSystemSandboxVersion() {
    static const int version = [] {
        const long v =
            ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
        return v < 0 ? 0 : int(v);
    }();
    return version;
}

Result<pid_t> spawnSandboxed(const SandboxedSpawn& spawn) {
    // Everything the child needs is made here, before the fork.
    const int abi = fileSystemSandboxVersion();
    std::vector<std::string> allowedStorage;
    if (!spawn.deniedDirectories.empty()) {
        if (abi > 0) {
            allowedStorage = allowedPaths(spawn.deniedDirectories);
        } else {
            static log::RateLimit limit;
            log::error(limit,
                       "extensions run without a file-system sandbox: the kernel has no Landlock");
        }
    }
    std::vector<const char*> allowed;
    for (const auto& p : allowedStorage) allowed.push_back(p.c_str());
    const Rights rights = rightsFor(abi);
    const bool sandboxed = abi > 0 && !spawn.deniedDirectories.empty();
    std::vector<char*> envp;
    std::vector<std::string> env = spawn.environment;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string exe = spawn.executable;
    char* argv[] = {exe.data(), nullptr};
    // The executable's failure reaches the parent through this pipe; a
    // successful exec closes it.
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return Error::make("org.sorvel.ExtensionErrorDomain", 1,
                           std::string("no pipe: ") + std::strerror(errno));
    UniqueFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    // Above every descriptor the child keeps, so the moves below never
    // overwrite one another.
    const int report = writeEnd.get(), pass = spawn.passFd, target = spawn.targetFd;
    struct rlimit limit {};
    const int high = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 1003
                         ? int(limit.rlim_cur) - 3
                         : 1000;
    if (high <= target + 1)
        return Error::make("org.sorvel.ExtensionErrorDomain", 1, "too few descriptors allowed");

    const pid_t pid = ::_Fork();
    if (pid < 0)
        return Error::make("org.sorvel.ExtensionErrorDomain", 1,
                           std::string("cannot fork: ") + std::strerror(errno));
    if (pid == 0) {
        // Caught signals return to their defaults with the exec; ignored
        // ones (SIGPIPE, in a service) are reset here.
        KernelSigaction dfl{SIG_DFL, 0, nullptr, 0};
        for (int s = 1; s < 65; ++s)
            if (s != SIGKILL && s != SIGSTOP) sys(SYS_rt_sigaction, s, long(&dfl), 0, 8);
        const uint64_t none = 0;
        sys(SYS_rt_sigprocmask, SIG_SETMASK, long(&none), 0, 8);
        sys(SYS_setpgid, 0, 0);
        // The report descriptor and the passed one move above the target
        // first, so neither is lost to the moves that follow.
        if (sys(SYS_dup3, report, high, O_CLOEXEC) < 0) sys(SYS_exit_group, 127);
        auto fail = [high](int error) {
            sys(SYS_write, high, long(&error), long(sizeof error));
            sys(SYS_exit_group, 127);
        };
        if (pass >= 0 && sys(SYS_dup3, pass, high + 1, 0) < 0) fail(errno);
        const int devNull = int(sys(SYS_openat, AT_FDCWD, long("/dev/null"), O_RDONLY));
        if (devNull < 0 || (devNull != STDIN_FILENO && sys(SYS_dup3, devNull, STDIN_FILENO, 0) < 0))
            fail(errno);
        if (pass >= 0 && sys(SYS_dup3, high + 1, target, 0) < 0) fail(errno);
        // Nothing else of this process reaches the extension.
        sys(SYS_close_range, std::max(target, 2) + 1, high - 1, 0);
        sys(SYS_close_range, high + 1, long(~0u), 0);
        if (sandboxed)
            if (int e = confine(allowed, rights)) fail(e);
        sys(SYS_execve, long(exe.c_str()), long(argv), long(envp.data()));
        fail(errno);
    }
    writeEnd.reset();
    int childError = 0;
    ssize_t n;
    while ((n = ::read(readEnd.get(), &childError, sizeof childError)) < 0 && errno == EINTR) {
    }
    if (n == sizeof childError) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return Error::make("org.sorvel.ExtensionErrorDomain", 1,
                           "cannot start " + spawn.executable + ": " + std::strerror(childError));
    }
    return pid;
}

}  // namespace sv
