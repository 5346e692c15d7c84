// Walking a directory.
#ifndef VELTRANE_DIR_H
#define VELTRANE_DIR_H

#include <dirent.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// new; NULL with errno
Dir *DirOpen(const char *path);

// lent until the next call; every entry, "." and ".." too, in the file system's order; NULL at the end
const struct dirent *DirRead(Dir *dir);
void DirClose(Dir *dir);

VT_END_DECLS

#endif
