// Starting an extension's process inside a file-system sandbox: the process
// may use the whole file system except the directories it is denied (and
// what lies beneath them), enforced by the kernel (Landlock) for the process
// and everything it starts, so a descriptor handed to it is its only way to
// a file in there. Without Landlock in the kernel the process starts
// unconfined (logged once).
//
// The sandbox is a list of what the process may use, made when it starts:
// every entry beside the way down to a denied directory. The directories on
// that way (for the movie store: /, /home, the home directory, ~/Library)
// cannot be listed, and what appears directly in them after the start
// cannot be used; everything else, new or old, can.
//
// Any thread; the call returns once the new process has executed its
// program (or failed to).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/error.h"

namespace sv {

struct SandboxedSpawn {
    std::string executable;
    std::vector<std::string> environment;  // "NAME=value"
    // Becomes descriptor `targetFd` of the child (everything else of this
    // process is closed there; standard input reads /dev/null).
    int passFd = -1;
    int targetFd = 3;
    // Directories the process may not touch in any way.
    std::vector<std::string> deniedDirectories;
};

// The child's process identifier. It runs in a process group of its own,
// with default signal handling and an empty signal mask.
Result<pid_t> spawnSandboxed(const SandboxedSpawn& spawn);

// Whether the kernel confines processes (Landlock ABI version, 0 when not).
int fileSystemSandboxVersion();

}  // namespace sv
