// Logging, with a hook a thread.
//
// The hook runs in the logging thread before the line is written; what it logs itself reaches the output but no
// hook. A message below both levels is not even formatted. HubviewLogHook, which collects the messages of the
// promise under evaluation, is in eval_context.h.
#ifndef VELTRANE_LOGGING_H
#define VELTRANE_LOGGING_H

#include <stdarg.h>
#include <stdio.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum {
    LOG_LEVEL_NOTHING = -1,
    LOG_LEVEL_CRIT = 0,
    LOG_LEVEL_ERR = 1,
    LOG_LEVEL_WARNING = 2,
    LOG_LEVEL_NOTICE = 3,
    LOG_LEVEL_INFO = 4,
    LOG_LEVEL_VERBOSE = 5,
    LOG_LEVEL_DEBUG = 6
} LogLevel;

// any length, one line on the output if level <= the level in force; keeps errno
void Log(LogLevel level, const char *format, ...) VT_PRINTF(2, 3);
void VLog(LogLevel level, const char *format, va_list arguments);

// the level in force for the whole process; at start LOG_LEVEL_NOTICE
void LogSetGlobalLevel(LogLevel level);
LogLevel LogGetGlobalLevel(void);

// static: "critical", "error", "warning", "notice", "info", "verbose", "debug", "" for nothing
const char *LogLevelToString(LogLevel level);

// where lines go: stream (stderr at start, NULL = none) and, for daemons, the system log
void LogSetOutput(FILE *stream, bool system_log);

// One per thread, lent by whoever binds it, so a test can read every message. The hook gets the message exactly as
// formatted, own line end included.
struct LoggingPrivContext {
    void (*log_hook)(struct LoggingPrivContext *log_ctx, LogLevel level, const char *message);
    void *param;                // for the hook
    LogLevel force_hook_level;  // the hook sees level <= max(level in force, this)
};

// binds it to this thread and replaces the one before; NULL unbinds
void LoggingPrivSetContext(LoggingPrivContext *log_ctx);

// of this thread; NULL when none is bound
LoggingPrivContext *LoggingPrivGetContext(void);

VT_END_DECLS

#endif
