// The promise execution report: the latest outcome of every promise that agent runs evaluated since the last pass.
//
// The agent appends one CSV record an evaluation to the execution log, <state>/promise_execution.log; its columns stand
// in another order than those of the report (docs/formats/execution-log.md). Here the log is reduced to one record a
// promise hash, and deleted once the state is cached. The log is appended to, read and deleted without a lock: what is
// appended between reading and deleting is lost.
#ifndef LIBVTENTERPRISE_DIFF_EXECUTION_LOG_H
#define LIBVTENTERPRISE_DIFF_EXECUTION_LOG_H

#include <time.h>

#include <veltrane/eval_context.h>
#include <veltrane/seq.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

// The current state of the report: a new Seq of HubPromiseExecution, in the order in which their promises first stand
// in the log. ctx is not used.
//
// The last evaluation in the log counts, except that of a "packages" promise (one promise stands there for many
// packages) the worst one counts. Records without a promise hash count as one promise.
//
// Errors  NULL, at verbose level, when the log cannot be read. A record that does not split, or has fewer than 12
//         fields, is skipped with a warning.
VT_EXPORT Seq *GetCurrentHubPromiseExecutionList(const EvalContext *ctx) noexcept;

// Delete the execution log. False, at error level, when that fails, be it that there is none. state_time is not used.
VT_EXPORT bool PurgeCurrentPromiseExecutions(time_t state_time) noexcept;

#endif
