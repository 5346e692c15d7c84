// Promises of type "processes": how many processes run whose command line a pattern is found in.
//
// "count" has min (0) and max (no limit). "signals" go, in their order, to each match when there are more than max, or
// always when there is no count. "restart_class" is defined when no process matches. This agent itself is never a
// match, and neither it nor a process above it is ever sent a signal.
#ifndef HOST_VT_AGENT_PROCESSES_PROMISE_H
#define HOST_VT_AGENT_PROCESSES_PROMISE_H

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

namespace veltrane {

// Kept when the number is right and nothing is to be sent; repaired when signals were sent, or the class was defined;
// else failed.
PromiseResult KeepProcessesPromise(EvalContext *ctx, const Promise *expanded);

}  // namespace veltrane

#endif
