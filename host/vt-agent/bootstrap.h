// Bootstrap: tell a new host which hub is its own, and let it trust that hub's key, and no other.
//
// The hub is contacted before anything is written: its key, which it proves in the handshake, must be the one that the
// operator named; then the key is trusted and the hub's address is kept in the work directory (hub_address). A wrong
// key, or no hub, changes nothing. That the hub trusts this host is the hub's operator's to say; until then the hub
// closes every connection after the handshake, which is said here together with the command that is to be run there.
//
// When the key is this host's own, this host is the hub: nobody is contacted.
#ifndef HOST_VT_AGENT_BOOTSTRAP_H
#define HOST_VT_AGENT_BOOTSTRAP_H

#include <optional>
#include <string>

#include "libveltrane/hub_address.h"

namespace veltrane {

// What "HUB", "HUB:PORT" or "[HUB]:PORT" says; nothing when it is none of them.
std::optional<HubAddress> ParseHub(const std::string &text);

// Bootstrap to a hub with this key, "SHA=...". false after one error line; nothing has changed then, except that a hub
// that proved its key and then fell silent is trusted.
bool Bootstrap(const HubAddress &hub, const std::string &key);

}  // namespace veltrane

#endif
