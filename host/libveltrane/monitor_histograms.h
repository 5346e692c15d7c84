// How far each slot lay from its average, how often, on each day of the week: the file state/histograms.
//
// The file is text that the report packer reads; it is written whole beside the old one and renamed over it, for that
// reader knows no end but the last position. docs/formats/measurements.md draws it.
#ifndef HOST_LIBVELTRANE_MONITOR_HISTOGRAMS_H
#define HOST_LIBVELTRANE_MONITOR_HISTOGRAMS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/monitoring.h>

namespace veltrane {

constexpr char kHistogramsName[] = "histograms";  // in the state directory

class Histograms {
  public:
    Histograms() : counts_(kCounts, 0) {}

    // What a file holds; nothing when it is not exactly what Text gives.
    static std::optional<Histograms> Parse(std::string_view text);
    std::string Text() const;

    // Count a sample: each measured slot, by its distance from the average that held before it. A slot that was not
    // known before counts as average.
    void Count(const MonitorSample &sample, const std::optional<MonitorSample> &before);

    double At(size_t slot, size_t day, size_t position) const { return counts_[Index(slot, day, position)]; }

  private:
    static constexpr size_t kCounts = size_t{VT_OBSERVABLES} * VT_WEEK_DAYS * VT_HISTOGRAM_POSITIONS;
    static size_t Index(size_t slot, size_t day, size_t position)
    {
        return (slot * VT_WEEK_DAYS + day) * VT_HISTOGRAM_POSITIONS + position;
    }
    void Add(size_t slot, size_t day, size_t position);

    std::vector<double> counts_;  // slot by slot, seven days each, 64 positions each
};

// The position of a distance from an average, 1 to 62; 32 where the variance says nothing.
size_t HistogramPosition(double q, double expect, double var);

}  // namespace veltrane

#endif
