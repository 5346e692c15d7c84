// Attributes of a promise, in the shape that the work on it needs.
#ifndef VELTRANE_ATTRIBUTES_H
#define VELTRANE_ATTRIBUTES_H

#include <sys/stat.h>

#include <veltrane/outcome.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum { BACKUP_OPTION_BACKUP = 0, BACKUP_OPTION_NONE = 1, BACKUP_OPTION_TIMESTAMP = 2 } BackupOption;

struct FileCopy_ {
    Rlist *servers;  // NULL = a local copy
    BackupOption backup;
    bool stealth;
    bool verify;
};

// Copied by plain assignment: its pointers are borrowed from the promise. Here, and here only, the plug-in takes a
// type's size, so plug-in and host are built from the same header.
struct Attributes_ {
    bool havedepthsearch;        // the promise searches below a directory
    bool move_obstructions;      // what stands in a path's way may be moved aside
    FileCopy copy;               // what a copy must do
    const JsonElement *classes;  // classes to define by outcome, {"repaired": ["name"]}; NULL = none
};

// Copies one regular file. CompressedArray is the routine's memory of inodes it has already copied (hard links);
// true when destination now equals source; result only ever gets worse; *inode_cache starts as NULL; conn NULL =
// source is a local file
typedef bool (*CopyRegularFileFunction)(EvalContext *ctx, const char *source, const char *destination,
                                        const struct stat *source_stat, const Attributes *attr, const Promise *pp,
                                        CompressedArray **inode_cache, AgentConnection *conn, PromiseResult *result);

// NULL is fine
typedef void (*DeleteCompressedArrayFunction)(CompressedArray *array);

VT_END_DECLS

#endif
