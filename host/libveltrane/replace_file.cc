// Writing beside and renaming over; see replace_file.h.
#include "libveltrane/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace veltrane {

namespace {

// Take a name away; what cannot be taken away is in the way of what follows, which says so.
void Forget(const Place &place, const std::string &name)
{
    const int saved_errno = errno;
    (void)unlinkat(place.directory.Get(), name.c_str(), 0);
    errno = saved_errno;
}

}  // namespace

Replacement::Replacement(const Place &place) : place_(place), name_(WorkingName(place.name)) {}

Replacement::~Replacement()
{
    if (made_) {
        Forget(place_, name_);
    }
}

Trouble Replacement::Begin()
{
    constexpr mode_t kPrivate = 0600;
    Forget(place_, name_);  // of a process that was killed
    file_ = Descriptor(
        openat(place_.directory.Get(), name_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivate));
    if (!file_.IsOpen()) {
        return CouldNot("make a file beside", place_.path, "open");
    }
    made_ = true;
    return std::nullopt;
}

// Another process that works on the same place takes the working name for a leftover.
bool Replacement::IsStillThere() const
{
    struct stat ours {};
    struct stat there {};
    return fstat(file_.Get(), &ours) == 0 &&
           fstatat(place_.directory.Get(), name_.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           ours.st_dev == there.st_dev && ours.st_ino == there.st_ino;
}

Trouble Replacement::Commit(const PermsWish &perms)
{
    if (Trouble trouble = SetPerms(file_.Get(), place_.path, perms)) {
        return trouble;
    }
    if (fsync(file_.Get()) != 0) {
        return CouldNot("write", place_.path, "fsync");
    }
    if (!IsStillThere()) {
        made_ = false;  // the name is somebody else's by now
        return "'" + place_.path + "' is being written by another process as well";
    }
    const int directory = place_.directory.Get();
    if (renameat(directory, name_.c_str(), directory, place_.name.c_str()) != 0) {
        return CouldNot("replace", place_.path, "rename");
    }
    made_ = false;
    return std::nullopt;
}

Trouble ReplaceFile(const std::string &path, std::string_view bytes, mode_t mode)
{
    const FoundPlace found = FindPlace(path, LastLink::kKept);
    if (!found.place.has_value()) {
        return found.trouble.value_or("'" + path + "' has no directory");
    }
    Replacement replacement(*found.place);
    if (Trouble trouble = replacement.Begin()) {
        return trouble;
    }
    if (Trouble trouble = WriteAll(replacement.Fd(), bytes, path)) {
        return trouble;
    }
    return replacement.Commit(PermsOfNew(mode, {}));
}

bool LinkOver(const Place &from, const Place &to)
{
    const std::string name = WorkingName(to.name);
    const int directory = to.directory.Get();
    Forget(to, name);
    if (linkat(from.directory.Get(), from.name.c_str(), directory, name.c_str(), 0) != 0) {
        return false;
    }
    const bool renamed = renameat(directory, name.c_str(), directory, to.name.c_str()) == 0;
    Forget(to, name);  // the name stays when both were the same file already
    return renamed;
}

Trouble LinkTextOver(const std::string &text, const Place &to)
{
    const std::string name = WorkingName(to.name);
    const int directory = to.directory.Get();
    Forget(to, name);
    if (symlinkat(text.c_str(), directory, name.c_str()) != 0) {
        return CouldNot("make a symbolic link beside", to.path, "symlink");
    }
    if (renameat(directory, name.c_str(), directory, to.name.c_str()) == 0) {
        return std::nullopt;
    }
    Trouble trouble = CouldNot("replace", to.path, "rename");
    Forget(to, name);
    return trouble;
}

}  // namespace veltrane
