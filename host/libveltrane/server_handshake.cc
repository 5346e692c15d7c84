#include "libveltrane/server_handshake.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <veltrane/errors.h>
#include <veltrane/logging.h>

#include "libveltrane/hello.h"
#include "libveltrane/last_seen.h"
#include "libveltrane/net_address.h"
#include "libveltrane/tls_context.h"

namespace veltrane {

namespace {

constexpr std::string_view kNoCommonProtocol = "BAD: no common protocol version";

// Agree on a version with a trusted peer; Refusal::none when done.
Refusal AnswerHello(ConnectionInfo *connection, int *ret_error)
{
    int highest = -1;
    if (!ReceiveHello(connection, &highest)) {
        *ret_error = errno;
        return Refusal::no_common_protocol;
    }
    if (highest < kLowestWireProtocol) {
        // It is refused either way; whether it hears why makes no difference here.
        (void)SendTransaction(connection, kNoCommonProtocol.data(), static_cast<int>(kNoCommonProtocol.size()), 't');
        return Refusal::no_common_protocol;
    }
    const int agreed = std::min(highest, kHighestWireProtocol);
    if (SendHello(connection, agreed) != 0) {
        *ret_error = errno;
        return Refusal::no_common_protocol;
    }
    ConnectionInfoSetProtocolVersion(connection, static_cast<ProtocolVersion>(agreed));
    return Refusal::none;
}

}  // namespace

AcceptedPeer AcceptPeer(int fd)
{
    AcceptedPeer peer;
    peer.address = PeerAddress(fd);
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));  // a socket pair has no such delay

    const std::shared_ptr<const TlsContexts> contexts = CurrentTlsContexts();
    if (contexts == nullptr) {
        peer.error = ENOTCONN;
        return peer;
    }
    SslPtr ssl;
    peer.error = TlsHandshake(*contexts, TlsRole::server, fd, &ssl);
    if (peer.error != 0) {
        return peer;
    }
    const KeyPtr key = PeerKey(ssl.get());
    peer.identity = KeyIdentity(key.get());
    if (!IsTrusted(peer.identity)) {
        RememberSeenKey(key.get());
        peer.refusal = Refusal::not_trusted;
        return peer;
    }
    ConnectionInfoPtr connection(ConnectionInfoNew());
    ConnectionInfoSetSocket(connection.get(), fd);
    ConnectionInfoSetSSL(connection.get(), ssl.release());
    peer.refusal = AnswerHello(connection.get(), &peer.error);
    if (peer.refusal == Refusal::none) {
        NoteSeenPeer(peer.identity, peer.address, SeenDirection::incoming);
        peer.connection = std::move(connection);
    }
    return peer;
}

void LogRefusal(const AcceptedPeer &peer)
{
    switch (peer.refusal) {
        case Refusal::none:
            return;
        case Refusal::no_handshake:
            errno = peer.error;
            Log(LOG_LEVEL_VERBOSE, "No handshake with %s: %s", peer.address.c_str(), GetErrorStr());
            return;
        case Refusal::not_trusted:
            Log(LOG_LEVEL_NOTICE, "Refused a connection from %s: key %s is not trusted", peer.address.c_str(),
                peer.identity.c_str());
            return;
        case Refusal::no_common_protocol:
            Log(LOG_LEVEL_VERBOSE, "No common protocol version with %s (%s)", peer.address.c_str(),
                peer.identity.c_str());
            return;
    }
}

}  // namespace veltrane
