// The whole reply to a report query: the header line and, in a fixed order, every chapter that the request calls for.
//
//   delta     header, CLD, VAD, LSD, SDI, SPD, ELD, PRD, EXS, CNG, CND, MOM, MOY, MOH, PLG
//   rebase    header, CLD, VAD, LSD, SDI, SPD, ELD, EXS
//   full      header
//
// Every source is optional: one that is missing leaves its chapter out, and the reply is built all the same.
// report_data.h has the grammar of the lines. One reply is packed at a time: the query service sees to that.
#ifndef LIBVTENTERPRISE_DATAPACK_H
#define LIBVTENTERPRISE_DATAPACK_H

#include <time.h>

#include <string>

#include <veltrane/net.h>
#include <veltrane/seq.h>

#include "libvtenterprise/export.h"
#include "libvtenterprise/reports.h"
#include "libvtenterprise/server_report_filter.h"

// Pack a reply: new Seq of lines, the header first.
//
// from, to            the period that a delta covers: rows with a time in [from, to). A rebase is the state as of to.
// clock_error         our time minus the peer's, in seconds; goes into the header
// type                delta, rebase or full; any other is a programming error and ends the process
// report_book_filter  what the reply may carry; NULL = everything
// version             the protocol of the peer: old ones get CSV rows with their record end
VT_EXPORT Seq *Vesk_PackAllReports(time_t from, time_t to, time_t clock_error, ReportRequestType type,
                                   const ReportBookFilter *report_book_filter, ProtocolVersion version) noexcept;

// Append the chapter "EXS": whether the agent is overdue, the average interval of its runs and the time of the last
// one. Nothing is appended, at info level, when the agent execution database does not hold both.
VT_EXPORT void Vesk_PackExecutionStatus(Seq *reply, ProtocolVersion version) noexcept;

// Drop the difference rows of all six reports that are older than from.
VT_EXPORT void PurgeOldDiffReports(time_t from) noexcept;

// The row of "EXS": 't' when more than 3.3 times the average interval, or 3.3 times 300 seconds if that is longer, lies
// between last_exec and now, else 'f'; the average as a whole number; last_exec.
std::string ExecutionStatusRow(time_t now, time_t last_exec, double average_interval, bool terminate);

#endif
