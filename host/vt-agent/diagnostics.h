// What `vt-agent --diagnostics` does: whether this installation can work, check by check, and nothing else.
#ifndef HOST_VT_AGENT_DIAGNOSTICS_H
#define HOST_VT_AGENT_DIAGNOSTICS_H

namespace veltrane {

// Run the host's checks, then the plug-in's, and print a line for each.
//
// A check of the plug-in packs reports without a filter, which empties the indexes of what filters hide; they are put
// back as they were. So only one agent may do this at a time. A server daemon may answer queries meanwhile.
//
// Result  false when the lines cannot be printed, or when an index could not be put back (error level); a check that
//         finds something wrong is no failure of the diagnostics.
bool RunDiagnostics();

}  // namespace veltrane

#endif
