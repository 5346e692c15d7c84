// What is given up is never had again, so each test gives it up in a process of its own.
#include "libveltrane/privilege.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <linux/capability.h>
#include <linux/reboot.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <veltrane/owned.h>

#include "support/child.h"
#include "support/work_dir.h"

namespace {

const bool kFilters = veltrane::SandboxFiltersCalls();
const std::string kOrdinaryUser = "nobody";

// A line of this process's status file, without its name.
std::string Status(const std::string &name)
{
    std::ifstream file("/proc/thread-self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":\t", 0) == 0) {
            return line.substr(name.size() + 2);
        }
    }
    return "(no " + name + ")";
}

constexpr char kNoCapabilities[] = "0000000000000000";

void InSandbox(const std::function<void()> &body)
{
    InChild([&body] {
        ASSERT_EQ(veltrane::EnterSandbox(), "");
        body();
    });
}

// Some containers let everybody bind every port.
bool LowPortsAreForAll()
{
    int first = 1024;
    std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> first;
    return first <= 700;
}

// Whether a socket can be bound to a low port of the loopback interface.
bool CanBindALowPort()
{
    const veltrane::Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (in_port_t port = 700; port < 720; ++port) {
        address.sin_port = htons(port);
        if (bind(fd.Get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0) {
            return true;
        }
    }
    return false;
}

// Without a filter these fail for another reason: their arguments are nothing.
const std::vector<std::pair<const char *, std::function<long()>>> kForbidden = {
    {"execve", [] { return syscall(SYS_execve, "/nonexistent/program", nullptr, nullptr); }},
    {"execveat", [] { return syscall(SYS_execveat, -1, "nonexistent", nullptr, nullptr, 0); }},
    {"ptrace", [] { return syscall(SYS_ptrace, PTRACE_ATTACH, 0, nullptr, nullptr); }},
    {"process_vm_readv", [] { return syscall(SYS_process_vm_readv, -1, nullptr, 0L, nullptr, 0L, -1L); }},
    {"mount", [] { return syscall(SYS_mount, nullptr, "/nonexistent/place", nullptr, 0L, nullptr); }},
    {"umount2", [] { return syscall(SYS_umount2, "/nonexistent/place", 0); }},
    {"unshare", [] { return syscall(SYS_unshare, -1); }},
    {"setns", [] { return syscall(SYS_setns, -1, 0); }},
    {"chroot", [] { return syscall(SYS_chroot, "/nonexistent/place"); }},
    {"bpf", [] { return syscall(SYS_bpf, -1, nullptr, 0); }},
    {"kexec_load", [] { return syscall(SYS_kexec_load, 0L, 0L, nullptr, -1L); }},
    {"init_module", [] { return syscall(SYS_init_module, nullptr, 0L, ""); }},
    {"reboot", [] { return syscall(SYS_reboot, 0, 0, LINUX_REBOOT_CMD_CAD_ON, nullptr); }},
    {"keyctl", [] { return syscall(SYS_keyctl, -1, 0L, 0L, 0L, 0L); }},
    {"perf_event_open", [] { return syscall(SYS_perf_event_open, nullptr, 0, -1, -1, -1L); }},
    {"io_uring_setup", [] { return syscall(SYS_io_uring_setup, 0, nullptr); }},
    {"kill", [] { return syscall(SYS_kill, getppid(), -1); }},
    {"tgkill of another", [] { return syscall(SYS_tgkill, getppid(), getppid(), -1); }},
    {"socket of raw packets", [] { return static_cast<long>(socket(AF_PACKET, -1, 0)); }},
    {"netlink beyond addresses", [] { return static_cast<long>(socket(AF_NETLINK, SOCK_RAW, 10'000)); }},
    {"words for a terminal", [] { return static_cast<long>(ioctl(-1, TIOCSTI, "x")); }},
    {"another process's limits", [] { return syscall(SYS_prlimit64, -1, 0, nullptr, nullptr); }},
};

TEST(Sandbox, WhatItsWorkNeverNeedsIsRefused)
{
    InSandbox([] {
        for (const auto &[name, call] : kForbidden) {
            errno = 0;
            EXPECT_EQ(call(), -1) << name;
            if (kFilters) {
                EXPECT_EQ(errno, EPERM) << name;
            }
        }
    });
}

TEST(Sandbox, NoProcessIsMade)
{
    InSandbox([] {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(0);
        }
        EXPECT_EQ(pid < 0, kFilters);
        if (kFilters) {
            EXPECT_EQ(errno, EPERM);
        }
    });
}

TEST(Sandbox, AThreadIsMadeTheOldWayAndIsInItToo)
{
    InSandbox([] {
        if (kFilters) {
            EXPECT_EQ(syscall(SYS_clone3, nullptr, 0L), -1);
            EXPECT_EQ(errno, ENOSYS) << "so that the C library takes the other call";
        }
        std::string inside;
        std::thread([&inside] {
            inside = Status("NoNewPrivs") + " " + Status("Seccomp") + " " + Status("CapEff");
        }).join();
        EXPECT_EQ(inside, std::string(kFilters ? "1 2 " : "1 0 ") + kNoCapabilities);
    });
}

// What looking a name up ends with; the kernel is asked for the machine's addresses, too.
int LookUp(const char *name)
{
    addrinfo hints{};
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(name, "6127", &hints, &found);
    if (error == 0) {
        freeaddrinfo(found);
    }
    return error;
}

TEST(Sandbox, FilesSocketsAndNamesGoOnWorking)
{
    TemporaryDirectory directory;
    const int outside = LookUp("localhost");  // a bare machine may not know even that
    InSandbox([&directory, outside] {
        WriteFile(directory.path / "a", "text");
        std::filesystem::rename(directory.path / "a", directory.path / "b");
        EXPECT_EQ(ReadFile(directory.path / "b"), "text");

        // The host library opens files so; another error is a kernel that has no such call.
        EXPECT_TRUE(syscall(SYS_openat2, -1, nullptr, nullptr, 0L) == -1 && errno != EPERM);

        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        EXPECT_EQ(send(ends[0], "x", 1, MSG_NOSIGNAL), 1);
        char byte = 0;
        EXPECT_EQ(recv(ends[1], &byte, 1, 0), 1);

        EXPECT_EQ(LookUp("localhost"), outside);
        EXPECT_NE(getpwnam("root"), nullptr);
    });
}

TEST(Sandbox, TheKernelSaysThatItIsIn)
{
    InSandbox([] {
        EXPECT_EQ(Status("NoNewPrivs"), "1");
        EXPECT_EQ(Status("Seccomp"), kFilters ? "2" : "0");
        EXPECT_EQ(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), 0);
    });
}

TEST(Sandbox, RootHasNoCapabilityLeftAndGetsNoneBack)
{
    const bool root = geteuid() == 0;
    InSandbox([root] {
        for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
            EXPECT_EQ(Status(set), kNoCapabilities) << set;
        }
        if (root) {  // others have no right to empty it, and can gain nothing from it
            EXPECT_EQ(Status("CapBnd"), kNoCapabilities);
        }
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct all[2] = {{1, 1, 0}, {0, 0, 0}};
        EXPECT_EQ(syscall(SYS_capset, &header, all), -1);
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(CanBindALowPort(), LowPortsAreForAll());
    });
}

TEST(Sandbox, EnteringItTwiceChangesNothing)
{
    InSandbox([] {
        const std::string why = veltrane::EnterSandbox();
        if (kFilters) {
            EXPECT_EQ(why, "dumpable: Operation not permitted") << "it is for the start of a program, once";
        } else {
            EXPECT_EQ(why, "");
        }
        EXPECT_EQ(Status("Seccomp"), kFilters ? "2" : "0");
    });
}

TEST(BecomeUser, RootBecomesHimWithHisGroupAloneAndForGood)
{
    if (geteuid() == 0) {
        InChild([] {
            const passwd *entry = getpwnam(kOrdinaryUser.c_str());
            ASSERT_NE(entry, nullptr);
            const std::string uid = std::to_string(entry->pw_uid);
            const std::string gid = std::to_string(entry->pw_gid);
            ASSERT_EQ(veltrane::BecomeUser(kOrdinaryUser), "");
            EXPECT_EQ(Status("Uid"), uid + "\t" + uid + "\t" + uid + "\t" + uid);
            EXPECT_EQ(Status("Gid"), gid + "\t" + gid + "\t" + gid + "\t" + gid);
            EXPECT_EQ(getgroups(0, nullptr), 0);
            EXPECT_EQ(setuid(0), -1);
            EXPECT_EQ(setresuid(0, 0, 0), -1);
            EXPECT_EQ(setgid(0), -1);
            EXPECT_EQ(Status("CapBnd"), kNoCapabilities);
            EXPECT_EQ(Status("CapEff"), "0000000000000400") << "a low port, as long as it is not in its sandbox";
            EXPECT_TRUE(CanBindALowPort());
            ASSERT_EQ(veltrane::EnterSandbox(), "");
            EXPECT_EQ(Status("CapEff"), kNoCapabilities);
            EXPECT_EQ(Status("CapPrm"), kNoCapabilities);
            EXPECT_EQ(CanBindALowPort(), LowPortsAreForAll());
        });
    } else {
        EXPECT_EQ(veltrane::BecomeUser("root"), "only root can become another user");
    }
}

TEST(BecomeUser, AnOrdinaryUserBecomesNobodyElse)
{
    InChild([] {
        if (geteuid() == 0) {
            ASSERT_EQ(veltrane::BecomeUser(kOrdinaryUser), "");
        }
        EXPECT_EQ(veltrane::BecomeUser("root"), "only root can become another user");
    });
}

TEST(BecomeUser, WhoHeIsAlreadyKeepsWhatHeHas)
{
    const passwd *entry = getpwuid(geteuid());
    ASSERT_NE(entry, nullptr);
    const std::string name = entry->pw_name;
    const std::string before = Status("CapEff");
    EXPECT_EQ(veltrane::BecomeUser(name), "");
    EXPECT_EQ(Status("CapEff"), before);
}

TEST(BecomeUser, ANameThatNobodyHasIsSaidSo)
{
    for (const char *name : {"no-such-user-here", "", "0"}) {
        EXPECT_EQ(veltrane::BecomeUser(name), "there is no such user") << name;
    }
}

}  // namespace
