// What the agent tells about one iteration of a promise: the promise and the context, turned into a record of bounded
// size.
//
// Texts have limits of their own; messages share what the rest leaves of kRecordBudget. A text that reaches its limit
// is cut and ends in "...", so a text of exactly the limit is cut too. Lengths are bytes, counted before any escaping,
// and a cut may fall inside a UTF-8 character: CSV keeps such bytes, JSON replaces them.
#ifndef LIBVTENTERPRISE_EVALUATED_PROMISE_H
#define LIBVTENTERPRISE_EVALUATED_PROMISE_H

#include <stddef.h>

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

inline constexpr size_t kMaxNamespaceBytes = 100;
inline constexpr size_t kMaxBundleBytes = 200;
inline constexpr size_t kMaxTextBytes = 500;     // promiser, stack path, handle, policy file
inline constexpr size_t kMaxMessageBytes = 400;  // of one message; longer ones are cut to it
inline constexpr size_t kMetaTagBudget = 198;    // of all tags, each counted with one byte more
inline constexpr size_t kRecordBudget = 3400;

// At most max bytes of value: new; NULL for NULL. When max is reached, the last three bytes are "...", and a verbose
// line names the attribute by label.
VT_EXPORT char *TruncateString(const char *value, size_t max, const char *label) noexcept;

// The record of an iteration that is on top of the context's stack: new.
//
// pp      the promise with its variables expanded
// result  a skipped promise has no outcome: it is a programming error, which ends the process
// Errors  a tag that does not fit is left out and the next one tried; a message is cut. When the other texts alone
//         exceed the budget, messages are cut only by their own limit.
VT_EXPORT HubPromiseExecution *HubPromiseExecutionFromEvalPromise(const EvalContext *ctx, const Promise *pp,
                                                                  PromiseResult result) noexcept;

#endif
