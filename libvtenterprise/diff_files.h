// Where the two files of a report type lie, and how rows become records: what the engine and the history share.
//
//     <state>/previous_state/<type>.cache    the last known state: one CSV record an item, the record's columns
//     <state>/diff/<type>.diff               changes since the last base state: time, kind, the record's columns
//
// Each access to a difference file is made inside kDiffSection, for agent and server daemon are separate processes. The
// caches are read and replaced without a lock. Neither directory is made here.
#ifndef LIBVTENTERPRISE_DIFF_FILES_H
#define LIBVTENTERPRISE_DIFF_FILES_H

#include <veltrane/csv.h>
#include <veltrane/seq.h>

#include "libvtenterprise/diff_common.h"

inline constexpr const char *kDiffSection = "DIFF_CRITICAL_SECTION";

// A path below the state directory; a longer one is cut.
struct StatePath {
    char text[4096];

    const char *c_str() const { return text; }
};

StatePath StateCachePath(ReportType type);
StatePath DiffFilePath(ReportType type);

// Write each row as one CSV record.
void WriteRows(Writer *writer, const Seq *rows, DataToCSVFn DataToCSV);

#endif
