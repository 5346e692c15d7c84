// The packer of the chapter "CNG".
#include "libvtenterprise/datapack_file_changes.h"

#include <cstdio>
#include <deque>
#include <string>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/reply_line.h"
#include "libvtenterprise/scan_number.h"

namespace {

using veltrane::FilePtr;
using veltrane::TextPtr;

constexpr size_t kLineSize = 4024;
constexpr size_t kMostChanges = 2017;

// The time at the start of a line; 0 without one, and no query asks for what is as old as that.
long TimeOf(const char *line)
{
    long time = 0;
    (void)ScanNumber(&line, &time);
    return time;
}

// Newest first, none empty.
std::deque<std::string> ChangesAfter(time_t from, FILE *file)
{
    std::deque<std::string> changes;
    char line[kLineSize];
    while (fgets(line, sizeof(line), file) != nullptr) {
        if (TimeOf(line) <= from) {
            continue;
        }
        (void)StripTrailingNewline(line, sizeof(line) - 1);  // fgets has ended it within its room
        if (line[0] == '\0') {
            continue;
        }
        changes.emplace_front(line);
        if (changes.size() > kMostChanges) {
            changes.pop_back();
        }
    }
    return changes;
}

}  // namespace

void PackFileChanges(Seq *reply, time_t from)
{
    Log(LOG_LEVEL_VERBOSE, "Packing file change data");
    char path[4096];
    (void)snprintf(path, sizeof(path), "%s/%s", GetStateDir(), "file_changes.log");
    const FilePtr file(safe_fopen(MapName(path), "r"));
    if (file == nullptr) {
        Log(LOG_LEVEL_INFO, "Cannot open the source log '%s'. (fopen: %s)", path, GetErrorStr());
        return;
    }
    ReplyChapter chapter(reply, vtr_code_fchange, "file changes");
    for (const std::string &change : ChangesAfter(from, file.get())) { chapter.Add(TextPtr(xstrdup(change.c_str()))); }
}
