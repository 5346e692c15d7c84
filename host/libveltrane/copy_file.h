// Copying regular files on this machine: the agent's copy routine, for its own promises and for those that call it
// through a CopyRegularFileFunction.
//
// A copy is compared first and written only where it differs, whole beside the destination and renamed over it; nothing
// stays open. A new copy gets the permission bits of its source and belongs to us; one that takes the place of another
// file keeps that file's owner and permission bits. What differs is saved first, unless backups are switched off:
//
//   BACKUP_OPTION_BACKUP      as "<name>.before", over an older one of that name
//   BACKUP_OPTION_TIMESTAMP   as "<name>.before-<seconds since the epoch>"
#ifndef HOST_LIBVELTRANE_COPY_FILE_H
#define HOST_LIBVELTRANE_COPY_FILE_H

#include <string>
#include <vector>

#include <veltrane/attributes.h>

#include "libveltrane/file_perms.h"
#include "libveltrane/file_place.h"

// The contract's copy routine, CopyRegularFileFunction: reports its outcome for pp as kept, repaired or not kept, which
// *result then is unless it was worse. A source with several names is copied once: its further names become further
// names of that copy, as *inode_cache remembers, which the caller gives back with DeleteCompressedArray. conn must be
// NULL: nothing is fetched from other hosts.
extern "C" bool CopyRegularFile(EvalContext *ctx, const char *source, const char *destination,
                                const struct stat *source_stat, const Attributes *attr, const Promise *pp,
                                CompressedArray **inode_cache, AgentConnection *conn, PromiseResult *result) noexcept;

extern "C" void DeleteCompressedArray(CompressedArray *array) noexcept;

namespace veltrane {

struct CopyOrder {
    BackupOption backup = BACKUP_OPTION_BACKUP;
    bool stealth = false;  // leave the source's access time as it is, where the system grants that
    bool verify = false;   // read the copy again before it takes its place
    PermsWish perms{};     // of the copy
};

// Make the file at to hold what the source holds. Each thing done is added to *done; nothing is when nothing differed.
// destination  what stands at to: a regular file, or nothing
// inode_cache  NULL = sources with several names are no concern
Trouble CopyFile(const Place &from, const Handle &source, const Place &to, const std::optional<Handle> &destination,
                 const CopyOrder &order, CompressedArray **inode_cache, std::vector<std::string> *done);

}  // namespace veltrane

#endif
