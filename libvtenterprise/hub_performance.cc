// One measurement of how long something takes on a host. It is packed as it is, never compared.
#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using PerformanceRecord = Record<HubPerformance, &HubPerformance::event>;

HubPerformance *HubPerformanceNew(HubHost *hh, const char *event, time_t t, double last_observed_value, double average,
                                  double standard_deviation)
{
    HubPerformance *performance = PerformanceRecord::New();
    performance->hh = hh;
    performance->event = SafeStringDuplicate(event);
    performance->last_observed_value = last_observed_value;
    performance->average = average;
    performance->standard_deviation = standard_deviation;
    performance->t = t;
    return performance;
}

void HubPerformanceDelete(HubPerformance *performance) { PerformanceRecord::Delete(performance); }

void HubPerformanceToCSV(const HubPerformance *data, CsvWriter *c)
{
    WriteText(c, data->event);
    CsvWriterFieldF(c, "%lf", data->standard_deviation);
    CsvWriterFieldF(c, "%lf", data->average);
    CsvWriterFieldF(c, "%lf", data->last_observed_value);
    WriteNumber(c, data->t);
}

HubPerformance *HubPerformanceFromAttributeList(const Seq *attr)
{
    if (FieldCount(attr) != 5) {
        return nullptr;
    }
    HubPerformance *record = PerformanceRecord::New();
    record->event = TextAt(attr, 0);
    // What is no number stays 0.
    (void)StringToDouble(FieldAt(attr, 1), &record->standard_deviation);
    (void)StringToDouble(FieldAt(attr, 2), &record->average);
    (void)StringToDouble(FieldAt(attr, 3), &record->last_observed_value);
    record->t = StringToLongUnsafe(FieldAt(attr, 4));
    return record;
}

int SortPerformance(const void *p1, const void *p2)
{
    return static_cast<const HubPerformance *>(p1)->t > static_cast<const HubPerformance *>(p2)->t;
}
