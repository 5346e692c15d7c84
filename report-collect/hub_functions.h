// What only a hub can do, as the enterprise plug-in calls it: Name__wrapper of each function of the table.
//
// The library shows these wrappers and its version, nothing else. Name__real does the work and stays inside.
#ifndef REPORT_COLLECT_HUB_FUNCTIONS_H
#define REPORT_COLLECT_HUB_FUNCTIONS_H

#include <veltrane/net.h>
#include <veltrane/types.h>

#include "libvtenterprise/call_frame.h"

#define VT_ENTRY(R, returns, Name, parameters, arguments) \
    R Name##__real parameters noexcept;                   \
    VT_DECLARE_WRAPPER(R, Name, parameters);
#include "report-collect/hub_functions.def"

// The version of this library, static. A host whose own version is another text refuses the library.
VT_EXPORT const char *GetExtensionLibraryVersion();

// Vesk_AcceptCollectCall
//   In a connection thread of the hub's server daemon, for a host that asks to be called back on its own connection and
//   may ask so. Gets a place with the hub process (hub_calls.h), tells the host the place in four bytes inside TLS, and
//   hands the socket on together with the host's key.
//   Result  true: the connection is the hub process's now. The caller frees its side without a byte on the wire: no
//           TLS goodbye, no shutdown of the socket. false after one log line: nothing was handed on; the host has
//           been told 0 ("busy"), or the connection is no good any more.
//   Time    each step ends within CONNTIMEOUT.
//
// share_connection
//   The same for any open descriptor, which stays the caller's, and a text of at most kMaxHandOverText bytes.
//   path    the local socket of the process that takes it
//   Result  false after one error line
//
// take_connection
//   The other side of both: takes what comes through a local socket that was accepted and told its place.
//   message  set to a new text on success, else untouched; NULL when nobody wants it
//   Result   a descriptor, close-on-exec, for the caller to close; -1 after one error line
//
// Vesk_CheckAndSetHAState
//   Reads the hub's configuration (hub_config.h) in a work directory and defines the hard classes that follow from it.
//
// Vesk_ReloadHAConfig
//   Reads it again, in the work directory of this process.
//
// VeskGetMaxVtHubProcesses
//   How many hosts a hub asks at once. The configuration is read at the first call, if nothing else did.

#endif
