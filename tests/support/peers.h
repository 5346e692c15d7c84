// Peers of a running daemon that do not behave, and what the daemon's process looks like meanwhile.
#ifndef TESTS_SUPPORT_PEERS_H
#define TESTS_SUPPORT_PEERS_H

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libveltrane/connection_info.h"
#include "libveltrane/hello.h"
#include "libveltrane/keys.h"
#include "libveltrane/tls_context.h"
#include "support/process.h"
#include "support/sockets.h"

// A number of /proc/PID/status, as Threads or VmRSS (KiB); -1 when the process is not there.
inline long ProcessNumber(pid_t pid, const std::string &name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::stol(line.substr(name.size() + 1));
        }
    }
    return -1;
}

// Wait until something that no descriptor tells of has happened; false when it has not within the time.
inline bool Eventually(const std::function<bool()> &happened,
                       std::chrono::milliseconds time_out = std::chrono::seconds(20))
{
    const auto end = std::chrono::steady_clock::now() + time_out;
    while (!happened()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        poll(nullptr, 0, 10);
    }
    return true;
}

// Whether the other side ends the connection, in good order or by a reset; what it sends before is read away.
inline bool IsEnded(int fd, std::chrono::milliseconds time_out = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + time_out;
    std::array<char, 4096> bytes;
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd waiting{fd, POLLIN, 0};
        if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) == 0) {
            return false;
        }
        if (recv(fd, bytes.data(), bytes.size(), 0) <= 0) {
            return true;
        }
    }
}

// A connection from another of the loopback addresses, 127.0.0.<last>.
inline Descriptor ConnectFrom(int last, const std::string &port)
{
    Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + static_cast<in_addr_t>(last));
    if (bind(fd.Get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("no address 127.0.0." + std::to_string(last));
    }
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(std::stoi(port)));
    if (connect(fd.Get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("no connection to port " + port);
    }
    return fd;
}

// Go away as a machine does whose power fails and comes back: a reset, no close.
inline void Vanish(Descriptor *fd)
{
    const linger hard{1, 0};
    setsockopt(fd->Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    fd->Close();
}

inline veltrane::KeyPtr ReadPrivateKey(const std::string &path)
{
    const veltrane::FilePtr file(fopen(path.c_str(), "r"));
    return veltrane::KeyPtr(file != nullptr ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr);
}

// A self-made certificate of a key, valid between two times (seconds from now), signed by itself or by another key.
using CertificatePtr = std::unique_ptr<X509, veltrane::Destroyer<X509_free>>;

inline CertificatePtr MakeCertificate(EVP_PKEY *key, EVP_PKEY *signer, long from, long to)
{
    CertificatePtr certificate(X509_new());
    X509 *x = certificate.get();
    X509_set_version(x, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), from);
    X509_gmtime_adj(X509_getm_notAfter(x), to);
    X509_set_pubkey(x, key);
    return X509_sign(x, signer, EVP_sha256()) > 0 ? std::move(certificate) : nullptr;
}

// A TLS client of its own make. The settings are changed on context before Connect.
struct TlsPeer {
    TlsPeer(EVP_PKEY *key, X509 *certificate) : context(SSL_CTX_new(TLS_client_method()))
    {
        SSL_CTX_use_certificate(context.get(), certificate);
        SSL_CTX_use_PrivateKey(context.get(), key);
    }
    explicit TlsPeer(EVP_PKEY *key) : TlsPeer(key, MakeCertificate(key, key, -60, 3600).get()) {}

    // The handshake; false when it fails.
    bool Connect(const std::string &port)
    {
        fd = ConnectLoopback(port);
        veltrane::SslPtr made(SSL_new(context.get()));
        SSL_set_fd(made.get(), fd.Get());
        if (SSL_connect(made.get()) != 1) {
            return false;
        }
        info.reset(ConnectionInfoNew());
        ConnectionInfoSetSocket(info.get(), fd.Get());
        ConnectionInfoSetSSL(info.get(), made.release());
        return true;
    }

    // And the version; the one agreed, -1 when there is none.
    int ConnectAndGreet(const std::string &port)
    {
        int version = -1;
        const bool answered = Connect(port) && veltrane::SendHello(info.get(), veltrane::kHighestWireProtocol) == 0 &&
                              veltrane::ReceiveHello(info.get(), &version);
        return answered ? version : -1;
    }

    SSL *Ssl() const { return ConnectionInfoSSL(info.get()); }

    // Bytes below the transactions; false when they cannot be sent.
    bool SendInside(std::string_view bytes) const
    {
        return SSL_write(Ssl(), bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size());
    }

    veltrane::SslContextPtr context;
    Descriptor fd;
    veltrane::ConnectionInfoPtr info;
};

#endif
