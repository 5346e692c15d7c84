// The last-seen report: the peers that this host has been in touch with, in which direction, and when.
//
// The host keeps them in its last-seen database, by key (docs/formats/last-seen.md):
//
//     "q", "i" or another character, key hash    KeyHostSeen: met while they opened the connection ("i"), or we did
//     "k", key hash                              the peer's address
//
// Each quality entry is one item. Entries that have expired are deleted after each pass; addresses stay.
#ifndef LIBVTENTERPRISE_DIFF_LASTSEEN_H
#define LIBVTENTERPRISE_DIFF_LASTSEEN_H

#include <time.h>

#include <veltrane/eval_context.h>
#include <veltrane/seq.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

// The current state of the report: new Seq of HubLastSeen, in the order of the database's keys. ctx is not used.
//
// Items   hrsago is the peer's usual interval as the database has it, not the time since (0 when it is no number); a
//         peer without an address has an empty one, a key without a peer none. Of a record of another size than
//         KeyHostSeen, what is missing is zero and what is more is left.
// Errors  NULL when the database cannot be opened (silently) or walked (an error).
VT_EXPORT Seq *GetCurrentHubLastSeenList(const EvalContext *ctx) noexcept;

// Delete the quality entries that are older than LASTSEENEXPIREAFTER by the clock, at debug level each. state_time is
// not used.
//
// Errors  false when the database cannot be opened (silently) or walked (an error). An entry that is larger than a
//         KeyHostSeen is an error line and stays.
VT_EXPORT bool PurgeCurrentLastSeen(time_t state_time) noexcept;

// The same at another time than that of the clock. Not for hosts.
bool PurgeLastSeenAt(time_t now) noexcept;

#endif
