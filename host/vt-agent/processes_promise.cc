// Promises of type "processes".
//
// A process is held by a descriptor before it is looked at a second time and sent a signal: its number may have gone to
// another process since the first look, and that one must not be hit.
#include "vt-agent/processes_promise.h"

#include <signal.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

extern "C" {  // the header of glibc 2.36 does not say so itself
#include <sys/pidfd.h>
}

#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/processes.h>
#include <veltrane/string_lib.h>

#include "libveltrane/process_table.h"
#include "libveltrane/promise_attributes.h"
#include "libveltrane/regex_check.h"

namespace veltrane {

namespace {

struct Signal {
    int number;
    std::string name;
};

// What the attributes ask for; a reason instead when they cannot be understood.
struct Demand {
    bool counted = false;
    long min = 0;
    long max = LONG_MAX;
    std::vector<Signal> signals;
    const char *restart_class = nullptr;
    std::string trouble;
};

// The table as it is now, dropped afterwards: the next one who asks must not be told of the past.
struct FreshTable {
    FreshTable()
    {
        ClearProcessTable();
        loaded = LoadProcessTable();
    }
    ~FreshTable() { ClearProcessTable(); }
    FreshTable(const FreshTable &) = delete;
    FreshTable &operator=(const FreshTable &) = delete;

    bool loaded;
};

struct Held {
    Process process;
    Descriptor fd;
};

// "term", "TERM" and "SIGTERM" are one; 0 for none.
int SignalNumber(const std::string &name)
{
    const char *const bare = strncasecmp(name.c_str(), "sig", 3) == 0 ? name.c_str() + 3 : name.c_str();
    for (int number = 1; number < NSIG; ++number) {
        const char *const abbreviation = sigabbrev_np(number);
        if (abbreviation != nullptr && strcasecmp(abbreviation, bare) == 0) {
            return number;
        }
    }
    return 0;
}

void TakeCount(const Promise *expanded, Demand *demand)
{
    for (const std::string &setting : AttributeSettings(expanded, "count")) {
        const size_t equals = setting.find('=');
        const std::string value = equals != std::string::npos ? setting.substr(equals + 1) : "";
        long number = 0;
        if (!StringIsNumeric(value.c_str()) || StringToLong(value.c_str(), &number) != 0) {
            demand->trouble = "'" + setting + "' of its count is no number of processes";
            return;
        }
        (setting.starts_with("min") ? demand->min : demand->max) = number;
        demand->counted = true;
    }
    if (demand->min > demand->max) {
        demand->trouble = "its count wants at least " + std::to_string(demand->min) + " processes and at most " +
                          std::to_string(demand->max);
    }
}

Demand Understand(const Promise *expanded)
{
    Demand demand;
    TakeCount(expanded, &demand);
    for (const std::string &name : AttributeTexts(expanded, "signals")) {
        const int number = SignalNumber(name);
        if (number == 0) {
            demand.trouble = "there is no signal '" + name + "'";
        }
        demand.signals.push_back({number, name});
    }
    demand.restart_class = AttributeText(expanded, "restart_class");
    if (const std::string mistake = WhyNoRegex(expanded->promiser); !mistake.empty()) {
        demand.trouble = mistake;  // a typing error must not look like a process that is missing
    }
    return demand;
}

// The processes of the loaded table that the pattern is found in, but for this one, whose command line may well tell
// of the pattern.
std::vector<Process> Matches(const char *pattern)
{
    std::vector<Process> matches;
    for (const Process &process : LoadedProcesses()) {
        if (process.pid != getpid() && !process.command.empty() &&
            StringMatch(pattern, process.command.c_str(), nullptr, nullptr)) {
            matches.push_back(process);
        }
    }
    return matches;
}

// This process and all above it.
std::set<pid_t> OwnLine()
{
    std::set<pid_t> line = {getpid()};
    const std::vector<Process> &processes = LoadedProcesses();
    pid_t above = getppid();
    while (above > 0 && line.insert(above).second) {
        const auto found = std::find_if(processes.begin(), processes.end(),
                                        [above](const Process &process) { return process.pid == above; });
        above = found != processes.end() ? found->parent : 0;
    }
    return line;
}

std::string SystemTrouble(const char *call, pid_t pid)
{
    return std::string("process ") + std::to_string(pid) + " cannot be sent a signal. (" + call + ": " + GetErrorStr() +
           ")";
}

// Take hold of processes; one that has ended meanwhile is left out.
std::vector<Held> TakeHold(const std::vector<Process> &matches, std::string *trouble)
{
    std::vector<Held> held;
    for (const Process &process : matches) {
        Descriptor fd(pidfd_open(process.pid, 0));
        if (fd.IsOpen()) {
            held.push_back({process, std::move(fd)});
        } else if (errno != ESRCH) {
            *trouble = SystemTrouble("pidfd_open", process.pid);
        }
    }
    return held;
}

// Send all signals to one process; false when it has ended before the first, or refused.
bool SendTo(const Held &held, const std::vector<Signal> &signals, std::string *trouble)
{
    bool sent = false;
    for (const Signal &signal : signals) {
        if (pidfd_send_signal(held.fd.Get(), signal.number, nullptr, 0) != 0) {
            if (errno != ESRCH) {
                *trouble = SystemTrouble("pidfd_send_signal", held.process.pid);
            }
            return sent;
        }
        Log(LOG_LEVEL_VERBOSE, "Sent signal '%s' to process %d", signal.name.c_str(), held.process.pid);
        sent = true;
    }
    return sent;
}

// Send the signals to the matches; the result is how many processes got them.
size_t SendSignals(const char *pattern, const std::vector<Process> &matches, const std::vector<Signal> &signals,
                   std::string *trouble)
{
    const std::vector<Held> held = TakeHold(matches, trouble);
    const FreshTable table;  // what is in it under a number that is held is the process that is held
    const std::vector<Process> still = Matches(pattern);
    const std::set<pid_t> own_line = OwnLine();
    size_t count = 0;
    for (const Held &one : held) {
        const pid_t pid = one.process.pid;
        if (std::none_of(still.begin(), still.end(), [pid](const Process &process) { return process.pid == pid; })) {
            continue;
        }
        if (own_line.count(pid) != 0) {
            Log(LOG_LEVEL_VERBOSE, "Process %d is above this agent, and is sent no signal", pid);
        } else if (SendTo(one, signals, trouble)) {
            ++count;
        }
    }
    return count;
}

PromiseResult DefineRestartClass(EvalContext *ctx, const Promise *expanded, const Attributes &attr, const char *name)
{
    const bool qualified = strchr(name, ':') != nullptr;
    const std::string full = qualified ? name : std::string(PromiseGetNamespace(expanded)) + ":" + name;
    EvalContextClassPutSoft(ctx, full.c_str(), "source=promise");
    RecordChange(ctx, expanded, &attr, "No process matches '%s': class '%s' is defined", expanded->promiser, name);
    return PROMISE_RESULT_CHANGE;
}

PromiseResult Signalled(EvalContext *ctx, const Promise *expanded, const Attributes &attr, const Demand &demand,
                        const std::vector<Process> &matches)
{
    std::string trouble;
    const size_t count = SendSignals(expanded->promiser, matches, demand.signals, &trouble);
    if (count > 0) {
        RecordChange(ctx, expanded, &attr, "Sent signals to %zu of %zu processes that match '%s'", count,
                     matches.size(), expanded->promiser);
    }
    if (!trouble.empty()) {
        RecordFailure(ctx, expanded, &attr, "Processes that match '%s': %s", expanded->promiser, trouble.c_str());
        return PROMISE_RESULT_FAIL;
    }
    if (count > 0) {
        return PROMISE_RESULT_CHANGE;
    }
    if (demand.counted) {
        RecordFailure(ctx, expanded, &attr, "%zu processes match '%s': at most %ld may, and none can be sent a signal",
                      matches.size(), expanded->promiser, demand.max);
        return PROMISE_RESULT_FAIL;
    }
    RecordNoChange(ctx, expanded, &attr, "No process that matches '%s' is to be sent a signal", expanded->promiser);
    return PROMISE_RESULT_NOOP;
}

PromiseResult Judge(EvalContext *ctx, const Promise *expanded, const Attributes &attr, const Demand &demand,
                    const std::vector<Process> &matches)
{
    const long count = static_cast<long>(matches.size());
    if (count == 0 && demand.restart_class != nullptr) {
        return DefineRestartClass(ctx, expanded, attr, demand.restart_class);
    }
    if (count < demand.min) {
        RecordFailure(ctx, expanded, &attr, "%ld processes match '%s': at least %ld must", count, expanded->promiser,
                      demand.min);
        return PROMISE_RESULT_FAIL;
    }
    if (count > 0 && !demand.signals.empty() && (!demand.counted || count > demand.max)) {
        return Signalled(ctx, expanded, attr, demand, matches);
    }
    if (count > demand.max) {
        RecordFailure(ctx, expanded, &attr, "%ld processes match '%s': at most %ld may", count, expanded->promiser,
                      demand.max);
        return PROMISE_RESULT_FAIL;
    }
    RecordNoChange(ctx, expanded, &attr, "%ld processes match '%s'", count, expanded->promiser);
    return PROMISE_RESULT_NOOP;
}

}  // namespace

PromiseResult KeepProcessesPromise(EvalContext *ctx, const Promise *expanded)
{
    const Attributes attr = CommonAttributes(expanded);
    const Demand demand = Understand(expanded);
    if (!demand.trouble.empty()) {
        RecordFailure(ctx, expanded, &attr, "Processes '%s' are not looked for: %s", expanded->promiser,
                      demand.trouble.c_str());
        return PROMISE_RESULT_FAIL;
    }
    std::vector<Process> matches;
    {
        const FreshTable table;
        if (!table.loaded) {
            RecordFailure(ctx, expanded, &attr, "Processes '%s' cannot be looked for", expanded->promiser);
            return PROMISE_RESULT_FAIL;
        }
        matches = Matches(expanded->promiser);
    }
    return Judge(ctx, expanded, attr, demand, matches);
}

}  // namespace veltrane
