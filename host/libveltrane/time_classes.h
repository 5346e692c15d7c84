// The classes that tell the time: hour, minute, quarter, day, month, year, life cycle, weekday, shift.
//
// Each holds in local time, and with GMT_ before it in UTC. Reports leave them out by their names, so the names are
// part of the contract with the reports.
#ifndef HOST_LIBVELTRANE_TIME_CLASSES_H
#define HOST_LIBVELTRANE_TIME_CLASSES_H

#include <ctime>
#include <string>
#include <vector>

#include <veltrane/types.h>

namespace veltrane {

// The names for one broken-down time, without prefix: 2025-01-06 12:07 gives Hr12, Min07, Min05_10, Q1, Hr12_Q1, Day6,
// January, Yr2025, Lcycle_0, Monday, Afternoon.
std::vector<std::string> TimeClassNames(const struct tm &time);

// Define the time classes of a moment as hard classes of the context, tags "time_based,source=agent".
void PutTimeClasses(EvalContext *ctx, time_t now);

}  // namespace veltrane

#endif
