// What the targets that gather a report's state share: its records as rows.
#ifndef FUZZ_RECORD_ROWS_H
#define FUZZ_RECORD_ROWS_H

#include <string>
#include <vector>

#include <veltrane/csv.h>
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/diff_common.h"

// A record as its CSV record, line end included.
inline std::string RowOf(ReportType type, void *record)
{
    const veltrane::WriterPtr text(StringWriter());
    {
        const veltrane::CsvWriterPtr csv(CsvWriterOpen(text.get()));
        REPORT_DATA_HANDLES[type].DataToCSV(record, csv.get());
    }
    return std::string(StringWriterData(text.get()), StringWriterLength(text.get()));
}

// Each record of a state as a row. A row reads back as a record with the same row: what is cached does not change by
// being cached.
inline std::vector<std::string> RowsOf(ReportType type, const Seq *state)
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[type];
    std::vector<std::string> rows;
    for (size_t i = 0; i < SeqLength(state); i++) {
        rows.push_back(RowOf(type, SeqAt(state, i)));
        const veltrane::SeqPtr fields(SeqParseCsvString(rows.back().c_str()));
        Require(fields != nullptr);
        void *again = handle.DataFromAttributeList(fields.get());
        Require(again != nullptr && RowOf(type, again) == rows.back());
        handle.DataDelete(again);
    }
    return rows;
}

#endif
