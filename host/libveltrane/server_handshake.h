// The server's side of a new connection: TLS, trust, protocol version.
//
// A peer whose key is not trusted gets nothing beyond the TLS handshake. AcceptPeer logs nothing; what it hands back is
// enough for the caller's one line.
#ifndef HOST_LIBVELTRANE_SERVER_HANDSHAKE_H
#define HOST_LIBVELTRANE_SERVER_HANDSHAKE_H

#include <string>

#include "libveltrane/connection_info.h"

namespace veltrane {

enum class Refusal {
    none,                // the connection is ready for requests
    no_handshake,        // no TLS with a certificate came about; error says why
    not_trusted,         // identity says whose key it is; it is remembered for "trust add"
    no_common_protocol,  // the peer said no HELLO, or one below 2
};

struct AcceptedPeer {
    ConnectionInfoPtr connection;  // NULL unless refusal is none
    Refusal refusal = Refusal::no_handshake;
    std::string identity;  // of the peer; empty when it has shown none
    std::string address;   // numeric; empty when the socket has none
    int error = 0;         // errno of a failed handshake or HELLO
};

// Make a connection of an accepted socket. Each step ends within CONNTIMEOUT. A refused socket is neither closed nor
// written to any more; in a ready connection it stays open when the record is destroyed (ServerConnectionStateDestroy
// closes it).
AcceptedPeer AcceptPeer(int fd);

// The line of a daemon about a peer that it refused: whose key is not trusted at notice level, what is no peer of ours
// at verbose level; none for Refusal::none.
void LogRefusal(const AcceptedPeer &peer);

}  // namespace veltrane

#endif
