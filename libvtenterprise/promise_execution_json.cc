// From a promise execution to its JSON form and back; see the header for what is required of it.
#include "libvtenterprise/promise_execution_json.h"

#include <algorithm>

#include <veltrane/owned.h>
#include <veltrane/writer.h>

#include "libvtenterprise/record.h"

using veltrane::JsonPtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

constexpr size_t kMemberCount = 15;

void AppendText(JsonElement *object, const char *key, const char *text)
{
    JsonObjectAppendString(object, key, text != nullptr ? text : "");
}

// The array of a record's list; an absent list is an empty one.
JsonPtr ListOf(const char *serialized)
{
    return JsonPtr(serialized != nullptr ? JsonArrayOfStringsFromJsonString(serialized) : JsonArrayCreate(0));
}

// The text of an array as a record keeps it; NULL for NULL.
TextPtr SerializedList(const JsonElement *array)
{
    if (array == nullptr) {
        return nullptr;
    }
    WriterPtr text(StringWriter());
    JsonWriteCompact(text.get(), array);
    return TextPtr(StringWriterClose(text.release()));
}

// A negative number is no line.
size_t LineNumberOf(const JsonElement *json)
{
    const JsonElement *line = JsonObjectGet(json, "line_number");
    return line != nullptr ? static_cast<size_t>(std::max(JsonPrimitiveGetAsInteger(line), 0L)) : 0;
}

}  // namespace

JsonElement *HubPromiseExecutionToJson(const HubPromiseExecution *data) noexcept
{
    JsonPtr promisees = ListOf(data->promisee_list_serialized);
    JsonPtr messages = ListOf(data->message_list_serialized);
    JsonPtr tags = ListOf(data->meta_serialized);
    if (promisees == nullptr || messages == nullptr || tags == nullptr) {
        return nullptr;
    }
    JsonElement *json = JsonObjectCreate(kMemberCount);
    AppendText(json, "promise_hash", data->promise_hash);
    AppendText(json, "policy_filename", data->policy_file);
    AppendText(json, "release_id", data->release_id);
    AppendText(json, "promise_outcome", PromiseStateToString(data->promise_outcome));
    AppendText(json, "namespace", data->ns);
    AppendText(json, "bundle", data->bundle);
    AppendText(json, "promise_type", data->promise_type);
    AppendText(json, "promiser", data->promiser);
    AppendText(json, "stack_path", data->stack_path);
    AppendText(json, "handle", data->handle);
    JsonObjectAppendInteger(json, "line_number", static_cast<int>(data->line_number));
    AppendText(json, "policy_file_hash", data->policy_file_hash);
    JsonObjectAppendArray(json, "promisees", promisees.release());
    JsonObjectAppendArray(json, "log_messages", messages.release());
    JsonObjectAppendArray(json, "meta_tags", tags.release());
    return json;
}

HubPromiseExecution *HubPromiseExecutionFromJson(JsonElement *json) noexcept
{
    const char *promise_hash = JsonObjectGetString(json, "promise_hash");
    const char *policy_file = JsonObjectGetString(json, "policy_filename");
    const char *release_id = JsonObjectGetString(json, "release_id");
    const PromiseState outcome = PromiseStateFromString(JsonObjectGetString(json, "promise_outcome"));
    const char *ns = JsonObjectGetString(json, "namespace");
    const char *bundle = JsonObjectGetString(json, "bundle");
    const char *promise_type = JsonObjectGetString(json, "promise_type");
    const char *promiser = JsonObjectGetString(json, "promiser");
    const char *stack_path = JsonObjectGetString(json, "stack_path");
    const char *handle = JsonObjectGetString(json, "handle");
    const char *required[] = {promise_hash, policy_file, release_id, ns,    bundle,
                              promise_type, promiser,    stack_path, handle};
    const bool has_all_texts =
        std::none_of(std::begin(required), std::end(required), [](const char *text) { return text == nullptr; });
    const JsonElement *promisees = JsonObjectGetArray(json, "promisees");
    const JsonElement *messages = JsonObjectGetArray(json, "log_messages");
    if (!has_all_texts || outcome == PROMISE_STATE_ANY || promisees == nullptr || messages == nullptr) {
        return nullptr;
    }
    return HubPromiseExecutionNew(
        AbsentIfEmpty(release_id), outcome, AbsentIfEmpty(promise_hash), AbsentIfEmpty(ns), AbsentIfEmpty(bundle),
        AbsentIfEmpty(promise_type), AbsentIfEmpty(promiser), AbsentIfEmpty(stack_path), AbsentIfEmpty(handle),
        SerializedList(promisees).get(), SerializedList(messages).get(),
        SerializedList(JsonObjectGetArray(json, "meta_tags")).get(), AbsentIfEmpty(policy_file), LineNumberOf(json),
        AbsentIfEmpty(JsonObjectGetString(json, "policy_file_hash")));
}

JsonElement *JsonArrayOfStringsFromJsonString(const char *json_array_string) noexcept
{
    JsonElement *parsed = nullptr;
    if (JsonParse(json_array_string, &parsed) != JSON_PARSE_OK) {
        return nullptr;
    }
    JsonPtr json(parsed);
    return JsonGetContainerType(json.get()) == JSON_CONTAINER_TYPE_ARRAY ? json.release() : nullptr;
}

const char *JsonObjectGetString(const JsonElement *json, const char *key) noexcept
{
    return JsonObjectGetAsString(json, key);
}

JsonElement *JsonObjectGetArray(const JsonElement *json, const char *key) noexcept
{
    return JsonObjectGetAsArray(json, key);
}
