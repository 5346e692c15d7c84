// What changed in a watched file, line by line: the change log and the reference copies.
//
// Of each watched file a copy is kept. When the agent finds the file changed, the copy tells what it was: the lines of
// one and not of the other go into the change log, and the copy is made anew. Log and copies are described in
// docs/formats/file-changes.md; libvtenterprise/datapack_file_diffs.h reads the log.
//
// An entry is put together in memory and written at once, so the log holds whole entries: each begins with "CHANGE" and
// ends with "END", and where a limit is met the lines between them are fewer.
//
// The entry point LogFileChange is declared with all others in libvtenterprise/entry_points_real.h. The destination it
// is given may be NULL or "", the attributes may not be NULL.
#ifndef LIBVTAGENT_FILE_DIFF_LOG_H
#define LIBVTAGENT_FILE_DIFF_LOG_H

#include <stddef.h>
#include <sys/types.h>

#include <string>

#include <veltrane/attributes.h>
#include <veltrane/outcome.h>
#include <veltrane/owned.h>

#include "libvtenterprise/export.h"

// One of the two files of a comparison.
struct ComparedFile {
    std::string path;
    off_t size = 0;  // as it was looked at, before it was read
    veltrane::TextPtr text;
    size_t length = 0;  // of the text
};

// Whether one of the bytes is in no text: control characters but tab, line feed and carriage return. Bytes from 0x80 on
// are text in some encoding.
VT_EXPORT bool IsFileBinary(const char *bytes, size_t length) noexcept;

// Return the content of a text file: new, with a zero behind it; of a longer file the first max_size bytes.
//
// Failure  NULL, and a new message that says why; *ret_unable_to_open is set to true unless it is for the content
VT_EXPORT char *CheckDiffFile(const char *name, size_t max_size, size_t *ret_length, bool *ret_unable_to_open,
                              char **ret_message) noexcept;

// Return the position, from 1, of the first byte in which two texts differ; one behind the end of the one that the
// other begins with; 1 when one of them is empty.
VT_EXPORT size_t Vesk_GetFirstChangePosition(const char *new_text, size_t new_length, const char *old_text,
                                             size_t old_length) noexcept;

// Log what is different between a reference copy and the file, and report it for the promise as a change, or as a
// failure when it could not be told.
//
// file       read; its text is changed
// reference  is read here
// Result     PROMISE_RESULT_NOOP: what is reported has no part in it
VT_EXPORT PromiseResult Vesk_DoFileDiff(EvalContext *ctx, const Promise *pp, const Attributes *attr, ComparedFile *file,
                                        ComparedFile *reference) noexcept;

#endif
