// One round of measuring: what is kept of a reading of the machine, in the state directory.
//
// The files are monitor_slots.csv, monitor_counters, monitor_samples, monitor_weeks and histograms, see
// docs/formats/measurements.md. One process at a time does this; it may be killed at any moment.
#ifndef HOST_LIBVELTRANE_MONITOR_RECORD_H
#define HOST_LIBVELTRANE_MONITOR_RECORD_H

#include <ctime>
#include <string>
#include <vector>

#include "libveltrane/machine_measurements.h"

namespace veltrane {

constexpr char kCountersName[] = "monitor_counters";  // in the state directory

struct RoundResult {
    size_t measured = 0;                  // slots
    std::vector<std::string> troubles{};  // what could not be kept, and why; the rest was
    bool histograms_damaged = false;      // the file was none of ours, and began anew
};

RoundResult RecordReading(const MachineReading &reading, time_t t);

}  // namespace veltrane

#endif
