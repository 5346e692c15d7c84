// Reading and writing untracked indexes; untracked_index.h has their form.
#include "libvtenterprise/untracked_index.h"

#include <pthread.h>

#include <veltrane/csv.h>
#include <veltrane/file_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/state_files.h"
#include "libvtenterprise/thread_guard.h"

namespace {

using veltrane::CsvWriterPtr;
using veltrane::FilePtr;
using veltrane::SeqPtr;
using veltrane::TextPtr;

// The index lock: one index file at a time is read or written in this process.
pthread_mutex_t index_lock = PTHREAD_MUTEX_INITIALIZER;

void AddRecord(StringMap *index, const char *path, const char *record)
{
    const TextPtr text(SearchAndReplace(record, "\\n", "\n"));
    const SeqPtr fields(SeqParseCsvString(text.get()));
    if (fields == nullptr) {
        Log(LOG_LEVEL_VERBOSE, "Failed to parse CSV entry in untracked index: '%s' (index: '%s')", record, path);
        return;
    }
    if (SeqLength(fields.get()) != 2) {
        Log(LOG_LEVEL_VERBOSE, "Invalid attribute count in untracked index: '%s' (index: '%s')", record, path);
        return;
    }
    const char *key = static_cast<const char *>(SeqAt(fields.get(), 0));
    const char *row = static_cast<const char *>(SeqAt(fields.get(), 1));
    (void)StringMapInsert(index, SafeStringDuplicate(key), SafeStringDuplicate(row));
}

void WriteRecords(Writer *writer, const StringMap *index)
{
    const CsvWriterPtr csv(CsvWriterOpen(writer));
    MapIterator i = MapIteratorInit(index);
    for (const MapKeyValue *entry = MapIteratorNext(&i); entry != nullptr; entry = MapIteratorNext(&i)) {
        const TextPtr row(SearchAndReplace(static_cast<const char *>(entry->value), "\n", "\\n"));
        CsvWriterField(csv.get(), static_cast<const char *>(entry->key));
        CsvWriterField(csv.get(), row.get());
        CsvWriterNewRecord(csv.get());
    }
}

bool WriteIndex(const char *path, const StringMap *index)
{
    ReplacementFile file(path);
    if (file.writer() == nullptr) {
        return false;
    }
    WriteRecords(file.writer(), index);
    return file.Commit();
}

}  // namespace

StringMap *UntrackedIndexGet(const char *path) noexcept
{
    StringMap *index = StringMapNew();
    const ThreadGuard guard(&index_lock);
    const FilePtr file(safe_fopen(path, "r"));
    if (file == nullptr) {
        Log(LOG_LEVEL_VERBOSE, "Could not read file: '%s'", path);
        return index;
    }
    for (TextPtr record(GetCsvLineNext(file.get())); record != nullptr; record.reset(GetCsvLineNext(file.get()))) {
        AddRecord(index, path, record.get());
    }
    return index;
}

bool UntrackedIndexPush(const char *path, const StringMap *index) noexcept
{
    const ThreadGuard guard(&index_lock);
    if (!WriteIndex(path, index)) {
        Log(LOG_LEVEL_VERBOSE, "Could not write file: '%s'", path);
        return false;
    }
    return true;
}
