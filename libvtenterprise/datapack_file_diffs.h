// Chapter "CND": what changed in the watched files, from the change log to the rows of a delta.
//
// The log is written by the agent's half of the plug-in, libvtagent/file_diff_log.h; its grammar is in
// docs/formats/file-changes.md. This reader takes any bytes for a log: what it cannot make sense of it skips.
#ifndef LIBVTENTERPRISE_DATAPACK_FILE_DIFFS_H
#define LIBVTENTERPRISE_DATAPACK_FILE_DIFFS_H

#include <time.h>

#include <veltrane/seq.h>

#include "libvtenterprise/export.h"

// The change log, in the state directory.
inline constexpr const char *kFileDiffLogName = "vesk_diff.log";

// Append the chapter to reply: a row for each change that is later than from and has lines, the last one of the log
// first. Without such a change nothing is appended.
//
// Failure  a log that cannot be opened leaves the chapter out, at info level; a difference that is too long for the
//          network is cut, at info level; a row that cannot travel is left out, with a warning. A line of nothing but
//          the most tabs that are read has no room once they are written out: that ends the process.
VT_EXPORT void Vesk_PackDiffs(Seq *reply, time_t from) noexcept;

#endif
