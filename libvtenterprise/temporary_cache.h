// What an earlier run of the same cycle (the one that updates policy) has to report, kept for the main run: a file of
// CSV records, one an item, with the columns of the report's record.
//
//     <state>/context.cache.tmp     classes
//     <state>/variable.cache.tmp    variables
//
// Each storing run appends its items; the main run reports them together with its own and deletes the file. Every
// access to a file is made inside its critical section, which shuts out other agent processes too; callers hold no
// section.
#ifndef LIBVTENTERPRISE_TEMPORARY_CACHE_H
#define LIBVTENTERPRISE_TEMPORARY_CACHE_H

#include <veltrane/map.h>
#include <veltrane/seq.h>

#include "libvtenterprise/reports.h"

struct TemporaryCache {
    const char *file_name;  // below the state directory
    const char *section;    // the critical section that guards it
    ReportType type;        // whose records it holds: one with main keys

    // Append the records; nothing happens when there are none. A failure is logged at error level, and the file is as
    // before.
    void Store(const Seq *records) const;

    // New Map from main key (owned) to record (owned), in the order of the file, a later record replacing an earlier
    // one of the same key. NULL, at verbose level, when the file cannot be read. Records that do not parse, and those
    // without a main key, are skipped with a warning each.
    Map *Read() const;

    // The state of both runs: new Seq of the cached records, those of the present run in place of the cached ones of
    // their keys, then the rest of the present run. Without a file that is the present run alone.
    //
    // present  taken over
    Seq *Merge(Seq *present) const;

    // Delete the file. False, at verbose level, when there is one and it cannot be deleted.
    [[nodiscard]] bool Purge() const;
};

#endif
