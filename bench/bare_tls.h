// TLS without a library of ours around it: what peers of figures are made of.
#ifndef BENCH_BARE_TLS_H
#define BENCH_BARE_TLS_H

#include <openssl/ssl.h>

#include <stdexcept>

#include "libveltrane/connection_info.h"

namespace bench {

// The handshake of one side over a connected socket. Throws when there is none, or the peer shows no certificate.
inline veltrane::SslPtr BareHandshake(SSL_CTX *context, int fd, bool is_server)
{
    veltrane::SslPtr ssl(SSL_new(context));
    (void)SSL_set_fd(ssl.get(), fd);
    if ((is_server ? SSL_accept(ssl.get()) : SSL_connect(ssl.get())) != 1 ||
        SSL_get0_peer_certificate(ssl.get()) == nullptr) {
        throw std::runtime_error("no handshake");
    }
    return ssl;
}

}  // namespace bench

#endif
