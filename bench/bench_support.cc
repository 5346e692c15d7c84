// Starting, timing and weighing processes; synthetic states.
#include "bench/bench_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include <veltrane/known_dirs.h>

#include "support/sockets.h"

namespace bench {

namespace {

constexpr int kCostDescriptor = 3;

std::map<std::string, JobFunction> &Jobs()
{
    static std::map<std::string, JobFunction> jobs;
    return jobs;
}

// What a process gets as its descriptors and its environment.
class SpawnActions {
  public:
    SpawnActions() { (void)posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { (void)posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions &) = delete;
    SpawnActions &operator=(const SpawnActions &) = delete;

    void Open(int fd, const char *path, int flags)
    {
        (void)posix_spawn_file_actions_addopen(&actions_, fd, path, flags, 0600);
    }
    void Copy(int from, int to) { (void)posix_spawn_file_actions_adddup2(&actions_, from, to); }
    const posix_spawn_file_actions_t *get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_;
};

// Byte order for sort and comm, and no file that could change what a library does.
std::vector<std::string> PlainEnvironment()
{
    const char *path = getenv("PATH");
    const char *temporary = getenv("TMPDIR");
    return {std::string("PATH=") + (path != nullptr ? path : "/usr/bin:/bin"),
            std::string("TMPDIR=") + (temporary != nullptr ? temporary : "/tmp"), "LC_ALL=C", "LDAPNOINIT=1"};
}

std::vector<char *> Pointers(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (std::string &text : texts) { pointers.push_back(text.data()); }
    pointers.push_back(nullptr);
    return pointers;
}

pid_t Start(Command command, int cost_fd)
{
    SpawnActions actions;
    actions.Open(STDIN_FILENO, "/dev/null", O_RDONLY);
    actions.Open(STDOUT_FILENO, command.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    if (command.reports_cost) {
        actions.Copy(cost_fd, kCostDescriptor);
    }
    std::vector<std::string> environment = PlainEnvironment();
    const std::vector<char *> arguments = Pointers(command.arguments);
    pid_t child = 0;
    const int error =
        posix_spawnp(&child, arguments[0], actions.get(), nullptr, arguments.data(), Pointers(environment).data());
    if (error != 0) {
        throw std::runtime_error("could not start " + command.arguments[0] + ": " + strerror(error));
    }
    return child;
}

double Seconds(const timeval &t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; }

Cost RunCommand(const Command &command)
{
    int pipe_ends[2];
    if (pipe2(pipe_ends, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("no pipe: ") + strerror(errno));
    }
    Descriptor from(pipe_ends[0]);
    Descriptor to(pipe_ends[1]);
    const Stopwatch watch;
    const pid_t child = Start(command, to.Get());
    to.Close();
    int status = 0;
    rusage usage{};
    while (wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            throw std::runtime_error(std::string("wait4: ") + strerror(errno));
        }
    }
    Cost cost = watch.Stop();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(command.arguments[0] + " failed");
    }
    cost.cpu_seconds = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
    cost.peak_mb = static_cast<double>(usage.ru_maxrss) / 1024;
    if (command.reports_cost) {
        char text[128] = {};
        if (read(from.Get(), text, sizeof(text) - 1) <= 0 ||
            sscanf(text, "%lf %lf", &cost.wall_seconds, &cost.cpu_seconds) != 2) {
            throw std::runtime_error(command.arguments[0] + " told no cost");
        }
    }
    return cost;
}

// One in each hundred differs; which of the three kinds it is goes round.
bool Differs(size_t i) { return i % 100 == 50; }
bool IsNew(size_t i) { return Differs(i) && i / 100 % 3 == 0; }
bool IsGone(size_t i) { return Differs(i) && i / 100 % 3 == 1; }

SyntheticClass ClassAt(size_t i, Generation generation)
{
    // Most tag lists hold a comma and so are quoted in CSV.
    static constexpr const char *kTags[] = {
        "source=promise,inventory,attribute_name=Roles",
        "source=environment,derived-from=sys.interfaces",
        "source=agent,hardclass",
        "source=module",
    };
    static constexpr const char *kRoles[] = {"frontend", "database", "messages", "storages"};
    char name[64];
    (void)snprintf(name, sizeof(name), "site_oslo_%07zu_role_%s_enabled", i, kRoles[i % 4]);
    const bool retagged = Differs(i) && generation == Generation::new_run;
    return {name, retagged ? "source=promise,inventory,attribute_name=Moved" : kTags[i % 4]};
}

}  // namespace

Job::Job(const char *name, JobFunction function) { Jobs()[name] = function; }

Command JobCommand(const char *name, const Work &work)
{
    return {{"/proc/self/exe", "--job", name, std::to_string(work.size), work.directory.string()}, "/dev/null", true};
}

Cost Run(const Side &side)
{
    Cost total;
    for (const Command &command : side) {
        const Cost cost = RunCommand(command);
        total.wall_seconds += cost.wall_seconds;
        total.cpu_seconds += cost.cpu_seconds;
        total.peak_mb = std::max(total.peak_mb, cost.peak_mb);
    }
    return total;
}

int RunJob(const std::string &name, const Work &work)
{
    const auto job = Jobs().find(name);
    if (job == Jobs().end()) {
        std::cerr << "no job '" << name << "'\n";
        return 2;
    }
    try {
        ReportCost(job->second(work));
        return 0;
    } catch (const std::exception &error) {
        std::cerr << name << ": " << error.what() << '\n';
        return 1;
    }
}

void ReportCost(const Cost &cost)
{
    (void)dprintf(kCostDescriptor, "%.9f %.9f\n", cost.wall_seconds, cost.cpu_seconds);  // a lost one is noticed there
}

void ForEachClass(size_t size, Generation generation, const std::function<void(const SyntheticClass &)> &visit)
{
    for (size_t i = 0; i < size; i++) {
        const bool absent = generation == Generation::old_run ? IsNew(i) : IsGone(i);
        if (!absent) {
            visit(ClassAt(i, generation));
        }
    }
}

size_t ChangesIn(size_t size)
{
    size_t changes = 0;
    for (size_t i = 0; i < size; i++) { changes += Differs(i) ? 1 : 0; }
    return changes;
}

std::filesystem::path HostDirectory(const Work &work) { return work.directory / "host"; }

void EnterHost(const Work &work)
{
    SetWorkDir(HostDirectory(work).c_str());
    if (!MakeWorkDirs()) {
        throw std::runtime_error("no work directory");
    }
}

void WriteClasses(const std::filesystem::path &path, size_t size, Generation generation, Order order)
{
    std::vector<std::string> records;
    records.reserve(size);
    ForEachClass(size, generation, [&](const SyntheticClass &c) {
        const bool quoted = strchr(c.tags, ',') != nullptr;
        records.push_back(c.name + ',' + (quoted ? '"' + std::string(c.tags) + '"' : c.tags) + "\r\n");
    });
    if (order == Order::shuffled) {
        std::shuffle(records.begin(), records.end(), std::mt19937_64(generation == Generation::old_run ? 1 : 2));
    }
    std::ofstream file(path, std::ios::binary);
    for (const std::string &record : records) { file << record; }
    if (!file.flush()) {
        throw std::runtime_error("could not write " + path.string());
    }
}

std::string ReportLine(size_t i)
{
    char line[kReportLineLength + 1];
    const int length = snprintf(
        line, sizeof(line), "%ld,1,site_oslo_%07zu_role_frontend_enabled,\"source=promise,attribute_name=Host roles\"",
        static_cast<long>(kRunTime), i);
    if (length != kReportLineLength) {
        throw std::runtime_error("a report line of " + std::to_string(length) + " characters");
    }
    return line;
}

size_t CountLines(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
}

}  // namespace bench
