// The packers of the recent samples and of the weekly averages; datapack_monitoring.h says what a line holds.
#include "libvtenterprise/datapack_monitoring.h"

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include <veltrane/csv.h>
#include <veltrane/logging.h>
#include <veltrane/monitoring.h>
#include <veltrane/writer.h>

#include "libvtenterprise/reply_line.h"

using veltrane::SeqPtr;
using veltrane::TextPtr;

namespace {

using HubPerformancePtr = std::unique_ptr<HubPerformance, veltrane::Destroyer<HubPerformanceDelete>>;

const MonitorSample *SampleAt(const Seq *samples, size_t i)
{
    return static_cast<const MonitorSample *>(SeqAt(samples, i));
}

// samples  NULL = there are none
void PackSamples(Seq *reply, CodeBookIndex code, const Seq *samples, const ReportFilter *filter)
{
    ReplyChapter chapter(reply, code, "monitoring");
    for (int slot = 0; samples != nullptr && slot < VT_OBSERVABLES; ++slot) {
        if (!VeskHasSlot(slot)) {
            continue;
        }
        const std::string name = VeskGetSlotName(slot);  // kept: the text is lent until the next such call
        if (filter != nullptr && !IsKeyAllowedByFilter(name.c_str(), filter)) {
            continue;
        }
        for (size_t i = 0; i < SeqLength(samples); ++i) {
            const MonitorSample *sample = SampleAt(samples, i);
            TextPtr line(Vesk_FormatMonitoringReply(name.c_str(), sample->t, &sample->Q[slot]));
            if (line != nullptr) {
                chapter.Add(std::move(line));
            }
        }
    }
}

time_t After(time_t t) { return t < std::numeric_limits<time_t>::max() ? t + 1 : t; }

}  // namespace

void Vesk_PackMonitorMg(Seq *reply, time_t from, const ReportFilter *filter) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Packing magnified monitoring data");
    const SeqPtr samples(MonitorGetSamples(After(from), After(time(nullptr))));
    PackSamples(reply, vtr_code_monitor_mg, samples.get(), filter);
}

void Vesk_PackMonitorYr(Seq *reply, const ReportFilter *filter) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Packing yearly monitoring data");
    const SeqPtr weeks(MonitorGetWeeks());
    PackSamples(reply, vtr_code_monitor_yr, weeks.get(), filter);
}

char *Vesk_FormatMonitoringReply(const char *slot, time_t t, const QPoint *measured) noexcept
{
    const double deviation = std::sqrt(measured->var);
    if (!std::isfinite(measured->q) || !std::isfinite(measured->expect) || !std::isfinite(deviation)) {
        return nullptr;
    }
    const HubPerformancePtr record(HubPerformanceNew(nullptr, slot, t, measured->q, measured->expect, deviation));
    return PerformanceRow(record.get(), false).release();
}

TextPtr PerformanceRow(const HubPerformance *performance, bool terminate)
{
    Writer *writer = StringWriter();
    CsvWriter *csv = CsvWriterOpenSpecifyTerminate(writer, terminate);
    HubPerformanceToCSV(performance, csv);
    CsvWriterClose(csv);
    return TextPtr(StringWriterClose(writer));
}
