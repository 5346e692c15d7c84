// Giving up what a program does not need: another user, and a process that can do little beyond its own work.
//
// A program that talks to strangers becomes an ordinary user first, when it is told one, and enters its sandbox before
// the first byte of a peer is read. Neither can be undone. What is given up belongs to threads, so both are for the
// main thread of a process that has no other yet.
//
// In the sandbox
//   - no program is run and no process made: execve, fork; so no policy function that runs a command works either
//   - there are no capabilities, and none can be had again (no_new_privs, an empty bounding set), for root as well
//   - nobody of the same user may trace the process or read its memory, and it leaves no core dump
//   - a system call that is not among those listed in system_call_filter.cc fails with EPERM, and the kernel logs it
// Files, threads, internet and local sockets, name look-ups and loading libraries go on working.
#ifndef HOST_LIBVELTRANE_PRIVILEGE_H
#define HOST_LIBVELTRANE_PRIVILEGE_H

#include <string>

namespace veltrane {

// Become another user with his group and no other, for good. Of root's capabilities only the one to bind a port below
// 1024 is kept, until EnterSandbox.
//
// user    a name; the one this process runs as already changes nothing
// Result  "" when done, else why not; the process may then have become him in part, and must end.
[[nodiscard]] std::string BecomeUser(const std::string &user);

// Enter the sandbox. What needs more must be done before: binding a port below 1024, opening what belongs to others.
//
// Result  "" when done, else why not; the process must then end.
// Log     a warning when the kernel has no filter of system calls: everything else still holds.
[[nodiscard]] std::string EnterSandbox();

// Whether this build filters system calls: not under sanitizers, which make calls of their own.
bool SandboxFiltersCalls();

}  // namespace veltrane

#endif
