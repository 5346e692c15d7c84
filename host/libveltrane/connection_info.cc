#include "libveltrane/connection_info.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "libveltrane/socket_io.h"

namespace veltrane {

namespace {

constexpr std::chrono::seconds kGoodbyeTime{1};  // a courtesy is worth no longer wait

void RunBeforeSend(ConnectionInfoInternal_ *internal)
{
    if (internal->before_next_send) {
        std::exchange(internal->before_next_send, nullptr)();
    }
}

// A TLS object that was given OpenSSL's own socket BIO would wait without a deadline: it gets ours instead. Safe
// because that BIO holds no bytes.
void PutSocketBioBelow(SSL *ssl)
{
    const int fd = SSL_get_fd(ssl);
    if (fd < 0 || IsSocketBio(SSL_get_rbio(ssl))) {
        return;
    }
    BIO *bio = SocketBioNew(fd);
    if (bio != nullptr) {
        SSL_set_bio(ssl, bio, bio);
    }
}

}  // namespace

void ConnectionEnd(ConnectionInfo *info, int error)
{
    ConnectionInfoInternal_ *internal = info->internal;
    if (internal->failure != 0) {
        return;
    }
    internal->failure = error != 0 ? error : EPROTO;
    internal->gathered.clear();
    if (internal->socket >= 0) {
        (void)shutdown(internal->socket, SHUT_RDWR);  // it may be gone already
    }
}

bool ConnectionClosedByPeer(const ConnectionInfo *info) { return info->internal->peer_closed; }

void ConnectionBeforeNextSend(ConnectionInfo *info, std::function<void()> action)
{
    RunBeforeSend(info->internal);
    info->internal->before_next_send = std::move(action);
}

void ConnectionSayGoodbye(ConnectionInfo *info)
{
    ConnectionInfoInternal_ *internal = info->internal;
    if (internal->failure == 0 && internal->ssl != nullptr) {
        BIO *bio = SSL_get_wbio(internal->ssl.get());
        if (IsSocketBio(bio)) {
            SocketBioSetDeadline(bio, std::chrono::steady_clock::now() + kGoodbyeTime);
        }
        ERR_clear_error();
        (void)SSL_shutdown(internal->ssl.get());  // our close alert; the peer's is not waited for
        ERR_clear_error();
    }
    ConnectionEnd(info, ENOTCONN);
}

KeyPtr PeerKey(SSL *ssl)
{
    X509 *certificate = SSL_get0_peer_certificate(ssl);
    return KeyPtr(certificate != nullptr ? X509_get_pubkey(certificate) : nullptr);
}

}  // namespace veltrane

extern "C" {

ConnectionInfo *ConnectionInfoNew(void)
{
    return new ConnectionInfo{VT_PROTOCOL_UNDEFINED, new ConnectionInfoInternal_};
}

void ConnectionInfoDestroy(ConnectionInfo *info)
{
    if (info == nullptr) {
        return;
    }
    veltrane::RunBeforeSend(info->internal);
    delete info->internal;
    delete info;
}

ProtocolVersion ConnectionInfoProtocolVersion(const ConnectionInfo *info) { return info->protocol; }

SSL *ConnectionInfoSSL(const ConnectionInfo *info) { return info->internal->ssl.get(); }

int ConnectionInfoSocket(const ConnectionInfo *info) { return info->internal->socket; }

const char *ConnectionInfoIdentity(const ConnectionInfo *info)
{
    return info->internal->identity.empty() ? nullptr : info->internal->identity.c_str();
}

void ConnectionInfoSetProtocolVersion(ConnectionInfo *info, ProtocolVersion version) { info->protocol = version; }

void ConnectionInfoSetSocket(ConnectionInfo *info, int fd) { info->internal->socket = fd; }

void ConnectionInfoSetSSL(ConnectionInfo *info, SSL *ssl)
{
    info->internal->ssl.reset(ssl);
    info->internal->identity.clear();
    info->internal->gathered.clear();
    info->internal->record_begin = info->internal->record_end = 0;
    if (ssl == nullptr) {
        return;
    }
    veltrane::PutSocketBioBelow(ssl);
    const veltrane::KeyPtr key = veltrane::PeerKey(ssl);
    if (key != nullptr) {
        info->internal->identity = veltrane::KeyIdentity(key.get());
    }
}

}  // extern "C"
