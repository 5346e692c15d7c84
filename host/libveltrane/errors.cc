// Texts of errno, and reports of what cannot happen.
#include <veltrane/errors.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <veltrane/logging.h>

namespace {

// Log "<file>:<line>: <kind>: <message>"; without memory for the message its format stands in for it.
void Report(LogLevel level, const char *kind, const char *file, int line, const char *format, va_list arguments)
{
    char *message = nullptr;
    if (vasprintf(&message, format, arguments) < 0) {
        message = nullptr;
    }
    Log(level, "%s:%d: %s: %s", file, line, kind, message != nullptr ? message : format);
    free(message);
}

}  // namespace

const char *GetErrorStr(void)
{
    static thread_local char storage[256];
    const int saved_errno = errno;
    const char *const text = strerror_r(saved_errno, storage, sizeof(storage));
    if (text != storage) {  // a text of the C library's own; the caller gets thread storage all the same
        snprintf(storage, sizeof(storage), "%s", text);
    }
    errno = saved_errno;
    return storage;
}

void __ProgrammingError(const char *file, int line, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Report(LOG_LEVEL_CRIT, "programming error", file, line, format, arguments);
    va_end(arguments);
    abort();
}

void __UnexpectedError(const char *file, int line, const char *format, ...)
{
    const int saved_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    Report(LOG_LEVEL_ERR, "unexpected error", file, line, format, arguments);
    va_end(arguments);
    errno = saved_errno;
}
