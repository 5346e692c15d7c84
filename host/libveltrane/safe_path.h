// Could another user have written a file, or put another one in its place?
//
// Asked before a work directory is used, a policy read and a library loaded. A path is safe when it and every directory
// above it, symbolic links resolved, belong to root or to us and are not writable for group or others. A directory that
// only leads to the path may be writable when it is sticky, as /tmp is: nobody moves there what is not theirs.
#ifndef HOST_LIBVELTRANE_SAFE_PATH_H
#define HOST_LIBVELTRANE_SAFE_PATH_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace veltrane {

// Where a path is unsafe, and why: the first such step from its end towards the root.
struct UnsafeStep {
    enum class Why {
        kCannotLook,    // error holds the system's words: it may not be there
        kForeignOwner,  // owner is neither root nor us
        kOpen,          // writable for its group or for everybody
    };

    std::string path;  // resolved, unless resolving failed
    Why why;
    uid_t owner = 0;
    std::string error{};
};

enum class PathEnd {
    kIsTheThing,  // the file or directory itself matters
    kLeadsThere,  // what matters lies below it: a sticky directory may be open
};

// Nothing when the path is safe.
std::optional<UnsafeStep> FindUnsafeStep(const std::string &path, PathEnd end = PathEnd::kIsTheThing);

// The same in words, as "'/srv/open' is writable by other users"; "" when the path is safe.
std::string WhyUnsafe(const std::string &path, PathEnd end = PathEnd::kIsTheThing);

// The directory of a path as it is written: "." for a path without "/".
std::string DirectoryOf(const std::string &path);

}  // namespace veltrane

#endif
