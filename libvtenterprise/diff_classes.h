// The classes report: which classes were defined on this host in its last agent run.
//
// The current state is the classes of the evaluation context together with those that an earlier run of the same cycle
// (the one that updates policy) left in the temporary class cache, <state>/context.cache.tmp (temporary_cache.h): one
// CSV record a class, `context,meta_serialized`, guarded by the critical section "context_tmp_lock". Classes that come
// and go with the clock are left out.
#ifndef LIBVTENTERPRISE_DIFF_CLASSES_H
#define LIBVTENTERPRISE_DIFF_CLASSES_H

#include <time.h>

#include <veltrane/class.h>
#include <veltrane/eval_context.h>
#include <veltrane/map.h>
#include <veltrane/seq.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

// The record of one class: its full name ("ns:name") and its tags joined with ",", absent when it has none.
//
// Result    new, without host, time 0.
// Errors    a class without a tag set is an unexpected error and counts as one with an empty set; tags of more than
//           1024 bytes are cut to the first 1023, at verbose level.
VT_EXPORT HubClass *HubClassFromClass(const Class *context) noexcept;

// Whether a class of this name (without namespace) changes by itself with the clock or says nothing.
VT_EXPORT bool IsContextIgnorableForReporting(const char *context_name) noexcept;

// All classes of the run that are worth reporting: new Seq of HubClass, in the order of the context's iterator. Each
// class left out is a debug line.
VT_EXPORT Seq *GetCurrentClassesFromEvalContext(const EvalContext *ctx) noexcept;

// Append the classes of ctx to the temporary class cache; nothing happens when there are none. A failure is logged at
// error level.
VT_EXPORT void StoreContexts(const EvalContext *ctx) noexcept;

// The temporary class cache: new Map from class name (owned) to HubClass (owned), in the order of the file, a later
// record replacing an earlier one of the same name. NULL, at verbose level, when it cannot be read. Records that do not
// parse are skipped with a warning each.
VT_EXPORT Map *GetCurrentCachedHubClasses() noexcept;

// The current state of the report: new Seq of HubClass. Classes of ctx replace those of the temporary cache.
VT_EXPORT Seq *GetCurrentHubClassList(const EvalContext *ctx) noexcept;

// Delete the temporary class cache. False, at verbose level, when there is one and it cannot be deleted. state_time is
// not used.
VT_EXPORT bool PurgeCurrentContexts(time_t state_time) noexcept;

#endif
