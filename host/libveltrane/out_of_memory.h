// For those who find that memory ran out without having asked for it by alloc.h.
#ifndef LIBVELTRANE_OUT_OF_MEMORY_H
#define LIBVELTRANE_OUT_OF_MEMORY_H

#include <cstddef>
#include <cstdio>

#include <sys/types.h>

namespace veltrane {

// Log it at critical level and end the process with status 255, at once. size: the bytes that were asked for, 0 when
// nobody knows.
[[noreturn]] void EndOutOfMemory(size_t size);

// getline(3), but it never takes a lack of memory for the end of the file: getline tells both by the same -1, and a
// file that seems to end early is a state that seems to have lost its rest.
ssize_t xgetline(char **line, size_t *room, FILE *fp);

}  // namespace veltrane

#endif
