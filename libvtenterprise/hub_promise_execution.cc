// One promise as it was last executed. Its hash is its identity; what tells how it was reached (promise type and stack
// path) is carried along but is no part of its value, so that moving a promise is no change.
#include <initializer_list>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using Execution = HubPromiseExecution;
using ExecutionRecord =
    Record<Execution, &Execution::release_id, &Execution::promise_hash, &Execution::ns, &Execution::bundle,
           &Execution::promise_type, &Execution::promiser, &Execution::stack_path, &Execution::handle,
           &Execution::promisee_list_serialized, &Execution::message_list_serialized, &Execution::meta_serialized,
           &Execution::policy_file, &Execution::policy_file_hash>;

const char *PromiseStateToString(PromiseState state)
{
    switch (state) {
        case PROMISE_STATE_KEPT:
            return "KEPT";
        case PROMISE_STATE_REPAIRED:
            return "REPAIRED";
        case PROMISE_STATE_NOTKEPT:
            return "NOTKEPT";
        case PROMISE_STATE_ANY:
            break;
    }
    return "UNKNOWN";
}

PromiseState PromiseStateFromString(const char *state)
{
    for (const PromiseState known : {PROMISE_STATE_REPAIRED, PROMISE_STATE_NOTKEPT, PROMISE_STATE_KEPT}) {
        if (StringEqual(state, PromiseStateToString(known))) {
            return known;
        }
    }
    return PROMISE_STATE_ANY;
}

HubPromiseExecution *HubPromiseExecutionNew(const char *release_id, PromiseState promise_outcome,
                                            const char *promise_hash, const char *ns, const char *bundle,
                                            const char *promise_type, const char *promiser, const char *stack_path,
                                            const char *handle, const char *promisee_list_serialized,
                                            const char *messages_list_serialized, const char *meta_serialized,
                                            const char *policy_file, size_t line_number, const char *policy_file_hash)
{
    HubPromiseExecution *execution = ExecutionRecord::New();
    execution->release_id = SafeStringDuplicate(release_id);
    execution->promise_hash = SafeStringDuplicate(promise_hash);
    execution->ns = SafeStringDuplicate(ns);
    execution->bundle = SafeStringDuplicate(bundle);
    execution->promise_type = SafeStringDuplicate(promise_type);
    execution->promiser = SafeStringDuplicate(promiser);
    execution->stack_path = SafeStringDuplicate(stack_path);
    execution->handle = SafeStringDuplicate(handle);
    execution->promisee_list_serialized = SafeStringDuplicate(promisee_list_serialized);
    execution->message_list_serialized = SafeStringDuplicate(messages_list_serialized);
    execution->meta_serialized = SafeStringDuplicate(meta_serialized);
    execution->policy_file = SafeStringDuplicate(policy_file);
    execution->policy_file_hash = SafeStringDuplicate(policy_file_hash);
    execution->line_number = line_number;
    execution->promise_outcome = promise_outcome;
    return execution;
}

void *HubPromiseExecutionDup(const void *execution)
{
    return ExecutionRecord::Dup(static_cast<const HubPromiseExecution *>(execution));
}

void HubPromiseExecutionDelete(void *execution)
{
    ExecutionRecord::Delete(static_cast<HubPromiseExecution *>(execution));
}

int HubPromiseExecutionCompareKeys(const void *a, const void *b, void *)
{
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    return StringSafeCompare(static_cast<const HubPromiseExecution *>(a)->promise_hash,
                             static_cast<const HubPromiseExecution *>(b)->promise_hash);
}

bool HubPromiseExecutionCompareValues(const void *a, const void *b)
{
    if (a == nullptr || b == nullptr) {
        return false;
    }
    const HubPromiseExecution *ea = static_cast<const HubPromiseExecution *>(a);
    const HubPromiseExecution *eb = static_cast<const HubPromiseExecution *>(b);
    return StringEqual(ea->promiser, eb->promiser) && StringEqual(ea->bundle, eb->bundle) &&
           StringEqual(ea->policy_file, eb->policy_file) &&
           StringEqual(ea->message_list_serialized, eb->message_list_serialized) &&
           StringEqual(ea->promisee_list_serialized, eb->promisee_list_serialized) &&
           ea->promise_outcome == eb->promise_outcome && StringEqual(ea->ns, eb->ns) &&
           StringEqual(ea->handle, eb->handle) && StringEqual(ea->release_id, eb->release_id) &&
           ea->line_number == eb->line_number && StringEqual(ea->policy_file_hash, eb->policy_file_hash) &&
           StringEqual(ea->meta_serialized, eb->meta_serialized);
}

char *HubPromiseExecutionGetMainKey(void *execution)
{
    if (execution == nullptr) {
        return nullptr;
    }
    return SafeStringDuplicate(static_cast<const HubPromiseExecution *>(execution)->promise_hash);
}

void HubPromiseExecutionToCSV(void *execution, CsvWriter *c)
{
    const HubPromiseExecution *record = static_cast<const HubPromiseExecution *>(execution);
    WriteText(c, record->promise_hash);
    WriteText(c, record->policy_file);
    WriteText(c, record->release_id);
    WriteNumber(c, static_cast<int>(record->promise_outcome));
    WriteText(c, record->ns);
    WriteText(c, record->bundle);
    WriteText(c, record->promise_type);
    WriteText(c, record->promiser);
    WriteText(c, record->stack_path);
    WriteText(c, record->handle);
    WriteText(c, record->promisee_list_serialized);
    WriteText(c, record->message_list_serialized);
    WriteNumber(c, record->line_number);
    WriteText(c, record->policy_file_hash);
    WriteText(c, record->meta_serialized);
}

// Older rows end after the 12th, 13th or 14th column. Rows with more columns than we know come from a later version:
// their tags may stand elsewhere, so the 15th column counts only when it is the last.
void *HubPromiseExecutionFromAttributeList(Seq *attr)
{
    const size_t count = FieldCount(attr);
    if (count < 12) {
        return nullptr;
    }
    HubPromiseExecution *record = ExecutionRecord::New();
    record->promise_hash = TextAt(attr, 0);
    record->policy_file = TextAt(attr, 1);
    record->release_id = TextAt(attr, 2);
    record->promise_outcome = static_cast<PromiseState>(StringToLongUnsafe(FieldAt(attr, 3)));
    record->ns = TextAt(attr, 4);
    record->bundle = TextAt(attr, 5);
    record->promise_type = TextAt(attr, 6);
    record->promiser = TextAt(attr, 7);
    record->stack_path = TextAt(attr, 8);
    record->handle = TextAt(attr, 9);
    record->promisee_list_serialized = TextAt(attr, 10);
    record->message_list_serialized = TextAt(attr, 11);
    if (count >= 13) {
        record->line_number = LineNumberAt(attr, 12);
    }
    if (count >= 14) {
        record->policy_file_hash = TextAt(attr, 13);
    }
    if (count == 15) {
        record->meta_serialized = TextAt(attr, 14);
    }
    return record;
}
