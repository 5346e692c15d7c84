// Finding places, and the steps that need no bytes; see file_place.h.
#include "libveltrane/file_place.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>  // renameat2
#include <utility>

#include <veltrane/crypto.h>
#include <veltrane/file_lib.h>
#include <veltrane/string_lib.h>

#include "libveltrane/safe_path.h"

namespace veltrane {

namespace {

constexpr int kMostLinks = 40;  // as many as the kernel follows

std::string WithoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') { path.pop_back(); }
    return path;
}

std::string LastName(const std::string &path) { return path == "/" ? "." : path.substr(path.rfind('/') + 1); }

bool NamesNothing(const std::string &path)
{
    const std::string name = LastName(path);
    return path != "/" && (name.empty() || name == "." || name == "..");
}

// Where a link leads, seen from the directory where it stands.
Trouble Resolve(const Handle &link, const std::string &path, std::string *ret_path)
{
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link.fd.Get(), "", target, sizeof(target));
    if (length <= 0 || static_cast<size_t>(length) == sizeof(target)) {
        return CouldNot("read the symbolic link", path, "readlink");
    }
    const std::string text(target, static_cast<size_t>(length));
    *ret_path = text[0] == '/' ? text : DirectoryOf(path) + "/" + text;
    return std::nullopt;
}

// The place of a path as it is written, whatever stands there.
FoundPlace FindHere(const std::string &path)
{
    FoundPlace found;
    found.path = path;
    if (NamesNothing(path)) {
        found.trouble = "'" + path + "' names no file";
        return found;
    }
    Descriptor directory(safe_open(DirectoryOf(path).c_str(), O_PATH | O_DIRECTORY));
    if (directory.IsOpen()) {
        found.place = Place{std::move(directory), LastName(path), path};
    } else if (errno != ENOENT && errno != ENOTDIR) {
        found.trouble = CouldNot("open", DirectoryOf(path), "open");
    }
    return found;
}

}  // namespace

FoundPlace FindPlace(const std::string &path, LastLink last_link)
{
    std::string at = WithoutTrailingSlashes(path);
    for (int links = 0; links <= kMostLinks; links++) {
        FoundPlace found = FindHere(at);
        if (!found.place.has_value() || last_link == LastLink::kKept) {
            return found;
        }
        std::optional<Handle> handle;
        found.trouble = LookAt(*found.place, &handle);
        const bool followed = handle.has_value() && S_ISLNK(handle->st.st_mode) &&
                              (handle->st.st_uid == 0 || handle->st.st_uid == geteuid());
        if (!found.trouble.has_value() && followed) {
            found.trouble = Resolve(*handle, at, &at);
        }
        if (found.trouble.has_value()) {
            found.place.reset();
            return found;
        }
        if (!followed) {
            return found;
        }
        at = WithoutTrailingSlashes(at);
    }
    return {std::nullopt, "'" + path + "' leads through too many symbolic links", path};
}

Trouble LookAt(const Place &place, std::optional<Handle> *ret_handle)
{
    Handle handle{Descriptor(openat(place.directory.Get(), place.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC))};
    if (!handle.fd.IsOpen() && errno == ENOENT) {
        ret_handle->reset();
        return std::nullopt;
    }
    if (!handle.fd.IsOpen() || fstat(handle.fd.Get(), &handle.st) != 0) {
        return CouldNot("look at", place.path, "open");
    }
    *ret_handle = std::move(handle);
    return std::nullopt;
}

Trouble MoveAside(const Place &place, std::string *ret_aside)
{
    static constexpr char kSuffix[] = ".moved-aside";
    const std::string name = place.name + kSuffix;
    const std::string path = place.path + kSuffix;
    const int directory = place.directory.Get();
    if (renameat2(directory, place.name.c_str(), directory, name.c_str(), RENAME_NOREPLACE) != 0) {
        return CouldNot("move what stands in the way to", path, "rename");
    }
    *ret_aside = path;
    return std::nullopt;
}

Trouble MakeDirectory(const Place &place)
{
    constexpr mode_t kPrivate = 0700;
    return mkdirat(place.directory.Get(), place.name.c_str(), kPrivate) == 0
               ? std::nullopt
               : CouldNot("make the directory", place.path, "mkdir");
}

Trouble Remove(const Place &place, const Handle &handle)
{
    if (place.name == ".") {
        return "the root directory is never deleted";
    }
    const int flags = S_ISDIR(handle.st.st_mode) ? AT_REMOVEDIR : 0;
    return unlinkat(place.directory.Get(), place.name.c_str(), flags) == 0 || errno == ENOENT
               ? std::nullopt
               : CouldNot("delete", place.path, flags != 0 ? "rmdir" : "unlink");
}

std::string WorkingName(const std::string &name)
{
    constexpr size_t kBytes = 8;
    unsigned char digest[VT_SHA256_LEN];
    HashBytes(name.data(), name.size(), digest, HASH_METHOD_SHA256);
    char hex[2 * kBytes + 1];
    StringBytesToHex(hex, sizeof(hex), digest, kBytes);
    return std::string(".vt-") + hex + ".new";
}

}  // namespace veltrane
