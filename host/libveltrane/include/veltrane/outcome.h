// What became of a promise, and how it is reported.
#ifndef VELTRANE_OUTCOME_H
#define VELTRANE_OUTCOME_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum  // the character is the value
{ PROMISE_RESULT_SKIPPED = 's',
  PROMISE_RESULT_NOOP = 'n',
  PROMISE_RESULT_CHANGE = 'c',
  PROMISE_RESULT_WARN = 'w',
  PROMISE_RESULT_FAIL = 'f',
  PROMISE_RESULT_DENIED = 'd',
  PROMISE_RESULT_TIMEOUT = 't',
  PROMISE_RESULT_INTERRUPTED = 'i' } PromiseResult;

// the worse: i t d f w c n s
PromiseResult PromiseResultUpdate(PromiseResult evidence, PromiseResult now);

// Report what happened to a promise: log the text, note the outcome on the promise's iteration, define the classes
// that attr asks for. None of them counts compliance: that happens once an iteration, when its result is final.
// attr may be NULL.
// verbose; kept
void RecordNoChange(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...)
    VT_PRINTF(4, 5);

// info; repaired
void RecordChange(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...) VT_PRINTF(4, 5);

// warning; not kept
void RecordWarning(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...)
    VT_PRINTF(4, 5);

// error; not kept
void RecordFailure(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *format, ...)
    VT_PRINTF(4, 5);

VT_END_DECLS

#endif
