// The bytes of a policy file, from a file that nobody else could have written.
#ifndef VELTRANE_POLICY_SOURCE_H
#define VELTRANE_POLICY_SOURCE_H

#include <sys/types.h>

#include <compare>
#include <optional>
#include <string>

namespace veltrane {

inline constexpr size_t kPolicyFileLimit = size_t{16} * 1024 * 1024;

// Which file it is, whatever path leads to it.
struct FileIdentity {
    dev_t device;
    ino_t inode;
    auto operator<=>(const FileIdentity &) const = default;  // NOLINT(modernize-use-nullptr): there is none to use
};

struct PolicySource {
    std::string bytes;
    FileIdentity identity;
};

// Reads a whole file of at most kPolicyFileLimit bytes. Nothing, and why in *ret_reason, when it cannot be read, is no
// regular file, is larger, or when it or its directory could have been written by another user than root and us.
std::optional<PolicySource> ReadPolicySource(const std::string &path, std::string *ret_reason);

}  // namespace veltrane

#endif
