// The bytes of regular files, by descriptor: opening without a wait, reading up to a limit, comparing, copying.
//
// A file is looked at before it is opened for its bytes: opening a named pipe would wait for whoever writes into it,
// and opening a device may already do something. Both steps go through one descriptor, so nothing is swapped in
// between.
#ifndef HOST_LIBVELTRANE_FILE_BYTES_H
#define HOST_LIBVELTRANE_FILE_BYTES_H

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

#include <veltrane/owned.h>

#include "libveltrane/trouble.h"

namespace veltrane {

// Something that exists, whatever it is: a descriptor that names it without opening it (O_PATH), and what it is.
struct Handle {
    Descriptor fd;
    struct stat st {};
};

// "a directory", "a symbolic link of user 1000", "a named pipe" …
std::string KindOf(const struct stat &st);

// The handle of what a path leads to, by safe_open's rules.
Trouble OpenHandle(const std::string &path, Handle *ret_handle);

enum class AccessTime { kMoves, kStays };

// Open for reading what a handle names; anything but a regular file is trouble. kStays: the reading leaves no trace in
// the file's access time, where the system grants that.
Trouble OpenRegular(const Handle &handle, const std::string &path, Descriptor *ret_fd,
                    AccessTime access_time = AccessTime::kMoves);

// The first bytes of a file, at most limit. *ret_cut: there were more.
Trouble ReadUpTo(int fd, const std::string &path, size_t limit, std::string *ret_bytes, bool *ret_cut);

// Whether two files hold the same bytes, from their first byte on; where the descriptors stand stays as it was.
Trouble SameBytes(int a, const std::string &path_a, int b, const std::string &path_b, bool *ret_same);

// Append to one file what another holds from where its descriptor stands. A source that gives limit bytes and still has
// no end is trouble.
Trouble CopyBytes(int from, const std::string &from_path, int to, const std::string &to_path, size_t limit);

// Write all of it, or say why not.
Trouble WriteAll(int fd, std::string_view bytes, const std::string &path);

// How much of a text that was cut at a limit ends with a whole character: its length, less the one to three bytes of a
// character that the cut went through. A text that is no UTF-8 there keeps its length.
size_t WholeCharacters(std::string_view text);

}  // namespace veltrane

#endif
