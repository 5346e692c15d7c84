// Open, append in one write, close.
#include "libvtenterprise/safe_write_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

using veltrane::Descriptor;

namespace {

constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND;

// The directories are nearly always there, so they are looked at only when the file cannot be had without them.
Descriptor OpenForAppending(const char *path)
{
    Descriptor file(safe_open(path, kAppend));
    if (!file.IsOpen() && (errno == ENOENT || errno == ENOTDIR) && MakeParentDirectory(path, true)) {
        return Descriptor(safe_open(path, kAppend));
    }
    return file;
}

ssize_t WriteOnce(int fd, std::string_view bytes)
{
    ssize_t written;
    do {
        written = write(fd, bytes.data(), bytes.size());
    } while (written < 0 && errno == EINTR);
    return written;
}

// Cut off the bytes that were just written, unless another process has appended its own behind them.
void TakeBack(int fd, size_t written)
{
    const off_t end = lseek(fd, 0, SEEK_CUR);
    struct stat status {};
    if (end >= 0 && fstat(fd, &status) == 0 && status.st_size == end &&
        ftruncate(fd, end - static_cast<off_t>(written)) != 0) {
        // The reader of the log skips the torn record.
    }
}

}  // namespace

bool AppendRecord(int fd, std::string_view record)
{
    const ssize_t written = WriteOnce(fd, record);
    if (written < 0 || static_cast<size_t>(written) == record.size()) {
        return written >= 0;
    }
    const std::string_view rest = record.substr(static_cast<size_t>(written));
    const ssize_t more = WriteOnce(fd, rest);  // it tells why the first one was short
    if (more >= 0 && static_cast<size_t>(more) == rest.size()) {
        return true;
    }
    const int error = more < 0 ? errno : ENOSPC;
    TakeBack(fd, static_cast<size_t>(written + (more > 0 ? more : 0)));
    errno = error;
    return false;
}

void SafeWriteLog(const char *file, const char *text) noexcept
{
    if (text == nullptr) {
        return;
    }
    char path[4096];
    (void)snprintf(path, sizeof(path), "%s/%s", GetStateDir(), file);
    Descriptor log = OpenForAppending(path);
    if (!log.IsOpen()) {
        Log(LOG_LEVEL_ERR, "Could not create log file at '%s', (open: %s)", path, GetErrorStr());
        return;
    }
    if (!AppendRecord(log.Get(), text) || !log.Close()) {
        Log(LOG_LEVEL_ERR, "Could not write to log file '%s' (write: %s)", path, GetErrorStr());
    }
}
