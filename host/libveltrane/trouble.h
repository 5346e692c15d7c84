// Why something could not be done, in words that a message may end with.
//
// Helpers return it and log nothing; whoever decides what it means for a promise says it, once.
#ifndef HOST_LIBVELTRANE_TROUBLE_H
#define HOST_LIBVELTRANE_TROUBLE_H

#include <cerrno>
#include <optional>
#include <string>

#include <veltrane/errors.h>

namespace veltrane {

// Nothing when all went well.
using Trouble = std::optional<std::string>;

// "could not open '/x' (openat: Permission denied)", with the errno at hand.
inline Trouble CouldNot(const char *what, const std::string &path, const char *call)
{
    const char *why = errno == ENOLINK ? "a symbolic link of another user is not followed" : GetErrorStr();
    return std::string("could not ") + what + " '" + path + "' (" + call + ": " + why + ")";
}

}  // namespace veltrane

#endif
