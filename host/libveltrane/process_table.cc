// Two readers of processes: libproc2, which reads /proc and nothing else, and a small one for a tree somewhere else.
// Every use of libproc2 is here and in machine_measurements.cc, for its interface changes between releases.
#include "libveltrane/process_table.h"

#include <libproc2/pids.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string_view>

#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

namespace veltrane {

namespace {

constexpr unsigned long kKernelThread = 0x00200000;  // PF_KTHREAD, a flag that the kernel shows and no header names

// What is asked of libproc2, in this order.
enum { kPid, kParent, kState, kFlags, kOwner, kCommand, kColumns };
constexpr std::array<pids_item, kColumns> kItems = {PIDS_ID_PID, PIDS_ID_PPID,  PIDS_STATE,
                                                    PIDS_FLAGS,  PIDS_ID_EUSER, PIDS_CMDLINE_V};

struct ReleaseInfo {
    void operator()(pids_info *info) const { procps_pids_unref(&info); }
};

bool IsDead(char state) { return state == 'Z' || state == 'X'; }

// A process that shows a title of its own leaves blanks, or empty arguments, where its arguments were.
std::string WithoutTail(std::string command)
{
    command.erase(command.find_last_not_of(' ') + 1);
    return command;
}

std::string Joined(const char *const *words)
{
    std::string command;
    for (const char *const *word = words; word != nullptr && *word != nullptr; ++word) {
        command += (word == words ? "" : " ") + std::string(*word);
    }
    return WithoutTail(std::move(command));
}

Process FromColumns(const pids_result *columns)
{
    Process process;
    process.pid = columns[kPid].result.s_int;
    process.parent = columns[kParent].result.s_int;
    process.owner = columns[kOwner].result.str != nullptr ? columns[kOwner].result.str : "";
    // Without arguments libproc2 says "-".
    if (!IsDead(static_cast<char>(columns[kState].result.s_ch)) &&
        (columns[kFlags].result.ul_int & kKernelThread) == 0) {
        process.command = Joined(columns[kCommand].result.strv);
    }
    return process;
}

void SortByNumber(std::vector<Process> *processes)
{
    std::sort(processes->begin(), processes->end(), [](const Process &a, const Process &b) { return a.pid < b.pid; });
}

std::string UserName(uid_t uid)
{
    std::array<char, 16384> storage;
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(uid, &entry, storage.data(), storage.size(), &found) == 0 && found != nullptr) {
        return found->pw_name;
    }
    return std::to_string(uid);
}

std::string FileBytes(const std::string &path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

// Fill in what "status" says of a process; false when it is dead.
bool TakeStatus(const std::string &status, Process *process)
{
    std::istringstream lines(status);
    bool alive = true;
    for (std::string line; std::getline(lines, line);) {
        char state = 0;
        unsigned real = 0;
        unsigned effective = 0;
        int parent = 0;
        if (sscanf(line.c_str(), "State:\t%c", &state) == 1) {
            alive = !IsDead(state);
        } else if (sscanf(line.c_str(), "PPid:\t%d", &parent) == 1) {
            process->parent = parent;
        } else if (sscanf(line.c_str(), "Uid:\t%u\t%u", &real, &effective) == 2) {
            process->owner = UserName(effective);
        }
    }
    return alive;
}

std::optional<Process> ReadProcess(const std::string &directory)
{
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        return std::nullopt;  // it has ended
    }
    Process process;
    process.owner = UserName(status.st_uid);
    if (TakeStatus(FileBytes(directory + "/status"), &process)) {
        process.command = FileBytes(directory + "/cmdline");
        if (process.command.ends_with('\0')) {
            process.command.pop_back();
        }
        // A line end as well: libproc2 does so, and a process is one line of the table.
        std::replace_if(
            process.command.begin(), process.command.end(), [](char c) { return c == '\0' || c == '\n'; }, ' ');
        process.command = WithoutTail(std::move(process.command));
    }
    return process;
}

}  // namespace

std::optional<std::vector<Process>> ReadProcesses()
{
    std::array<pids_item, kColumns> items = kItems;
    pids_info *made = nullptr;
    const int error = procps_pids_new(&made, items.data(), items.size());
    if (error < 0) {
        errno = -error;
        Log(LOG_LEVEL_ERR, "Could not read the process table. (procps_pids_new: %s)", GetErrorStr());
        return std::nullopt;
    }
    const std::unique_ptr<pids_info, ReleaseInfo> info(made);
    const pids_fetch *const fetched = procps_pids_reap(made, PIDS_FETCH_TASKS_ONLY);
    if (fetched == nullptr) {
        Log(LOG_LEVEL_ERR, "Could not read the process table. (procps_pids_reap: %s)", GetErrorStr());
        return std::nullopt;
    }
    std::vector<Process> processes;
    for (int i = 0; i < fetched->counts->total; ++i) { processes.push_back(FromColumns(fetched->stacks[i]->head)); }
    SortByNumber(&processes);
    return processes;
}

std::optional<std::vector<Process>> ReadProcessTree(const std::string &directory)
{
    const DirPtr dir(DirOpen(directory.c_str()));
    if (dir == nullptr) {
        Log(LOG_LEVEL_ERR, "Could not read the process table in '%s'. (opendir: %s)", directory.c_str(), GetErrorStr());
        return std::nullopt;
    }
    std::vector<Process> processes;
    while (const struct dirent *entry = DirRead(dir.get())) {
        long pid = 0;
        if (!StringIsNumeric(entry->d_name) || StringToLong(entry->d_name, &pid) != 0) {
            continue;
        }
        std::optional<Process> process = ReadProcess(directory + "/" + entry->d_name);
        if (process.has_value()) {
            process->pid = static_cast<pid_t>(pid);
            processes.push_back(*std::move(process));
        }
    }
    SortByNumber(&processes);
    return processes;
}

}  // namespace veltrane
