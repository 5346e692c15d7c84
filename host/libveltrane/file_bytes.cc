// Reading, comparing and copying by descriptor; see file_bytes.h.
#include "libveltrane/file_bytes.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <veltrane/file_lib.h>

namespace veltrane {

namespace {

constexpr size_t kBlock = size_t{128} * 1024;

ssize_t ReadBlock(int fd, char *to, size_t size)
{
    ssize_t got;
    do {
        got = read(fd, to, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

// As many bytes from offset on as fit, or as the file has.
ssize_t ReadAt(int fd, std::vector<char> *block, off_t offset)
{
    size_t have = 0;
    while (have < block->size()) {
        const ssize_t got = pread(fd, block->data() + have, block->size() - have, offset + static_cast<off_t>(have));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        have += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(have);
}

}  // namespace

std::string KindOf(const struct stat &st)
{
    switch (st.st_mode & S_IFMT) {
        case S_IFREG:
            return "a file";
        case S_IFDIR:
            return "a directory";
        case S_IFLNK:
            return "a symbolic link of user " + std::to_string(st.st_uid);
        case S_IFIFO:
            return "a named pipe";
        case S_IFSOCK:
            return "a socket";
        default:
            return "a device";
    }
}

Trouble OpenHandle(const std::string &path, Handle *ret_handle)
{
    Handle handle{Descriptor(safe_open(path.c_str(), O_PATH))};
    if (!handle.fd.IsOpen() || fstat(handle.fd.Get(), &handle.st) != 0) {
        return CouldNot("open", path, "open");
    }
    *ret_handle = std::move(handle);
    return std::nullopt;
}

Trouble OpenRegular(const Handle &handle, const std::string &path, Descriptor *ret_fd, AccessTime access_time)
{
    if (!S_ISREG(handle.st.st_mode)) {
        return "'" + path + "' is " + KindOf(handle.st) + ", not a file";
    }
    const std::string name = "/proc/self/fd/" + std::to_string(handle.fd.Get());
    Descriptor fd;
    if (access_time == AccessTime::kStays) {  // refused for files of other users
        fd = Descriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME));
    }
    if (!fd.IsOpen()) {
        fd = Descriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!fd.IsOpen()) {
        return CouldNot("open", path, "open");
    }
    *ret_fd = std::move(fd);
    return std::nullopt;
}

Trouble ReadUpTo(int fd, const std::string &path, size_t limit, std::string *ret_bytes, bool *ret_cut)
{
    std::string bytes;
    std::vector<char> block(kBlock);
    while (bytes.size() <= limit) {  // one byte beyond the limit is read, to see whether there is one
        const ssize_t got = ReadBlock(fd, block.data(), std::min(block.size(), limit - bytes.size() + 1));
        if (got < 0) {
            return CouldNot("read", path, "read");
        }
        if (got == 0) {
            break;
        }
        bytes.append(block.data(), static_cast<size_t>(got));
    }
    *ret_cut = bytes.size() > limit;
    bytes.resize(std::min(bytes.size(), limit));
    *ret_bytes = std::move(bytes);
    return std::nullopt;
}

Trouble SameBytes(int a, const std::string &path_a, int b, const std::string &path_b, bool *ret_same)
{
    std::vector<char> block_a(kBlock);
    std::vector<char> block_b(kBlock);
    for (off_t offset = 0;; offset += static_cast<off_t>(kBlock)) {
        const ssize_t got_a = ReadAt(a, &block_a, offset);
        if (got_a < 0) {
            return CouldNot("read", path_a, "read");
        }
        const ssize_t got_b = ReadAt(b, &block_b, offset);
        if (got_b < 0) {
            return CouldNot("read", path_b, "read");
        }
        if (got_a != got_b || !std::equal(block_a.begin(), block_a.begin() + got_a, block_b.begin())) {
            *ret_same = false;
            return std::nullopt;
        }
        if (static_cast<size_t>(got_a) < kBlock) {
            *ret_same = true;
            return std::nullopt;
        }
    }
}

Trouble CopyBytes(int from, const std::string &from_path, int to, const std::string &to_path, size_t limit)
{
    std::vector<char> block(kBlock);
    for (size_t copied = 0; copied <= limit;) {
        const ssize_t got = ReadBlock(from, block.data(), block.size());
        if (got < 0) {
            return CouldNot("read", from_path, "read");
        }
        if (got == 0) {
            return std::nullopt;
        }
        copied += static_cast<size_t>(got);
        if (Trouble trouble = WriteAll(to, {block.data(), static_cast<size_t>(got)}, to_path)) {
            return trouble;
        }
    }
    return "'" + from_path + "' has no end";
}

Trouble WriteAll(int fd, std::string_view bytes, const std::string &path)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return CouldNot("write", path, "write");
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return std::nullopt;
}

size_t WholeCharacters(std::string_view text)
{
    for (size_t back = 1; back <= std::min<size_t>(3, text.size()); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if ((byte & 0xC0) == 0x80) {  // goes on a character that began before
            continue;
        }
        const size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        return length > back ? text.size() - back : text.size();
    }
    return text.size();
}

}  // namespace veltrane
