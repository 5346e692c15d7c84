// The six state chapters of a reply: rows of a difference file for a delta, the whole base state for a rebase.
//
// Rows that a filter hides are not simply dropped: each goes out once as "untracked" and is remembered in the report's
// untracked index, so that it can be sent as an addition when the filter admits it again, and so that its removal is
// never sent while the hub does not know it.
//
// No state is kept here between calls. Two packs of one report type must not run at once (the index is read, changed
// and written back): the query service packs one reply at a time.
#ifndef LIBVTENTERPRISE_DATAPACK_STATE_H
#define LIBVTENTERPRISE_DATAPACK_STATE_H

#include <time.h>

#include <veltrane/map.h>
#include <veltrane/net.h>
#include <veltrane/seq.h>

#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/export.h"
#include "libvtenterprise/reports.h"
#include "libvtenterprise/server_report_filter.h"

// A state row of more characters than this is not sent.
inline constexpr size_t kMaxStateRowLength = 4024;

// Whether a filter lets a row with this filtering key pass.
typedef bool (*FilterTestFn)(const char *key, const ReportFilter *filter);

// Peers of these versions get CSV rows with their record end, newer ones without.
inline bool IsOldProtocol(ProtocolVersion version) { return version <= VT_PROTOCOL_TLS; }

// Append the chapter of one report's base state to reply.
//
// header    the chapter code
// filter    NULL = everything passes
// Result    nothing is appended when there is no base state (verbose line) or no row of it is left. A row over the
// limit
//           is left out with a warning; the chapter code stays.
// Note      reading a base state deletes the report's difference history, see diff_engine.h.
VT_EXPORT void PackBaseState(Seq *reply, const char *header, time_t rebase_time, const ReportFilter *filter,
                             ReportType type, ProtocolVersion version) noexcept;

// The same for the difference rows with a time in [from, to).
VT_EXPORT void PackDiffReport(Seq *reply, const char *header, time_t from, time_t to, const ReportFilter *filter,
                              ReportType type, ProtocolVersion version) noexcept;

// Bring rows and index in line with the filter: re-admit, then hide, then sort the rows by time (slots that became
// empty may end anywhere).
//
// data      rows (DiffRow), edited in place
// index     edited in place; NULL: nothing happens at all
// filter    NULL = every entry of the index is admitted and nothing is hidden
// Cost      linear in rows and entries, and the sort.
VT_EXPORT void FilterDiffData(Seq *data, StringMap *index, const ReportFilter *filter, ReportType type,
                              FilterTestFn test, ProtocolVersion version) noexcept;

// The text by which a filter judges the row: its tags for classes and variables, its handle for promise executions, ""
// when that is absent; NULL for the other reports, whose rows are never hidden. Lent by the row.
VT_EXPORT const char *GetFilteringKey(const DiffRow *row, ReportType type) noexcept;

// Whether filter lets a row with these tags, joined with ",", pass. A row without tags counts as one with the empty
// tag.
VT_EXPORT bool IsMetaTagAllowedByKey(const char *key, const ReportFilter *filter) noexcept;

#endif
