// The TLS of this process: one context for each side of a connection, and the handshake over a socket.
//
// TLS 1.2 or newer, both sides show a certificate. It is made at start from the host's key and signed by itself; what a
// peer's certificate says beside its key counts for nothing, so any certificate is let through the handshake and the
// caller judges the key. No tickets, no resumption, no renegotiation, no read-ahead: between two messages no byte sits
// in a buffer, so a socket can be handed on.
#ifndef HOST_LIBVELTRANE_TLS_CONTEXT_H
#define HOST_LIBVELTRANE_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "libveltrane/connection_info.h"
#include "libveltrane/keys.h"

namespace veltrane {

using SslContextPtr = std::unique_ptr<SSL_CTX, Destroyer<SSL_CTX_free>>;

enum class TlsRole { client, server };

// The contexts of one key pair. Any number of threads may use them at once.
struct TlsContexts {
    SslContextPtr client;
    SslContextPtr server;
    std::string identity;  // own
};

// The contexts for a key; NULL, with ret_error set, when OpenSSL makes none of it.
std::shared_ptr<const TlsContexts> MakeTlsContexts(EVP_PKEY *key, std::string *ret_error);

// Do the handshake on a connected socket, within one transaction's time-out. The socket stays the caller's.
//
// ret_ssl  the finished TLS object
// Result   0, else errno: ETIMEDOUT, ECONNRESET when the peer went away, EPROTO when it spoke something else or showed
//          no certificate
[[nodiscard]] int TlsHandshake(const TlsContexts &contexts, TlsRole role, int fd, SslPtr *ret_ssl);

// The contexts of this process between vtnet_Init and vtnet_Shut; NULL outside.
std::shared_ptr<const TlsContexts> CurrentTlsContexts();

}  // namespace veltrane

#endif
