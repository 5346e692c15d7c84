// The chapter "CNG": that watched files changed, one line a change.
//
// The source is <state>/file_changes.log, which the agent appends to: a line is "<time>,<path>,<letter>,<text>" and
// travels as it stands. What changed in a file is told by "CND".
#ifndef LIBVTENTERPRISE_DATAPACK_FILE_CHANGES_H
#define LIBVTENTERPRISE_DATAPACK_FILE_CHANGES_H

#include <time.h>

#include <veltrane/seq.h>

// Append the changes later than from, newest first: at most 2017, a week of one every five minutes and one more. A line
// without a time at its start is none, and one longer than 4023 bytes is taken for several, each judged by itself.
void PackFileChanges(Seq *reply, time_t from);

#endif
