// The chapters of single measurements: "MOM", the samples of the last week, and "MOY", an average a week for three
// years.
//
// A line is one slot at one time, as a measurement in "PRD" is: slot, deviation, average, last value, time. Lines come
// slot by slot in the order of their numbers, each slot's oldest first. A slot without a name, one that the filter does
// not admit, and what was not measured are left out; a chapter without lines is not there.
#ifndef LIBVTENTERPRISE_DATAPACK_MONITORING_H
#define LIBVTENTERPRISE_DATAPACK_MONITORING_H

#include <time.h>

#include <veltrane/owned.h>
#include <veltrane/records.h>
#include <veltrane/seq.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"
#include "libvtenterprise/server_report_filter.h"

// Append "MOM": the samples measured after from, with the average and the deviation of their time of the week.
//
// filter  admits slots by their names; NULL = all
VT_EXPORT void Vesk_PackMonitorMg(Seq *reply, time_t from, const ReportFilter *filter) noexcept;

// Append "MOY": each week's average, its deviation and its last value; the time is the beginning of the week.
VT_EXPORT void Vesk_PackMonitorYr(Seq *reply, const ReportFilter *filter) noexcept;

// The line of one slot at one time: new. NULL for what was not measured, or is no number for another reason.
VT_EXPORT char *Vesk_FormatMonitoringReply(const char *slot, time_t t, const QPoint *measured) noexcept;

// The line of a measurement as it travels; terminate: with its record end, for old peers.
veltrane::TextPtr PerformanceRow(const HubPerformance *performance, bool terminate);

#endif
