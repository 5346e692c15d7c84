// Named sections that exclude other threads and other processes.
//
// A section is one mutex of the process plus a lock on state/locks/<canonified name>.lock (made 0600, its directory
// too, never removed): the kernel drops it when its holder dies, so none goes stale, and a child does not inherit it
// across exec. Not recursive; at most one section a thread; no network I/O inside. In use: DIFF_CRITICAL_SECTION,
// context_tmp_lock, variable_tmp_lock.
#ifndef VELTRANE_CRITICAL_SECTION_H
#define VELTRANE_CRITICAL_SECTION_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// Waits until no other thread and no other process is inside name, then enters. false, logged at error level: the lock
// file cannot be made, so only threads of this process are shut out; release all the same.
bool WaitForCriticalSection(const char *name);
void ReleaseCriticalSection(const char *name);

VT_END_DECLS

#endif
