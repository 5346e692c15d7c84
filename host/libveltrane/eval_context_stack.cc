// The stack of what is being evaluated: bundle, section, promise, iteration, in that nesting, again for each bundle
// that a promise calls. Messages and the outcome of an iteration are kept in its frame and go with it.
#include <cstdlib>
#include <string>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>
#include <veltrane/eval_context.h>
#include <veltrane/policy.h>
#include <veltrane/rlist.h>

#include "libveltrane/eval_context_internal.h"

using veltrane::StackFrame;
using Kind = veltrane::StackFrame::Kind;

namespace {

// Few on purpose: a record of an outcome bounds each message, not their number.
constexpr size_t kMessagesPerIteration = 5;

StackFrame *Push(EvalContext *ctx, Kind kind)
{
    StackFrame &frame = ctx->stack.emplace_back();
    frame.kind = kind;
    return &frame;
}

const StackFrame *TopIteration(const EvalContext *ctx)
{
    return !ctx->stack.empty() && ctx->stack.back().kind == Kind::kIteration ? &ctx->stack.back() : nullptr;
}

// Whether the next frame is an iteration of the promise in frame i, and so says the same with its variables expanded.
bool IsIterated(const EvalContext *ctx, size_t i)
{
    return i + 1 < ctx->stack.size() && ctx->stack[i + 1].kind == Kind::kIteration;
}

void AddPromisees(StringSet *set, const Promise *pp)
{
    if (const char *promisee = RvalScalarValue(pp->promisee); promisee != nullptr) {
        StringSetAdd(set, xstrdup(promisee));
    }
    for (const Rlist *node = RvalRlistValue(pp->promisee); node != nullptr; node = node->next) {
        StringSetAdd(set, xstrdup(RlistScalarValue(node)));
    }
}

void AppendPromiser(std::string *path, const Promise *pp) { path->append("/'").append(pp->promiser).append("'"); }

}  // namespace

void EvalContextStackPushBundle(EvalContext *ctx, const Bundle *bundle) { Push(ctx, Kind::kBundle)->bundle = bundle; }

void EvalContextStackPushSection(EvalContext *ctx, const BundleSection *section)
{
    Push(ctx, Kind::kSection)->section = section;
}

void EvalContextStackPushPromise(EvalContext *ctx, const Promise *pp) { Push(ctx, Kind::kPromise)->promise = pp; }

void EvalContextStackPushIteration(EvalContext *ctx, const Promise *expanded, size_t index)
{
    StackFrame *frame = Push(ctx, Kind::kIteration);
    frame->promise = expanded;
    frame->index = index;
    frame->messages.reset(RingBufferNew(kMessagesPerIteration, nullptr, free));
}

void EvalContextStackPop(EvalContext *ctx)
{
    if (ctx->stack.empty()) {
        ProgrammingError("Nothing is on the evaluation stack");
    }
    ctx->stack.pop_back();
}

char *EvalContextStackPath(const EvalContext *ctx)
{
    std::string path;
    for (size_t i = 0; i < ctx->stack.size(); i++) {
        const StackFrame &frame = ctx->stack[i];
        switch (frame.kind) {
            case Kind::kBundle:
                path.append("/").append(frame.bundle->ns).append("/").append(frame.bundle->name);
                break;
            case Kind::kSection:
                path.append("/").append(frame.section->promise_type);
                break;
            case Kind::kPromise:
                if (!IsIterated(ctx, i)) {
                    AppendPromiser(&path, frame.promise);
                }
                break;
            case Kind::kIteration:
                AppendPromiser(&path, frame.promise);
                path.append("[").append(std::to_string(frame.index)).append("]");
                break;
        }
    }
    return xstrdup(path.c_str());
}

StringSet *EvalContextStackPromisees(const EvalContext *ctx)
{
    StringSet *promisees = StringSetNew();
    for (size_t i = 0; i < ctx->stack.size(); i++) {
        if (ctx->stack[i].promise != nullptr && !IsIterated(ctx, i)) {
            AddPromisees(promisees, ctx->stack[i].promise);
        }
    }
    return promisees;
}

RingBuffer *EvalContextStackCurrentMessages(const EvalContext *ctx)
{
    const StackFrame *iteration = TopIteration(ctx);
    return iteration != nullptr ? iteration->messages.get() : nullptr;
}

void HubviewLogHook(LoggingPrivContext *log_ctx, LogLevel level, const char *message)
{
    RingBuffer *messages = EvalContextStackCurrentMessages(static_cast<const EvalContext *>(log_ctx->param));
    if (messages != nullptr && level >= LOG_LEVEL_CRIT && level <= LOG_LEVEL_INFO) {
        RingBufferAppend(messages, xstrdup(message));
    }
}

namespace veltrane {

const StackFrame *CurrentBundleFrame(const EvalContext *ctx)
{
    for (auto frame = ctx->stack.rbegin(); frame != ctx->stack.rend(); ++frame) {
        if (frame->kind == Kind::kBundle) {
            return &*frame;
        }
    }
    return nullptr;
}

StackFrame *CurrentBundleFrame(EvalContext *ctx)
{
    return const_cast<StackFrame *>(CurrentBundleFrame(static_cast<const EvalContext *>(ctx)));
}

const Bundle *EvalContextStackCurrentBundle(const EvalContext *ctx)
{
    const StackFrame *frame = CurrentBundleFrame(ctx);
    return frame != nullptr ? frame->bundle : nullptr;
}

void EvalContextIterationNote(EvalContext *ctx, PromiseResult result)
{
    if (TopIteration(ctx) != nullptr) {
        ctx->stack.back().result = PromiseResultUpdate(ctx->stack.back().result, result);
    }
}

PromiseResult EvalContextIterationResult(const EvalContext *ctx)
{
    const StackFrame *iteration = TopIteration(ctx);
    return iteration != nullptr ? iteration->result : PROMISE_RESULT_SKIPPED;
}

}  // namespace veltrane
