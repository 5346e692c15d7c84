// Two filters, of which the stricter answer counts for each call.
//
// The first only says ENOSYS to clone3, whose flags lie in memory where no filter can look, so that the C library takes
// clone instead; it happens with each thread and is not logged. The second allows what is listed here and refuses all
// else with EPERM, and the kernel logs each refusal, for in ordinary work there is none. Calls that an architecture
// does not have are passed over.
#include "libveltrane/system_call_filter.h"

#ifdef VT_NO_CALL_FILTER

namespace veltrane {

bool HasSystemCallFilter() { return false; }
int FilterSystemCalls() { return 0; }

}  // namespace veltrane

#else

#include <net/if.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <linux/netlink.h>
#include <linux/sockios.h>

#include <cerrno>
#include <initializer_list>
#include <memory>
#include <vector>

#include <veltrane/owned.h>

namespace veltrane {

namespace {

using FilterPtr = std::unique_ptr<void, Destroyer<seccomp_release> >;

// Whatever their arguments are: none of them reaches another process, another user or the kernel itself.
constexpr const char *kAllowed[] = {
    // files
    "access", "chdir", "chmod", "close", "close_range", "copy_file_range", "creat", "dup", "dup2", "dup3", "faccessat",
    "faccessat2", "fadvise64", "fadvise64_64", "fallocate", "fchdir", "fchmod", "fchmodat", "fcntl", "fcntl64",
    "fdatasync", "flock", "fstat", "fstat64", "fstatat64", "fstatfs", "fstatfs64", "fsync", "ftruncate", "ftruncate64",
    "getcwd", "getdents", "getdents64", "_llseek", "link", "linkat", "lseek", "lstat", "lstat64", "mkdir", "mkdirat",
    "newfstatat", "open", "openat", "openat2", "pread64", "preadv", "preadv2", "pwrite64", "pwritev", "pwritev2",
    "read", "readahead", "readlink", "readlinkat", "readv", "rename", "renameat", "renameat2", "rmdir", "sendfile",
    "sendfile64", "stat", "stat64", "statfs", "statfs64", "statx", "symlink", "symlinkat", "sync_file_range",
    "truncate", "truncate64", "umask", "unlink", "unlinkat", "utimensat", "utimensat_time64", "write", "writev",
    // memory
    "brk", "madvise", "membarrier", "mincore", "mlock", "mlock2", "mmap", "mmap2", "mprotect", "mremap", "msync",
    "munlock", "munmap",
    // threads and signals
    "exit", "exit_group", "futex", "futex_time64", "futex_waitv", "get_robust_list", "getcpu", "gettid",
    "restart_syscall", "rseq", "rt_sigaction", "rt_sigpending", "rt_sigprocmask", "rt_sigreturn", "rt_sigsuspend",
    "rt_sigtimedwait", "rt_sigtimedwait_time64", "sched_get_priority_max", "sched_get_priority_min",
    "sched_getaffinity", "sched_getparam", "sched_getscheduler", "sched_yield", "set_robust_list", "set_tid_address",
    "sigaltstack", "sigreturn",
    // sockets and waiting
    "accept", "accept4", "bind", "connect", "epoll_create", "epoll_create1", "epoll_ctl", "epoll_pwait", "epoll_pwait2",
    "epoll_wait", "eventfd", "eventfd2", "getpeername", "getsockname", "getsockopt", "listen", "_newselect", "pipe",
    "pipe2", "poll", "ppoll", "ppoll_time64", "pselect6", "pselect6_time64", "recv", "recvfrom", "recvmmsg",
    "recvmmsg_time64", "recvmsg", "select", "send", "sendmmsg", "sendmsg", "sendto", "setsockopt", "shutdown",
    // time
    "clock_getres", "clock_getres_time64", "clock_gettime", "clock_gettime64", "clock_nanosleep",
    "clock_nanosleep_time64", "gettimeofday", "nanosleep", "time", "times",
    // who and where we are
    "capget", "getegid", "getegid32", "geteuid", "geteuid32", "getgid", "getgid32", "getgroups", "getgroups32",
    "getpgid", "getpgrp", "getpid", "getppid", "getpriority", "getrandom", "getresgid", "getresgid32", "getresuid",
    "getresuid32", "getrlimit", "getrusage", "getsid", "getuid", "getuid32", "sysinfo", "ugetrlimit", "uname"};

// A call that is allowed where each condition on its arguments holds.
struct Conditional {
    const char *name;
    std::vector<scmp_arg_cmp> conditions;
};

scmp_arg_cmp Equal(unsigned argument, scmp_datum_t value) { return {argument, SCMP_CMP_EQ, value, 0}; }

std::vector<Conditional> ConditionalCalls()
{
    std::vector<Conditional> calls;
    // Threads, but no process and no namespace.
    constexpr scmp_datum_t kNamespaces =
        CLONE_NEWCGROUP | CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUSER | CLONE_NEWUTS;
    calls.push_back({"clone", {{0, SCMP_CMP_MASKED_EQ, CLONE_THREAD | kNamespaces, CLONE_THREAD}}});
    // Signals within this process, as abort sends one.
    calls.push_back({"tgkill", {Equal(0, static_cast<scmp_datum_t>(getpid()))}});
    for (const int family : {AF_UNIX, AF_INET, AF_INET6}) {
        calls.push_back({"socket", {Equal(0, static_cast<scmp_datum_t>(family))}});
    }
    calls.push_back({"socketpair", {Equal(0, AF_UNIX)}});
    // The machine's own addresses, which looking up a name needs.
    calls.push_back({"socket", {Equal(0, AF_NETLINK), Equal(2, NETLINK_ROUTE)}});
    // Limits are read, of this process alone, and never set.
    calls.push_back({"prlimit64", {Equal(0, 0), Equal(2, 0)}});
    constexpr int kSetVma = 0x53564d41;  // the C library names its memory by it; younger than some headers
    for (const int option :
         {PR_SET_NAME, PR_GET_NAME, PR_GET_DUMPABLE, PR_GET_NO_NEW_PRIVS, PR_GET_SECCOMP, PR_CAPBSET_READ, kSetVma}) {
        calls.push_back({"prctl", {Equal(0, static_cast<scmp_datum_t>(option))}});
    }
    // Among what is left out: putting words into the terminal's input.
    for (const unsigned long request :
         {TCGETS, TIOCGWINSZ, FIONBIO, FIONREAD, SIOCGIFNAME, SIOCGIFINDEX, SIOCGIFCONF, SIOCGIFFLAGS, SIOCGIFADDR,
          SIOCGIFBRDADDR, SIOCGIFNETMASK, SIOCGIFHWADDR, SIOCGIFMTU}) {
        calls.push_back({"ioctl", {Equal(1, request)}});
    }
    return calls;
}

// Add a rule for a call; 0, also where the architecture has no such call, else an errno.
int AddRule(const FilterPtr &filter, std::uint32_t action, const char *name,
            const std::vector<scmp_arg_cmp> &conditions = {})
{
    const int number = seccomp_syscall_resolve_name(name);
    if (number < 0) {
        return 0;
    }
    return -seccomp_rule_add_array(filter.get(), action, number, static_cast<unsigned>(conditions.size()),
                                   conditions.empty() ? nullptr : conditions.data());
}

FilterPtr NewFilter(std::uint32_t otherwise, bool logs)
{
    FilterPtr filter(seccomp_init(otherwise));
    if (filter != nullptr) {
        // Calls in another architecture's numbers are nobody's ordinary work.
        (void)seccomp_attr_set(filter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
        (void)seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2);        // slower without, but right
        (void)seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_LOG, logs ? 1 : 0);  // older kernels cannot
    }
    return filter;
}

int LoadCloneFilter()
{
    const FilterPtr filter = NewFilter(SCMP_ACT_ALLOW, false);
    if (filter == nullptr) {
        return ENOMEM;
    }
    const int error = AddRule(filter, SCMP_ACT_ERRNO(ENOSYS), "clone3");
    return error != 0 ? error : -seccomp_load(filter.get());
}

int LoadAllowList()
{
    const FilterPtr filter = NewFilter(SCMP_ACT_ERRNO(EPERM), true);
    if (filter == nullptr) {
        return ENOMEM;
    }
    int error = AddRule(filter, SCMP_ACT_ALLOW, "clone3");  // the other filter's matter
    for (const char *name : kAllowed) { error = error != 0 ? error : AddRule(filter, SCMP_ACT_ALLOW, name); }
    for (const Conditional &call : ConditionalCalls()) {
        error = error != 0 ? error : AddRule(filter, SCMP_ACT_ALLOW, call.name, call.conditions);
    }
    return error != 0 ? error : -seccomp_load(filter.get());
}

}  // namespace

bool HasSystemCallFilter() { return true; }

int FilterSystemCalls()
{
    const int error = LoadCloneFilter();
    return error != 0 ? error : LoadAllowList();
}

}  // namespace veltrane

#endif
