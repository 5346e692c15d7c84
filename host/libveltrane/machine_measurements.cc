#include "libveltrane/machine_measurements.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <set>

extern "C" {
#include <libproc2/diskstats.h>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/stat.h>
}

#include <veltrane/csv.h>
#include <veltrane/file_lib.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

namespace veltrane {

namespace {

constexpr size_t kLargestFile = size_t{1} << 20;
constexpr double kKibInMib = 1024;
constexpr double kShortestInterval = 1;  // seconds; over less, a rate is noise

// What libproc2 lends must go back to it.
template <typename Info, int (*give_back)(Info **)>
struct GiveBack {
    void operator()(Info *info) const { give_back(&info); }
};
using StatPtr = std::unique_ptr<stat_info, GiveBack<stat_info, procps_stat_unref>>;
using MeminfoPtr = std::unique_ptr<meminfo_info, GiveBack<meminfo_info, procps_meminfo_unref>>;
using DiskstatsPtr = std::unique_ptr<diskstats_info, GiveBack<diskstats_info, procps_diskstats_unref>>;

template <typename Ptr, typename Info>
Ptr Acquire(int (*acquire)(Info **))
{
    Info *info = nullptr;
    return Ptr(acquire(&info) >= 0 ? info : nullptr);
}

std::string BytesOf(const std::string &path)
{
    const WriterPtr bytes(FileRead(path.c_str(), kLargestFile, nullptr));
    return bytes != nullptr ? std::string(StringWriterData(bytes.get()), StringWriterLength(bytes.get())) : "";
}

void ReadMemory(SlotValues *levels)
{
    const MeminfoPtr info = Acquire<MeminfoPtr>(procps_meminfo_new);
    constexpr std::array<std::pair<MonitorSlot, meminfo_item>, 4> kItems = {{
        {kSlotMemoryTotal, MEMINFO_MEM_TOTAL},
        {kSlotMemoryFree, MEMINFO_MEM_FREE},
        {kSlotMemoryCached, MEMINFO_MEM_CACHED_ALL},
        {kSlotSwapUsed, MEMINFO_SWAP_USED},
    }};
    for (const auto &[slot, item] : kItems) {
        const meminfo_result *const result = info != nullptr ? procps_meminfo_get(info.get(), item) : nullptr;
        if (result != nullptr) {
            (*levels)[slot] = static_cast<double>(result->result.ul_int) / kKibInMib;
        }
    }
}

void ReadLoad(SlotValues *levels)
{
    double one = 0;
    if (procps_loadavg(&one, nullptr, nullptr) >= 0) {
        (*levels)[kSlotLoad] = one;
    }
}

void ReadDiskFree(SlotValues *levels)
{
    struct statvfs root {};
    if (statvfs("/", &root) == 0 && root.f_blocks > 0) {
        (*levels)[kSlotDiskFree] = 100.0 * static_cast<double>(root.f_bavail) / static_cast<double>(root.f_blocks);
    }
}

void ReadProcessor(MachineCounters *counters)
{
    const StatPtr info = Acquire<StatPtr>(procps_stat_new);
    if (info == nullptr) {
        return;
    }
    std::array<stat_item, 2> items = {STAT_TIC_SUM_BUSY, STAT_TIC_SUM_TOTAL};
    const stat_stack *const stack = procps_stat_select(info.get(), items.data(), static_cast<int>(items.size()));
    if (stack != nullptr) {
        counters->cpu_busy = stack->head[0].result.ull_int;
        counters->cpu_total = stack->head[1].result.ull_int;
    }
}

// Whole disks that were ever used: their partitions count the same again.
void ReadDisks(MachineCounters *counters)
{
    const DiskstatsPtr info = Acquire<DiskstatsPtr>(procps_diskstats_new);
    if (info == nullptr) {
        return;
    }
    std::array<diskstats_item, 3> items = {DISKSTATS_TYPE, DISKSTATS_READS, DISKSTATS_WRITES};
    const diskstats_reaped *const disks =
        procps_diskstats_reap(info.get(), items.data(), static_cast<int>(items.size()));
    if (disks == nullptr) {
        return;
    }
    counters->reads = 0;
    counters->writes = 0;
    for (int i = 0; i < disks->total; ++i) {
        const diskstats_result *const disk = disks->stacks[i]->head;
        if (disk[0].result.s_int == DISKSTATS_TYPE_DISK) {
            *counters->reads += disk[1].result.ul_int;
            *counters->writes += disk[2].result.ul_int;
        }
    }
}

void ReadStart(const std::string &proc, MachineCounters *counters)
{
    counters->boot = BytesOf(proc + "/sys/kernel/random/boot_id");
    counters->boot = counters->boot.substr(0, counters->boot.find('\n'));
    struct timespec since {};
    if (clock_gettime(CLOCK_BOOTTIME, &since) == 0) {
        counters->uptime = static_cast<double>(since.tv_sec) + static_cast<double>(since.tv_nsec) / 1e9;
    }
}

// Growth of a counter; nothing when one is missing or it went back.
std::optional<double> Growth(const std::optional<uint64_t> &now, const std::optional<uint64_t> &before)
{
    return now.has_value() && before.has_value() && *now >= *before ? std::optional(static_cast<double>(*now - *before))
                                                                    : std::nullopt;
}

MachineCounters CountersAtStart()
{
    MachineCounters start;
    start.cpu_busy = start.cpu_total = start.net_in = start.net_out = start.reads = start.writes = 0;
    return start;
}

std::string CounterText(const std::optional<uint64_t> &counter)
{
    return counter.has_value() ? std::to_string(*counter) : "";
}

// An empty text is a missing counter; false for anything that is no number.
bool ParseCounter(const char *text, std::optional<uint64_t> *ret_counter)
{
    long number = 0;
    if (*text == '\0') {
        ret_counter->reset();
        return true;
    }
    if (!StringIsNumeric(text) || StringToLong(text, &number) != 0) {
        return false;
    }
    *ret_counter = static_cast<uint64_t>(number);
    return true;
}

constexpr std::array kCounters = {&MachineCounters::cpu_busy, &MachineCounters::cpu_total, &MachineCounters::net_in,
                                  &MachineCounters::net_out,  &MachineCounters::reads,     &MachineCounters::writes};

}  // namespace

void CountProcesses(const std::vector<Process> &processes, SlotValues *levels)
{
    std::set<std::string> users;
    double of_root = 0;
    for (const Process &process : processes) {
        users.insert(process.owner);
        of_root += process.owner == "root" || process.owner == "0" ? 1 : 0;
    }
    (*levels)[kSlotUsers] = static_cast<double>(users.size());
    (*levels)[kSlotProcessesRoot] = of_root;
    (*levels)[kSlotProcessesOther] = static_cast<double>(processes.size()) - of_root;
}

void TakeNetworkCounters(std::string_view net_dev, MachineCounters *counters)
{
    while (!net_dev.empty()) {
        const size_t end = std::min(net_dev.find('\n'), net_dev.size());
        const std::string line(net_dev.substr(0, end));
        net_dev.remove_prefix(std::min(end + 1, net_dev.size()));
        char name[65];
        uint64_t in = 0;
        uint64_t out = 0;
        if (sscanf(line.c_str(), " %64[^ :]: %" SCNu64 " %*u %*u %*u %*u %*u %*u %*u %" SCNu64, name, &in, &out) == 3 &&
            std::string_view(name) != "lo") {
            counters->net_in = counters->net_in.value_or(0) + in;
            counters->net_out = counters->net_out.value_or(0) + out;
        }
    }
}

std::optional<double> SocketsIn(std::string_view sockstat)
{
    unsigned long used = 0;
    const std::string text(sockstat);
    return sscanf(text.c_str(), "sockets: used %lu", &used) == 1 ? std::optional(static_cast<double>(used))
                                                                 : std::nullopt;
}

MachineReading ReadMachine(const std::string &proc)
{
    MachineReading reading;
    ReadStart(proc, &reading.counters);
    if (const auto processes = proc == "/proc" ? ReadProcesses() : ReadProcessTree(proc)) {
        CountProcesses(*processes, &reading.levels);
    }
    ReadDiskFree(&reading.levels);
    ReadLoad(&reading.levels);
    ReadMemory(&reading.levels);
    ReadProcessor(&reading.counters);
    ReadDisks(&reading.counters);
    TakeNetworkCounters(BytesOf(proc + "/net/dev"), &reading.counters);
    if (const std::optional<double> sockets = SocketsIn(BytesOf(proc + "/net/sockstat"))) {
        reading.levels[kSlotSockets] = *sockets;
    }
    return reading;
}

SlotValues ValuesOf(const MachineReading &now, const std::optional<MachineCounters> &before)
{
    const MachineCounters &counters = now.counters;
    const bool follows =
        before.has_value() && before->boot == counters.boot && counters.uptime - before->uptime >= kShortestInterval;
    const MachineCounters since = follows ? *before : CountersAtStart();
    const double seconds = counters.uptime - since.uptime;
    SlotValues values = now.levels;
    const auto rate = [&](MonitorSlot slot, std::optional<uint64_t> MachineCounters::*counter) {
        const std::optional<double> growth = Growth(counters.*counter, since.*counter);
        if (growth.has_value() && seconds > 0) {
            values[slot] = *growth / seconds;
        }
    };
    rate(kSlotNetIn, &MachineCounters::net_in);
    rate(kSlotNetOut, &MachineCounters::net_out);
    rate(kSlotIoReads, &MachineCounters::reads);
    rate(kSlotIoWrites, &MachineCounters::writes);
    const std::optional<double> busy = Growth(counters.cpu_busy, since.cpu_busy);
    const std::optional<double> total = Growth(counters.cpu_total, since.cpu_total);
    if (busy.has_value() && total.value_or(0) > 0) {
        values[kSlotCpu] = std::min(100.0, 100.0 * *busy / *total);
    }
    return values;
}

std::string CountersText(const MachineCounters &counters)
{
    const WriterPtr text(StringWriter());
    const CsvWriterPtr csv(CsvWriterOpen(text.get()));
    CsvWriterField(csv.get(), counters.boot.c_str());
    CsvWriterFieldF(csv.get(), "%.3f", counters.uptime);
    for (const auto counter : kCounters) { CsvWriterField(csv.get(), CounterText(counters.*counter).c_str()); }
    CsvWriterNewRecord(csv.get());
    return {StringWriterData(text.get()), StringWriterLength(text.get())};
}

std::optional<MachineCounters> ParseCounters(const std::string &text)
{
    const SeqPtr fields(SeqParseCsvString(text.c_str()));
    MachineCounters counters;
    if (fields == nullptr || SeqLength(fields.get()) != 2 + kCounters.size()) {
        return std::nullopt;
    }
    const auto field = [&fields](size_t i) { return static_cast<const char *>(SeqAt(fields.get(), i)); };
    counters.boot = field(0);
    if (!StringToDouble(field(1), &counters.uptime) || !std::isfinite(counters.uptime)) {
        return std::nullopt;
    }
    for (size_t i = 0; i < kCounters.size(); ++i) {
        if (!ParseCounter(field(2 + i), &(counters.*kCounters[i]))) {
            return std::nullopt;
        }
    }
    return counters;
}

}  // namespace veltrane
