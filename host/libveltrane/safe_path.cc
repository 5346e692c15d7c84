// Walks a resolved path up to the root, and judges each step by owner and mode.
#include "libveltrane/safe_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <veltrane/errors.h>
#include <veltrane/owned.h>

namespace veltrane {

namespace {

std::optional<UnsafeStep> Judge(const std::string &path, bool leads_further)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return UnsafeStep{path, UnsafeStep::Why::kCannotLook, 0, GetErrorStr()};
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return UnsafeStep{path, UnsafeStep::Why::kForeignOwner, status.st_uid};
    }
    const bool sticky = leads_further && (status.st_mode & S_ISVTX) != 0;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !sticky) {
        return UnsafeStep{path, UnsafeStep::Why::kOpen, status.st_uid};
    }
    return std::nullopt;
}

std::string InWords(const UnsafeStep &step)
{
    switch (step.why) {
        case UnsafeStep::Why::kCannotLook:
            return "'" + step.path + "': " + step.error;
        case UnsafeStep::Why::kForeignOwner:
            return "'" + step.path + "' belongs to user " + std::to_string(step.owner);
        case UnsafeStep::Why::kOpen:
            return "'" + step.path + "' is writable by other users";
    }
    return "'" + step.path + "'";
}

}  // namespace

std::optional<UnsafeStep> FindUnsafeStep(const std::string &path, PathEnd end)
{
    const TextPtr resolved(realpath(path.c_str(), nullptr));
    if (resolved == nullptr) {
        return UnsafeStep{path, UnsafeStep::Why::kCannotLook, 0, GetErrorStr()};
    }
    std::string at = resolved.get();
    std::optional<UnsafeStep> unsafe = Judge(at, end == PathEnd::kLeadsThere);
    while (!unsafe.has_value() && at != "/") {
        at = DirectoryOf(at);
        unsafe = Judge(at, true);
    }
    return unsafe;
}

std::string WhyUnsafe(const std::string &path, PathEnd end)
{
    const std::optional<UnsafeStep> unsafe = FindUnsafeStep(path, end);
    return unsafe.has_value() ? InWords(*unsafe) : "";
}

std::string DirectoryOf(const std::string &path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace veltrane
