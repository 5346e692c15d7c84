// What a files promise with "depth_search" does to a whole tree: set permissions, delete, copy.
//
// Each entry is judged by itself and said in a line of its own; one that fails does not keep the others from being
// worked on. Symbolic links in the tree are never followed: they have no permissions, are deleted and copied as links.
#ifndef HOST_VT_AGENT_FILES_TREE_H
#define HOST_VT_AGENT_FILES_TREE_H

#include <cstddef>

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

}  // namespace veltrane

#endif
