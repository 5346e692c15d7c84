// Paths and records of the difference engine's files.
#include "libvtenterprise/diff_files.h"

#include <cstdio>

#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>

StatePath StateCachePath(ReportType type)
{
    StatePath path;
    (void)snprintf(path.text, sizeof(path.text), "%s/previous_state/%s.cache", GetStateDir(), ReportTypeToString(type));
    return path;
}

StatePath DiffFilePath(ReportType type)
{
    StatePath path;
    (void)snprintf(path.text, sizeof(path.text), "%s/diff/%s.diff", GetStateDir(), ReportTypeToString(type));
    return path;
}

void WriteRows(Writer *writer, const Seq *rows, DataToCSVFn DataToCSV)
{
    const veltrane::CsvWriterPtr csv(CsvWriterOpen(writer));
    for (size_t i = 0; i < SeqLength(rows); i++) {
        const DiffRow *row = static_cast<const DiffRow *>(SeqAt(rows, i));
        DiffInfoToCSV(row->info, csv.get());
        DataToCSV(row->data, csv.get());
        CsvWriterNewRecord(csv.get());
    }
}
