// The lines of two files that are compared: lists of those that are not in the common head.
//
// A line's text stays where it was read: splitting puts a zero in the place of each line feed, and a list's lines point
// into that. So the texts must outlive the lists, and two files of many lines cost a node a line and no copy.
#ifndef LIBVTAGENT_FILE_LINES_H
#define LIBVTAGENT_FILE_LINES_H

#include <stddef.h>
#include <stdint.h>

#include <veltrane/writer.h>

#include "libvtenterprise/export.h"

// One line, in a list that is linked both ways.
struct FileLine {
    const char *text;  // without its line feed; borrowed from the text of its file
    uint32_t counter;  // its number in the file, from 1
    FileLine *next;
    FileLine *prev;
};

// The most bytes of a file that is compared or read. The messages about all limits name this number.
inline constexpr int kMaxComparedFileSize = 83886080;

// What the two lists of one comparison hold at most.
inline constexpr size_t kMaxStoredText = 167772161;  // bytes of all lines
inline constexpr size_t kMaxStoredLines = 5242880;

// Return the next line of a text and move *position behind it; NULL at the end. The last line needs no line feed,
// unless it is empty. A carriage return stays in its line.
//
// position  the rest of a text, which is changed: the line feed becomes a zero
VT_EXPORT char *ReadNextChunkOfBuffer(char **position) noexcept;

// Put a line before the first of a list; an empty list is NULL.
VT_EXPORT void PrependFileLine(FileLine **list, const char *text, uint32_t counter) noexcept;

// Turn a list round; its new first line.
VT_EXPORT FileLine *ReverseFileList(FileLine *list) noexcept;

// Take a line out of its list.
VT_EXPORT void DeleteFileLine(FileLine **list, FileLine *line) noexcept;
VT_EXPORT void DeleteAllFileLines(FileLine *list) noexcept;

// Split two texts into lines, from the first one on that differs. Beyond the limits above the rest of both texts is
// left out, at info level.
//
// new_text, old_text       changed: see ReadNextChunkOfBuffer
// ret_added, ret_removed   the lines of the new and of the old text, the last one first
VT_EXPORT void Vesk_LoadFileHunks(char *new_text, char *old_text, FileLine **ret_added,
                                  FileLine **ret_removed) noexcept;

// Write the lines of a list as entries of the change log, each "<kind>,<number>,<text>"; "(blanks/space)" stands for a
// text that shows nothing.
VT_EXPORT void Vesk_ReportFileChange(Writer *log, const FileLine *list, char kind) noexcept;

#endif
