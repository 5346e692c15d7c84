// The file between two runs of one cycle.
#include "libvtenterprise/temporary_cache.h"

#include <unistd.h>

#include <cstdio>
#include <string_view>
#include <utility>

#include <veltrane/csv.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libvtenterprise/critical_guard.h"
#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/map_values.h"
#include "libvtenterprise/state_files.h"

using veltrane::CsvWriterPtr;
using veltrane::FilePtr;
using veltrane::MapPtr;
using veltrane::SeqPtr;
using veltrane::SeqViewPtr;
using veltrane::WriterPtr;

namespace {

struct Path {
    explicit Path(const TemporaryCache &cache)
    {
        (void)snprintf(text, sizeof(text), "%s/%s", GetStateDir(), cache.file_name);
    }

    char text[4096];
};

const ReportDataHandle &HandleOf(const TemporaryCache &cache) { return REPORT_DATA_HANDLES[cache.type]; }

// Put a record into the map under its main key, in place of one with the same. False, and untouched, without a key.
bool InsertByKey(const TemporaryCache &cache, Map *records, void *record)
{
    char *key = HandleOf(cache).DataGetMainKey(record);
    if (key == nullptr) {
        return false;
    }
    (void)MapInsert(records, key, record);  // whether it replaced one does not matter
    return true;
}

}  // namespace

void TemporaryCache::Store(const Seq *records) const
{
    if (SeqLength(records) == 0) {
        return;
    }
    const WriterPtr text(StringWriter());
    CsvWriterPtr csv(CsvWriterOpen(text.get()));
    for (size_t i = 0; i < SeqLength(records); i++) {
        HandleOf(*this).DataToCSV(SeqAt(records, i), csv.get());
        CsvWriterNewRecord(csv.get());
    }
    csv.reset();
    const Path path(*this);
    const CriticalGuard guard(section);
    if (!AppendRecords(path.text, std::string_view(StringWriterData(text.get()), StringWriterLength(text.get())))) {
        Log(LOG_LEVEL_ERR, "Could not write to the file: '%s'", path.text);
    }
}

Map *TemporaryCache::Read() const
{
    const Path path(*this);
    const ReportDataHandle &handle = HandleOf(*this);
    MapPtr records(MapNew(StringHashUntyped, StringEqualUntyped, free, handle.DataDelete));
    const auto keep = [&](const char *text, Seq *fields) {
        void *record = handle.DataFromAttributeList(fields);
        if (record == nullptr || !InsertByKey(*this, records.get(), record)) {
            handle.DataDelete(record);
            Log(LOG_LEVEL_WARNING, "Invalid csv file entry ('%s'): '%s'", path.text, text);
        }
    };
    const CriticalGuard guard(section);
    const FilePtr file(safe_fopen(path.text, "r"));
    if (file == nullptr || !ForEachCsvRecord(file.get(), path.text, keep)) {
        Log(LOG_LEVEL_VERBOSE, "Could not read: '%s'", path.text);
        return nullptr;
    }
    return records.release();
}

Seq *TemporaryCache::Merge(Seq *present) const
{
    SeqPtr current(present);
    MapPtr records(Read());
    if (records == nullptr) {
        return current.release();
    }
    const SeqViewPtr moved(current.release());
    const SeqViewPtr without_key(SeqNew(0, nullptr));
    for (size_t i = 0; i < SeqLength(moved.get()); i++) {
        void *record = SeqAt(moved.get(), i);
        if (!InsertByKey(*this, records.get(), record)) {
            SeqAppend(without_key.get(), record);
        }
    }
    Seq *state = TakeValues(std::move(records), HandleOf(*this).DataDelete);
    SeqAppendSeq(state, without_key.get());
    return state;
}

bool TemporaryCache::Purge() const
{
    const Path path(*this);
    const CriticalGuard guard(section);
    if (FileCanOpen(path.text, "r") && unlink(path.text) != 0) {
        Log(LOG_LEVEL_VERBOSE, "Failed to remove file '%s' during cleanup", path.text);
        return false;
    }
    return true;
}
