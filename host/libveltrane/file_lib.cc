// Files, opened without following foreign symbolic links.
//
// A link that somebody else planted in a directory that he may write must not lead a privileged program to another
// file. The kernel walks a path without any link in one call. Only when a link is in the way is the path walked here,
// component by component, each link's owner looked at through the very descriptor that is then read, so that nothing
// can be swapped between look and use.
#include <veltrane/file_lib.h>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libveltrane/out_of_memory.h"

using veltrane::Descriptor;

namespace {

constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateDirectory = 0700;
constexpr int kMostLinks = 40;  // as many as the kernel follows
constexpr int kMostRaces = 8;   // times that a name may turn into a link under our hands

bool OwnedByRootOrUs(const struct stat &st) { return st.st_uid == 0 || st.st_uid == geteuid(); }

// The names of a path in order; a trailing slash counts as a last name ".", for it asks for a directory.
std::deque<std::string> Components(std::string_view path)
{
    std::deque<std::string> names;
    const bool directory = !path.empty() && path.back() == '/';
    while (!path.empty()) {
        const size_t slash = std::min(path.find('/'), path.size());
        if (slash > 0) {
            names.emplace_back(path.substr(0, slash));
        }
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
    if (directory) {
        names.emplace_back(".");
    }
    return names;
}

// Where a walk through a path stands: a directory, and what is still to go from there.
struct Walk {
    Descriptor directory;
    std::deque<std::string> names;
    int links = 0;

    explicit Walk(const char *path) : directory(Start(path)), names(Components(path)) {}

    static Descriptor Start(std::string_view path)
    {
        return Descriptor(open(path.substr(0, 1) == "/" ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }

    // Put a link's target in the place of its name. false with errno: a foreign link, or too many of them.
    bool Follow(const Descriptor &link, const struct stat &st)
    {
        if (!OwnedByRootOrUs(st)) {
            errno = ENOLINK;
            return false;
        }
        if (++links > kMostLinks) {
            errno = ELOOP;
            return false;
        }
        char target[PATH_MAX];
        const ssize_t length = readlinkat(link.Get(), "", target, sizeof(target));
        if (length < 0 || static_cast<size_t>(length) == sizeof(target)) {
            errno = length < 0 ? errno : ENAMETOOLONG;
            return false;
        }
        const std::string_view path(target, static_cast<size_t>(length));
        if (path.substr(0, 1) == "/") {
            directory = Start(path);
        }
        const std::deque<std::string> more = Components(path);
        names.insert(names.begin(), more.begin(), more.end());
        return directory.IsOpen();
    }
};

// Go through all names but the last, and through the last as long as it is a link. false with errno.
bool WalkToLastName(Walk *walk, bool follow_last)
{
    while (walk->names.size() > 1 || (follow_last && walk->names.size() == 1)) {
        const bool last = walk->names.size() == 1;
        Descriptor next(openat(walk->directory.Get(), walk->names.front().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!next.IsOpen()) {
            return last && errno == ENOENT;  // it may be about to be made
        }
        struct stat st;
        if (fstat(next.Get(), &st) != 0) {
            return false;
        }
        if (!S_ISLNK(st.st_mode)) {
            if (last) {
                return true;
            }
            walk->names.pop_front();
            walk->directory = std::move(next);
            continue;
        }
        walk->names.pop_front();
        if (!walk->Follow(next, st)) {
            return false;
        }
    }
    return true;
}

int OpenWalking(const char *path, int flags, mode_t perms)
{
    const bool exclusive = (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0;
    const bool follow_last = (flags & O_NOFOLLOW) == 0 && !exclusive;
    for (int races = 0; races < kMostRaces; races++) {
        Walk walk(path);
        if (!walk.directory.IsOpen() || !WalkToLastName(&walk, follow_last)) {
            return -1;
        }
        const char *const name = walk.names.empty() ? "." : walk.names.front().c_str();
        const int fd = openat(walk.directory.Get(), name, flags | O_NOFOLLOW | O_CLOEXEC, perms);
        if (fd >= 0 || errno != ELOOP || !follow_last) {
            return fd;
        }
    }
    return -1;
}

// Open without any link in the path; -1 with errno otherwise.
int OpenPlain(const char *path, int flags, mode_t perms)
{
    struct open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? perms & 07777 : 0;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof(how)));
}

// Whether the slow walk may succeed where the quick one failed: there is a link, or the kernel, or a filter before it,
// does not let the quick one through.
bool WorthWalking(int error)
{
    return error == ELOOP || error == ENOSYS || error == EPERM || error == EAGAIN || error == EINVAL || error == E2BIG;
}

// The flags of a mode as fopen takes them; -1 for another mode.
int FlagsOfMode(const char *mode)
{
    bool update = false;
    for (const char *more = mode[0] == '\0' ? mode : mode + 1; *more != '\0'; more++) {
        if (*more != '+' && *more != 'b') {
            return -1;
        }
        update = update || *more == '+';
    }
    switch (mode[0]) {
        case 'r':
            return update ? O_RDWR : O_RDONLY;
        case 'w':
            return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
        case 'a':
            return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
        default:
            return -1;
    }
}

ssize_t ReadRetrying(int fd, char *to, size_t size)
{
    ssize_t got;
    do {
        got = read(fd, to, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

Descriptor OpenName(const Walk &walk, const std::string &name)
{
    return Descriptor(openat(walk.directory.Get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

// Whether a link leads to a directory, or lets us go on as if it did: false with errno when nobody knows. A link to
// nothing stands in the way like a file.
bool LeadsToDirectory(const Walk &walk, const std::string &name, bool force, bool *ret_leads)
{
    struct stat st;
    if (fstatat(walk.directory.Get(), name.c_str(), &st, 0) != 0) {
        *ret_leads = false;
        return errno == ENOENT && force;
    }
    *ret_leads = S_ISDIR(st.st_mode);
    return true;
}

// The next name of a walk, made as a directory when nothing has that name.
Descriptor OpenOrMake(const Walk &walk, const std::string &name)
{
    Descriptor next = OpenName(walk, name);
    if (!next.IsOpen() && errno == ENOENT &&
        (mkdirat(walk.directory.Get(), name.c_str(), kPrivateDirectory) == 0 || errno == EEXIST)) {
        next = OpenName(walk, name);
    }
    return next;
}

// A directory in the place of what stands under a name, which is moved aside.
Descriptor MoveAsideAndMake(const Walk &walk, const std::string &name)
{
    const std::string aside = name + ".moved-aside";
    const int directory = walk.directory.Get();
    const bool moved = renameat(directory, name.c_str(), directory, aside.c_str()) == 0;
    return moved ? OpenOrMake(walk, name) : Descriptor();
}

// Make sure that the next name of a walk is a directory, and go there; see MakeParentDirectory.
bool EnterMaking(Walk *walk, bool force)
{
    const std::string name = walk->names.front();
    Descriptor next = OpenOrMake(*walk, name);
    struct stat st;
    if (!next.IsOpen() || fstat(next.Get(), &st) != 0) {
        return false;
    }
    bool is_directory = S_ISDIR(st.st_mode);
    if (S_ISLNK(st.st_mode)) {
        if (!OwnedByRootOrUs(st)) {
            errno = ENOLINK;
            return false;
        }
        if (!LeadsToDirectory(*walk, name, force, &is_directory)) {
            return false;
        }
        if (is_directory) {
            walk->names.pop_front();
            return walk->Follow(next, st);
        }
    }
    if (!is_directory && !force) {
        errno = ENOTDIR;
        return false;
    }
    walk->directory = is_directory ? std::move(next) : MoveAsideAndMake(*walk, name);
    walk->names.pop_front();
    return walk->directory.IsOpen();
}

}  // namespace

int safe_open(const char *path, int flags) { return safe_open_create_perms(path, flags, kPrivateFile); }

int safe_open_create_perms(const char *path, int flags, mode_t perms)
{
    const int fd = OpenPlain(path, flags, perms);
    return fd < 0 && WorthWalking(errno) ? OpenWalking(path, flags, perms) : fd;
}

FILE *safe_fopen(const char *path, const char *mode)
{
    const int flags = FlagsOfMode(mode);
    if (flags < 0) {
        errno = EINVAL;
        return nullptr;
    }
    const int fd = safe_open(path, flags);
    if (fd < 0) {
        return nullptr;
    }
    FILE *const file = fdopen(fd, mode);
    if (file == nullptr) {  // descriptor and mode are good; a NULL would say that the file cannot be opened
        veltrane::EndOutOfMemory(0);
    }
    return file;
}

Writer *FileRead(const char *path, size_t max_size, bool *ret_truncated)
{
    const Descriptor file(safe_open(path, O_RDONLY));
    if (!file.IsOpen()) {
        return nullptr;
    }
    veltrane::WriterPtr content(StringWriter());
    bool truncated = false;
    for (;;) {
        char bytes[16384];
        const size_t room = max_size - StringWriterLength(content.get());
        const ssize_t got = ReadRetrying(file.Get(), bytes, room > 0 ? std::min(room, sizeof(bytes)) : 1);
        if (got < 0) {
            const int saved_errno = errno;
            content.reset();
            errno = saved_errno;
            return nullptr;
        }
        if (got == 0 || room == 0) {  // beyond max_size one byte is read, to see whether there is one
            truncated = got > 0;
            break;
        }
        WriterWriteLen(content.get(), bytes, static_cast<size_t>(got));
    }
    if (ret_truncated != nullptr) {
        *ret_truncated = truncated;
    }
    return content.release();
}

ssize_t VtReadLine(char **line, size_t *size, FILE *fp)
{
    const ssize_t length = veltrane::xgetline(line, size, fp);
    if (length > 0 && (*line)[length - 1] == '\n') {
        (*line)[length - 1] = '\0';
        return length - 1;
    }
    return length;
}

bool MakeParentDirectory(const char *path, bool force)
{
    Walk walk(path);
    while (walk.directory.IsOpen() && walk.names.size() > 1) {
        if (!EnterMaking(&walk, force)) {
            return false;
        }
    }
    return walk.directory.IsOpen();
}

bool PathAppend(char *path, size_t size, const char *leaf, char separator)
{
    const size_t length = strlen(path);
    const size_t leaf_length = strlen(leaf);
    const size_t between = length > 0 && path[length - 1] == separator ? 0 : 1;
    if (length + between + leaf_length + 1 > size) {
        return false;
    }
    path[length] = separator;  // the same byte where it was there already
    memcpy(path + length + between, leaf, leaf_length + 1);
    return true;
}

bool FileCanOpen(const char *path, const char *mode)
{
    const veltrane::FilePtr file(safe_fopen(path, mode));
    return file != nullptr;
}

bool IsDir(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

char *MapName(char *path) { return path; }
