// Measurements that a test makes up, in the place of those that were recorded. The library's two functions are replaced
// in a program that includes this, so one file of it may.
#ifndef TESTS_SUPPORT_FAKE_MEASUREMENTS_H
#define TESTS_SUPPORT_FAKE_MEASUREMENTS_H

#include <cstdlib>
#include <limits>
#include <map>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/monitoring.h>
#include <veltrane/seq.h>

struct FakeMeasurements {
    std::vector<MonitorSample> samples;
    std::vector<MonitorSample> weeks;
    time_t asked_from = 0;
    time_t asked_to = 0;
};

inline FakeMeasurements &Measurements()
{
    static FakeMeasurements measurements;
    return measurements;
}

// One time, at which these slots were measured and no others.
inline MonitorSample Measured(time_t t, const std::map<int, QPoint> &slots)
{
    const double none = std::numeric_limits<double>::quiet_NaN();
    MonitorSample sample{};
    sample.t = t;
    for (int slot = 0; slot < VT_OBSERVABLES; ++slot) {
        const auto found = slots.find(slot);
        sample.Q[slot] = found != slots.end() ? found->second : QPoint{none, none, none, none};
    }
    return sample;
}

inline Seq *SeqOfSamples(const std::vector<MonitorSample> &samples, time_t from, time_t to)
{
    Seq *seq = nullptr;
    for (const MonitorSample &sample : samples) {
        if (sample.t >= from && sample.t < to) {
            seq = seq != nullptr ? seq : SeqNew(samples.size(), free);
            SeqAppend(seq, xmemdup(&sample, sizeof(sample)));
        }
    }
    return seq;
}

extern "C" Seq *MonitorGetSamples(time_t from, time_t to)
{
    Measurements().asked_from = from;
    Measurements().asked_to = to;
    return SeqOfSamples(Measurements().samples, from, to);
}

extern "C" Seq *MonitorGetWeeks(void)
{
    return SeqOfSamples(Measurements().weeks, 0, std::numeric_limits<time_t>::max());
}

#endif
