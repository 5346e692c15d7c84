// The packers of the six state chapters, and the filtering step before them; datapack_state.h says what they promise.
#include "libvtenterprise/datapack_state.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/diff_engine.h"
#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/reply_line.h"
#include "libvtenterprise/untracked_index.h"

namespace {

using veltrane::CsvWriterPtr;
using veltrane::SeqPtr;
using veltrane::SeqViewPtr;
using veltrane::StringMapPtr;
using veltrane::StringSetPtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;
using DiffRowPtr = std::unique_ptr<DiffRow, veltrane::Destroyer<DiffRowDelete>>;

constexpr size_t kPathSize = 4096;
constexpr size_t kRowTextBytes = 1 << 16;
constexpr size_t kNoSlot = std::numeric_limits<size_t>::max();

// What one filtering step works on.
struct Filtering {
    Seq *data;
    StringMap *index;
    const ReportFilter *filter;  // NULL = everything passes
    ReportType type;
    FilterTestFn test;
    bool old_protocol;
};

// An entry of the index that the filter now lets pass. Its texts stay the index's.
struct AdmittedEntry {
    const char *key;
    const char *row;
    size_t slot = kNoSlot;  // of the first row with this main key
};

using EntriesByKey = std::unordered_map<std::string_view, AdmittedEntry *>;

DiffRow *RowAt(const Seq *data, size_t i) { return static_cast<DiffRow *>(SeqAt(data, i)); }

FilterTestFn FilterTestOf(ReportType type)
{
    return type == report_type_classes || type == report_type_variables ? IsMetaTagAllowedByKey : IsKeyAllowedByFilter;
}

void FormatIndexPath(char (&path)[kPathSize], ReportType type)
{
    (void)snprintf(path, sizeof(path), "%s/untracked/%s.idx", GetStateDir(), ReportTypeToString(type));
}

// Whether the row has a filtering key that the filter does not let pass.
bool IsHidden(const DiffRow *row, const Filtering &step)
{
    const char *key = GetFilteringKey(row, step.type);
    return key != nullptr && !step.test(key, step.filter);
}

// The time that rows get when they come back from the index.
time_t OldestTime(const Seq *data)
{
    for (size_t i = 0; i < SeqLength(data); ++i) {
        if (RowAt(data, i) != nullptr) {
            return RowAt(data, i)->info->time;
        }
    }
    return time(nullptr);
}

// The entries that the filter admits, in the order of the index. One whose row does not parse counts as admitted, so
// that it leaves the index.
std::vector<AdmittedEntry> AdmittedEntries(const Filtering &step)
{
    std::vector<AdmittedEntry> admitted;
    MapIterator i = MapIteratorInit(step.index);
    for (const MapKeyValue *entry = MapIteratorNext(&i); entry != nullptr; entry = MapIteratorNext(&i)) {
        const char *row = static_cast<const char *>(entry->value);
        if (step.filter != nullptr) {
            const DiffRowPtr stored(DiffRowFromCSV(row, step.type));
            if (stored != nullptr && IsHidden(stored.get(), step)) {
                continue;
            }
        }
        admitted.push_back({static_cast<const char *>(entry->key), row});
    }
    return admitted;
}

// Note the row in this slot as the match of its entry, unless an earlier one is.
void NoteSlot(const Filtering &step, size_t slot, const EntriesByKey &entries)
{
    const TextPtr key(DiffRowGetMainKey(RowAt(step.data, slot), step.type));
    if (key == nullptr) {
        return;
    }
    const auto found = entries.find(key.get());
    if (found != entries.end() && found->second->slot == kNoSlot) {
        found->second->slot = slot;
    }
}

// The hub never saw the state of a hidden item: its removal is taken out, and any other change of it is an addition.
void AdmitRow(Seq *data, size_t slot)
{
    if (RowAt(data, slot)->info->type == diff_remove) {
        SeqSet(data, slot, nullptr);
    } else {
        RowAt(data, slot)->info->type = diff_add;
    }
}

// The hub learns the state that was hidden, unless the item has gone meanwhile. False: nothing was appended.
bool AppendStoredRow(const Filtering &step, const char *text, time_t oldest)
{
    DiffRowPtr row(DiffRowFromCSV(text, step.type));
    if (row == nullptr || row->info->type == diff_remove) {
        return false;
    }
    row->info->type = diff_add;
    row->info->time = oldest;
    SeqAppend(step.data, row.release());
    return true;
}

// Bring back what the filter admits again. The rows are walked once for all entries together: walking them for each one
// would be quadratic.
void Readmit(const Filtering &step)
{
    const time_t oldest = OldestTime(step.data);
    std::vector<AdmittedEntry> admitted = AdmittedEntries(step);
    if (admitted.empty()) {
        return;
    }
    EntriesByKey entries(admitted.size());
    for (AdmittedEntry &entry : admitted) { entries.emplace(entry.key, &entry); }
    for (size_t i = 0; i < SeqLength(step.data); ++i) {
        if (RowAt(step.data, i) != nullptr) {
            NoteSlot(step, i, entries);
        }
    }
    for (const AdmittedEntry &entry : admitted) {
        if (entry.slot != kNoSlot) {
            AdmitRow(step.data, entry.slot);
        } else if (AppendStoredRow(step, entry.row, oldest)) {
            NoteSlot(step, SeqLength(step.data) - 1, entries);  // it may be the match of a later entry
        }
    }
    entries.clear();
    for (const AdmittedEntry &entry : admitted) { (void)StringMapRemove(step.index, entry.key); }
}

// Send each row that the filter hides once, as untracked, and remember it; one remembered before is withheld.
void Hide(const Filtering &step)
{
    for (size_t i = 0; i < SeqLength(step.data); ++i) {
        DiffRow *row = RowAt(step.data, i);
        if (row == nullptr || !IsHidden(row, step)) {
            continue;
        }
        TextPtr key(DiffRowGetMainKey(row, step.type));
        if (key == nullptr) {
            key.reset(xstrdup(""));
        }
        const bool was_hidden =
            StringMapInsert(step.index, key.release(), DiffRowToCSV(row, step.type, step.old_protocol));
        row->info->type = diff_untracked;
        if (was_hidden) {
            SeqSet(step.data, i, nullptr);
        }
    }
}

// The filtering step with the report's index read before it and written back after it.
void FilterWithIndex(Seq *rows, const ReportFilter *filter, ReportType type, ProtocolVersion version)
{
    char path[kPathSize];
    FormatIndexPath(path, type);
    const StringMapPtr index(UntrackedIndexGet(path));
    FilterDiffData(rows, index.get(), filter, type, FilterTestOf(type), version);
    (void)UntrackedIndexPush(path, index.get());  // it has logged; the reply is worth sending all the same
}

// Makes the lines of rows. The records of many rows are written into one text and cut out of it: a writer for each row
// would cost more than what it writes.
class RowLines {
  public:
    RowLines(ReportType type, bool old_protocol)
        : to_csv_(REPORT_DATA_HANDLES[type].DataToCSV), terminate_(old_protocol)
    {
    }

    // As DiffRowToCSV makes the line of a row with this info and record.
    TextPtr Line(const DiffInfo &info, void *record)
    {
        if (csv_ == nullptr || StringWriterLength(text_.get()) >= kRowTextBytes) {
            csv_.reset();
            text_.reset(StringWriter());
            csv_.reset(CsvWriterOpen(text_.get()));
        }
        if (first_columns_.empty() || info.time != info_.time || info.type != info_.type) {
            MakeFirstColumns(info);
        }
        const size_t start = StringWriterLength(text_.get());
        (void)WriterWriteLen(text_.get(), first_columns_.data(), first_columns_.size());
        to_csv_(record, csv_.get());
        size_t end = StringWriterLength(text_.get());
        CsvWriterNewRecord(csv_.get());
        if (terminate_) {
            end = StringWriterLength(text_.get());
        }
        return TextPtr(xstrndup(StringWriterData(text_.get()) + start, end - start));
    }

  private:
    // The columns of an info and the comma after them; rows that follow each other often share it.
    void MakeFirstColumns(const DiffInfo &info)
    {
        const WriterPtr text(StringWriter());
        const CsvWriterPtr csv(CsvWriterOpenSpecifyTerminate(text.get(), false));
        DiffInfoToCSV(&info, csv.get());
        first_columns_.assign(StringWriterData(text.get())).append(1, ',');
        info_ = info;
    }

    DataToCSVFn to_csv_;
    bool terminate_;
    WriterPtr text_;
    CsvWriterPtr csv_;  // on text_
    DiffInfo info_{};
    std::string first_columns_;  // of info_
};

// Append the rows' lines. Each row is dropped as soon as its line is there, so that both never stand whole in memory.
void EmitRows(Seq *reply, const char *header, Seq *rows, ReportType type, bool old_protocol)
{
    RowLines lines(type, old_protocol);
    bool header_sent = false;
    for (size_t i = 0; i < SeqLength(rows); ++i) {
        const DiffRow *row = RowAt(rows, i);
        if (row == nullptr) {
            continue;
        }
        if (!header_sent) {
            SeqAppend(reply, xstrdup(header));
            header_sent = true;
        }
        const bool is_whole = row->info != nullptr && row->data != nullptr;
        AppendReplyLine(reply, ReportTypeToString(type), is_whole ? lines.Line(*row->info, row->data) : nullptr,
                        kMaxStateRowLength);
        SeqSet(rows, i, nullptr);
    }
}

bool IsEmptyIndex(ReportType type)
{
    char path[kPathSize];
    FormatIndexPath(path, type);
    struct stat file;
    return stat(path, &file) != 0 ? errno == ENOENT : file.st_size == 0;
}

// A base state of which nothing is hidden and nothing was: its records become lines while they are read, and no row of
// them is ever made. The steps are those of the other way. False: there is no base state.
bool PackWholeBaseState(Seq *reply, const char *header, const DiffInfo &info, ReportType type, ProtocolVersion version)
{
    RowLines lines(type, IsOldProtocol(version));
    SeqPtr made(SeqNew(0, free));
    const auto take = [&](void *record) {
        SeqAppend(made.get(), lines.Line(info, record).release());
        REPORT_DATA_HANDLES[type].DataDelete(record);
    };
    if (!DiffReportVisitBaseState(type, take)) {
        return false;
    }
    const SeqPtr no_rows(SeqNew(0, DiffRowDelete));
    FilterWithIndex(no_rows.get(), nullptr, type, version);
    if (SeqLength(made.get()) > 0) {
        SeqAppend(reply, xstrdup(header));
    }
    const SeqViewPtr moved(made.release());
    for (size_t i = 0; i < SeqLength(moved.get()); ++i) {
        TextPtr line(static_cast<char *>(SeqAt(moved.get(), i)));
        AppendReplyLine(reply, ReportTypeToString(type), std::move(line), kMaxStateRowLength);
    }
    return true;
}

bool PackFilteredBaseState(Seq *reply, const char *header, time_t rebase_time, const ReportFilter *filter,
                           ReportType type, ProtocolVersion version)
{
    const SeqPtr rows(DiffReportGetBaseState(type, rebase_time));
    if (rows == nullptr) {
        return false;
    }
    FilterWithIndex(rows.get(), filter, type, version);
    EmitRows(reply, header, rows.get(), type, IsOldProtocol(version));
    return true;
}

}  // namespace

void PackBaseState(Seq *reply, const char *header, time_t rebase_time, const ReportFilter *filter, ReportType type,
                   ProtocolVersion version) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Packing BaseState %s chapter", header);
    const bool is_packed = filter == nullptr && IsEmptyIndex(type)
                               ? PackWholeBaseState(reply, header, {rebase_time, diff_add}, type, version)
                               : PackFilteredBaseState(reply, header, rebase_time, filter, type, version);
    if (!is_packed) {
        Log(LOG_LEVEL_VERBOSE, "Missing basestate to pack (Report type: %s)", ReportTypeToString(type));
    }
}

void PackDiffReport(Seq *reply, const char *header, time_t from, time_t to, const ReportFilter *filter, ReportType type,
                    ProtocolVersion version) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Packing diff %s chapter", header);
    const SeqPtr rows(DiffReportGet(type, from, to));
    if (rows == nullptr || SeqLength(rows.get()) == 0) {
        Log(LOG_LEVEL_VERBOSE, "No delta report to pack (Report type: %s)", ReportTypeToString(type));
        return;
    }
    FilterWithIndex(rows.get(), filter, type, version);
    EmitRows(reply, header, rows.get(), type, IsOldProtocol(version));
}

void FilterDiffData(Seq *data, StringMap *index, const ReportFilter *filter, ReportType type, FilterTestFn test,
                    ProtocolVersion version) noexcept
{
    if (index == nullptr) {
        return;
    }
    const Filtering step{data, index, filter, type, test, IsOldProtocol(version)};
    Readmit(step);
    if (filter != nullptr) {
        Hide(step);
    }
    if (SeqLength(data) > 0) {
        SeqSort(data, DiffRowCompareTs, nullptr);
    }
}

const char *GetFilteringKey(const DiffRow *row, ReportType type) noexcept
{
    const char *key;
    switch (type) {
        case report_type_classes:
            key = static_cast<const HubClass *>(row->data)->meta_serialized;
            break;
        case report_type_variables:
            key = static_cast<const HubVariableSerialized *>(row->data)->meta_serialized;
            break;
        case report_type_execution_log:
            key = static_cast<const HubPromiseExecution *>(row->data)->handle;
            break;
        default:
            return nullptr;
    }
    return key != nullptr ? key : "";
}

bool IsMetaTagAllowedByKey(const char *key, const ReportFilter *filter) noexcept
{
    const StringSetPtr tags(StringSetFromString(key, ','));
    if (StringSetSize(tags.get()) == 0) {
        StringSetAdd(tags.get(), xstrdup(""));
    }
    return IsStringSetAllowedByFilter(tags.get(), filter);
}
