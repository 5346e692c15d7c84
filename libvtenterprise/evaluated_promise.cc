// From a promise iteration to its record. The order of the steps is the order of the messages about cut texts.
#include "libvtenterprise/evaluated_promise.h"

#include <algorithm>
#include <cstring>

#include <veltrane/alloc.h>
#include <veltrane/crypto.h>
#include <veltrane/errors.h>
#include <veltrane/json.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/ring_buffer.h>
#include <veltrane/rlist.h>
#include <veltrane/set.h>
#include <veltrane/string_lib.h>

using veltrane::JsonPtr;
using veltrane::StringSetPtr;
using veltrane::TextPtr;
using RingBufferIteratorPtr = std::unique_ptr<RingBufferIterator, veltrane::Destroyer<RingBufferIteratorDestroy>>;

namespace {

constexpr char kCutMark[] = "...";
constexpr size_t kCutMarkBytes = sizeof(kCutMark) - 1;
constexpr size_t kHashTextSize = 2 * VT_SHA256_LEN + 1;

// The functions below that return a text return a new one.

char *PromiseHash(const Promise *pp)
{
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    PromiseRuntimeHash(pp, "", digest, HASH_METHOD_SHA256);
    char *hex = static_cast<char *>(xmalloc(kHashTextSize));
    (void)StringBytesToHex(hex, kHashTextSize, digest, VT_SHA256_LEN);
    return hex;
}

PromiseState StateOf(PromiseResult result)
{
    switch (result) {
        case PROMISE_RESULT_CHANGE:
            return PROMISE_STATE_REPAIRED;
        case PROMISE_RESULT_NOOP:
            return PROMISE_STATE_KEPT;
        case PROMISE_RESULT_DENIED:
        case PROMISE_RESULT_FAIL:
        case PROMISE_RESULT_INTERRUPTED:
        case PROMISE_RESULT_TIMEOUT:
        case PROMISE_RESULT_WARN:
            return PROMISE_STATE_NOTKEPT;
        case PROMISE_RESULT_SKIPPED:
            __ProgrammingError("evaluated_promise", __LINE__, "Attempted to log compliance for skipped promise");
            break;
    }
    return PROMISE_STATE_ANY;
}

// Most promises have no promisees, tags or messages.
char *EmptyArray() { return xstrdup("[]"); }

char *CompactText(const JsonElement *json)
{
    Writer *text = StringWriter();
    JsonWriteCompact(text, json);
    return StringWriterClose(text);
}

char *StackPath(const EvalContext *ctx)
{
    const TextPtr whole(EvalContextStackPath(ctx));
    return TruncateString(whole.get(), kMaxTextBytes, "stack path");
}

char *Handle(const Promise *pp)
{
    const Constraint *handle = PromiseGetConstraint(pp, "handle");
    const char *text = handle != nullptr ? RvalScalarValue(handle->rval) : nullptr;
    return TruncateString(text, kMaxTextBytes, "promise handle");
}

char *Promisees(const EvalContext *ctx)
{
    const StringSetPtr promisees(EvalContextStackPromisees(ctx));
    if (StringSetSize(promisees.get()) == 0) {
        return EmptyArray();
    }
    const JsonPtr json(StringSetToJson(promisees.get()));
    return CompactText(json.get());
}

// A tag that is too long for what is left is passed over: a shorter one may still fit.
char *MetaTags(const Promise *pp)
{
    const Rlist *meta = PromiseGetConstraintAsList(pp, "meta");
    if (meta == nullptr) {
        return EmptyArray();
    }
    const JsonPtr tags(JsonArrayCreate(4));
    size_t budget = kMetaTagBudget;
    for (const Rlist *node = meta; node != nullptr; node = node->next) {
        const char *tag = RvalScalarValue(node->val);
        const size_t cost = SafeStringLength(tag) + 1;
        if (tag != nullptr && cost < budget) {
            JsonArrayAppendString(tags.get(), tag);
            budget -= cost;
        }
    }
    return CompactText(tags.get());
}

void AppendMessage(JsonElement *messages, const char *message, size_t *budget)
{
    const size_t length = strlen(message);
    if (length == 0) {
        return;
    }
    if (*budget > kMaxMessageBytes && length < kMaxMessageBytes) {
        JsonArrayAppendString(messages, message);
        *budget -= length;
    } else if (*budget > kCutMarkBytes) {
        const TextPtr cut(TruncateString(message, std::min(*budget, kMaxMessageBytes), "log message"));
        JsonArrayAppendString(messages, cut.get());
    } else {
        JsonArrayAppendString(messages, kCutMark);
    }
}

// budget: bytes that the messages may take together; it has wrapped to a very large number when the other texts alone
// exceed the record's.
char *Messages(const EvalContext *ctx, size_t budget)
{
    const RingBuffer *ring = EvalContextStackCurrentMessages(ctx);
    if (ring == nullptr || RingBufferLength(ring) == 0) {
        return EmptyArray();
    }
    const JsonPtr messages(JsonArrayCreate(5));
    const RingBufferIteratorPtr next(RingBufferIteratorNew(ring));
    while (const void *message = RingBufferIteratorNext(next.get())) {
        AppendMessage(messages.get(), static_cast<const char *>(message), &budget);
    }
    return CompactText(messages.get());
}

// Bytes of all texts but the messages, and of the line number.
size_t SizeWithoutMessages(const HubPromiseExecution *record)
{
    size_t size = record->line_number <= 99999 ? 5 : 10;
    for (const char *text :
         {record->release_id, record->promise_hash, record->stack_path, record->handle,
          record->promisee_list_serialized, record->ns, record->bundle, record->promise_type, record->promiser,
          record->policy_file, record->policy_file_hash, record->meta_serialized}) {
        size += SafeStringLength(text);
    }
    return size;
}

}  // namespace

char *TruncateString(const char *value, size_t max, const char *label) noexcept
{
    char *text = SafeStringNDuplicate(value, max);
    const size_t length = SafeStringLength(text);
    if (text == nullptr || length < max) {
        return text;
    }
    const size_t marked = std::min(length, kCutMarkBytes);
    memcpy(text + length - marked, kCutMark, marked);
    Log(LOG_LEVEL_VERBOSE, "Truncating '%s' attribute. Value: '%s' Max size: %zu", label, text, max);
    return text;
}

HubPromiseExecution *HubPromiseExecutionFromEvalPromise(const EvalContext *ctx, const Promise *pp,
                                                        PromiseResult result) noexcept
{
    const Bundle *bundle = PromiseGetBundle(pp);
    const Policy *policy = bundle->parent_policy;
    const char *source = bundle->source_path != nullptr ? bundle->source_path : "<unknown-source-file>";

    auto *record = static_cast<HubPromiseExecution *>(xcalloc(1, sizeof(HubPromiseExecution)));
    record->release_id = xstrdup(policy->release_id != nullptr ? policy->release_id : "<unknown-release-id>");
    record->promise_hash = PromiseHash(pp);
    record->policy_file = TruncateString(source, kMaxTextBytes, "source_file");
    record->ns = TruncateString(PromiseGetNamespace(pp), kMaxNamespaceBytes, "namespace");
    record->bundle = TruncateString(bundle->name, kMaxBundleBytes, "bundle name");
    record->promise_type = xstrdup(pp->parent_section->promise_type);
    record->promiser = TruncateString(pp->promiser, kMaxTextBytes, "promiser");
    record->stack_path = StackPath(ctx);
    record->promise_outcome = StateOf(result);
    record->handle = Handle(pp);
    record->promisee_list_serialized = Promisees(ctx);
    record->meta_serialized = MetaTags(pp);
    record->policy_file_hash = SafeStringDuplicate(PolicyGetPolicyFileHash(policy, bundle->source_path));
    record->line_number = pp->offset.line;
    record->message_list_serialized = Messages(ctx, kRecordBudget - SizeWithoutMessages(record));
    return record;
}
