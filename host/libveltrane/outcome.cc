// Outcomes of promises: which is worse, and how one is reported.
#include <veltrane/outcome.h>

#include <cstdarg>
#include <cstring>
#include <string>

#include <veltrane/attributes.h>
#include <veltrane/eval_context.h>
#include <veltrane/json.h>
#include <veltrane/logging.h>
#include <veltrane/policy.h>
#include <veltrane/string_lib.h>

#include "libveltrane/eval_context_internal.h"

namespace {

// From the worst to the one that says nothing.
constexpr char kFromWorst[] = {PROMISE_RESULT_INTERRUPTED, PROMISE_RESULT_TIMEOUT, PROMISE_RESULT_DENIED,
                               PROMISE_RESULT_FAIL,        PROMISE_RESULT_WARN,    PROMISE_RESULT_CHANGE,
                               PROMISE_RESULT_NOOP,        PROMISE_RESULT_SKIPPED};

size_t Rank(PromiseResult result)
{
    const void *found = memchr(kFromWorst, result, sizeof(kFromWorst));
    return found != nullptr ? static_cast<size_t>(static_cast<const char *>(found) - kFromWorst) : sizeof(kFromWorst);
}

void DefineClass(EvalContext *ctx, const Promise *pp, const char *name)
{
    if (name == nullptr) {
        return;
    }
    const std::string qualified = std::string(PromiseGetNamespace(pp)) + ":" + name;
    EvalContextClassPutSoft(ctx, strchr(name, ':') != nullptr ? name : qualified.c_str(), nullptr);
}

// The classes that a promise's attribute "classes" names for an outcome: one name, or a list of names.
void DefineOutcomeClasses(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *outcome)
{
    if (attr == nullptr || attr->classes == nullptr) {
        return;
    }
    DefineClass(ctx, pp, JsonObjectGetAsString(attr->classes, outcome));
    const JsonElement *names = JsonObjectGetAsArray(attr->classes, outcome);
    for (size_t i = 0; names != nullptr && i < JsonLength(names); i++) {
        DefineClass(ctx, pp, JsonPrimitiveGetAsString(JsonArrayGet(names, i)));
    }
}

void Record(EvalContext *ctx, const Promise *pp, const Attributes *attr, LogLevel level, PromiseResult result,
            const char *outcome, const char *format, va_list arguments)
{
    VLog(level, format, arguments);
    veltrane::EvalContextIterationNote(ctx, result);
    DefineOutcomeClasses(ctx, pp, attr, outcome);
}

}  // namespace

PromiseResult PromiseResultUpdate(PromiseResult evidence, PromiseResult now)
{
    return Rank(now) < Rank(evidence) ? now : evidence;
}

void RecordNoChange(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record(ctx, pp, attr, LOG_LEVEL_VERBOSE, PROMISE_RESULT_NOOP, "kept", format, arguments);
    va_end(arguments);
}

void RecordChange(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record(ctx, pp, attr, LOG_LEVEL_INFO, PROMISE_RESULT_CHANGE, "repaired", format, arguments);
    va_end(arguments);
}

void RecordWarning(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record(ctx, pp, attr, LOG_LEVEL_WARNING, PROMISE_RESULT_WARN, "failed", format, arguments);
    va_end(arguments);
}

void RecordFailure(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record(ctx, pp, attr, LOG_LEVEL_ERR, PROMISE_RESULT_FAIL, "failed", format, arguments);
    va_end(arguments);
}
