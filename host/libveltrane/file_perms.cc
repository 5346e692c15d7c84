// Owner, group and mode; see file_perms.h.
#include "libveltrane/file_perms.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>

#include <veltrane/string_lib.h>

namespace veltrane {

namespace {

constexpr mode_t kAllBits = 07777;
constexpr mode_t kPermissionBits = 0777;

std::string Octal(mode_t mode)
{
    char text[16];
    snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & kAllBits));
    return text;
}

// A text of digits as the number of a user or group; the highest number means "unchanged" to the system.
bool IsNumber(const std::string &text, unsigned *ret_number)
{
    long number = 0;
    if (!StringIsNumeric(text.c_str()) || StringToLong(text.c_str(), &number) != 0 || number < 0 ||
        number >= static_cast<long>(UINT_MAX)) {
        return false;
    }
    *ret_number = static_cast<unsigned>(number);
    return true;
}

// Ask the system's books of users or groups, with as much room as the answer needs: a group may have many members.
template <typename Entry>
bool LookUp(int (*look)(const char *, Entry *, char *, size_t, Entry **), const std::string &name, Entry *ret_entry,
            std::vector<char> *room)
{
    constexpr size_t kMostRoom = size_t{1024} * 1024;
    for (room->resize(4096); room->size() <= kMostRoom; room->resize(2 * room->size())) {
        Entry *found = nullptr;
        if (look(name.c_str(), ret_entry, room->data(), room->size(), &found) != ERANGE) {
            return found != nullptr;
        }
    }
    return false;
}

bool OthersMayMakeNames(const Place &place)
{
    struct stat st {};
    return fstat(place.directory.Get(), &st) != 0 || (st.st_uid != 0 && st.st_uid != geteuid()) ||
           (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

bool IsWanted(const struct stat &st, const PermsWish &wish)
{
    return wish.mode.value_or(st.st_mode & kAllBits) == (st.st_mode & kAllBits) &&
           wish.owner.value_or(st.st_uid) == st.st_uid && wish.group.value_or(st.st_gid) == st.st_gid;
}

Trouble ApplyOwner(const Handle &handle, const std::string &path, const PermsWish &wish)
{
    const uid_t owner = wish.owner.value_or(handle.st.st_uid);
    const gid_t group = wish.group.value_or(handle.st.st_gid);
    if (owner == handle.st.st_uid && group == handle.st.st_gid) {
        return std::nullopt;
    }
    return fchownat(handle.fd.Get(), "", owner, group, AT_EMPTY_PATH) == 0 ? std::nullopt
                                                                           : CouldNot("give away", path, "chown");
}

// After the owner: a file that changes hands loses its set-user and set-group bits.
Trouble ApplyMode(const Handle &handle, const std::string &path, mode_t mode)
{
    struct stat now {};
    if (fstat(handle.fd.Get(), &now) == 0 && (now.st_mode & kAllBits) == mode) {
        return std::nullopt;
    }
    const std::string name = "/proc/self/fd/" + std::to_string(handle.fd.Get());
    return chmod(name.c_str(), mode) == 0 ? std::nullopt : CouldNot("set the mode of", path, "chmod");
}

}  // namespace

std::optional<mode_t> ParseMode(const std::string &text)
{
    if (text.empty() || text.size() > 4 || text.find_first_not_of("01234567") != std::string::npos) {
        return std::nullopt;
    }
    mode_t mode = 0;
    for (const char digit : text) { mode = mode * 8 + static_cast<mode_t>(digit - '0'); }
    return mode;
}

Trouble FindUser(const std::string &text, uid_t *ret_user)
{
    if (IsNumber(text, ret_user)) {
        return std::nullopt;
    }
    passwd entry{};
    std::vector<char> room;
    if (!LookUp(getpwnam_r, text, &entry, &room)) {
        return "there is no user '" + text + "'";
    }
    *ret_user = entry.pw_uid;
    return std::nullopt;
}

Trouble FindGroup(const std::string &text, gid_t *ret_group)
{
    if (IsNumber(text, ret_group)) {
        return std::nullopt;
    }
    group entry{};
    std::vector<char> room;
    if (!LookUp(getgrnam_r, text, &entry, &room)) {
        return "there is no group '" + text + "'";
    }
    *ret_group = entry.gr_gid;
    return std::nullopt;
}

mode_t ModeForDirectory(mode_t mode)
{
    constexpr mode_t kReadable = S_IRUSR | S_IRGRP | S_IROTH;
    return mode | (mode & kReadable) >> 2;  // the bit for searching stands two below the one for reading
}

PermsWish PermsAfter(const struct stat &before, const PermsWish &wish)
{
    return {wish.mode.value_or(before.st_mode & kPermissionBits), wish.owner.value_or(before.st_uid),
            wish.group.value_or(before.st_gid)};
}

PermsWish PermsOfNew(mode_t mode, const PermsWish &wish)
{
    return {wish.mode.value_or(mode & kPermissionBits), wish.owner, wish.group};
}

Trouble SetPerms(int fd, const std::string &path, const PermsWish &wish)
{
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        return CouldNot("look at", path, "stat");
    }
    const uid_t owner = wish.owner.value_or(st.st_uid);
    const gid_t group = wish.group.value_or(st.st_gid);
    if ((owner != st.st_uid || group != st.st_gid) && fchown(fd, owner, group) != 0) {
        return CouldNot("give away", path, "chown");
    }
    return !wish.mode.has_value() || fchmod(fd, *wish.mode) == 0 ? std::nullopt
                                                                 : CouldNot("set the mode of", path, "chmod");
}

Trouble ApplyPerms(const Place &place, const Handle &handle, const PermsWish &wish, std::vector<std::string> *done)
{
    if (IsWanted(handle.st, wish)) {
        return std::nullopt;
    }
    if (S_ISLNK(handle.st.st_mode)) {
        return "'" + place.path + "' is " + KindOf(handle.st) + ", which is not followed";
    }
    if (!S_ISDIR(handle.st.st_mode) && handle.st.st_nlink > 1 && OthersMayMakeNames(place)) {
        return "'" + place.path + "' has a second name, which another user may have made";
    }
    Trouble trouble = ApplyOwner(handle, place.path, wish);
    if (!trouble.has_value()) {
        trouble = ApplyMode(handle, place.path, wish.mode.value_or(handle.st.st_mode & kAllBits));
    }
    if (!trouble.has_value()) {
        DescribeChange(handle.st, wish, done);
    }
    return trouble;
}

void DescribeChange(const struct stat &before, const PermsWish &after, std::vector<std::string> *done)
{
    const uid_t owner = after.owner.value_or(before.st_uid);
    const gid_t group = after.group.value_or(before.st_gid);
    const mode_t mode = after.mode.value_or(before.st_mode) & kAllBits;
    if (before.st_uid != owner) {
        done->push_back("owner " + std::to_string(before.st_uid) + " set to " + std::to_string(owner));
    }
    if (before.st_gid != group) {
        done->push_back("group " + std::to_string(before.st_gid) + " set to " + std::to_string(group));
    }
    if ((before.st_mode & kAllBits) != mode) {
        done->push_back("mode " + Octal(before.st_mode) + " set to " + Octal(mode));
    }
}

}  // namespace veltrane
