// Texts of errno, and reports of what cannot happen.
#ifndef VELTRANE_ERRORS_H
#define VELTRANE_ERRORS_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// text of errno, thread storage; errno unchanged
const char *GetErrorStr(void);

// does not return: critical line "<file>:<line>: programming error: <message>", then abort()
void __ProgrammingError(const char *file, int line, const char *format, ...) VT_PRINTF(3, 4);

// RETURNS after the error-level line "<file>:<line>: unexpected error: <message>": callers go on with what they
// have
void __UnexpectedError(const char *file, int line, const char *format, ...) VT_PRINTF(3, 4);
#define ProgrammingError(...) __ProgrammingError(__FILE__, __LINE__, __VA_ARGS__)
#define UnexpectedError(...) __UnexpectedError(__FILE__, __LINE__, __VA_ARGS__)

// FatalError(ctx, format, ...) (eval_context.h) logs the bare message at critical level and calls exit(255).

VT_END_DECLS

#endif
