// What kind of machine this is: read from the running system, then put into a context.
#include "libveltrane/discovery.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>

#include <veltrane/eval_context.h>
#include <veltrane/file_lib.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/out_of_memory.h"
#include "libveltrane/time_classes.h"

namespace veltrane {

namespace {

constexpr const char *kClassTags = "inventory,attribute_name=none,source=agent";
constexpr const char *kPlainTags = "source=agent";
constexpr size_t kLargestFile = size_t{64} * 1024;

std::string FileText(const char *path)
{
    const WriterPtr text(FileRead(path, kLargestFile, nullptr));
    return text != nullptr ? std::string(StringWriterData(text.get()), StringWriterLength(text.get())) : "";
}

std::vector<std::string_view> Split(std::string_view text, std::string_view separators)
{
    std::vector<std::string_view> pieces;
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of(separators), text.size());
        if (end > 0) {
            pieces.push_back(text.substr(0, end));
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return pieces;
}

// The value of a release file's line; such files are written for a shell, so a backslash keeps the next byte.
std::string Unquoted(std::string_view value)
{
    std::string text;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) {
            text += value[++i];
        } else if (value[i] != '"' && value[i] != '\'') {
            text += value[i];
        }
    }
    return text;
}

std::string Lower(std::string text)
{
    for (char &c : text) { c = static_cast<char>(tolower(static_cast<unsigned char>(c))); }
    return text;
}

void LookAtNetwork(Machine *machine)
{
    struct ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0) {
        if (errno == ENOMEM) {  // going on would report that the host lost its addresses
            EndOutOfMemory(0);
        }
        return;
    }
    const std::unique_ptr<struct ifaddrs, Destroyer<freeifaddrs>> owner(all);
    std::set<std::string> interfaces;
    for (const struct ifaddrs *one = all; one != nullptr; one = one->ifa_next) {
        if ((one->ifa_flags & IFF_UP) == 0) {
            continue;
        }
        interfaces.insert(one->ifa_name);
        char text[INET6_ADDRSTRLEN] = "";
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET) {
            const auto *address = reinterpret_cast<const struct sockaddr_in *>(one->ifa_addr);
            inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text));
            machine->ipv4.emplace_back(one->ifa_name, text);
        } else if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET6) {
            const auto *address = reinterpret_cast<const struct sockaddr_in6 *>(one->ifa_addr);
            if (!IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr)) {
                inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof(text));
                machine->ipv6.emplace_back(text);
            }
        }
    }
    machine->interfaces.assign(interfaces.begin(), interfaces.end());
    std::sort(machine->ipv4.begin(), machine->ipv4.end());
    std::sort(machine->ipv6.begin(), machine->ipv6.end());
}

bool LooksLikeContainer()
{
    for (const char *path : {"/.dockerenv", "/run/.containerenv", "/run/systemd/container"}) {
        if (access(path, F_OK) == 0) {
            return true;
        }
    }
    const std::string groups = FileText("/proc/1/cgroup");
    for (const char *word : {"docker", "lxc", "kubepods", "containerd", "libpod"}) {
        if (groups.find(word) != std::string::npos) {
            return true;
        }
    }
    const std::string environment = std::string(1, '\0') + FileText("/proc/1/environ");  // for root alone
    return environment.find(std::string("\0container=", 11)) != std::string::npos;
}

void PutClass(EvalContext *ctx, const std::string &name)
{
    if (!name.empty()) {
        EvalContextClassPutHard(ctx, name.c_str(), kClassTags);
    }
}

void PutClassAndPrefixes(EvalContext *ctx, const std::string &name)
{
    CreateHardClassesFromCanonification(ctx, CanonifyName(name.c_str()), kClassTags);
}

void PutText(EvalContext *ctx, const char *name, const std::string &value, const char *tags = kPlainTags)
{
    EvalContextVariablePutSpecial(ctx, SPECIAL_SCOPE_SYS, name, value.c_str(), VT_DATA_TYPE_STRING, tags);
}

void PutTextList(EvalContext *ctx, const char *name, const std::vector<std::string> &values)
{
    Rlist *list = nullptr;
    for (const std::string &value : values) { RlistAppendScalar(&list, value.c_str()); }
    const RlistPtr owner(list);
    EvalContextVariablePutSpecial(ctx, SPECIAL_SCOPE_SYS, name, list, VT_DATA_TYPE_STRING_LIST, kPlainTags);
}

void PutInventory(EvalContext *ctx, const char *name, const std::string &value, const std::string &attribute)
{
    PutText(ctx, name, value, ("inventory,source=agent,attribute_name=" + attribute).c_str());
}

std::string Flavor(const OsRelease &os)
{
    return CanonifyName((os.version_id.empty() ? os.id : os.id + "_" + os.version_id).c_str());
}

void PutSystemClasses(EvalContext *ctx, const Machine &machine)
{
    const std::string kernel = Lower(machine.kernel);
    EvalContextClassPutHard(ctx, "any", kPlainTags);
    PutClass(ctx, kernel);
    PutClass(ctx, machine.arch);
    PutClass(ctx, kernel + "_" + machine.arch);
    PutClass(ctx, machine.is_64_bit ? "64_bit" : "32_bit");
    PutClassAndPrefixes(ctx, kernel + "_" + machine.release);
    if (!machine.os.id.empty()) {
        PutClassAndPrefixes(ctx, Flavor(machine.os));
    }
    for (const std::string &like : machine.os.like) { PutClass(ctx, like); }
    PutClass(ctx, std::to_string(machine.cpus) + "_cpus");
    PutClass(ctx, machine.has_systemd ? "systemd" : "");
    PutClass(ctx, machine.is_container ? "container" : "");
}

void PutNameAndNetworkClasses(EvalContext *ctx, const Machine &machine)
{
    PutClass(ctx, machine.fqhost.substr(0, machine.fqhost.find('.')));
    std::string rest = machine.fqhost;
    while (!rest.empty()) {
        PutClass(ctx, rest);
        const size_t dot = rest.find('.');
        rest = dot == std::string::npos ? "" : rest.substr(dot + 1);
    }
    for (const auto &[interface, address] : machine.ipv4) { PutClass(ctx, "ipv4_" + address); }
}

void PutSystemVariables(EvalContext *ctx, const Machine &machine)
{
    const std::string kernel = Lower(machine.kernel);
    PutInventory(ctx, "os", kernel, "OS type");
    PutInventory(ctx, "os_name", machine.os.pretty_name, "OS");
    PutText(ctx, "os_version", machine.os.version_id);
    PutText(ctx, "flavor", machine.os.id.empty() ? kernel : Flavor(machine.os));
    PutInventory(ctx, "arch", machine.arch, "Architecture");
    PutText(ctx, "class", kernel);
    PutInventory(ctx, "release", machine.release, "Kernel release");
    EvalContextVariablePutSpecial(ctx, SPECIAL_SCOPE_SYS, "cpus", std::to_string(machine.cpus).c_str(),
                                  VT_DATA_TYPE_INT, "inventory,source=agent,attribute_name=CPU count");
    PutText(ctx, "workdir", GetWorkDir());
    PutText(ctx, "statedir", GetStateDir());
    PutText(ctx, "inputdir", GetInputDir());
    PutText(ctx, "logdir", GetLogDir());
    PutText(ctx, "vt_version", Version());
}

void PutNameAndNetworkVariables(EvalContext *ctx, const Machine &machine)
{
    const size_t dot = machine.fqhost.find('.');
    PutText(ctx, "host", machine.fqhost.substr(0, dot));
    PutText(ctx, "uqhost", machine.fqhost.substr(0, dot));
    PutInventory(ctx, "fqhost", machine.fqhost, "Host name");
    PutText(ctx, "domain", dot == std::string::npos ? "" : machine.fqhost.substr(dot + 1));

    std::string first;
    std::set<std::string> seen;
    for (const auto &[interface, address] : machine.ipv4) {
        if (seen.insert(interface).second) {  // an interface with several addresses is told by its first
            PutText(ctx, ("ipv4[" + interface + "]").c_str(), address);
        }
        if (first.empty() && !StringStartsWith(address.c_str(), "127.")) {
            first = address;
        }
    }
    PutInventory(ctx, "ipv4", first.empty() ? "127.0.0.1" : first, "IPv4 address");
    PutTextList(ctx, "ipv6", machine.ipv6);
    PutTextList(ctx, "interfaces", machine.interfaces);
}

void PutConstants(EvalContext *ctx)
{
    for (const auto &[name, value] : {std::pair("dollar", "$"), std::pair("n", "\n"), std::pair("t", "\t")}) {
        EvalContextVariablePutSpecial(ctx, SPECIAL_SCOPE_CONST, name, value, VT_DATA_TYPE_STRING, kPlainTags);
    }
}

}  // namespace

OsRelease ParseOsRelease(std::string_view text)
{
    OsRelease os;
    for (const std::string_view line : Split(text, "\n")) {
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos || line[0] == '#') {
            continue;
        }
        const std::string_view key = line.substr(0, equals);
        const std::string value = Unquoted(line.substr(equals + 1));
        if (key == "ID") {
            os.id = value;
        } else if (key == "VERSION_ID") {
            os.version_id = value;
        } else if (key == "PRETTY_NAME") {
            os.pretty_name = value;
        } else if (key == "ID_LIKE") {
            for (const std::string_view like : Split(value, " ")) { os.like.emplace_back(like); }
        }
    }
    return os;
}

std::string FullHostName(const std::string &host, std::string_view hosts_file)
{
    if (host.find('.') != std::string::npos) {
        return host;
    }
    for (const std::string_view line : Split(hosts_file, "\n")) {
        const std::vector<std::string_view> words = Split(line.substr(0, line.find('#')), " \t\r");
        const bool names_us = words.size() > 1 && std::find(words.begin() + 1, words.end(), host) != words.end();
        if (names_us && words[1].find('.') != std::string_view::npos) {
            return std::string(words[1]);
        }
    }
    return host;
}

Machine LookAtMachine()
{
    Machine machine;
    struct utsname system {};
    if (uname(&system) == 0) {
        machine.kernel = system.sysname;
        machine.release = system.release;
        machine.arch = system.machine;
        machine.fqhost = Lower(FullHostName(system.nodename, FileText("/etc/hosts")));
    }
    machine.is_64_bit = sizeof(void *) == 8;
    machine.cpus = std::max(1L, sysconf(_SC_NPROCESSORS_CONF));
    const std::string release = FileText("/etc/os-release");
    machine.os = ParseOsRelease(release.empty() ? FileText("/usr/lib/os-release") : release);
    machine.has_systemd = IsDir("/run/systemd/system");
    machine.is_container = LooksLikeContainer();
    LookAtNetwork(&machine);
    return machine;
}

void PutMachine(EvalContext *ctx, const Machine &machine)
{
    PutSystemClasses(ctx, machine);
    PutNameAndNetworkClasses(ctx, machine);
    PutSystemVariables(ctx, machine);
    PutNameAndNetworkVariables(ctx, machine);
}

void DiscoverInto(EvalContext *ctx, time_t now)
{
    PutMachine(ctx, LookAtMachine());
    PutTimeClasses(ctx, now);
    PutConstants(ctx);
}

}  // namespace veltrane
