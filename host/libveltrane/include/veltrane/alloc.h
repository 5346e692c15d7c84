// Memory that never runs out: exhaustion ends the process.
#ifndef VELTRANE_ALLOC_H
#define VELTRANE_ALLOC_H

#include <stdarg.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// each: never NULL; out of memory logs at critical level and ends the process
void *xmalloc(size_t size);

// zeroed
void *xcalloc(size_t count, size_t size);
void *xrealloc(void *memory, size_t size);

// new; text must not be NULL
char *xstrdup(const char *text);

// new; at most n bytes and a zero
char *xstrndup(const char *text, size_t n);
void *xmemdup(const void *memory, size_t size);

// new text, its length
int xasprintf(char **ret_text, const char *format, ...) VT_PRINTF(2, 3);
int xvasprintf(char **ret_text, const char *format, va_list arguments);

// All of it is plain malloc memory: free ends it.

VT_END_DECLS

#endif
