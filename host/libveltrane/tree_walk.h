// A walk through a directory tree that stays inside it: by descriptors, following no symbolic link, to a bounded depth,
// and on one file system unless told otherwise.
//
// The names of a directory are read before anything in it is visited, and visited in byte order, so what the visitor
// makes there meanwhile is not met.
#ifndef HOST_LIBVELTRANE_TREE_WALK_H
#define HOST_LIBVELTRANE_TREE_WALK_H

#include <string>

#include "libveltrane/file_place.h"

namespace veltrane {

constexpr int kDeepestTree = 128;  // levels of directories below the root of a walk

struct TreeBounds {
    int depth = kDeepestTree;       // 1 = what the root directory itself holds, no more
    bool deeper_is_trouble = true;  // a directory that is not entered for its depth: trouble, or meant so
    bool cross_file_systems = false;
};

// One thing that was met; lent for the call.
struct TreeEntry {
    const Place &place;
    const Handle &handle;
    const std::string &below;  // its path below the root, "" for the root
};

class TreeVisitor {
  public:
    TreeVisitor() = default;
    virtual ~TreeVisitor() = default;
    TreeVisitor(const TreeVisitor &) = delete;
    TreeVisitor &operator=(const TreeVisitor &) = delete;

    // A directory, the root first. false: what is below it is left out, and Leave as well.
    virtual bool Enter(const TreeEntry &directory) = 0;

    // The same directory when what is below it is done, or was not entered.
    virtual void Leave(const TreeEntry &directory) = 0;

    // Anything else, symbolic links included.
    virtual void Visit(const TreeEntry &entry) = 0;

    // What cannot be looked at or entered, and why: a sentence without its end.
    virtual void Failed(const std::string &path, const std::string &why) = 0;
};

// Walk through the tree whose root directory a handle names. What is on another file system is passed over, with a
// verbose line.
void WalkTree(const Place &root, const Handle &handle, const TreeBounds &bounds, TreeVisitor *visitor);

}  // namespace veltrane

#endif
