// The packer of the chapter "PLG".
#include "libvtenterprise/datapack_promise_log.h"

#include <cstddef>

#include <veltrane/file_lib.h>
#include <veltrane/json.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libvtenterprise/json_line.h"
#include "libvtenterprise/promise_log.h"
#include "libvtenterprise/reply_line.h"

namespace {

using veltrane::FilePtr;
using veltrane::JsonPtr;
using veltrane::SeqPtr;
using veltrane::TextPtr;

// NULL, with a warning, when the line is no entry.
PromiseLogEntryPtr ReadEntry(const char *path, const char *line)
{
    JsonElement *parsed = nullptr;
    const JsonParseError error = JsonParse(line, &parsed);
    if (error != JSON_PARSE_OK) {
        Log(LOG_LEVEL_WARNING, "Failed to parse entry in file %s with error: '%s'", path,
            JsonParseErrorToString(error));
        return nullptr;
    }
    const JsonPtr json(parsed);
    PromiseLogEntryPtr entry(PromiseLogEntryFromJson(json.get()));
    if (entry == nullptr) {
        Log(LOG_LEVEL_WARNING, "Invalid json entry (mismatching fields) in file '%s' line '%s'", path, line);
    }
    return entry;
}

bool IsAllowed(const HubPromiseExecution *promise, const ReportFilter *filter)
{
    if (!IsAllowedForPromiseLog(promise)) {
        return false;
    }
    const char *handle = promise->handle != nullptr ? promise->handle : "";
    return filter == nullptr || IsKeyAllowedByFilter(handle, filter);
}

// Pack one file; whether an older one may hold entries of the period too.
bool PackFile(ReplyChapter *chapter, const char *path, time_t from, const ReportFilter *filter)
{
    const FilePtr file(safe_fopen(path, "r"));
    if (file == nullptr) {
        Log(LOG_LEVEL_VERBOSE, "Could not open promise log file: '%s'", path);
        return true;
    }
    size_t entries = 0;
    bool begins_in_period = false;
    while (const TextPtr line{JsonLGetLineNext(file.get())}) {
        const PromiseLogEntryPtr entry = ReadEntry(path, line.get());
        if (entry == nullptr) {
            continue;
        }
        entries++;
        if (entry->timestamp <= from) {
            continue;
        }
        begins_in_period = begins_in_period || entries == 1;
        if (IsAllowed(entry->promise, filter)) {
            chapter->Add(TextPtr(PromiseLogEntryToCSV(entry.get())));
        }
    }
    return begins_in_period;
}

}  // namespace

void PackPromiseLog(Seq *reply, time_t from, const ReportFilter *filter)
{
    Log(LOG_LEVEL_VERBOSE, "Packing promise logs");
    const SeqPtr names(GetPromiseLogFileNames(GetStateDir()));
    if (names == nullptr || SeqLength(names.get()) == 0) {
        Log(LOG_LEVEL_ERR, "Could not find promise log files while preparing reports");
        return;
    }
    ReplyChapter chapter(reply, vtr_code_promise_log, "promise log");
    for (size_t i = 0; i < SeqLength(names.get()); ++i) {
        const char *path = static_cast<const char *>(SeqAt(names.get(), i));
        if (path[0] != '\0' && !PackFile(&chapter, path, from, filter)) {
            return;
        }
    }
}
