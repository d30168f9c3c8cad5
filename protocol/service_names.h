// The names under which the daemon offers its services (sockets in the IPC
// runtime directory). Applications connect to kDaemonServiceName; the
// operating system's side (lock screen, storage service, consent agent)
// connects to kShellServiceName.
#pragma once

namespace sv {

inline constexpr const char* kDaemonServiceName = "org.sorvel.sorveld";
inline constexpr const char* kShellServiceName = "org.sorvel.sorveld.shell";

}  // namespace sv
