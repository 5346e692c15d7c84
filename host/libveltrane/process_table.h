// The processes of this machine, read anew at each call. The one table that selections are made from is processes.h's.
#ifndef HOST_LIBVELTRANE_PROCESS_TABLE_H
#define HOST_LIBVELTRANE_PROCESS_TABLE_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace veltrane {

struct Process {
    pid_t pid = 0;
    pid_t parent = 0;
    std::string owner{};  // the effective user's name, or number when it has none
    std::string
        command{};  // arguments, a blank between two and for each line end; empty for a zombie and a kernel thread
};

// All processes, no threads, by ascending number; nothing, with one error line, when they cannot be read. One that
// ends meanwhile may be among them or not.
std::optional<std::vector<Process>> ReadProcesses();

// The same from a tree in the shape of /proc: of each directory with a number for a name, the files cmdline and status.
// Without a status file, the owner is the directory's and there is no parent.
std::optional<std::vector<Process>> ReadProcessTree(const std::string &directory);

// The loaded table of processes.h, for those who need more than a line of it; empty when none is loaded. Lent until the
// table is loaded or dropped.
const std::vector<Process> &LoadedProcesses();

}  // namespace veltrane

#endif
