// Entries of the promise log: their JSON and CSV forms, which outcomes are kept, and where the files are.
#include "libvtenterprise/promise_log.h"

#include <cstdlib>

#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/dir.h>
#include <veltrane/file_lib.h>
#include <veltrane/item_lib.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/promise_execution_json.h"
#include "libvtenterprise/record.h"

using veltrane::CsvWriterPtr;
using veltrane::DirPtr;
using veltrane::JsonPtr;
using veltrane::SeqPtr;
using veltrane::WriterPtr;

namespace {

constexpr const char *kTimestampKey = "timestamp";
constexpr const char *kExecutionKey = "execution";
constexpr const char *kFileNames = "promise_log\\.jsonl(\\.\\d+)?";
constexpr size_t kMostFilesUsually = 10;  // the newest and nine generations

// What these say is reported elsewhere, or says nothing about the machine.
const char *const kTypesLeftOut[] = {"access", "classes", "defaults", "measurements", "methods",
                                     "meta",   "reports", "roles",    "vars",         nullptr};

int CompareNames(const void *a, const void *b, void *)
{
    return StringSafeCompare(static_cast<const char *>(a), static_cast<const char *>(b));
}

}  // namespace

PromiseLogEntry *PromiseLogEntryNew(time_t timestamp, HubPromiseExecution *promise) noexcept
{
    PromiseLogEntry *entry = static_cast<PromiseLogEntry *>(xmalloc(sizeof(PromiseLogEntry)));
    *entry = {timestamp, promise};
    return entry;
}

void PromiseLogEntryDelete(PromiseLogEntry *entry) noexcept
{
    if (entry != nullptr) {
        HubPromiseExecutionDelete(entry->promise);
        free(entry);
    }
}

JsonElement *PromiseLogEntryToJson(const PromiseLogEntry *entry) noexcept
{
    JsonElement *execution = HubPromiseExecutionToJson(entry->promise);
    if (execution == nullptr) {
        return nullptr;
    }
    JsonElement *json = JsonObjectCreate(2);
    JsonObjectAppendInteger(json, kTimestampKey, static_cast<int>(entry->timestamp));  // the low 32 bits
    JsonObjectAppendObject(json, kExecutionKey, execution);
    return json;
}

char *PromiseLogEntryToJsonString(const PromiseLogEntry *entry) noexcept
{
    const JsonPtr json(PromiseLogEntryToJson(entry));
    if (json == nullptr) {
        return nullptr;
    }
    Writer *text = StringWriter();
    JsonWriteCompact(text, json.get());
    return StringWriterClose(text);
}

PromiseLogEntry *PromiseLogEntryFromJson(const JsonElement *json) noexcept
{
    const JsonElement *timestamp = JsonObjectGet(json, kTimestampKey);
    if (timestamp == nullptr || JsonGetPrimitiveType(timestamp) != JSON_PRIMITIVE_TYPE_INTEGER) {
        return nullptr;
    }
    JsonElement *execution = JsonObjectGetAsObject(json, kExecutionKey);
    if (execution == nullptr) {
        return nullptr;
    }
    HubPromiseExecution *promise = HubPromiseExecutionFromJson(execution);
    return promise != nullptr ? PromiseLogEntryNew(JsonPrimitiveGetAsInteger(timestamp), promise) : nullptr;
}

char *PromiseLogEntryToCSV(const PromiseLogEntry *entry) noexcept
{
    Writer *text = StringWriter();
    CsvWriterPtr csv(CsvWriterOpenSpecifyTerminate(text, false));
    WriteNumber(csv.get(), entry->timestamp);
    HubPromiseExecutionToCSV(entry->promise, csv.get());
    csv.reset();
    return StringWriterClose(text);
}

PromiseLogEntry *PromiseLogEntryFromCSV(const char *csv_line) noexcept
{
    const SeqPtr fields(SeqParseCsvString(csv_line));
    if (FieldCount(fields.get()) < 3) {
        return nullptr;
    }
    long timestamp = 0;
    const int error = StringToLong(FieldAt(fields.get(), 0), &timestamp);
    if (error != 0) {
        LogStringToLongError(FieldAt(fields.get(), 0), "PromiseLogEntryFromCSV", error);
        return nullptr;
    }
    const SeqPtr columns(SeqGetRange(fields.get(), 1, SeqLength(fields.get()) - 1));
    auto *promise = static_cast<HubPromiseExecution *>(HubPromiseExecutionFromAttributeList(columns.get()));
    return promise != nullptr ? PromiseLogEntryNew(timestamp, promise) : nullptr;
}

bool IsAllowedForPromiseLog(const HubPromiseExecution *promise) noexcept
{
    const bool worth_telling =
        promise->promise_outcome == PROMISE_STATE_NOTKEPT || promise->promise_outcome == PROMISE_STATE_REPAIRED;
    const char *type = promise->promise_type;  // absent in an entry that names none
    return worth_telling && (type == nullptr || !IsStrIn(type, kTypesLeftOut));
}

Seq *GetPromiseLogFileNames(const char *directory) noexcept
{
    const DirPtr dir(DirOpen(directory));
    if (dir == nullptr) {
        return nullptr;
    }
    Seq *names = SeqNew(kMostFilesUsually, free);
    while (const struct dirent *entry = DirRead(dir.get())) {
        if (!IsDir(entry->d_name) && StringMatchFull(kFileNames, entry->d_name)) {
            SeqAppend(names, StringFormat("%s/%s", directory, entry->d_name));
        }
    }
    SeqSort(names, CompareNames, nullptr);
    return names;
}
