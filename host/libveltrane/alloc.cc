// Memory that never runs out: whoever asks gets it, or the process ends.
//
// One invariant: no caller of the library ever sees NULL or std::bad_alloc. The C functions check here; containers of
// C++ come to the same end through the new-handler, and OpenSSL, which crashes when memory runs out while it sets
// itself up, through allocation functions of its own. Both are installed once when the library is loaded.
#include <veltrane/alloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <unistd.h>

#include <openssl/crypto.h>

#include <veltrane/logging.h>

#include "libveltrane/out_of_memory.h"

namespace {

// Log wants memory for long messages, so a second failure inside it must not come back here.
thread_local bool ending = false;

}  // namespace

namespace veltrane {

void EndOutOfMemory(size_t size)
{
    if (!ending) {
        ending = true;
        if (size > 0) {
            Log(LOG_LEVEL_CRIT, "Out of memory: %zu bytes are not to be had", size);
        } else {
            Log(LOG_LEVEL_CRIT, "Out of memory");
        }
    } else {
        static const char kMessage[] = "critical: Out of memory while logging that memory ran out\n";
        [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
    }
    _exit(255);  // no exit handlers: they would want memory, too
}

ssize_t xgetline(char **line, size_t *room, FILE *fp)
{
    const ssize_t length = getline(line, room, fp);
    if (length < 0 && feof(fp) == 0 && ferror(fp) == 0) {
        EndOutOfMemory(0);
    }
    return length;
}

}  // namespace veltrane

using veltrane::EndOutOfMemory;

namespace {

[[noreturn]] void EndFromNew() { EndOutOfMemory(0); }

[[maybe_unused]] const std::new_handler previous_handler = std::set_new_handler(EndFromNew);

void *AllocateForOpenSsl(size_t size, const char *, int) { return xmalloc(size); }

void *ReallocateForOpenSsl(void *memory, size_t size, const char *, int)
{
    if (memory != nullptr && size == 0) {  // its way to free
        free(memory);
        return nullptr;
    }
    return xrealloc(memory, size);
}

void FreeForOpenSsl(void *memory, const char *, int) { free(memory); }

// Refused when the process has used OpenSSL before it loaded this library; then nothing changes.
[[maybe_unused]] const int openssl_memory =
    CRYPTO_set_mem_functions(AllocateForOpenSsl, ReallocateForOpenSsl, FreeForOpenSsl);

}  // namespace

void *xmalloc(size_t size)
{
    void *memory = malloc(size > 0 ? size : 1);
    if (memory == nullptr) {
        EndOutOfMemory(size);
    }
    return memory;
}

void *xcalloc(size_t count, size_t size)
{
    const bool nothing = count == 0 || size == 0;
    void *memory = nothing ? calloc(1, 1) : calloc(count, size);
    if (memory == nullptr) {
        size_t bytes = 0;
        EndOutOfMemory(__builtin_mul_overflow(count, size, &bytes) ? SIZE_MAX : bytes);
    }
    return memory;
}

void *xrealloc(void *memory, size_t size)
{
    void *moved = realloc(memory, size > 0 ? size : 1);
    if (moved == nullptr) {
        EndOutOfMemory(size);
    }
    return moved;
}

char *xstrdup(const char *text) { return static_cast<char *>(xmemdup(text, strlen(text) + 1)); }

char *xstrndup(const char *text, size_t n)
{
    const size_t length = strnlen(text, n);
    char *copy = static_cast<char *>(xmalloc(length + 1));
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

void *xmemdup(const void *memory, size_t size)
{
    void *copy = xmalloc(size);
    if (size > 0) {
        memcpy(copy, memory, size);
    }
    return copy;
}

int xasprintf(char **ret_text, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = xvasprintf(ret_text, format, arguments);
    va_end(arguments);
    return length;
}

int xvasprintf(char **ret_text, const char *format, va_list arguments)
{
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    if (length < 0) {
        EndOutOfMemory(0);
    }
    *ret_text = text;
    return length;
}
