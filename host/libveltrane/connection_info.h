// What a connection is made of beside its public protocol number.
//
// The invariant: after any failure, and after a peer broke the framing, a connection is ended. Its socket is shut down
// (though not closed), and every later call fails with the errno of that failure, so that no caller goes on in the
// middle of a transaction.
#ifndef HOST_LIBVELTRANE_CONNECTION_INFO_H
#define HOST_LIBVELTRANE_CONNECTION_INFO_H

#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <string>

#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libveltrane/keys.h"
#include "libveltrane/send_pace.h"

namespace veltrane {

using SslPtr = std::unique_ptr<SSL, Destroyer<SSL_free>>;
using ConnectionInfoPtr = std::unique_ptr<ConnectionInfo, Destroyer<ConnectionInfoDestroy>>;

}  // namespace veltrane

struct ConnectionInfoInternal_ {
    int socket = -1;
    veltrane::SslPtr ssl;
    std::string identity;     // of the peer; empty before the handshake
    veltrane::SendPace pace;  // of the message that is being sent
    std::string gathered;     // transactions with status 'm' that wait for their TLS record to fill
    std::unique_ptr<char[]>
        record;  // of the last TLS record what no transaction has taken yet: nothing between messages
    size_t record_begin = 0;
    size_t record_end = 0;
    int failure = 0;  // errno of what ended the connection; 0 = it is open
    bool peer_closed = false;
    bool at_rest = true;  // nothing was sent since the last whole answer
    std::function<void()> before_next_send;
};

namespace veltrane {

// End the connection because of error (an errno), unless it has ended already.
void ConnectionEnd(ConnectionInfo *info, int error);

// Whether the peer closed the connection between two transactions, as one that has no more to say does.
bool ConnectionClosedByPeer(const ConnectionInfo *info);

// Call action once, before the next transaction is sent, or when the connection is destroyed, whichever comes first.
// An answer is put together before its first transaction: what guards the putting together can be let go then, so that
// no lock is held across network I/O.
void ConnectionBeforeNextSend(ConnectionInfo *info, std::function<void()> action);

// End an open connection in good order: the peer reads the end of the stream, not an error. What was gathered and never
// flushed is dropped. The socket stays open.
void ConnectionSayGoodbye(ConnectionInfo *info);

// The public key that the peer of a finished handshake has shown; NULL when it has shown none.
KeyPtr PeerKey(SSL *ssl);

}  // namespace veltrane

#endif
