// The policy functions that ask other hosts, and the hub about its hosts.
//
//   remotescalar   [handle, server] or [handle, server, yes|no]
//                  the value that another host's server daemon publishes under the handle; server is a name or address,
//                  with ":port" where it is another than our own. "yes" asks for encryption of what would else go in
//                  the clear, and nothing does. Each value is kept; when the server gives none, the last one that this
//                  bundle had under this handle stands for it, with a warning, and with the tag "source=cache" on what
//                  takes the value. Without one the function fails
//   hostswithclass [class, name|address]
//                  on a hub, a list of the hosts that reported the class, by name or by address
//
// The network is set up by the first call of a process that has not done so. Each step of a look-up ends within
// CONNTIMEOUT, so a daemon whose policy asks itself waits that long and goes on.
#ifndef HOST_LIBVELTRANE_POLICY_FUNCTIONS_REMOTE_H
#define HOST_LIBVELTRANE_POLICY_FUNCTIONS_REMOTE_H

#include "libveltrane/policy_function.h"

namespace veltrane {

// What the hub is asked to list, as the last argument of ListHostsWithField: the field that hosts are told by. What the
// numbers mean is between host and hub library: never renumber.
enum HostsWithField {
    kHostsWithClass = 0,
};

Answer RemoteScalar(const FunctionCall &call);
Answer HostsWithClass(const FunctionCall &call);

}  // namespace veltrane

#endif
