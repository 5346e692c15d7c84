// The slots that vt-monitord measures, by number, and the file that names them.
//
// A slot keeps its number and its meaning for ever: every other file of measurements knows it by number alone.
#ifndef HOST_LIBVELTRANE_MONITOR_SLOTS_H
#define HOST_LIBVELTRANE_MONITOR_SLOTS_H

#include <string>

namespace veltrane {

// Written into samples, weeks and histograms: never renumber.
enum MonitorSlot {
    kSlotUsers = 0,
    kSlotProcessesRoot = 1,
    kSlotProcessesOther = 2,
    kSlotDiskFree = 3,
    kSlotLoad = 4,
    kSlotCpu = 5,
    kSlotMemoryTotal = 6,
    kSlotMemoryFree = 7,
    kSlotMemoryCached = 8,
    kSlotSwapUsed = 9,
    kSlotNetIn = 10,
    kSlotNetOut = 11,
    kSlotSockets = 12,
    kSlotIoReads = 13,
    kSlotIoWrites = 14,
    kSlotsOfOurs = 15,
};

constexpr char kMonitorSlotsName[] = "monitor_slots.csv";  // in the state directory

// The bytes of the file that names our slots.
std::string MonitorSlotsText();

}  // namespace veltrane

#endif
