// The policy evaluator that every program of the host shares.
//
// A policy is evaluated bundle by bundle, each bundle in up to three passes so that classes settle, each promise in the
// order of the file. A promise that was judged once is not judged again. The evaluator itself knows the types "vars",
// "classes" and "methods"; a program brings an actuator for each other type that it keeps promises of. A promise of a
// type without an actuator belongs to another program and is passed over without a word.
//
// Each iteration of a promise ends kept, repaired, not kept or skipped. What is not skipped is counted in PR_KEPT,
// PR_REPAIRED and PR_NOTKEPT and handed to Evaluation::outcome, once.
#ifndef HOST_LIBVELTRANE_EVALUATOR_H
#define HOST_LIBVELTRANE_EVALUATOR_H

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>

namespace veltrane {

// Keep one promise iteration. expanded is the promise with all its variables and functions replaced by their values;
// it is lent for the call (its section, bundle and source line are those of the policy). The outcome is reported with
// RecordNoChange, RecordChange, RecordWarning or RecordFailure and returned as well.
using Actuator = std::function<PromiseResult(EvalContext *ctx, const Promise *expanded)>;

struct Evaluation {
    std::map<std::string, Actuator> actuators;  // by promise type

    // After each iteration whose result is final and not skipped, while it is still on the stack; may be empty.
    std::function<void(EvalContext *, const Promise *, PromiseResult)> outcome;
};

// The policy of a file and of what it includes; NULL after one error line that says where it is malformed, or which
// file of it cannot be read or could have been written by another user.
PolicyPtr ReadPolicy(const std::string &path);

// Fill an empty context with what holds before the first promise: the classes and sys variables of this machine, the
// attributes of the policy's control body "common", the edition classes and variables of the plug-in, the classes of a
// hub and of its part in high availability.
void SetUpContext(EvalContext *ctx, const Policy *policy);

// Evaluate a policy: the common bundles in the order of the files, then by kind
//   "common"  nothing else
//   "agent"   the agent bundle main; other agent bundles run when a promise of type methods names them
//   "server"  all server bundles in the order of the files
//
// Result  false, with an error line, when kind is "agent" and the policy has no agent bundle main.
bool EvaluateBundles(EvalContext *ctx, const Policy *policy, std::string_view kind, const Evaluation &evaluation);

}  // namespace veltrane

#endif
