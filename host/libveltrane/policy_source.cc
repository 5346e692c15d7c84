// Opens a policy file first and looks at it afterwards, so that what was looked at is what is read.
#include "libveltrane/policy_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/owned.h>

#include "libveltrane/safe_path.h"

namespace veltrane {

namespace {

std::optional<PolicySource> Refused(std::string *ret_reason, std::string reason)
{
    *ret_reason = std::move(reason);
    return std::nullopt;
}

// Reads up to limit bytes; false with errno.
bool ReadUpTo(int fd, size_t limit, std::string *bytes)
{
    char block[65536];
    while (bytes->size() < limit) {
        const ssize_t got = read(fd, block, std::min(sizeof(block), limit - bytes->size()));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0;
        }
        bytes->append(block, static_cast<size_t>(got));
    }
    return true;
}

}  // namespace

std::optional<PolicySource> ReadPolicySource(const std::string &path, std::string *ret_reason)
{
    const Descriptor file(safe_open(path.c_str(), O_RDONLY | O_NONBLOCK));  // a FIFO without a writer would hold us
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        return Refused(ret_reason, GetErrorStr());
    }
    if (!S_ISREG(status.st_mode)) {
        return Refused(ret_reason, "not a regular file");
    }
    if (const std::string unsafe = WhyUnsafe(path); !unsafe.empty()) {
        return Refused(ret_reason, unsafe);
    }
    // That looked at where a link leads; this is where it may stand.
    if (const std::string unsafe = WhyUnsafe(DirectoryOf(path), PathEnd::kLeadsThere); !unsafe.empty()) {
        return Refused(ret_reason, "its directory " + unsafe);
    }
    PolicySource source{"", {status.st_dev, status.st_ino}};
    if (!ReadUpTo(file.Get(), kPolicyFileLimit + 1, &source.bytes)) {
        return Refused(ret_reason, GetErrorStr());
    }
    if (source.bytes.size() > kPolicyFileLimit) {
        return Refused(ret_reason, "larger than " + std::to_string(kPolicyFileLimit) + " bytes");
    }
    return source;
}

}  // namespace veltrane
