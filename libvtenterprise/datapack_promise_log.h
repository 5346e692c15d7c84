// The chapter "PLG": what the agent repaired or could not keep, one CSV row a promise iteration.
//
// The source is the promise log and its generations in the state directory (promise_log.h), newest first. A file whose
// first entry is not of the period ends the reading: what is older cannot hold anything newer.
#ifndef LIBVTENTERPRISE_DATAPACK_PROMISE_LOG_H
#define LIBVTENTERPRISE_DATAPACK_PROMISE_LOG_H

#include <time.h>

#include <veltrane/seq.h>

#include "libvtenterprise/server_report_filter.h"

// Append the entries later than from, in the order of the files and of their lines. A line that is no entry is left out
// with a warning. That there is no promise log at all is an error line.
//
// filter  admits entries by their handles; NULL = all
void PackPromiseLog(Seq *reply, time_t from, const ReportFilter *filter);

#endif
