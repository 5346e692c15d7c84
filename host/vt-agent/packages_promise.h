// Promises of type "packages": a package that is installed, or is not.
//
// "policy" is present (the default) or absent; "version" and "architecture" narrow what is meant; "module" is the first
// module of the policy's package inventory, else apt.
#ifndef HOST_VT_AGENT_PACKAGES_PROMISE_H
#define HOST_VT_AGENT_PACKAGES_PROMISE_H

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

#include "libveltrane/package_keeper.h"

namespace veltrane {

// Kept when the machine is as promised; repaired when the package manager made it so; else failed, with the manager's
// last line. The keeper is the one of this policy's run.
PromiseResult KeepPackagesPromise(PackageKeeper *keeper, EvalContext *ctx, const Promise *expanded);

}  // namespace veltrane

#endif
