// Owner, group and mode of files: what a promise wants of them, and making it so.
//
// Applied to what a handle names, so a link that is put in its place meanwhile is never followed. Permissions of a file
// with a second name, in a directory where other users may make names, are left alone: the second name may be one that
// nobody meant to give away.
#ifndef HOST_LIBVELTRANE_FILE_PERMS_H
#define HOST_LIBVELTRANE_FILE_PERMS_H

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "libveltrane/file_place.h"

namespace veltrane {

// What is wanted; what is absent may be as it likes.
struct PermsWish {
    std::optional<mode_t> mode{};  // 0 to 07777
    std::optional<uid_t> owner{};
    std::optional<gid_t> group{};
};

// One to four octal digits; nothing for another text.
std::optional<mode_t> ParseMode(const std::string &text);

// The number of a user or group by name; a text of digits is the number itself.
Trouble FindUser(const std::string &text, uid_t *ret_user);
Trouble FindGroup(const std::string &text, gid_t *ret_group);

// A mode that is meant for files, for a directory: whoever may read it may also search it.
mode_t ModeForDirectory(mode_t mode);

// What a file gets that takes the place of another: what is wanted, else what the other had, without set-user,
// set-group and sticky bits.
PermsWish PermsAfter(const struct stat &before, const PermsWish &wish);

// What a new file gets: what is wanted, else this mode, and the owner and group that it is made with.
PermsWish PermsOfNew(mode_t mode, const PermsWish &wish);

// Give an open file of ours what is wanted.
Trouble SetPerms(int fd, const std::string &path, const PermsWish &wish);

// Bring what stands at a place to what is wanted. Each change is added to *done, as "mode 0600 set to 0644".
Trouble ApplyPerms(const Place &place, const Handle &handle, const PermsWish &wish, std::vector<std::string> *done);

// The same words for the change that a replacement brought.
void DescribeChange(const struct stat &before, const PermsWish &after, std::vector<std::string> *done);

}  // namespace veltrane

#endif
