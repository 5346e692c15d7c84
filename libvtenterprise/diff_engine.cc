// One pass of the difference engine: the present state against the cached one.
//
// The order of its steps is fixed: the cache is replaced before the temporary inputs are dropped, and only then are the
// differences appended. A pass that stops in between loses differences but never reports one twice.
#include "libvtenterprise/diff_engine.h"

#include <cstdint>
#include <string_view>

#include <veltrane/file_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libvtenterprise/cache_comparison.h"
#include "libvtenterprise/critical_guard.h"
#include "libvtenterprise/diff_files.h"
#include "libvtenterprise/state_files.h"
#include "libvtenterprise/state_text.h"

using veltrane::CsvWriterPtr;
using veltrane::FilePtr;
using veltrane::SeqPtr;
using veltrane::SeqViewPtr;
using veltrane::WriterPtr;

namespace {

constexpr size_t kFirstRoom = 100;

// The rows of one comparison.
class Comparison {
  public:
    Comparison(DataDeleteFn data_delete, CompareKeysFn compare_keys, CompareValuesFn compare_values, DataDupFn data_dup)
        : data_delete_(data_delete), compare_keys_(compare_keys), compare_values_(compare_values), data_dup_(data_dup)
    {
    }

    void Append(Seq *rows, DiffType type, const void *item) const
    {
        SeqAppend(rows, DiffRowNew(DiffInfoNew(0, type), report_type_max, data_dup_(item), data_delete_));
    }

    // Walk both sorted states at once. An item without a partner has none at all, unless its key is that of the pair
    // just matched: then it is one of several with that key.
    void Walk(const Seq *old_state, const Seq *new_state, Seq *removals, Seq *additions_and_changes) const
    {
        const size_t old_length = SeqLength(old_state);
        const size_t new_length = SeqLength(new_state);
        const void *matched_old = nullptr;
        const void *matched_new = nullptr;
        for (size_t i = 0, j = 0; i < old_length || j < new_length;) {
            const void *old_item = i < old_length ? SeqAt(old_state, i) : nullptr;
            const void *new_item = j < new_length ? SeqAt(new_state, j) : nullptr;
            const int order = old_item == nullptr ? 1 : new_item == nullptr ? -1 : KeyOrder(old_item, new_item);
            if (order == 0) {
                AppendIfChanged(additions_and_changes, old_item, new_item);
                matched_old = old_item;
                matched_new = new_item;
                i++;
                j++;
            } else if (order < 0) {
                if (matched_new == nullptr || KeyOrder(old_item, matched_new) != 0) {
                    Append(removals, diff_remove, old_item);
                }
                i++;
            } else {
                if (matched_old == nullptr || KeyOrder(matched_old, new_item) != 0) {
                    Append(additions_and_changes, diff_add, new_item);
                } else {
                    AppendIfChanged(additions_and_changes, matched_old, new_item);
                }
                j++;
            }
        }
    }

    // The items of a state in key order, without its empty slots.
    SeqViewPtr Sorted(const Seq *state) const
    {
        for (size_t i = 0; i < SeqLength(state); i++) {
            if (SeqAt(state, i) == nullptr) {
                SeqViewPtr present = Present(state);
                SeqSort(present.get(), compare_keys_, nullptr);
                return present;
            }
        }
        return SeqViewPtr(SeqSoftSort(state, compare_keys_, nullptr));
    }

  private:
    int KeyOrder(const void *a, const void *b) const { return compare_keys_(a, b, nullptr); }

    void AppendIfChanged(Seq *rows, const void *old_item, const void *new_item) const
    {
        if (compare_values_ != nullptr && !compare_values_(new_item, old_item)) {
            Append(rows, diff_change, new_item);
        }
    }

    static SeqViewPtr Present(const Seq *state)
    {
        SeqViewPtr present(SeqNew(SeqLength(state), nullptr));
        for (size_t i = 0; i < SeqLength(state); i++) {
            if (SeqAt(state, i) != nullptr) {
                SeqAppend(present.get(), SeqAt(state, i));
            }
        }
        return present;
    }

    DataDeleteFn data_delete_;
    CompareKeysFn compare_keys_;
    CompareValuesFn compare_values_;
    DataDupFn data_dup_;
};

// The cache of a report, compared with the present state, which then takes its place.
//
// The new cache is made while the old one is read: a record that comes out as it stands there is unchanged, and nobody
// needs to take it apart.
class CacheTurnover {
  public:
    CacheTurnover(const char *path, Seq *current, const ReportDataHandle &handle)
        : path_(path), current_(current), handle_(handle), file_(path), text_(current, handle.DataToCSV, file_.writer())
    {
    }

    // The rows between the two states, all of them additions when there is no old cache.
    SeqPtr Rows()
    {
        CacheComparison comparison(current_, handle_);
        const auto add = [&](void *cached) { comparison.Add(cached); };
        const auto step_over = [&](CsvRecords *records) {
            const size_t expected = comparison.Expected();
            if (expected == SIZE_MAX) {
                return false;
            }
            const std::string_view record = text_.Record(expected);
            if (MayHoldEmptyField(record) || !records->StepOver(record)) {
                return false;
            }
            comparison.AddExpected();
            return true;
        };
        if (ForEachCachedRecord(path_, handle_.DataFromAttributeList, add, step_over)) {
            return comparison.Rows();
        }
        return SeqPtr(GenerateDiff(nullptr, current_, handle_.DataDelete, handle_.CompareKeys, handle_.CompareValues,
                                   handle_.DataDup));
    }

    // Put the present state in place; false: the old cache is still there.
    [[nodiscard]] bool Commit()
    {
        if (file_.writer() == nullptr) {
            return false;
        }
        text_.Finish();
        return file_.Commit();
    }

  private:
    const char *path_;
    Seq *current_;
    const ReportDataHandle &handle_;
    ReplacementFile file_;
    StateText text_;
};

// Append the rows to the difference file. The text is made before the section is entered, so that the server daemon
// does not wait for it.
bool AppendRows(const char *path, const Seq *rows, DataToCSVFn DataToCSV)
{
    const WriterPtr text(StringWriter());
    WriteRows(text.get(), rows, DataToCSV);
    const CriticalGuard guard(kDiffSection);
    return AppendRecords(path, std::string_view(StringWriterData(text.get()), StringWriterLength(text.get())));
}

}  // namespace

Seq *GenerateDiff(Seq *old_state, Seq *new_state, DataDeleteFn DataDelete, CompareKeysFn CompareKeys,
                  CompareValuesFn CompareValues, DataDupFn DataDup) noexcept
{
    const Comparison comparison(DataDelete, CompareKeys, CompareValues, DataDup);
    Seq *rows = SeqNew(SeqLength(new_state), DiffRowDelete);
    if (old_state == nullptr || SeqLength(old_state) == 0) {
        for (size_t i = 0; i < SeqLength(new_state); i++) {
            if (SeqAt(new_state, i) != nullptr) {
                comparison.Append(rows, diff_add, SeqAt(new_state, i));
            }
        }
        return rows;
    }
    const SeqViewPtr old_sorted = comparison.Sorted(old_state);
    const SeqViewPtr new_sorted = comparison.Sorted(new_state);
    const SeqViewPtr additions_and_changes(SeqNew(0, nullptr));
    comparison.Walk(old_sorted.get(), new_sorted.get(), rows, additions_and_changes.get());
    SeqAppendSeq(rows, additions_and_changes.get());
    return rows;
}

Seq *GetStateCache(const char *path, DataFromAttributeListFn DataFromAttributeList, DataDeleteFn DataDelete) noexcept
{
    SeqPtr state(SeqNew(kFirstRoom, DataDelete));
    if (!ForEachCachedRecord(path, DataFromAttributeList, [&](void *item) { SeqAppend(state.get(), item); })) {
        return nullptr;
    }
    return state.release();
}

bool DiffReportGenerate(ReportType type, time_t agent_time, const EvalContext *ctx) noexcept
{
    const time_t now = time(nullptr);
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[type];
    Seq *current = handle.GetCurrentState != nullptr ? handle.GetCurrentState(ctx) : nullptr;
    if (current == nullptr) {
        Log(LOG_LEVEL_VERBOSE, "Failed to access current state for report: '%s' (skipping report)",
            ReportTypeToString(type));
        return false;
    }
    return DiffReportGenerateFrom(type, agent_time, now, current);
}

bool DiffReportGenerateFrom(ReportType type, time_t agent_time, time_t now, Seq *present) noexcept
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[type];
    SeqPtr current(present);
    const StatePath cache_path = StateCachePath(type);
    CacheTurnover turnover(cache_path.c_str(), current.get(), handle);
    const SeqPtr rows = turnover.Rows();
    for (size_t i = 0; i < SeqLength(rows.get()); i++) {
        static_cast<DiffRow *>(SeqAt(rows.get(), i))->info->time = agent_time;
    }
    if (!turnover.Commit()) {
        Log(LOG_LEVEL_VERBOSE, "Could not write cached state: '%s'", cache_path.c_str());
        return false;
    }
    current.reset();
    if (handle.PurgeCurrentState != nullptr && !handle.PurgeCurrentState(now)) {
        return false;
    }
    const StatePath diff_path = DiffFilePath(type);
    if (SeqLength(rows.get()) == 0) {
        Log(LOG_LEVEL_VERBOSE, "Diff is empty, nothing to save at '%s'", diff_path.c_str());
        return true;
    }
    Log(LOG_LEVEL_VERBOSE, "Writing diff to '%s'", diff_path.c_str());
    if (!AppendRows(diff_path.c_str(), rows.get(), handle.DataToCSV)) {
        Log(LOG_LEVEL_ERR, "Could not write diff to the file: '%s'", diff_path.c_str());
        return false;
    }
    return true;
}
