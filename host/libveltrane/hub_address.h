// Where this host's hub is: the file hub_address in the work directory, and what it makes of this host.
//
//   line 1   name or address of the hub; "localhost" on the hub itself
//   line 2   its port, where that is not this host's own (optional)
//
// Blanks around a line do not count, further lines are passed over. A host whose first line is "localhost" is the hub:
// it gets the hard classes am_policy_hub and policy_server, and never calls anybody.
#ifndef HOST_LIBVELTRANE_HUB_ADDRESS_H
#define HOST_LIBVELTRANE_HUB_ADDRESS_H

#include <optional>
#include <string>

#include <veltrane/types.h>

#include "libveltrane/trouble.h"

namespace veltrane {

// The first line of a hub's own file.
constexpr const char *kHubItself = "localhost";

struct HubAddress {
    std::string host;  // never empty
    std::string port;  // "" = none said, or what is said is no port from 1 to 65535
};

// What the file says; nothing when it is missing or its first line is empty.
std::optional<HubAddress> ReadHubAddress();

// Put a new file in the place of the old one, whole. What went wrong, in words; nothing when it is done.
Trouble WriteHubAddress(const HubAddress &hub);

// Whether this host is the hub.
bool IsHub();

// Define the classes of the hub when this host is one.
void PutHubClasses(EvalContext *ctx);

// Make the port of the hub the one that this program connects to where no other is named (VELTRANE_PORT_STR), if the
// file says one. Before there is a second thread.
void UsePortOfHub();

// Whether text is a port from 1 to 65535.
bool IsPortNumber(const std::string &text);

}  // namespace veltrane

#endif
