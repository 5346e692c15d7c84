// From the execution log to one record a promise.
#include "libvtenterprise/diff_execution_log.h"

#include <unistd.h>

#include <cstdio>

#include <veltrane/alloc.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/map.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/map_values.h"
#include "libvtenterprise/record.h"
#include "libvtenterprise/state_files.h"

using veltrane::FilePtr;
using veltrane::MapPtr;

namespace {

constexpr size_t kLeastFields = 12;

struct LogPath {
    LogPath() { (void)snprintf(text, sizeof(text), "%s/promise_execution.log", GetStateDir()); }

    char text[4096];
};

const char *Field(const Seq *fields, size_t i) { return AbsentIfEmpty(FieldAt(fields, i)); }

PromiseState OutcomeOf(const Seq *fields) { return static_cast<PromiseState>(StringToLongUnsafe(FieldAt(fields, 1))); }

const char *HashOf(const Seq *fields) { return FieldAt(fields, 2); }

// Older records end after the 12th, 13th or 14th field; those of a later version may have their tags elsewhere.
HubPromiseExecution *RecordOf(const Seq *fields)
{
    const size_t count = FieldCount(fields);
    return HubPromiseExecutionNew(
        Field(fields, 0), OutcomeOf(fields), Field(fields, 2), Field(fields, 7), Field(fields, 8), Field(fields, 9),
        Field(fields, 10), Field(fields, 3), Field(fields, 4), Field(fields, 5), Field(fields, 6),
        count == 15 ? Field(fields, 14) : nullptr, Field(fields, 11), count >= 13 ? LineNumberAt(fields, 12) : 0,
        count >= 14 ? Field(fields, 13) : nullptr);
}

// Whether an outcome of a promise is worse than the one it has so far; one that is no outcome at all gives way to any.
bool IsWorse(PromiseState outcome, PromiseState so_far)
{
    switch (so_far) {
        case PROMISE_STATE_NOTKEPT:
            return false;
        case PROMISE_STATE_REPAIRED:
            return outcome == PROMISE_STATE_NOTKEPT;
        case PROMISE_STATE_KEPT:
            return outcome == PROMISE_STATE_REPAIRED || outcome == PROMISE_STATE_NOTKEPT;
        case PROMISE_STATE_ANY:
            break;
    }
    return true;
}

// Whether an evaluation takes the place of the one before it of the same promise.
bool Replaces(const Seq *fields, const HubPromiseExecution *so_far)
{
    return !StringEqual(FieldAt(fields, 9), "packages") || IsWorse(OutcomeOf(fields), so_far->promise_outcome);
}

}  // namespace

Seq *GetCurrentHubPromiseExecutionList(const EvalContext *) noexcept
{
    const LogPath path;
    MapPtr executions(MapNew(StringHashUntyped, StringEqualUntyped, free, HubPromiseExecutionDelete));
    const auto add = [&](const char *record, Seq *fields) {
        if (FieldCount(fields) < kLeastFields) {
            Log(LOG_LEVEL_WARNING, "Invalid csv file entry ('%s'): '%s'", path.text, record);
            return;
        }
        const char *hash = HashOf(fields);
        const auto *so_far = static_cast<const HubPromiseExecution *>(MapGet(executions.get(), hash));
        if (so_far == nullptr || Replaces(fields, so_far)) {
            (void)MapInsert(executions.get(), xstrdup(hash), RecordOf(fields));  // new or not: it counts
        }
    };
    const FilePtr log(safe_fopen(path.text, "r"));
    if (log == nullptr || !ForEachCsvRecord(log.get(), path.text, add)) {
        Log(LOG_LEVEL_VERBOSE, "Could not read execution log: '%s'", path.text);
        return nullptr;
    }
    return TakeValues(std::move(executions), HubPromiseExecutionDelete);
}

bool PurgeCurrentPromiseExecutions(time_t) noexcept
{
    const LogPath path;
    if (unlink(path.text) != 0) {
        Log(LOG_LEVEL_ERR, "Failed to remove file '%s' during execution log cleanup", path.text);
        return false;
    }
    return true;
}
