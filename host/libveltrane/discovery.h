// What kind of machine this is, as hard classes and as variables of the sys scope.
//
// Discovery is two steps: Machine is read from the running system, then put into a context; a test puts a machine
// of its own. Only what stays the same from run to run on an unchanged machine is told, so that no report differs for
// nothing: neither the date nor the uptime nor the free memory. No name service is asked: a slow one would hold up
// every run.
//
//   hard classes  any; linux, x86_64, 64_bit, linux_x86_64; linux_<kernel release> and its prefixes; debian_12 and its
//                 prefixes, the distributions it is like; the host name whole, its first part and each domain above;
//                 ipv4_<address>; <n>_cpus; systemd; container; and the time classes
//   sys           host, fqhost, uqhost, domain, os, os_name, os_version, flavor, arch, class, release, cpus, ipv4,
//                 ipv4[<interface>], ipv6, interfaces, workdir, statedir, inputdir, logdir, vt_version
#ifndef HOST_LIBVELTRANE_DISCOVERY_H
#define HOST_LIBVELTRANE_DISCOVERY_H

#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <veltrane/types.h>

namespace veltrane {

// What /etc/os-release says; texts it lacks are empty.
struct OsRelease {
    std::string id;                 // debian
    std::string version_id;         // 12
    std::string pretty_name;        // Debian GNU/Linux 12 (bookworm)
    std::vector<std::string> like;  // the distributions it descends from
};

struct Machine {
    std::string kernel;   // Linux
    std::string release;  // 6.1.0-13-amd64
    std::string arch;     // x86_64
    bool is_64_bit = false;
    long cpus = 1;
    OsRelease os;
    std::string fqhost;                                     // with its domain where that is known
    std::vector<std::string> interfaces;                    // sorted
    std::vector<std::pair<std::string, std::string>> ipv4;  // interface, address: sorted
    std::vector<std::string> ipv6;                          // sorted, link-local ones left out
    bool has_systemd = false;
    bool is_container = false;
};

// The KEY=value lines of a release file, quotes taken off. What it does not know is passed over.
OsRelease ParseOsRelease(std::string_view text);

// The full name of a host: its own when it holds a dot, else the first name of the first line of a hosts file that
// names the host and gives that name a domain, else its own.
std::string FullHostName(const std::string &host, std::string_view hosts_file);

// Look at the machine that we run on.
Machine LookAtMachine();

// Define its classes, tags "inventory,attribute_name=none,source=agent", and its sys variables.
void PutMachine(EvalContext *ctx, const Machine &machine);

// Both, and the time classes of now, and the constants of the scope const (dollar, n, t).
void DiscoverInto(EvalContext *ctx, time_t now);

}  // namespace veltrane

#endif
