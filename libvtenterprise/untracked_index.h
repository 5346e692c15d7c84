// The untracked index: which rows a report filter has hidden, so that they can be sent once the filter admits them.
//
// One file a report type, <state>/untracked/<type>.idx, of CSV records with two fields: the main key of a row ("" when
// it has none) and the row as it would travel, each line end in it written as the two characters \n. Reading turns
// every such pair back, those that the row held itself included. A record that is not made of two fields is skipped; of
// two with the same key the later one counts.
//
// The file is written whole beside the old one and renamed over it: a reader or a crash sees the old or the new one.
#ifndef LIBVTENTERPRISE_UNTRACKED_INDEX_H
#define LIBVTENTERPRISE_UNTRACKED_INDEX_H

#include <veltrane/map.h>

#include "libvtenterprise/export.h"

// Read an index: new map from main key to row text, in the order of the file. Never NULL; empty when the file cannot be
// opened (verbose level). A record that is skipped is a verbose line.
//
// Locks     the index lock of this process, for the whole read.
VT_EXPORT StringMap *UntrackedIndexGet(const char *path) noexcept;

// Write an index; one without entries leaves an empty file. False, at verbose level, when that fails, and the old file
// then stays as it was.
//
// Locks     the index lock of this process, for the whole write; a writer in another process waits.
VT_EXPORT bool UntrackedIndexPush(const char *path, const StringMap *index) noexcept;

#endif
