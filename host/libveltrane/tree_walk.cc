// Walking through trees; see tree_walk.h.
#include "libveltrane/tree_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include <veltrane/logging.h>

namespace veltrane {

namespace {

using Stream = std::unique_ptr<DIR, Destroyer<closedir>>;

// The names in a directory, sorted.
Trouble ListNames(const Handle &directory, const std::string &path, std::vector<std::string> *ret_names)
{
    Descriptor fd(openat(directory.fd.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const Stream stream(fd.IsOpen() ? fdopendir(fd.Get()) : nullptr);
    if (stream == nullptr) {
        return CouldNot("list", path, "open");
    }
    (void)fd.Release();  // the stream's by now
    errno = 0;
    while (const dirent *entry = readdir(stream.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            ret_names->emplace_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        return CouldNot("list", path, "readdir");
    }
    std::sort(ret_names->begin(), ret_names->end());
    return std::nullopt;
}

class Walker {
  public:
    Walker(dev_t file_system, const TreeBounds &bounds, TreeVisitor *visitor)
        : file_system_(file_system), bounds_(bounds), visitor_(visitor)
    {
    }

    // NOLINTNEXTLINE(misc-no-recursion): as deep as the bounds say
    void Directory(const Place &place, const Handle &handle, const std::string &below, int depth)
    {
        const TreeEntry entry{place, handle, below};
        if (!visitor_->Enter(entry)) {
            return;
        }
        if (depth < bounds_.depth) {
            Inside(entry, depth);
        } else if (bounds_.deeper_is_trouble) {
            visitor_->Failed(place.path, "it is more than " + std::to_string(bounds_.depth) + " directories deep");
        }
        visitor_->Leave(entry);
    }

  private:
    // NOLINTNEXTLINE(misc-no-recursion): as deep as the bounds say
    void Inside(const TreeEntry &directory, int depth)
    {
        std::vector<std::string> names;
        if (Trouble trouble = ListNames(directory.handle, directory.place.path, &names)) {
            visitor_->Failed(directory.place.path, *trouble);
            return;
        }
        Place place{Descriptor(fcntl(directory.handle.fd.Get(), F_DUPFD_CLOEXEC, 0)), "", ""};
        if (!place.directory.IsOpen()) {
            visitor_->Failed(directory.place.path, *CouldNot("enter", directory.place.path, "dup"));
            return;
        }
        const std::string above = directory.place.path == "/" ? "" : directory.place.path;
        for (const std::string &name : names) {
            place.name = name;
            place.path = above + "/" + name;
            Entry(place, directory.below.empty() ? name : directory.below + "/" + name, depth);
        }
    }

    // NOLINTNEXTLINE(misc-no-recursion): as deep as the bounds say
    void Entry(const Place &place, const std::string &below, int depth)
    {
        std::optional<Handle> handle;
        if (Trouble trouble = LookAt(place, &handle)) {
            visitor_->Failed(place.path, *trouble);
        } else if (!handle.has_value()) {
            visitor_->Failed(place.path, "it has vanished");
        } else if (handle->st.st_dev != file_system_ && !bounds_.cross_file_systems) {
            Log(LOG_LEVEL_VERBOSE, "'%s' is passed over: it is on another file system", place.path.c_str());
        } else if (S_ISDIR(handle->st.st_mode)) {
            Directory(place, *handle, below, depth + 1);
        } else {
            visitor_->Visit({place, *handle, below});
        }
    }

    dev_t file_system_;
    const TreeBounds &bounds_;
    TreeVisitor *visitor_;
};

}  // namespace

void WalkTree(const Place &root, const Handle &handle, const TreeBounds &bounds, TreeVisitor *visitor)
{
    Walker(handle.st.st_dev, bounds, visitor).Directory(root, handle, "", 0);
}

}  // namespace veltrane
