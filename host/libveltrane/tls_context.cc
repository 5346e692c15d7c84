#include "libveltrane/tls_context.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <cerrno>

#include "libveltrane/socket_io.h"

namespace veltrane {

namespace {

using CertificatePtr = std::unique_ptr<X509, Destroyer<X509_free>>;

constexpr long kDay = 24L * 60 * 60;
constexpr long kMaxCertificateBytes = 16L * 1024;  // a peer's certificate is one of ours: far below

// Edwards curves hash by themselves.
const EVP_MD *SigningDigest(EVP_PKEY *key)
{
    return EVP_PKEY_is_a(key, "ED25519") == 1 || EVP_PKEY_is_a(key, "ED448") == 1 ? nullptr : EVP_sha256();
}

CertificatePtr SelfSignedCertificate(EVP_PKEY *key, const std::string &identity)
{
    CertificatePtr certificate(X509_new());
    uint64_t serial = 0;
    if (certificate == nullptr || RAND_bytes(reinterpret_cast<unsigned char *>(&serial), sizeof(serial)) != 1) {
        return nullptr;
    }
    X509 *x = certificate.get();
    X509_NAME *name = X509_get_subject_name(x);  // lent: changed in place
    const auto *text = reinterpret_cast<const unsigned char *>(identity.c_str());
    // A common name takes 64 characters: the digest without its "SHA=". The day before allows for clocks that differ.
    const bool made = X509_set_version(x, X509_VERSION_3) == 1 &&
                      ASN1_INTEGER_set_uint64(X509_get_serialNumber(x), serial >> 1) == 1 &&
                      X509_gmtime_adj(X509_getm_notBefore(x), -kDay) != nullptr &&
                      X509_gmtime_adj(X509_getm_notAfter(x), 3650 * kDay) != nullptr &&
                      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text + 4, -1, -1, 0) == 1 &&
                      X509_set_issuer_name(x, name) == 1 && X509_set_pubkey(x, key) == 1 &&
                      X509_sign(x, key, SigningDigest(key)) > 0;
    return made ? std::move(certificate) : nullptr;
}

// Only the key counts, and the caller judges it after the handshake has proved that the peer holds it.
int LetEveryCertificateThrough(X509_STORE_CTX *, void *) { return 1; }

SslContextPtr MakeContext(const SSL_METHOD *method, EVP_PKEY *key, X509 *certificate)
{
    SslContextPtr context(SSL_CTX_new(method));
    if (context == nullptr) {
        return nullptr;
    }
    SSL_CTX *c = context.get();
    SSL_CTX_set_options(c, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_read_ahead(c, 0);
    SSL_CTX_set_max_cert_list(c, kMaxCertificateBytes);
    SSL_CTX_set_verify(c, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_cert_verify_callback(c, LetEveryCertificateThrough, nullptr);
    // Without the first, unread tickets turn a client's close into a reset, and the tail of what it sent is lost.
    const bool ready = SSL_CTX_set_num_tickets(c, 0) == 1 && SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION) == 1 &&
                       SSL_CTX_set_cipher_list(c, "ECDHE+AESGCM:ECDHE+CHACHA20") == 1 &&
                       SSL_CTX_use_certificate(c, certificate) == 1 && SSL_CTX_use_PrivateKey(c, key) == 1;
    return ready ? std::move(context) : nullptr;
}

int HandshakeError(SSL *ssl, BIO *bio, int result)
{
    if (SSL_get_error(ssl, result) == SSL_ERROR_SYSCALL && SocketBioError(bio) != 0) {
        return SocketBioError(bio);
    }
    return BIO_eof(bio) == 1 ? ECONNRESET : EPROTO;
}

}  // namespace

std::shared_ptr<const TlsContexts> MakeTlsContexts(EVP_PKEY *key, std::string *ret_error)
{
    auto contexts = std::make_shared<TlsContexts>();
    contexts->identity = KeyIdentity(key);
    const CertificatePtr certificate = SelfSignedCertificate(key, contexts->identity);
    if (certificate != nullptr) {
        contexts->client = MakeContext(TLS_client_method(), key, certificate.get());
        contexts->server = MakeContext(TLS_server_method(), key, certificate.get());
    }
    if (contexts->client == nullptr || contexts->server == nullptr) {
        const char *reason = ERR_reason_error_string(ERR_peek_error());
        *ret_error = std::string("Could not set up TLS: ") + (reason != nullptr ? reason : "unknown reason");
        ERR_clear_error();
        return nullptr;
    }
    return contexts;
}

int TlsHandshake(const TlsContexts &contexts, TlsRole role, int fd, SslPtr *ret_ssl)
{
    SslPtr ssl(SSL_new(role == TlsRole::client ? contexts.client.get() : contexts.server.get()));
    BIO *bio = ssl != nullptr ? SocketBioNew(fd) : nullptr;
    if (bio == nullptr) {
        return ENOMEM;
    }
    SSL_set_bio(ssl.get(), bio, bio);
    SocketBioSetDeadline(bio, TransactionDeadline());
    ERR_clear_error();
    const int result = role == TlsRole::client ? SSL_connect(ssl.get()) : SSL_accept(ssl.get());
    const int error = result == 1 ? 0 : HandshakeError(ssl.get(), bio, result);
    ERR_clear_error();
    SocketBioSetDeadline(bio, std::nullopt);
    if (error == 0) {
        *ret_ssl = std::move(ssl);
    }
    return error;
}

}  // namespace veltrane
