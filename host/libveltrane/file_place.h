// Places of files: a name in a directory that is held open, so that what is looked at is what is then worked on.
//
// A place is found by the rules of safe_open: symbolic links are followed only when root or we own them. From then on
// everything goes through the directory's descriptor and never follows a link; who can write a directory above may move
// it, but cannot lead us elsewhere.
#ifndef HOST_LIBVELTRANE_FILE_PLACE_H
#define HOST_LIBVELTRANE_FILE_PLACE_H

#include <optional>
#include <string>
#include <vector>

#include <veltrane/owned.h>

#include "libveltrane/file_bytes.h"

namespace veltrane {

struct Place {
    Descriptor directory;  // O_PATH
    std::string name;      // without '/'; "." for the root directory
    std::string path;      // as messages say it, links of the last name resolved
};

enum class LastLink {
    kFollowed,  // a link at the end leads to another place; a foreign one is itself the place
    kKept,      // the place is where the link stands
};

// A place, or why none was found; neither when a directory above it is missing, or is none.
struct FoundPlace {
    std::optional<Place> place{};
    Trouble trouble{};
    std::string path{};  // of the place, or where it would be
};

// Slashes at the end of a path do not count. The last name cannot be "." or "..".
FoundPlace FindPlace(const std::string &path, LastLink last_link);

// What stands at a place; no handle when nothing does.
Trouble LookAt(const Place &place, std::optional<Handle> *ret_handle);

// Rename what stands at a place to "<name>.moved-aside". What has that name already is kept, and is trouble.
Trouble MoveAside(const Place &place, std::string *ret_aside);

// Make an empty directory, 0700.
Trouble MakeDirectory(const Place &place);

// Remove what stands at a place, a directory only when it is empty; a link, never what it leads to. What is gone
// already is no trouble.
Trouble Remove(const Place &place, const Handle &handle);

// A name without '/' beside that of a place, for what is being made there: always the same for one name, so that what a
// killed process left is taken away by the next.
std::string WorkingName(const std::string &name);

}  // namespace veltrane

#endif
