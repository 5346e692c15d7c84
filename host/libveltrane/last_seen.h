// Which peers this host has met: the last-seen database, one sighting a connection, whoever opened it.
//
//   "qi" + identity  KeyHostSeen of the connections that the peer opened; "qo" + identity of those that we opened
//   "k" + identity   the peer's last address, with its zero
//   "p" + address    the identity last met there, with its zero
#ifndef HOST_LIBVELTRANE_LAST_SEEN_H
#define HOST_LIBVELTRANE_LAST_SEEN_H

#include <string>

namespace veltrane {

enum class SeenDirection : char { incoming = 'i', outgoing = 'o' };

// Note a peer that has shown its key and is trusted. address: "" when the system does not know it; the one noted before
// then stays. A database that cannot be written costs the note, with a verbose line, never the connection.
void NoteSeenPeer(const std::string &identity, const std::string &address, SeenDirection direction);

}  // namespace veltrane

#endif
