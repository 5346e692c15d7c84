// Measurements of the machine: the slots they are kept in, and what vt-monitord has recorded of each.
//
// Read from files of the state directory (docs/formats/measurements.md), in any thread, beside a vt-monitord that
// writes them: each is replaced whole.
#ifndef VELTRANE_MONITORING_H
#define VELTRANE_MONITORING_H

#include <time.h>

#include <veltrane/records.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

enum {
    VT_OBSERVABLES = 100,         // slots
    VT_HISTOGRAM_POSITIONS = 64,  // of a slot's histogram of one day of the week
    VT_WEEK_DAYS = 7
};

// Slots are those of state/monitor_slots.csv, read again when it changed. Without that file the host's own names hold:
// users, processes_root, processes_other, disk_free, load_1m, cpu, memory_total, memory_free, memory_cached, swap_used,
// net_in, net_out, sockets, io_reads, io_writes, from 0; the others have none.

// the slot has a name; false outside 0..99
bool VeskHasSlot(int index);

// borrowed (thread storage); "slot_<index>" for a slot without a name
const char *VeskGetSlotName(int index);

// the same rules
const char *VeskGetSlotDescription(int index);

// All slots at one time; a slot without a measurement has four NaN. A year's average of a slot: Q.expect, its variance
// Q.var.
struct MonitorSample_ {
    time_t t;
    QPoint Q[VT_OBSERVABLES];
};

// new, MonitorSample *: five-minute samples with from <= t < to, at most the last week, oldest first; NULL without data
Seq *MonitorGetSamples(time_t from, time_t to);

// new, the same: one average a week, at most three years, oldest first; NULL without data
Seq *MonitorGetWeeks(void);

VT_END_DECLS

#endif
