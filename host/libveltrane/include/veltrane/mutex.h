// Mutexes whose misuse is a programming error.
#ifndef VELTRANE_MUTEX_H
#define VELTRANE_MUTEX_H

#include <pthread.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// the set of report book filters. Names of further host mutexes begin with vtt_
extern pthread_mutex_t *const vtt_server_filter;

// Any mutex, the caller's own too; not recursive; an error (deadlock, not the owner) is a programming error. Host
// mutexes check for both.
void __ThreadLock(pthread_mutex_t *mutex, const char *file, int line);
void __ThreadUnlock(pthread_mutex_t *mutex, const char *file, int line);
#define ThreadLock(mutex) __ThreadLock((mutex), __FILE__, __LINE__)
#define ThreadUnlock(mutex) __ThreadUnlock((mutex), __FILE__, __LINE__)

VT_END_DECLS

#endif
