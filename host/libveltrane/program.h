// What every program of the host does first: choose its work directory, its log level, its port.
//
// The order matters. The work directory is settled before anything opens a database or the enterprise plug-in, and
// FIPS_MODE before the plug-in is first called.
#ifndef HOST_LIBVELTRANE_PROGRAM_H
#define HOST_LIBVELTRANE_PROGRAM_H

#include <string>

#include <veltrane/logging.h>

namespace veltrane {

// What the options of a command line ask for; the texts may be empty.
struct ProgramOptions {
    std::string workdir;                // "" = environment VELTRANE_WORKDIR, else /var/veltrane
    std::string port;                   // "" = 6127; else a number from 1 to 65535
    LogLevel level = LOG_LEVEL_NOTICE;  // the graver levels and this one reach stderr
    bool fips = false;                  // run in FIPS mode
    int timeout_seconds = 0;            // CONNTIMEOUT, 1 to 3600; 0 = as it is
    std::string user;                   // the user this process has become, whose the work directory must be; "" = any
};

// How long a program waits for a silent directory (LDAP) unless its environment says otherwise: seconds for connecting,
// and for each answer.
inline constexpr char kDirectoryNetworkTimeout[] = "10";
inline constexpr char kDirectoryTimeout[] = "30";

// Start a program: log level, FIPS_MODE, SIGPIPE ignored, rand seeded from the kernel, VTSTARTTIME, CONNTIMEOUT, the
// work directory with all it holds, VELTRANE_PORT_STR, and in the environment, unless they are there, LDAPTIMEOUT and
// LDAPNETWORK_TIMEOUT: directory look-ups set no time-out themselves. Once, in main, before anything else of this
// library.
//
// Result  false, with one error line that says why, when the port is none or the work directory cannot be made, could
//         have been written by another user (it, or a directory above it that lets others swap it), or does not belong
//         to options.user.
[[nodiscard]] bool StartProgram(const ProgramOptions &options);

}  // namespace veltrane

#endif
