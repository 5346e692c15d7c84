// A library to preload: lets the calls fail that fault_plan.h names, and passes all others on.
//
// Streams write inside the C library, where no preloaded function is asked. So a stream that is opened for writing on a
// file that counts is made anew on top of this library's own write and close.
//
// Everything here may run before any constructor, inside the loader and in any thread: no memory is asked for, and no
// state needs a constructor.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "tests/faults/fault_plan.h"

// The function of that name behind this library, looked up once.
#define REAL(name)                                 \
    reinterpret_cast<decltype(&name)>([]() {       \
        static std::atomic<void *> found{nullptr}; \
        if (found.load() == nullptr) {             \
            found.store(dlsym(RTLD_NEXT, #name));  \
        }                                          \
        return found.load();                       \
    }())

#define FAULT_EXPORT extern "C" __attribute__((visibility("default")))

// Where a debugger stops to see who asked for the call that fails.
FAULT_EXPORT __attribute__((noinline)) void fault_reached() { __asm__ volatile(""); }

namespace {

constexpr int kMostDescriptors = 4096;
constexpr size_t kFirstMemory = 16384;

FaultPlan *plan = nullptr;
const char *below = "";
int below_length = 0;
bool past_main = false;

// What a descriptor is: a file below the directory, only a place there, from which a path is walked, or a connection.
enum class Kind : char { other, file, place, connection };
std::atomic<Kind> kinds[kMostDescriptors];

// Of the running thread. The initial-exec model needs no memory at its first use.
__attribute__((tls_model("initial-exec"))) thread_local int in_loader = 0;

// What looking a function up asks for before malloc itself is found.
alignas(16) char first_memory[kFirstMemory];
size_t first_memory_used = 0;

bool IsFirstMemory(const void *memory) { return memory >= first_memory && memory < first_memory + kFirstMemory; }

void *FirstMemory(size_t size)
{
    const size_t rounded = (size + 15) & ~size_t{15};
    if (rounded > kFirstMemory - first_memory_used) {
        abort();
    }
    void *memory = first_memory + first_memory_used;
    first_memory_used += rounded;
    return memory;
}

// The allocation functions, found once.
struct Allocation {
    void *(*allocate)(size_t);
    void *(*allocate_zeroed)(size_t, size_t);
    void *(*reallocate)(void *, size_t);
    void (*release)(void *);
};
Allocation real = {};
bool finding = false;

bool FindAllocation()
{
    if (real.release == nullptr && !finding) {
        finding = true;
        real.allocate = REAL(malloc);
        real.allocate_zeroed = REAL(calloc);
        real.reallocate = REAL(realloc);
        real.release = REAL(free);
        finding = false;
    }
    return real.release != nullptr;
}

bool Counting()
{
    return past_main && in_loader == 0 && plan->armed.load() == fault_counting && plan->owner.load() == getpid();
}

void NoteFailure(const char *path)
{
    fault_reached();
    if (plan->failed.fetch_add(1) == 0) {
        const size_t length = strnlen(path, sizeof(plan->path) - 1);
        memcpy(plan->path, path, length);
        plan->path[length] = '\0';
    }
}

// How a call ends: it passes, it fails, or a write takes half of its bytes.
enum class End { passes, fails, is_torn };

// Count one call.
End Count(FaultCall call)
{
    const uint64_t number = plan->made[call].fetch_add(1) + 1;
    const uint64_t at = plan->at.load();
    if (plan->call.load() != call || at == 0 || number < at) {
        return End::passes;
    }
    const uint32_t mode = plan->mode.load();
    if (number == at) {
        return mode == fault_torn ? End::is_torn : End::fails;
    }
    return mode == fault_once ? End::passes : End::fails;
}

bool IsBelow(const char *path)
{
    return strncmp(path, below, static_cast<size_t>(below_length)) == 0 && path[below_length] == '/';
}

// The name behind a descriptor; "" when it has none.
void NameOf(int fd, char (&name)[PATH_MAX])
{
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, name, sizeof(name) - 1);
    name[length > 0 ? length : 0] = '\0';
}

Kind KindOf(int fd) { return fd >= 0 && fd < kMostDescriptors ? kinds[fd].load() : Kind::other; }

bool CountsHere(int fd) { return KindOf(fd) == Kind::file; }

// The kind of a descriptor from now on.
void SetKind(int fd, Kind kind)
{
    if (fd < 0 || fd >= kMostDescriptors || plan == nullptr) {
        return;
    }
    const Kind before = kinds[fd].exchange(kind);
    if (plan->owner.load() == getpid()) {
        plan->open.fetch_add((kind != Kind::other) - (before != Kind::other));
    }
}

// A new descriptor, opened with these flags.
void Note(int fd, long flags)
{
    if (fd < 0 || plan == nullptr) {
        return;
    }
    const int before = errno;
    char name[PATH_MAX];
    NameOf(fd, name);
    SetKind(fd, !IsBelow(name) ? Kind::other : (flags & O_PATH) != 0 ? Kind::place : Kind::file);
    errno = before;
}

void Forget(int fd) { SetKind(fd, Kind::other); }

// Counting may wait for this path.
void BeginAt(const char *path)
{
    if (!past_main || plan->armed.load() != fault_waiting) {
        return;
    }
    const size_t length = strlen(path);
    const size_t ending = strlen(plan->begin);
    if (length >= ending && strcmp(path + length - ending, plan->begin) == 0) {
        plan->armed.store(fault_counting);
    }
}

// Whether opening this path is to fail; counts it. A relative path counts when its directory does. Opening a place does
// not count: it is a part of opening the file that is reached from there.
bool OpenFails(int directory, const char *path, long flags)
{
    char name[PATH_MAX] = "";
    if (plan == nullptr || (flags & O_PATH) != 0) {
        return false;
    }
    size_t length = 0;
    if (path[0] != '/' && KindOf(directory) != Kind::other) {
        NameOf(directory, name);
        length = strlen(name);
        name[length++] = '/';
    }
    strncpy(name + length, path, sizeof(name) - length - 1);
    name[sizeof(name) - 1] = '\0';
    BeginAt(name);
    if (!IsBelow(name) || !Counting() || Count(fault_open) == End::passes) {
        return false;
    }
    NoteFailure(name);
    errno = EMFILE;
    return true;
}

// Count a call on a descriptor; errno is set when it is not to pass.
End CountOn(int fd, FaultCall call, int error)
{
    if (!CountsHere(fd) || !Counting()) {
        return End::passes;
    }
    const End end = Count(call);
    if (end != End::passes) {
        char name[PATH_MAX];
        NameOf(fd, name);
        NoteFailure(name);
        errno = error;
    }
    return end;
}

// What a function writes of `size` bytes by way of write_some(size).
template <typename WriteSome>
ssize_t Write(int fd, size_t size, WriteSome write_some)
{
    switch (CountOn(fd, fault_write, ENOSPC)) {
        case End::fails:
            return -1;
        case End::is_torn:
            return write_some(size > 1 ? size / 2 : size);
        default:
            return write_some(size);
    }
}

bool RenameFails(const char *from)
{
    if (!Counting() || !IsBelow(from) || Count(fault_rename) == End::passes) {
        return false;
    }
    NoteFailure(from);
    errno = EIO;
    return true;
}

bool MemoryFails()
{
    if (!Counting() || Count(fault_memory) == End::passes) {
        return false;
    }
    NoteFailure("");
    errno = ENOMEM;
    return true;
}

// The descriptor of a stream of ours, kept in its cookie.
void *CookieOf(int fd) { return reinterpret_cast<void *>(static_cast<intptr_t>(fd)); }
int DescriptorOf(void *cookie) { return static_cast<int>(reinterpret_cast<intptr_t>(cookie)); }

// The whole of it, as the C library's own streams do; what comes back tells how much was written.
ssize_t WriteCookie(void *cookie, const char *bytes, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t written = write(DescriptorOf(cookie), bytes + done, size - done);
        if (written < 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
    return static_cast<ssize_t>(done);
}

int CloseCookie(void *cookie) { return close(DescriptorOf(cookie)); }

using Main = int (*)(int, char **, char **);
Main program_main;

int CountedMain(int argc, char **argv, char **envp)
{
    if (plan != nullptr) {
        int32_t nobody = 0;
        past_main = plan->owner.compare_exchange_strong(nobody, getpid());
    }
    return program_main(argc, argv, envp);
}

__attribute__((constructor)) void MapPlan()
{
    const char *path = getenv("VT_FAULT_PLAN");
    const char *directory = getenv("VT_FAULT_BELOW");
    if (path == nullptr || directory == nullptr) {
        return;
    }
    const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    if (fd < 0) {
        return;
    }
    void *mapped = mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    syscall(SYS_close, fd);
    if (mapped != MAP_FAILED) {
        below = directory;
        below_length = static_cast<int>(strlen(directory));
        plan = static_cast<FaultPlan *>(mapped);
    }
}

}  // namespace

FAULT_EXPORT int __libc_start_main(Main main, int argc, char **argv, void (*init)(void), void (*fini)(void),
                                   void (*rtld_fini)(void), void *stack_end)
{
    using Start = int (*)(Main, int, char **, void (*)(void), void (*)(void), void (*)(void), void *);
    program_main = main;
    return reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"))(CountedMain, argc, argv, init, fini,
                                                                          rtld_fini, stack_end);
}

// What the loader asks for itself does not count.

FAULT_EXPORT void *dlopen(const char *path, int flags) noexcept
{
    in_loader++;
    void *library = REAL(dlopen)(path, flags);
    in_loader--;
    return library;
}

FAULT_EXPORT int dlclose(void *library) noexcept
{
    in_loader++;
    const int result = REAL(dlclose)(library);
    in_loader--;
    return result;
}

// Opening

FAULT_EXPORT int openat(int directory, const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (OpenFails(directory, path, flags)) {
        return -1;
    }
    const int fd = REAL(openat)(directory, path, flags, mode);
    Note(fd, flags);
    return fd;
}

FAULT_EXPORT int openat64(int directory, const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openat(directory, path, flags, mode);
}

FAULT_EXPORT int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openat(AT_FDCWD, path, flags, mode);
}

FAULT_EXPORT int open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openat(AT_FDCWD, path, flags, mode);
}

namespace {

// A process may have given openat2 up; it then opens files by other calls, which count.
bool Openat2Works()
{
    const open_how how = {O_PATH | O_CLOEXEC, 0, 0};
    const long fd = REAL(syscall)(SYS_openat2, AT_FDCWD, "/", &how, sizeof(how));
    if (fd >= 0) {
        REAL(close)(static_cast<int>(fd));
    }
    return fd >= 0;
}

}  // namespace

// The C library has no function for openat2.
FAULT_EXPORT long syscall(long number, ...) noexcept
{
    va_list arguments;
    va_start(arguments, number);
    long a[6];
    for (long &argument : a) { argument = va_arg(arguments, long); }
    va_end(arguments);
    const bool opens = number == SYS_openat2 && Openat2Works();
    const long flags = opens ? static_cast<long>(reinterpret_cast<const open_how *>(a[2])->flags) : 0;
    if (opens && OpenFails(static_cast<int>(a[0]), reinterpret_cast<const char *>(a[1]), flags)) {
        return -1;
    }
    const long result = REAL(syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    if (opens) {
        Note(static_cast<int>(result), flags);
    }
    return result;
}

namespace {

int Fcntl(int fd, int command, long argument)
{
    const bool duplicates = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    if (duplicates && CountOn(fd, fault_open, EMFILE) != End::passes) {
        return -1;
    }
    const int result = REAL(fcntl)(fd, command, argument);
    if (duplicates) {
        Note(result, 0);
    }
    return result;
}

}  // namespace

FAULT_EXPORT int fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return Fcntl(fd, command, argument);
}

FAULT_EXPORT int fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return Fcntl(fd, command, argument);
}

// Streams

FAULT_EXPORT FILE *fdopen(int fd, const char *mode) noexcept
{
    if (mode[0] == 'r' || !CountsHere(fd)) {
        return REAL(fdopen)(fd, mode);
    }
    cookie_io_functions_t functions = {};
    functions.write = WriteCookie;
    functions.close = CloseCookie;
    return fopencookie(CookieOf(fd), mode, functions);
}

FAULT_EXPORT FILE *fopen(const char *path, const char *mode)
{
    const bool update = strchr(mode, '+') != nullptr;
    const int flags = mode[0] == 'r'   ? (update ? O_RDWR : O_RDONLY)
                      : mode[0] == 'w' ? (update ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC
                                       : (update ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    if (plan == nullptr || !IsBelow(path)) {
        return REAL(fopen)(path, mode);
    }
    const int fd = open(path, flags | (strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0), 0666);
    FILE *stream = fd >= 0 ? fdopen(fd, mode) : nullptr;
    if (stream == nullptr && fd >= 0) {
        close(fd);
    }
    return stream;
}

FAULT_EXPORT FILE *fopen64(const char *path, const char *mode) { return fopen(path, mode); }

FAULT_EXPORT int fclose(FILE *stream)
{
    const int before = errno;
    const int fd = fileno(stream);  // -1 for a stream on a cookie, whose close counts by itself
    errno = before;
    const End end = CountOn(fd, fault_close, EIO);
    Forget(fd);
    const int result = REAL(fclose)(stream);
    if (end != End::passes) {
        errno = EIO;
        return EOF;
    }
    return result;
}

FAULT_EXPORT int accept4(int listener, sockaddr *address, socklen_t *length, int flags)
{
    const int fd = REAL(accept4)(listener, address, length, flags);
    SetKind(fd, Kind::connection);
    return fd;
}

// Writing, syncing, closing

FAULT_EXPORT ssize_t write(int fd, const void *bytes, size_t size)
{
    return Write(fd, size, [&](size_t some) { return REAL(write)(fd, bytes, some); });
}

FAULT_EXPORT ssize_t pwrite(int fd, const void *bytes, size_t size, off_t at)
{
    return Write(fd, size, [&](size_t some) { return REAL(pwrite)(fd, bytes, some, at); });
}

FAULT_EXPORT ssize_t pwrite64(int fd, const void *bytes, size_t size, off64_t at)
{
    return pwrite(fd, bytes, size, at);
}

FAULT_EXPORT ssize_t writev(int fd, const struct iovec *parts, int count)
{
    // Half of the parts, or of the only one.
    return Write(fd, 2, [&](size_t some) {
        const iovec half = {parts[0].iov_base, parts[0].iov_len > 1 ? parts[0].iov_len / 2 : parts[0].iov_len};
        if (some == 2) {
            return REAL(writev)(fd, parts, count);
        }
        return count > 1 ? REAL(writev)(fd, parts, count / 2) : REAL(writev)(fd, &half, 1);
    });
}

FAULT_EXPORT int fsync(int fd) { return CountOn(fd, fault_sync, EIO) == End::passes ? REAL(fsync)(fd) : -1; }

FAULT_EXPORT int fdatasync(int fd) { return CountOn(fd, fault_sync, EIO) == End::passes ? REAL(fdatasync)(fd) : -1; }

FAULT_EXPORT int close(int fd)
{
    const End end = CountOn(fd, fault_close, EIO);
    Forget(fd);
    const int result = REAL(close)(fd);
    if (end != End::passes) {
        errno = EIO;
        return -1;
    }
    return result;
}

// Renaming

FAULT_EXPORT int rename(const char *from, const char *to) noexcept
{
    return RenameFails(from) ? -1 : REAL(rename)(from, to);
}

FAULT_EXPORT int renameat(int from_directory, const char *from, int to_directory, const char *to) noexcept
{
    return RenameFails(from) ? -1 : REAL(renameat)(from_directory, from, to_directory, to);
}

// Memory

FAULT_EXPORT void *malloc(size_t size) noexcept
{
    if (!FindAllocation()) {
        return FirstMemory(size);
    }
    return MemoryFails() ? nullptr : real.allocate(size);
}

FAULT_EXPORT void *calloc(size_t count, size_t size) noexcept
{
    if (!FindAllocation()) {
        return FirstMemory(count * size);  // zeroed by the loader, and given out once
    }
    return MemoryFails() ? nullptr : real.allocate_zeroed(count, size);
}

FAULT_EXPORT void *realloc(void *memory, size_t size) noexcept
{
    if (!FindAllocation() || IsFirstMemory(memory)) {
        void *moved = FirstMemory(size);
        if (memory != nullptr) {
            const char *from = static_cast<const char *>(memory);
            const size_t left = static_cast<size_t>(first_memory + kFirstMemory - from);
            memmove(moved, from, size < left ? size : left);
        }
        return moved;
    }
    return MemoryFails() ? nullptr : real.reallocate(memory, size);
}

FAULT_EXPORT void free(void *memory) noexcept
{
    if (!IsFirstMemory(memory) && FindAllocation()) {
        real.release(memory);
    }
}
