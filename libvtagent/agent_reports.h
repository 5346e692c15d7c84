// What the agent does around each policy run: tracking when it ran, writing down its patches, and generating the state
// reports at its end.
//
// The entry points themselves are declared with all others in libvtenterprise/entry_points_real.h. Here stand the
// records of the agent execution database (dbid_agent_execution), which the report packer reads back. It holds exactly
// these two keys, each value 8 bytes in host byte order.
#ifndef LIBVTAGENT_AGENT_REPORTS_H
#define LIBVTAGENT_AGENT_REPORTS_H

#include <time.h>

// time_t: the start of the last tracked run.
inline constexpr const char *kLastExecutionKey = "last_exec";

// double: seconds between tracked runs, smoothed exponentially.
inline constexpr const char *kAverageIntervalKey = "delta_gavr";

static_assert(sizeof(time_t) == 8 && sizeof(double) == 8, "the database keeps 8 bytes a value");

#endif
