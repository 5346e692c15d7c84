// Replacing and growing the files of the state directory; see the header for what holds after a crash.
#include "libvtenterprise/state_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <veltrane/file_lib.h>
#include <veltrane/logging.h>

using veltrane::Descriptor;

namespace {

constexpr size_t kBufferBytes = 1 << 16;

// Whether path still names the open file: another writer may have renamed it away before we had its lock.
bool IsStillAt(int fd, const char *path)
{
    struct stat open_file;
    struct stat named_file;
    return fstat(fd, &open_file) == 0 && stat(path, &named_file) == 0 && open_file.st_dev == named_file.st_dev &&
           open_file.st_ino == named_file.st_ino;
}

int LockWaiting(int fd)
{
    int result;
    do {
        result = flock(fd, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    return result;
}

// Open path for writing, locked and empty. Not open when that fails (errno).
Descriptor OpenLocked(const char *path)
{
    for (;;) {
        Descriptor file(safe_open(path, O_WRONLY | O_CREAT));
        if (!file.IsOpen() || LockWaiting(file.Get()) != 0) {
            return Descriptor(-1);
        }
        if (IsStillAt(file.Get(), path)) {
            const bool ready = ftruncate(file.Get(), 0) == 0 && fchmod(file.Get(), 0600) == 0;
            return ready ? std::move(file) : Descriptor(-1);
        }
    }
}

// Walks over CSV bytes as the record reader does: each double quote toggles quoting, a line end outside quotes ends the
// record.
class RecordEnds {
  public:
    void Feed(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const size_t quote = bytes.find('"');
            const std::string_view plain = bytes.substr(0, quote);
            if (!quoted_) {
                const size_t line_end = plain.rfind('\n');
                if (line_end != std::string_view::npos) {
                    end_ = seen_ + line_end + 1;
                }
            }
            const size_t taken = quote == std::string_view::npos ? bytes.size() : quote + 1;
            quoted_ ^= taken > plain.size();
            seen_ += taken;
            bytes.remove_prefix(taken);
        }
    }

    off_t end() const { return static_cast<off_t>(end_); }    // where the last finished record ends
    off_t seen() const { return static_cast<off_t>(seen_); }  // bytes fed

  private:
    size_t seen_ = 0;
    size_t end_ = 0;
    bool quoted_ = false;
};

// Cut off what follows the last finished record, and give the length that remains; -1 with errno. The whole file is
// read, for only the quotes before a line end tell whether it is one.
off_t RepairTail(int fd, const char *path)
{
    const std::unique_ptr<char[]> chunk(new char[kBufferBytes]);
    RecordEnds ends;
    for (;;) {
        const ssize_t got = pread(fd, chunk.get(), kBufferBytes, ends.seen());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        ends.Feed(std::string_view(chunk.get(), static_cast<size_t>(got)));
    }
    if (ends.end() == ends.seen()) {
        return ends.end();
    }
    if (ftruncate(fd, ends.end()) != 0) {
        return -1;
    }
    Log(LOG_LEVEL_WARNING, "Cut off an unfinished record at the end of '%s'", path);
    return ends.end();
}

bool WriteWhole(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace

ReplacementFile::ReplacementFile(const char *path)
    : path_(path), new_path_(path_ + ".new"), lock_(OpenLocked(new_path_.c_str()))
{
    if (!lock_.IsOpen()) {
        return;
    }
    const int stream_fd = fcntl(lock_.Get(), F_DUPFD_CLOEXEC, 0);  // the writer closes its own; the lock is kept
    FILE *stream = stream_fd < 0 ? nullptr : fdopen(stream_fd, "w");
    if (stream == nullptr) {
        Descriptor closed(stream_fd);
        return;
    }
    buffer_.reset(new char[kBufferBytes]);
    (void)setvbuf(stream, buffer_.get(), _IOFBF, kBufferBytes);  // a smaller buffer is only slower
    writer_.reset(FileWriter(stream));
}

ReplacementFile::~ReplacementFile()
{
    if (lock_.IsOpen()) {                 // ours as long as we hold the lock
        (void)unlink(new_path_.c_str());  // what remains is overwritten by the next writer
    }
}

bool ReplacementFile::Commit()
{
    if (!WriterClose(writer_.release()) || fsync(lock_.Get()) != 0 || rename(new_path_.c_str(), path_.c_str()) != 0) {
        return false;
    }
    (void)lock_.Close();  // everything is on the disk
    return true;
}

bool AppendRecords(const char *path, std::string_view records)
{
    Descriptor file(safe_open(path, O_RDWR | O_CREAT | O_APPEND));
    if (!file.IsOpen()) {
        return false;
    }
    const off_t before = RepairTail(file.Get(), path);
    if (before < 0) {
        return false;
    }
    if (WriteWhole(file.Get(), records)) {
        return file.Close();
    }
    const int error = errno;
    if (ftruncate(file.Get(), before) != 0) {
        // The next append cuts the unfinished record off.
    }
    errno = error;
    return false;
}
