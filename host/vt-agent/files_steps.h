// The steps of a files promise, each on one place. What they do is added to a list of words; what fails comes back.
#ifndef HOST_VT_AGENT_FILES_STEPS_H
#define HOST_VT_AGENT_FILES_STEPS_H

#include <optional>
#include <string>
#include <vector>

#include "libveltrane/copy_file.h"
#include "libveltrane/file_place.h"
#include "vt-agent/files_request.h"

namespace veltrane {

using Done = std::vector<std::string>;

// A place and what stands there.
struct Spot {
    Place place;
    std::optional<Handle> handle{};
};

enum class Kind { kFile, kDirectory };

// The spot of a path, links at its end followed. With make_directories, missing directories above it are made (0700),
// what stands in the way of one moved aside when the request says so. No spot: a directory above it is missing.
Trouble FindSpot(const std::string &path, const FilesRequest &request, bool make_directories,
                 std::optional<Spot> *ret_spot);

// Nothing but this kind may stand at a spot: something else is moved aside when it may be, else trouble.
Trouble ClearTheWay(Spot *spot, Kind wanted, bool may_move, Done *done);

// The file is to hold these bytes.
Trouble WriteContent(const Spot &spot, const std::string &content, const PermsWish &perms, Done *done);

// An empty file, unless there is one.
Trouble MakeFile(const Spot &spot, const PermsWish &perms, Done *done);

// A directory, unless there is one; spot->handle is its handle then.
Trouble MakeDirectory(Spot *spot, Done *done);

// The order of a copy as a request gives it, with these permissions.
CopyOrder OrderOf(const FilesRequest &request);

// "a, b and c"
std::string Listed(const Done &done);

}  // namespace veltrane

#endif
