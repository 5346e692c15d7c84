// The common start of every program of the host.
#include "libveltrane/program.h"

#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <veltrane/errors.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/safe_path.h"

namespace veltrane {

namespace {

// Where a directory is to be made, the nearest one above it that is there; an empty text when it is there itself.
std::string NearestAbove(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        return "";
    }
    std::string above = DirectoryOf(path);
    while (above != "/" && stat(above.c_str(), &status) != 0) { above = DirectoryOf(above); }
    return above;
}

bool SetPort(const std::string &port)
{
    if (port.empty()) {
        return true;
    }
    long number = 0;
    if (!StringIsNumeric(port.c_str()) || StringToLong(port.c_str(), &number) != 0 || number < 1 || number > 65535) {
        Log(LOG_LEVEL_ERR, "'%s' is no port: a number from 1 to 65535 is expected", port.c_str());
        return false;
    }
    StringCopy(std::to_string(number).c_str(), VELTRANE_PORT_STR, sizeof(VELTRANE_PORT_STR));
    return true;
}

bool PrepareWorkDir(const std::string &workdir, const std::string &user)
{
    std::string path = workdir.empty() ? GetWorkDir() : workdir;
    if (path[0] != '/') {  // a program may change its working directory later
        const TextPtr here(getcwd(nullptr, 0));
        path = (here != nullptr ? here.get() : ".") + ("/" + path);
    }
    SetWorkDir(path.c_str());
    struct stat status {};
    if (!user.empty() && stat(path.c_str(), &status) == 0 && status.st_uid != geteuid()) {
        Log(LOG_LEVEL_ERR, "The work directory '%s' is refused: it does not belong to user '%s'", path.c_str(),
            user.c_str());
        return false;
    }

    // Looked at before, so that nothing is made where somebody else may write, and after, when it surely is there.
    const std::string above = NearestAbove(path);
    std::string reason = above.empty() ? WhyUnsafe(path) : WhyUnsafe(above, PathEnd::kLeadsThere);
    if (reason.empty() && !MakeWorkDirs()) {
        Log(LOG_LEVEL_ERR, "Could not make the work directory '%s'. (mkdir: %s)", path.c_str(), GetErrorStr());
        return false;
    }
    if (reason.empty()) {
        reason = WhyUnsafe(path);
    }
    if (!reason.empty()) {
        Log(LOG_LEVEL_ERR, "The work directory '%s' is refused: %s", path.c_str(), reason.c_str());
        return false;
    }
    return true;
}

void SeedRandom()
{
    unsigned int seed = 0;
    if (getrandom(&seed, sizeof(seed), 0) != static_cast<ssize_t>(sizeof(seed))) {
        seed = static_cast<unsigned int>(time(nullptr)) ^ static_cast<unsigned int>(getpid());  // a kernel without it
    }
    srand(seed);
}

}  // namespace

bool StartProgram(const ProgramOptions &options)
{
    LogSetGlobalLevel(options.level);
    FIPS_MODE = options.fips;
    VTSTARTTIME = time(nullptr);
    signal(SIGPIPE, SIG_IGN);  // a peer that goes away is an error of a write, not the end of the program
    SeedRandom();
    // The library that asks directories reads its time-outs from here, at its first use.
    (void)setenv("LDAPNETWORK_TIMEOUT", kDirectoryNetworkTimeout, 0);
    (void)setenv("LDAPTIMEOUT", kDirectoryTimeout, 0);
    if (options.timeout_seconds > 0) {
        CONNTIMEOUT = options.timeout_seconds;
    }
    return SetPort(options.port) && PrepareWorkDir(options.workdir, options.user);
}

}  // namespace veltrane
