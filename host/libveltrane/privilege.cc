#include "libveltrane/privilege.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <vector>

#include <veltrane/errors.h>
#include <veltrane/logging.h>

#include "libveltrane/system_call_filter.h"

namespace veltrane {

namespace {

std::string Failed(const char *what) { return std::string(what) + ": " + GetErrorStr(); }

// Keep only these capabilities; "" when done. The kernel's own call, for it takes no library.
std::string KeepCapabilities(std::uint64_t kept)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    for (std::size_t i = 0; i < sets.size(); ++i) {
        sets[i].effective = sets[i].permitted = static_cast<std::uint32_t>(kept >> (32 * i));
    }
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 && errno != EINVAL) {  // older kernels have none
        return Failed("ambient capabilities");
    }
    return syscall(SYS_capset, &header, sets.data()) == 0 ? "" : Failed("capset");
}

// Nothing run later may gain a capability. Only who has CAP_SETPCAP can say so; for all others no_new_privs does.
std::string EmptyBoundingSet()
{
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
        if (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 && errno != EPERM) {
            return Failed("bounding set");
        }
    }
    return "";
}

struct Account {
    uid_t uid;
    gid_t gid;
};

// "" with *ret_account set, else why not.
std::string FindAccount(const std::string &user, Account *ret_account)
{
    std::vector<char> texts(16 * 1024);
    passwd entry{};
    passwd *found = nullptr;
    int error = 0;
    while ((error = getpwnam_r(user.c_str(), &entry, texts.data(), texts.size(), &found)) == ERANGE) {
        texts.resize(2 * texts.size());
    }
    if (found == nullptr) {
        errno = error;
        return error != 0 ? Failed("getpwnam") : "there is no such user";
    }
    *ret_account = {entry.pw_uid, entry.pw_gid};
    return "";
}

std::string ChangeUser(const Account &account)
{
    if (setgroups(0, nullptr) != 0) {
        return Failed("setgroups");
    }
    if (setresgid(account.gid, account.gid, account.gid) != 0) {
        return Failed("setgid");
    }
    // Else the change of user takes all capabilities at once, the one to bind a low port as well.
    if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) {
        return Failed("keepcaps");
    }
    if (setresuid(account.uid, account.uid, account.uid) != 0) {
        return Failed("setuid");
    }
    return "";
}

}  // namespace

std::string BecomeUser(const std::string &user)
{
    Account account{};
    if (std::string why = FindAccount(user, &account); !why.empty()) {
        return why;
    }
    if (account.uid == getuid() && account.uid == geteuid()) {
        return "";
    }
    if (geteuid() != 0) {
        return "only root can become another user";
    }
    if (std::string why = EmptyBoundingSet(); !why.empty()) {
        return why;
    }
    if (std::string why = ChangeUser(account); !why.empty()) {
        return why;
    }
    std::string why = KeepCapabilities(std::uint64_t{1} << CAP_NET_BIND_SERVICE);
    if (!why.empty()) {
        why = KeepCapabilities(0);  // a container's root may not have had it
    }
    if (why.empty() && (setuid(0) == 0 || seteuid(0) == 0)) {
        why = "the way back to root stayed open";
    }
    return why;
}

std::string EnterSandbox()
{
    if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        return Failed("dumpable");
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return Failed("no_new_privs");
    }
    if (std::string why = EmptyBoundingSet(); !why.empty()) {
        return why;
    }
    if (std::string why = KeepCapabilities(0); !why.empty()) {
        return why;
    }
    if (const int error = FilterSystemCalls(); error != 0) {
        errno = error;
        Log(LOG_LEVEL_WARNING, "This kernel does not filter system calls. (seccomp: %s)", GetErrorStr());
    }
    return "";
}

bool SandboxFiltersCalls() { return HasSystemCallFilter(); }

}  // namespace veltrane
