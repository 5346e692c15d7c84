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
#include <veltrane/file_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>

#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/state_files.h"

inline constexpr const char *kDiffSection = "DIFF_CRITICAL_SECTION";

// A path below the state directory; a longer one is cut.
struct StatePath {
    char text[4096];

    const char *c_str() const { return text; }
};

StatePath StateCachePath(ReportType type);
StatePath DiffFilePath(ReportType type);

// Hand each record of a state cache over to take, but those that step_over steps over (see ForEachCsvRecord). A record
// that does not split is skipped with a warning, one that the type rejects silently. False, at verbose level, when the
// file cannot be read.
template <typename Take, typename StepOver>
[[nodiscard]] bool ForEachCachedRecord(const char *path, DataFromAttributeListFn DataFromAttributeList, Take take,
                                       StepOver step_over)
{
    const auto make = [&](const char *, Seq *fields) {
        void *item = DataFromAttributeList(fields);
        if (item != nullptr) {
            take(item);
        }
    };
    const veltrane::FilePtr file(safe_fopen(path, "r"));
    if (file == nullptr || !ForEachCsvRecord(file.get(), path, make, step_over)) {
        Log(LOG_LEVEL_VERBOSE, "Could not read cached state: '%s'", path);
        return false;
    }
    return true;
}

template <typename Take>
[[nodiscard]] bool ForEachCachedRecord(const char *path, DataFromAttributeListFn DataFromAttributeList, Take take)
{
    return ForEachCachedRecord(path, DataFromAttributeList, take, [](CsvRecords *) { return false; });
}

// Write each row as one CSV record.
void WriteRows(Writer *writer, const Seq *rows, DataToCSVFn DataToCSV);

#endif
