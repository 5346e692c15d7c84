// Processes that are timed and weighed from outside, and the synthetic states they work on.
//
// Each side of a figure runs in a process of its own: ours is this program again with the name of a job, the peer is a
// program from Debian's packages or, where there is none, another job. So neither side finds a heap warmed by the
// other, and the kernel's account of the finished process is the peak memory of that job alone. What that rests on: the
// process that starts them stays small, for a child's account begins with the size of its parent.
#ifndef BENCH_BENCH_SUPPORT_H
#define BENCH_BENCH_SUPPORT_H

#include <chrono>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <veltrane/seq.h>

namespace bench {

// Where a side works, and on how many records.
struct Work {
    std::filesystem::path directory;
    size_t size;
};

struct Cost {
    double wall_seconds = 0;
    double cpu_seconds = 0;  // user and system, of all threads
    double peak_mb = 0;      // of the process; of the largest one where there are several
};

// Time from its construction on, for a job that leaves its preparations out of the account.
class Stopwatch {
  public:
    Stopwatch() : wall_(std::chrono::steady_clock::now()), cpu_(CpuSeconds()) {}

    Cost Stop() const
    {
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - wall_;
        return {wall.count(), CpuSeconds() - cpu_, 0};
    }

  private:
    static double CpuSeconds()
    {
        timespec t{};
        (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
    }

    std::chrono::steady_clock::time_point wall_;
    double cpu_;
};

// What this program does in a process of its own: its preparations, then what it times. It throws when the result is
// not what it must be: a wrong answer has no speed.
using JobFunction = Cost (*)(const Work &);

// Makes a job known by its name, which is a literal. One static object a job.
class Job {
  public:
    Job(const char *name, JobFunction function);
};

// A process to start. Its errors go where ours go.
struct Command {
    std::vector<std::string> arguments;
    std::filesystem::path output = "/dev/null";
    bool reports_cost = false;  // it times itself and writes "<wall> <cpu>" to descriptor 3; else all of it counts
};

// Commands that run one after the other.
using Side = std::vector<Command>;

// This program with one job.
Command JobCommand(const char *name, const Work &work);

// Run every command to its end. Throws when one cannot be started or fails.
Cost Run(const Side &side);

// Do the job that this process was started for; its exit status.
int RunJob(const std::string &name, const Work &work);

// Write cost to descriptor 3, for the process that started this one.
void ReportCost(const Cost &cost);

// The time that synthetic rows carry.
inline constexpr time_t kRunTime = 1700000000;

// The work directory of the host that a job works on.
std::filesystem::path HostDirectory(const Work &work);

// Make it if it is not there, and the work directory of this process. Throws when that fails.
void EnterHost(const Work &work);

// The classes of a host: canonified names in ascending byte order, tags as they are joined for a report.
struct SyntheticClass {
    std::string name;
    const char *tags;
};

enum class Generation { old_run, new_run };

// Visit the classes of one of two successive runs. In every hundred classes one differs between them: in turn it is
// new, gone, or has other tags.
void ForEachClass(size_t size, Generation generation, const std::function<void(const SyntheticClass &)> &visit);

// How many differ.
size_t ChangesIn(size_t size);

// One CSV record a class, as a state cache holds them. A shuffled file has the same order each time.
enum class Order { sorted, shuffled };
void WriteClasses(const std::filesystem::path &path, size_t size, Generation generation, Order order);

// A row of the class chapter, as long as those that WriteClasses leads to.
inline constexpr int kReportLineLength = 95;
std::string ReportLine(size_t i);

// The number of lines of a file.
size_t CountLines(const std::filesystem::path &path);

}  // namespace bench

#endif
