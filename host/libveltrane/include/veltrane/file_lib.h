// Files, opened without following foreign symbolic links.
#ifndef VELTRANE_FILE_LIB_H
#define VELTRANE_FILE_LIB_H

#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// open(2), always close-on-exec, new files 0600; -1 with errno. A symbolic link anywhere in the path is followed
// only when root or the running user owns it, else ENOLINK
int safe_open(const char *path, int flags);

// the same with another mode for a new file
int safe_open_create_perms(const char *path, int flags, mode_t perms);

// "r", "w" (truncates), "a", each with "+" or "b", by the same rules; NULL with errno
FILE *safe_fopen(const char *path, const char *mode);

// new StringWriter with the first max_size bytes, zero bytes included; ret_truncated may be NULL; NULL with errno
// when it cannot be opened or read
Writer *FileRead(const char *path, size_t max_size, bool *ret_truncated);

// the next line, without its "\n", into *line, which it grows; *size is its room (callers start with malloc'ed
// 4096). Length, or -1 at the end of the file or on an error
ssize_t VtReadLine(char **line, size_t *size, FILE *fp);

// every missing directory above path, 0700; a path that ends in "/" is the last of them. force: what stands in the way
// as a file is moved aside as "<name>.moved-aside". false with errno
bool MakeParentDirectory(const char *path, bool force);

// adds a separator unless path ends in one, then leaf; false and path unchanged when the result and its zero exceed
// size
bool PathAppend(char *path, size_t size, const char *leaf, char separator);

// opens by safe_fopen's rules and closes again
bool FileCanOpen(const char *path, const char *mode);

// a directory, or a link to one; relative to the working directory of the process
bool IsDir(const char *path);

// turns separators into the platform's own, in place; returns path. Here: unchanged
char *MapName(char *path);

VT_END_DECLS

#endif
