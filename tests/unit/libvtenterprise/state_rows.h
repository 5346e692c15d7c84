// Difference rows, report filters and untracked indexes written down as texts, for the tests of what is done with them.
#ifndef TESTS_UNIT_LIBVTENTERPRISE_STATE_ROWS_H
#define TESTS_UNIT_LIBVTENTERPRISE_STATE_ROWS_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/server_report_filter.h"
#include "tests/support/texts.h"

using Entries = std::vector<std::pair<std::string, std::string>>;
using ReportFilterPtr = std::unique_ptr<ReportFilter, veltrane::Destroyer<ReportFilterDestroy>>;
using DiffRowPtr = std::unique_ptr<DiffRow, veltrane::Destroyer<DiffRowDelete>>;

inline Seq *NewSeq(const Texts &texts)
{
    Seq *seq = SeqNew(texts.size(), free);
    for (const std::string &text : texts) { SeqAppend(seq, xstrdup(text.c_str())); }
    return seq;
}

inline ReportFilterPtr Excluding(const Texts &patterns)
{
    return ReportFilterPtr(ReportFilterNewFrom("any", nullptr, NewSeq(patterns)));
}

inline ReportFilterPtr Including(const Texts &patterns)
{
    return ReportFilterPtr(ReportFilterNewFrom("any", NewSeq(patterns), nullptr));
}

// Rows of the given CSV texts; "-" is an empty slot.
inline veltrane::SeqPtr NewRows(const Texts &texts, ReportType type = report_type_classes)
{
    veltrane::SeqPtr rows(SeqNew(10, DiffRowDelete));
    for (const std::string &text : texts) {
        SeqAppend(rows.get(), text == "-" ? nullptr : DiffRowFromCSV(text.c_str(), type));
    }
    return rows;
}

inline Texts TextsOf(const Seq *rows, ReportType type = report_type_classes)
{
    Texts texts;
    for (size_t i = 0; i < SeqLength(rows); ++i) {
        DiffRow *row = static_cast<DiffRow *>(SeqAt(rows, i));
        texts.emplace_back(row != nullptr ? veltrane::TextPtr(DiffRowToCSV(row, type, false)).get() : "-");
    }
    return texts;
}

inline veltrane::StringMapPtr NewIndex(const Entries &entries)
{
    veltrane::StringMapPtr index(StringMapNew());
    for (const auto &[key, row] : entries) { StringMapInsert(index.get(), xstrdup(key.c_str()), xstrdup(row.c_str())); }
    return index;
}

inline Entries EntriesOf(const StringMap *index)
{
    Entries entries;
    MapIterator i = MapIteratorInit(index);
    for (const MapKeyValue *entry = MapIteratorNext(&i); entry != nullptr; entry = MapIteratorNext(&i)) {
        entries.emplace_back(static_cast<const char *>(entry->key), static_cast<const char *>(entry->value));
    }
    return entries;
}

#endif
