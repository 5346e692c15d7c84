// Appending to the agent's logs, one record at a time.
//
// Every record opens, appends to and closes its file anew: nothing is kept open between records, so a log may be
// rotated, purged or deleted under a running agent, and several agents may append to one. A record that does not fit on
// the disk is taken back, so that the next one does not join it.
#ifndef LIBVTENTERPRISE_SAFE_WRITE_LOG_H
#define LIBVTENTERPRISE_SAFE_WRITE_LOG_H

#include <string_view>

#include "libvtenterprise/export.h"

// Append text to a file of the state directory, which is made (0600) with the directories above it when missing.
//
// file      name below the state directory
// text      bytes up to its zero; NULL = nothing to do
// Failure   logged at error level; the record is lost, and the run goes on
VT_EXPORT void SafeWriteLog(const char *file, const char *text) noexcept;

// The writing alone, for a log that its caller has opened for appending. False with errno: nothing of the record is in
// the file then.
bool AppendRecord(int fd, std::string_view record);

#endif
