// Promises of type "reports": a text for people, on standard output as "R: <text>" or appended to a file as it is.
#ifndef HOST_VT_AGENT_REPORTS_H
#define HOST_VT_AGENT_REPORTS_H

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

namespace veltrane {

// Kept when the text was written, else failed.
PromiseResult KeepReportsPromise(EvalContext *ctx, const Promise *expanded);

}  // namespace veltrane

#endif
