// Which other agents run on this machine.
#ifndef LIBVTAGENT_PROCESSES_H
#define LIBVTAGENT_PROCESSES_H

#include "libvtenterprise/export.h"

// Whether more than one agent, under either of its names, is in the host's process table. The caller is one of them. A
// process is an agent when the first word of its command line holds an agent's name: what the word is preceded by, such
// as its directory, does not matter.
VT_EXPORT bool AreParallelAgentsExecuting() noexcept;

#endif
