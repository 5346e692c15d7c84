// Outcomes into the two logs. Each log has a record of its own, for what happens while one is written is a message of
// the promise that the other tells.
#include "libvtenterprise/enterprise_compliance_log.h"

#include <ctime>
#include <memory>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/errors.h>
#include <veltrane/eval_context.h>
#include <veltrane/item_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>
#include <veltrane/set.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/evaluated_promise.h"
#include "libvtenterprise/json_line.h"
#include "libvtenterprise/promise_log.h"
#include "libvtenterprise/record.h"
#include "libvtenterprise/safe_write_log.h"

using veltrane::CsvWriterPtr;
using veltrane::JsonPtr;
using veltrane::WriterPtr;
using ExecutionPtr = std::unique_ptr<HubPromiseExecution, veltrane::Destroyer<HubPromiseExecutionDelete>>;

namespace {

// They say what holds, and change nothing.
const char *const kTypesNotLogged[] = {"classes", "reports", "vars", nullptr};

// The columns in the order of the execution log, which is not that of the record's own CSV form.
void WriteExecution(const HubPromiseExecution *execution, CsvWriter *c)
{
    CsvWriterField(c, execution->release_id);
    WriteNumber(c, static_cast<int>(execution->promise_outcome));
    CsvWriterField(c, execution->promise_hash);
    CsvWriterField(c, execution->stack_path);
    CsvWriterField(c, execution->handle);
    CsvWriterField(c, execution->promisee_list_serialized);
    CsvWriterField(c, execution->message_list_serialized);
    CsvWriterField(c, execution->ns);
    CsvWriterField(c, execution->bundle);
    CsvWriterField(c, execution->promise_type);
    CsvWriterField(c, execution->promiser);
    CsvWriterField(c, execution->policy_file);
    WriteNumber(c, execution->line_number);
    CsvWriterField(c, execution->policy_file_hash);
    CsvWriterField(c, execution->meta_serialized);
}

void LogExecution(const EvalContext *ctx, const Promise *pp, PromiseResult result)
{
    ExecutionPtr execution(HubPromiseExecutionFromEvalPromise(ctx, pp, result));
    if (execution == nullptr) {
        return;
    }
    const WriterPtr text(StringWriter());
    CsvWriterPtr csv(CsvWriterOpen(text.get()));
    WriteExecution(execution.get(), csv.get());
    csv.reset();
    execution.reset();
    SafeWriteLog(kExecutionLogName, StringWriterData(text.get()));
}

void LogRepairOrFailure(const EvalContext *ctx, const Promise *pp, PromiseResult result)
{
    ExecutionPtr execution(HubPromiseExecutionFromEvalPromise(ctx, pp, result));
    if (execution == nullptr || !IsAllowedForPromiseLog(execution.get())) {
        return;
    }
    PromiseLogEntryPtr entry(PromiseLogEntryNew(time(nullptr), execution.release()));
    const JsonPtr json(PromiseLogEntryToJson(entry.get()));
    if (json == nullptr) {
        const HubPromiseExecution *promise = entry->promise;
        Log(LOG_LEVEL_WARNING, "Failed to serialize promise (hash: '%s' handle: '%s') SKIPPING",
            promise->promise_hash != nullptr ? promise->promise_hash : "missing",
            promise->handle != nullptr ? promise->handle : "missing");
        return;
    }
    entry.reset();
    const WriterPtr text(StringWriter());
    JsonLWriteRecord(text.get(), json.get());
    SafeWriteLog(kPromiseLogName, StringWriterData(text.get()));
}

}  // namespace

void EvalContextSetupHubviewLogHook__real(EvalContext *ctx) noexcept
{
    if (LoggingPrivGetContext() != nullptr) {
        __UnexpectedError("enterprise_compliance_log", __LINE__,
                          "SetupHubviewLogHook: Logging context bound to something else!");
    }
    auto *context = static_cast<LoggingPrivContext *>(xcalloc(1, sizeof(LoggingPrivContext)));
    context->log_hook = HubviewLogHook;
    context->param = ctx;
    context->force_hook_level = LOG_LEVEL_INFO;
    LoggingPrivSetContext(context);  // for the rest of the process
}

void EvalContextLogPromiseIterationOutcome__real(const EvalContext *ctx, const Promise *pp,
                                                 PromiseResult result) noexcept
{
    if (result == PROMISE_RESULT_SKIPPED || IsStrIn(pp->parent_section->promise_type, kTypesNotLogged)) {
        return;
    }
    LogExecution(ctx, pp, result);
    if (result != PROMISE_RESULT_NOOP) {
        LogRepairOrFailure(ctx, pp, result);
    }
}

void Vesk_ClassHistoryEnable__real(StringSet **list, bool enable) noexcept
{
    if (!enable) {
        StringSetDestroy(std::exchange(*list, nullptr));
    } else if (*list == nullptr) {
        *list = StringSetNew();
    }
}

void Vesk_ClassHistoryAddContextName__real(StringSet *list, const char *context_name) noexcept
{
    if (list == nullptr || context_name == nullptr || context_name[0] == '\0') {
        return;
    }
    char *name = xstrdup(context_name);
    CanonifyNameInPlace(name);
    StringSetAdd(list, name);
}
