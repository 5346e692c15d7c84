// The agent's log of promise outcomes.
//
// The host hands over every iteration of every promise when its result is final
// (EvalContextLogPromiseIterationOutcome). What becomes of it:
// - <state>/promise_execution.log gets one CSV record of every iteration that was not skipped, in the order of columns
//   of docs/formats/execution-log.md; the report of promise executions reads and deletes the file.
// - <state>/promise_log.jsonl gets one JSON line of those that were repaired or not kept (promise_log.h).
// Promises of the types classes, reports and vars go to neither. A record that cannot be written is lost with an error
// line, and the evaluation goes on.
//
// The entry points themselves are declared with all others in libvtenterprise/entry_points_real.h:
// EvalContextSetupHubviewLogHook and EvalContextLogPromiseIterationOutcome, and the two operations on a host's set of
// class names, Vesk_ClassHistoryEnable and Vesk_ClassHistoryAddContextName.
#ifndef LIBVTENTERPRISE_ENTERPRISE_COMPLIANCE_LOG_H
#define LIBVTENTERPRISE_ENTERPRISE_COMPLIANCE_LOG_H

// Files of the state directory.
inline constexpr const char *kExecutionLogName = "promise_execution.log";
inline constexpr const char *kPromiseLogName = "promise_log.jsonl";

#endif
