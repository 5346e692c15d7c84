// The plug-in's part of the agent's diagnostics: checks that the host's runner runs after its own.
//
// The entry point, AgentDiagnosticsRunAllChecksVesk, is declared with all others in
// libvtenterprise/entry_points_real.h. It keeps the host's result constructor for the checks and hands the host's
// runner the table of checks:
//
//   "Export all reports"   AgentDiagnosticsCheckReportsExport
#ifndef LIBVTAGENT_ENTERPRISE_AGENT_DIAGNOSTICS_H
#define LIBVTAGENT_ENTERPRISE_AGENT_DIAGNOSTICS_H

#include <veltrane/diagnostics.h>

#include "libvtenterprise/export.h"

// What a check makes its result with: the host's, from the last call of the entry point on. One agent, one thread.
VT_EXPORT AgentDiagnosticsResultNewFunction AgentDiagnosticsResultNewPtr;

// Whether a reply can be built on this host: a delta of the last five minutes, for old peers and without a filter, is
// written to <workdir>/diagnostics/reports, mode 0600, in the place of what the file held.
//
// Result  a failure, with the reason, when the file cannot be opened or written; nothing is packed when it cannot be
//         opened.
// Note    packing without a filter empties the untracked indexes: whoever runs this check puts them back.
VT_EXPORT AgentDiagnosticsResult AgentDiagnosticsCheckReportsExport(const char *workdir) noexcept;

#endif
