// The host's log of changed files, state/file_changes.log: one line a change,
//
//   time "," path "," letter "," text LF
//
// time in seconds since the epoch. A line holds at most 4000 bytes with its end, and no other line end: one in a path
// is written as a blank, and a path too long for a line is cut. Lines are appended whole or not at all.
#ifndef HOST_LIBVELTRANE_FILE_CHANGE_LOG_H
#define HOST_LIBVELTRANE_FILE_CHANGE_LOG_H

#include <ctime>
#include <string>

#include "libveltrane/trouble.h"

namespace veltrane {

constexpr char kFileChangeLogName[] = "file_changes.log";  // in the state directory

enum class FileChange : char {  // written into the log: never changed
    kAdded = 'A',
    kModified = 'M',  // its content
    kPermissions = 'P',
    kDeleted = 'D',
};

std::string FileChangeLine(time_t t, const std::string &path, FileChange change, const std::string &text);

Trouble AppendFileChanges(const std::string &lines);

}  // namespace veltrane

#endif
