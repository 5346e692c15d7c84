// Promises of type "files": what a path is to hold, who owns it, where it is copied from, and what is to be gone.
//
// The attributes are done in this order: what stands in the way is moved aside, the file is made, written or copied,
// permissions are set, changes are watched. Each promise iteration is judged once, at its end:
//
//   kept      nothing had to be done
//   repaired  something was done; the message says what
//   not kept  something failed, whatever else was done; a warning where the file is missing and may not be created
//
// No link that another user planted is followed. Files are written whole beside the old one and renamed over it.
#ifndef HOST_VT_AGENT_FILES_PROMISE_H
#define HOST_VT_AGENT_FILES_PROMISE_H

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

#include "vt-agent/files_changes.h"

namespace veltrane {

// watch: of the run.
PromiseResult KeepFilesPromise(ChangeWatch *watch, EvalContext *ctx, const Promise *expanded);

}  // namespace veltrane

#endif
