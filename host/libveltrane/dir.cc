// Walking a directory.
#include <veltrane/dir.h>

#include <cstdlib>

#include <veltrane/alloc.h>

struct Dir_ {
    DIR *stream;
};

Dir *DirOpen(const char *path)
{
    DIR *const stream = opendir(path);
    if (stream == nullptr) {
        return nullptr;
    }
    auto *dir = static_cast<Dir *>(xmalloc(sizeof(Dir)));
    dir->stream = stream;
    return dir;
}

const struct dirent *DirRead(Dir *dir) { return readdir(dir->stream); }

void DirClose(Dir *dir)
{
    if (dir == nullptr) {
        return;
    }
    closedir(dir->stream);
    free(dir);
}
