// The difference engine: compares the present state of a report with the one cached by the last run, keeps the
// differences in a file, and reads, ages and clears them.
//
// It is generic: all it knows of a report type comes from that type's row of REPORT_DATA_HANDLES. Its files are
// described in diff_files.h. The life of a type's pair of files: none; cache and difference file after the first run,
// whose items are all additions; later runs append what changed and replace the cache; reading the base state deletes
// the difference file; ageing shortens or deletes it.
//
// Failures are logged where they happen and shown by the result; nothing aborts. Each access to a difference file is
// made inside the critical section "DIFF_CRITICAL_SECTION", which shuts out other processes; callers hold no section.
#ifndef LIBVTENTERPRISE_DIFF_ENGINE_H
#define LIBVTENTERPRISE_DIFF_ENGINE_H

#include <time.h>

#include <functional>

#include <veltrane/eval_context.h>
#include <veltrane/seq.h>

#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/export.h"

// One pass at the end of an agent run: compare, cache the present state, append the differences.
//
// agent_time  stamped on every row.
// Result      false when the present state cannot be had (verbose), when the cache cannot be written (verbose; the old
//             one stays), when the type's temporary inputs cannot be dropped (the cache is new and this pass's
//             differences are lost: kept out rather than reported twice), or when the differences cannot be written
//             (error; the difference file is as before).
VT_EXPORT bool DiffReportGenerate(ReportType type, time_t agent_time, const EvalContext *ctx) noexcept;

// The same pass from where the present state has been gathered, in whatever order. Not for hosts.
//
// now      when the gathering began
// present  records of the type; taken over
bool DiffReportGenerateFrom(ReportType type, time_t agent_time, time_t now, Seq *present) noexcept;

// The differences of two states: first every removal, in key order; then additions and changes, in key order. Without
// an old state every item is an addition, in the order of new_state.
//
// old_state      may be NULL or empty. Both states, and their records, stay as they are; empty slots are passed over.
// CompareValues  may be NULL: nothing ever changes.
// Result         a new Seq of DiffRow, with time 0, type report_type_max and copies of the records; never NULL.
// Cost           n log n for states in no order, n for sorted ones. Of several records with one key any may match.
VT_EXPORT Seq *GenerateDiff(Seq *old_state, Seq *new_state, DataDeleteFn DataDelete, CompareKeysFn CompareKeys,
                            CompareValuesFn CompareValues, DataDupFn DataDup) noexcept;

// The records of a state cache: a new Seq that owns them, in file order; NULL, at verbose level, when the file cannot
// be read. A record that does not split is skipped with a warning, one that the type rejects silently.
VT_EXPORT Seq *GetStateCache(const char *path, DataFromAttributeListFn DataFromAttributeList,
                             DataDeleteFn DataDelete) noexcept;

// The rows of the type's difference file whose time lies in [from, to); to = -1 leaves the end open.
//
// Result  a new Seq of DiffRow, in file order; NULL, at verbose level, when the file cannot be read.
// Errors  a malformed row is skipped with a warning that names the file and the row.
VT_EXPORT Seq *DiffReportGet(ReportType type, time_t from, time_t to) noexcept;

// The same for any path and kind of record.
VT_EXPORT Seq *DiffReportGetWithSpecifier(time_t from, time_t to, const char *path,
                                          DataFromAttributeListFn DataFromAttributeList,
                                          DataDeleteFn DataDelete) noexcept;

// The cached state as additions at rebase_time, and the end of the type's difference history: the file is deleted (that
// there was none is a warning, that it cannot be deleted an error).
//
// Result  a new Seq of DiffRow with their real report type, in file order; NULL, at verbose level, without a cache: the
//         history then stays.
VT_EXPORT Seq *DiffReportGetBaseState(ReportType type, time_t rebase_time) noexcept;

// The same for whoever needs no rows: each record of the state goes to take, which takes it over, in file order.
//
// Result  false without a cache, and when it cannot be read to its end: what take got then is not the state.
bool DiffReportVisitBaseState(ReportType type, const std::function<void(void *record)> &take);

// Keep only the rows whose time is at least agent_time; a file without such rows is deleted. When the kept rows cannot
// be written the file is deleted too, with an error, so that it cannot grow for ever. Rows that are appended while
// this runs may be lost.
VT_EXPORT void DiffReportRemoveOldEntries(ReportType type, time_t agent_time) noexcept;

#endif
