// Reading the histogram file, smoothing, and the lines of the chapter "MOH".
#include "libvtenterprise/datapack_histograms.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/monitoring.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/reply_line.h"

namespace {

using veltrane::FilePtr;
using veltrane::TextPtr;

constexpr int kPositions = VT_HISTOGRAM_POSITIONS;
constexpr double kMostOfSum = 999999;

// All values: slot by slot, in it day by day, in it position by position.
class Histograms {
  public:
    Histograms() : values_(static_cast<size_t>(VT_OBSERVABLES) * VT_WEEK_DAYS * kPositions) {}

    double *Day(int slot, int day) { return &values_[Index(slot, day)]; }
    const double *Day(int slot, int day) const { return &values_[Index(slot, day)]; }

  private:
    static size_t Index(int slot, int day)
    {
        return (static_cast<size_t>(slot) * VT_WEEK_DAYS + static_cast<size_t>(day)) * kPositions;
    }

    std::vector<double> values_;
};

// The values of one position; those of a position that there is not are read and dropped.
void ReadPosition(FILE *file, int position, Histograms *histograms)
{
    for (int slot = 0; slot < VT_OBSERVABLES; ++slot) {
        for (int day = 0; day < VT_WEEK_DAYS; ++day) {
            double value = 0;
            if (fscanf(file, "%lf ", &value) != 1) {
                Log(LOG_LEVEL_VERBOSE, "!! Could not load histogram data for i=%d,day=%d,position=%d", slot, day,
                    position);
                value = 0;
            }
            if (position >= 0 && position < kPositions) {
                histograms->Day(slot, day)[position] = value;
            }
        }
    }
}

// The number that was read says which position it is, and whether another one follows: nothing else ends the file, but
// that no number can be read.
void ReadHistograms(FILE *file, Histograms *histograms)
{
    long position = 0;
    do {
        if (fscanf(file, "%ld ", &position) != 1) {
            return;
        }
        ReadPosition(file, static_cast<int>(std::clamp<long>(position, INT_MIN, INT_MAX)), histograms);
    } while (position < kPositions - 1);
}

// The mean with both neighbours; the ends have none on one side.
double Smoothed(const double *day, int position)
{
    if (position == 0 || position == kPositions - 1) {
        return 0;
    }
    return (day[position - 1] + day[position] + day[position + 1]) / 3;
}

// One position of all days. *has_data is set when there is any, and otherwise left alone.
double SumOfDays(const Histograms &histograms, int slot, int position, bool *has_data)
{
    double sum = 0;
    for (int day = 0; day < VT_WEEK_DAYS; ++day) {
        const double smoothed = Smoothed(histograms.Day(slot, day), position);
        sum += smoothed + 0.5;
        if (sum > 0 && smoothed != 0) {
            *has_data = true;
        }
        if (sum > kMostOfSum || sum < 0) {
            sum = 0;
        }
    }
    return std::isnan(sum) ? 0 : sum;  // what is no number has no place in the line
}

// Nothing for a slot without data.
std::optional<std::string> SumsOf(const Histograms &histograms, int slot)
{
    std::string sums;
    bool has_data = false;
    for (int position = 0; position < kPositions; ++position) {
        sums += ',' + std::to_string(std::lround(SumOfDays(histograms, slot, position, &has_data)));
    }
    return has_data ? std::optional(sums) : std::nullopt;
}

void PackSlot(Seq *reply, int slot, const std::string &sums, const ReportFilter *filter)
{
    if (!VeskHasSlot(slot)) {
        Log(LOG_LEVEL_DEBUG, "Could not find slot %d when packing monitoring histograms - skipping", slot);
        return;
    }
    if (filter != nullptr && !IsKeyAllowedByFilter(VeskGetSlotName(slot), filter)) {
        Log(LOG_LEVEL_DEBUG, "Slot %d not allowed by report filter when packing monitoring histograms - skipping",
            slot);
        return;
    }
    AppendReplyLine(reply, "monitoring", TextPtr(StringFormat("%s%s", VeskGetSlotName(slot), sums.c_str())));
}

FilePtr OpenHistograms()
{
    char path[4096];
    (void)snprintf(path, sizeof(path), "%s/histograms", GetStateDir());
    return FilePtr(safe_fopen(MapName(path), "r"));
}

}  // namespace

void PackHistograms(Seq *reply, const ReportFilter *filter)
{
    Log(LOG_LEVEL_VERBOSE, "Packing histograms");
    FilePtr file = OpenHistograms();
    if (file == nullptr) {
        Log(LOG_LEVEL_VERBOSE, "!! Unable to load histogram data");
        return;
    }
    AppendChapterCode(reply, vtr_code_monitor_hg);
    Histograms histograms;
    ReadHistograms(file.get(), &histograms);
    file.reset();
    for (int slot = 0; slot < VT_OBSERVABLES; ++slot) {
        if (const std::optional<std::string> sums = SumsOf(histograms, slot)) {
            PackSlot(reply, slot, *sums, filter);
        }
    }
}
