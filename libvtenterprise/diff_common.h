// Rows of difference files, and the table of operations through which the diff engine and the packers handle the six
// kinds of record without knowing them.
//
// A row is one CSV record: time, kind of change, then the record's columns. A row file never stores its report type, so
// whoever needs the type passes it; DiffRow::type is real only in rows made for a base state.
#ifndef LIBVTENTERPRISE_DIFF_COMMON_H
#define LIBVTENTERPRISE_DIFF_COMMON_H

#include <time.h>

#include <veltrane/csv.h>
#include <veltrane/eval_context.h>
#include <veltrane/seq.h>

#include "libvtenterprise/export.h"
#include "libvtenterprise/reports.h"

// The kind of a change: written into difference files, never renumber.
enum DiffType : int {
    diff_unknown = 0,  // never in a file
    diff_add = 1,
    diff_remove = 2,
    diff_change = 3,
    diff_untracked = 4,
};

// "UNKNOWN", "ADD", "REMOVE", "CHANGE", "UNTRACKED"; static; anything else is "UNKNOWN" too
VT_EXPORT const char *DiffTypeToString(DiffType type);

// The operations of one report type. A slot may be NULL where its line says so; every slot of report_type_max is.
//
// order of two records by identity, 0 = the same item; for sorting and binary search
typedef int (*CompareKeysFn)(const void *a, const void *b, void *user_data);
// whether two records of equal keys carry the same value; NULL: values never change
typedef bool (*CompareValuesFn)(const void *a, const void *b);
// new Seq of the present records; NULL when the state cannot be had; a NULL slot counts as that
typedef Seq *(*GetCurrentStateFn)(const EvalContext *ctx);
// drops what GetCurrentState read, once the state is cached; false: the difference is not written; NULL: nothing to
// drop
typedef bool (*PurgeCurrentStateFn)(time_t state_time);
// appends the record's columns to the CSV record under way
typedef void (*DataToCSVFn)(void *data, CsvWriter *c);
// new record from its columns (texts); NULL when they are malformed
typedef void *(*DataFromAttributeListFn)(Seq *attr);
// new text that names the item; NULL: the type has none
typedef char *(*DataGetMainKeyFn)(void *row);
// ends a record; accepts NULL
typedef void (*DataDeleteFn)(void *data);
// new deep copy
typedef void *(*DataDupFn)(const void *data);

struct ReportDataHandle {
    CompareKeysFn CompareKeys;
    CompareValuesFn CompareValues;
    GetCurrentStateFn GetCurrentState;
    PurgeCurrentStateFn PurgeCurrentState;
    DataToCSVFn DataToCSV;
    DataFromAttributeListFn DataFromAttributeList;
    DataGetMainKeyFn DataGetMainKey;
    DataDeleteFn DataDelete;
    DataDupFn DataDup;
};

// One row of operations a report type, by ReportType, and an empty one at report_type_max.
VT_EXPORT const ReportDataHandle REPORT_DATA_HANDLES[report_type_max + 1];

// The two leading columns of a row; owned by exactly one DiffRow.
struct DiffInfo {
    time_t time;  // of the agent run that recorded the change, or of the rebase
    DiffType type;
};

struct DiffRow {
    DiffInfo *info;           // owned
    ReportType type;          // report_type_max unless the row was made for a base state
    void *data;               // owned: a record of the report type
    DataDeleteFn DataDelete;  // frees data
};

VT_EXPORT DiffInfo *DiffInfoNew(time_t time, DiffType type);
VT_EXPORT void DiffInfoDelete(void *ptr);

// Append the two columns.
VT_EXPORT void DiffInfoToCSV(const DiffInfo *info, CsvWriter *c);

// New, from exactly two texts; NULL, silently, when one is no number or the kind is outside 1 to 4. A number that is
// too large is a debug line.
VT_EXPORT DiffInfo *DiffInfoFromAttributeList(Seq *attr);

// Takes over info and data.
VT_EXPORT DiffRow *DiffRowNew(DiffInfo *info, ReportType type, void *data, DataDeleteFn DataDelete);

// The item destructor of every sequence of rows.
VT_EXPORT void DiffRowDelete(void *ptr);

// New row from the fields of a CSV record, which stay the caller's; NULL, silently, when there are fewer than three or
// either part is malformed.
VT_EXPORT DiffRow *DiffRowFromAttrListWithSpecifier(Seq *csv_attr, DataFromAttributeListFn DataFromAttr,
                                                    DataDeleteFn DataDelete);

// New row from one CSV record; NULL for NULL and for a malformed one. What does not split as CSV is an error line.
VT_EXPORT DiffRow *DiffRowFromCSV(const char *string, ReportType type);

// New text: the row as one CSV record with the columns of `type`, its line end only when terminate is set.
VT_EXPORT char *DiffRowToCSV(DiffRow *row, ReportType type, bool terminate);

// New text that names the row's item. NULL, silently, for types without main keys; NULL with a warning when the record
// gives none.
VT_EXPORT char *DiffRowGetMainKey(DiffRow *row, ReportType type);

// Rows by time ascending, in the shape of SeqSort. Two empty slots are equal; one alone is -1 on either side.
VT_EXPORT int DiffRowCompareTs(const void *a, const void *b, void *user_data);

#endif
