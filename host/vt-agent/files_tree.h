// What a files promise with "depth_search" does to a whole tree: set permissions, delete, copy, watch.
//
// Each entry is judged by itself and said in a line of its own; one that fails does not keep the others from being
// worked on. Symbolic links in the tree are never followed: they have no permissions, are deleted and copied as links.
#ifndef HOST_VT_AGENT_FILES_TREE_H
#define HOST_VT_AGENT_FILES_TREE_H

#include <cstddef>
#include <functional>
#include <string>

#include "vt-agent/files_steps.h"

namespace veltrane {

// How many entries fared how. What is kept is not counted.
struct TreeTally {
    size_t repaired = 0;
    size_t failed = 0;
};

// Permissions of the directory at a spot and of everything below it; a directory gets the mode with the right to search
// for whoever may read.
void SetPermsBelow(const Spot &root, const FilesRequest &request, TreeTally *tally);

// Delete what stands at a spot, and all that is below it.
void DeleteBelow(const Spot &root, const FilesRequest &request, TreeTally *tally);

// Copy what is below the source into the directory at a spot. What is there beyond it stays. Directories are made with
// the source's permission bits; links of other users are not copied, devices, pipes and sockets are passed over.
void CopyBelow(const Spot &source, const Spot &root, const FilesRequest &request, TreeTally *tally);

// Hand each regular file below a spot to a function, which says what it did.
using WatchEntry = std::function<Trouble(const std::string &path, const Handle &handle, Done *done)>;
void WatchBelow(const Spot &root, const FilesRequest &request, const WatchEntry &watch, TreeTally *tally);

// Count one entry and say how it fared; of each kind, the first hundred are said.
void JudgeEntry(const std::string &path, const Done &done, const Trouble &trouble, TreeTally *tally);

}  // namespace veltrane

#endif
