// Total compliance: how many promises of a run were kept, repaired and not kept, told apart by whose promises they are.
//
// A promise whose handle holds "vte_internal_" (wherever in it) is the product's own; every other one, without a handle
// too, is the user's. The counters are of the process and never reset. The entry points TrackTotalCompliance and
// LogTotalCompliance are declared with all others in libvtenterprise/entry_points_real.h; LogTotalCompliance appends
// one line to <log>/promise_summary.log, docs/formats/promise-summary.md.
#ifndef LIBVTENTERPRISE_ENTERPRISE_PROMISES_H
#define LIBVTENTERPRISE_ENTERPRISE_PROMISES_H

#include <veltrane/policy.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

VT_EXPORT int PR_KEPT_USER;
VT_EXPORT int PR_REPAIRED_USER;
VT_EXPORT int PR_NOTKEPT_USER;
VT_EXPORT int PR_KEPT_INTERNAL;
VT_EXPORT int PR_REPAIRED_INTERNAL;
VT_EXPORT int PR_NOTKEPT_INTERNAL;

// Count one outcome of a promise; a state other than kept, repaired and not kept counts nothing.
VT_EXPORT void EnterpriseTrackTotalCompliance(const Promise *pp, PromiseState state) noexcept;

#endif
