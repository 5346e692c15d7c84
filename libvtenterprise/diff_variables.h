// The variables report: the values of the variables that were defined in this host's last agent run.
//
// The current state is the variables of the evaluation context together with those that an earlier run of the same
// cycle left in the temporary variable cache, <state>/variable.cache.tmp (temporary_cache.h): one CSV record a
// variable, `ns,scope,name,type,value_serialized,meta_serialized`, guarded by the critical section "variable_tmp_lock".
// Constants are never reported.
#ifndef LIBVTENTERPRISE_DIFF_VARIABLES_H
#define LIBVTENTERPRISE_DIFF_VARIABLES_H

#include <time.h>

#include <veltrane/eval_context.h>
#include <veltrane/map.h>
#include <veltrane/seq.h>
#include <veltrane/variable.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

// The record of one variable: namespace ("default" when it has none), scope, name with its indices
// ("limits[cpu][mem]"), type, value as raw text, tags joined with ",".
//
// Result    new; an empty text is absent. NULL for a variable of the scope "const".
// Errors    a value, or tags, of more than 1024 bytes are cut to the first 1023, at verbose level.
VT_EXPORT HubVariableSerialized *HubVariableSerializedFromVariable(const Variable *variable) noexcept;

// All variables of the context but constants: new Seq of HubVariableSerialized, in the order of the context's iterator.
VT_EXPORT Seq *GetCurrentVariablesFromEvalContext(const EvalContext *ctx) noexcept;

// Append the variables of ctx to the temporary variable cache; nothing happens when there are none. A failure is logged
// at error level.
VT_EXPORT void StoreVariables(const EvalContext *ctx) noexcept;

// The temporary variable cache: new Map from main key (owned) to HubVariableSerialized (owned), in the order of the
// file, a later record replacing an earlier one of the same key. NULL, at verbose level, when it cannot be read.
// Records that do not parse are skipped with a warning each, a type out of range is an error line as well.
VT_EXPORT Map *GetCurrentCachedHubVariablesSerialized() noexcept;

// The current state of the report: new Seq of HubVariableSerialized. Variables of ctx replace those of the temporary
// cache.
VT_EXPORT Seq *GetCurrentHubVariableSerializedList(const EvalContext *ctx) noexcept;

// Delete the temporary variable cache. False, at verbose level, when there is one and it cannot be deleted. state_time
// is not used.
VT_EXPORT bool PurgeCurrentVariables(time_t state_time) noexcept;

#endif
