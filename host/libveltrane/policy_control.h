// What the control sections of a policy say, for the library's own programs.
//
//   section  attribute               value
//   common   package_inventory       list of package modules
//            protocol_version        classic, tls, cookie, filestream, latest or 1 to 4
//            lastseen_expire_after   seconds
//   agent    report_class_log        true or false
//            log_limit               bytes that each append-only file of the host may hold, 4096 to 2147483647
//   server   listen                  true or false
//            call_collect_interval   seconds, 0 = no collect calls
//            dump_reports            true or false
//            max_connections         1 to 65535
//            service_announcement    absolute path
//
// Values were checked when the policy was read: a whole number is within its range, and a truth value that policy
// wrote as yes or no reads as true or false.
#ifndef VELTRANE_POLICY_CONTROL_H
#define VELTRANE_POLICY_CONTROL_H

#include <veltrane/eval_context.h>
#include <veltrane/policy.h>
#include <veltrane/rlist.h>

namespace veltrane {

// The text of a control attribute, lent; NULL when policy does not set it.
const char *PolicyControlScalar(const Policy *policy, const char *kind, const char *attribute);

// The items of a control attribute that is a list, lent; NULL when policy does not set it, or sets it to the empty
// list.
const Rlist *PolicyControlList(const Policy *policy, const char *kind, const char *attribute);

// Hands the attributes of "control: common" to a context, where EvalContextVariableControlCommonGet and
// GetDefaultInventoryFromContext find them.
void PolicyControlCommonIntoContext(const Policy *policy, EvalContext *ctx);

}  // namespace veltrane

#endif
