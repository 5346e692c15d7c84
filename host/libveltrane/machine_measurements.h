// What is measured of this machine: levels at one moment, and counters that only grow, of which rates are made.
//
// Read from /proc, through libproc2 where it offers what is wanted. A quantity that cannot be read is missing, and
// keeps no other from being measured.
#ifndef HOST_LIBVELTRANE_MACHINE_MEASUREMENTS_H
#define HOST_LIBVELTRANE_MACHINE_MEASUREMENTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libveltrane/monitor_rings.h"
#include "libveltrane/monitor_slots.h"
#include "libveltrane/process_table.h"

namespace veltrane {

// Counters since the machine started. One that is missing is nothing.
struct MachineCounters {
    std::string boot{};  // the name of this start of the machine
    double uptime = 0;   // seconds since it, sleep included
    std::optional<uint64_t> cpu_busy{};
    std::optional<uint64_t> cpu_total{};
    std::optional<uint64_t> net_in{};
    std::optional<uint64_t> net_out{};
    std::optional<uint64_t> reads{};
    std::optional<uint64_t> writes{};
};

struct MachineReading {
    SlotValues levels = NoValues();  // of the slots that are no rates
    MachineCounters counters{};
};

// Read this machine, its network from a tree in the shape of /proc. Nothing is logged.
MachineReading ReadMachine(const std::string &proc = "/proc");

// The parts of it that have a text, or a list, to be made from.
void CountProcesses(const std::vector<Process> &processes, SlotValues *levels);
void TakeNetworkCounters(std::string_view net_dev, MachineCounters *counters);
std::optional<double> SocketsIn(std::string_view sockstat);

// Add the rates between two readings to the levels of the later one. Without an earlier one of the same start of the
// machine, at least a second before, they are the rates since that start.
SlotValues ValuesOf(const MachineReading &now, const std::optional<MachineCounters> &before);

// Counters as one CSV record, for the next run; nothing for a text that is none.
std::string CountersText(const MachineCounters &counters);
std::optional<MachineCounters> ParseCounters(const std::string &text);

}  // namespace veltrane

#endif
