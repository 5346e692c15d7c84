// The two rings of measurements in the state directory: the samples of the last week, and an average a week.
//
// A record stands at the place of its time and carries a check. One that is torn, damaged or foreign reads as empty and
// is gone with the next write to its place; nothing else of the file suffers. docs/formats/measurements.md draws it.
// One process writes; any number may read meanwhile.
#ifndef HOST_LIBVELTRANE_MONITOR_RINGS_H
#define HOST_LIBVELTRANE_MONITOR_RINGS_H

#include <array>
#include <ctime>
#include <optional>
#include <vector>

#include <veltrane/monitoring.h>

#include "libveltrane/trouble.h"

namespace veltrane {

constexpr time_t kFirstMonday = 345600;  // of the epoch: Monday 5 January 1970, 0:00 UTC
constexpr time_t kSampleSeconds = 300;
constexpr time_t kDaySeconds = 86400;
constexpr time_t kWeekSeconds = 604800;
constexpr char kSamplesName[] = "monitor_samples";
constexpr char kWeeksName[] = "monitor_weeks";

// A measured value a slot; NaN where there is none.
using SlotValues = std::array<double, VT_OBSERVABLES>;
SlotValues NoValues();

// Whether a quantity was measured at all.
bool IsMeasured(const QPoint &quantity);

// The sample that follows from new values and what stood at their place before: the averages of this time of the week
// are carried on. A value that is missing leaves four NaN.
MonitorSample NextSample(const std::optional<MonitorSample> &before, time_t t, const SlotValues &values);

// What a week's samples, oldest first, sum up to, beside the week before where that is known. At least one sample.
MonitorSample SumUpWeek(const std::vector<MonitorSample> &samples, const std::optional<MonitorSample> &week_before);

// Monday 0:00 UTC of the week of a time.
time_t WeekOf(time_t t);

// Samples with from <= t < to, of them the last week before the newest; oldest first.
std::vector<MonitorSample> ReadSamples(time_t from, time_t to);

// The weeks up to now, at most 157, oldest first.
std::vector<MonitorSample> ReadWeeks(time_t now);

// What stands at the place of a time, whatever week it is of.
std::optional<MonitorSample> ReadSampleAt(time_t t);

// Put a record into its place. Times before the first Monday have none, and are trouble.
Trouble WriteSample(const MonitorSample &sample);
Trouble WriteWeek(const MonitorSample &week);

}  // namespace veltrane

#endif
