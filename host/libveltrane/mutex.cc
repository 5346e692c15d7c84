// Mutexes whose misuse is a programming error. The host's own check who locks them twice or unlocks another's.
#include <veltrane/mutex.h>

#include <cerrno>

#include <veltrane/errors.h>

namespace {

pthread_mutex_t server_filter = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

}  // namespace

pthread_mutex_t *const vtt_server_filter = &server_filter;

void __ThreadLock(pthread_mutex_t *mutex, const char *file, int line)
{
    const int error = pthread_mutex_lock(mutex);
    if (error != 0) {
        errno = error;
        __ProgrammingError(file, line, "A mutex could not be locked. (pthread_mutex_lock: %s)", GetErrorStr());
    }
}

void __ThreadUnlock(pthread_mutex_t *mutex, const char *file, int line)
{
    const int error = pthread_mutex_unlock(mutex);
    if (error != 0) {
        errno = error;
        __ProgrammingError(file, line, "A mutex could not be unlocked. (pthread_mutex_unlock: %s)", GetErrorStr());
    }
}
