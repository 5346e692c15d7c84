// The promise types that every program of the host evaluates: "vars" and "classes".
//
// What they define carries the tag "source=promise", then the tags of the promise's attribute "meta", then those that
// the functions in its value brought. A class is one of the whole run (scope "namespace", the default) or of its bundle
// alone (scope "bundle").
#ifndef HOST_LIBVELTRANE_PROMISE_VARS_CLASSES_H
#define HOST_LIBVELTRANE_PROMISE_VARS_CLASSES_H

#include <string>

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

namespace veltrane {

// "source=promise", the promise's meta tags and those of its value, joined by commas.
std::string PromiseTags(const Promise *expanded);

// Define a variable of the promise's bundle. Kept, or failed when the name or the value is none.
PromiseResult KeepVarsPromise(EvalContext *ctx, const Promise *expanded);

// Define a class when its expression holds: kept. Skipped, without a word, when it does not hold (now); failed when the
// expression is malformed.
PromiseResult KeepClassesPromise(EvalContext *ctx, const Promise *expanded);

}  // namespace veltrane

#endif
