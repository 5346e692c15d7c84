// Sockets and TLS peers for tests of the transport.
#ifndef TESTS_SUPPORT_SOCKETS_H
#define TESTS_SUPPORT_SOCKETS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <veltrane/globals.h>
#include <veltrane/owned.h>

#include "libveltrane/connection_info.h"
#include "libveltrane/keys.h"
#include "libveltrane/tls_context.h"

using veltrane::Descriptor;

struct SocketPair {
    SocketPair()
    {
        std::array<int, 2> fds{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()) != 0) {
            throw std::runtime_error("no socket pair");
        }
        ours = Descriptor(fds[0]);
        theirs = Descriptor(fds[1]);
    }

    Descriptor ours;
    Descriptor theirs;
};

// A socket that listens on a free port of 127.0.0.1.
struct LoopbackListener {
    LoopbackListener() : listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(listener.Get(), reinterpret_cast<sockaddr *>(&address), length) != 0 ||
            listen(listener.Get(), 16) != 0 ||
            getsockname(listener.Get(), reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            throw std::runtime_error("no loopback socket");
        }
        port = std::to_string(ntohs(address.sin_port));
    }

    Descriptor Accept() const { return Descriptor(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)); }

    Descriptor listener;
    std::string port;
};

// A plain connection to a port of 127.0.0.1.
inline Descriptor ConnectLoopback(const std::string &port)
{
    Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(std::stoi(port)));
    if (connect(fd.Get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("no connection to port " + port);
    }
    return fd;
}

// Send bytes as they are; false when the peer is gone.
inline bool SendBytes(int fd, std::string_view bytes)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// All bytes up to the end of the stream.
inline std::string ReadToEnd(int fd)
{
    std::string all;
    std::array<char, 4096> piece;
    ssize_t n = 0;
    while ((n = recv(fd, piece.data(), piece.size(), 0)) > 0) { all.append(piece.data(), static_cast<size_t>(n)); }
    return all;
}

// Whether no byte waits to be read.
inline bool NothingToRead(int fd)
{
    char byte = 0;
    return recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

// A time-out for the time of a test.
class TimeOut {
  public:
    explicit TimeOut(int seconds) : before_(std::exchange(CONNTIMEOUT, seconds)) {}
    ~TimeOut() { CONNTIMEOUT = before_; }
    TimeOut(const TimeOut &) = delete;
    TimeOut &operator=(const TimeOut &) = delete;

  private:
    int before_;
};

// A key pair that is in no file: the key of a host elsewhere.
struct ForeignHost {
    ForeignHost() : key(EVP_EC_gen("P-256"))
    {
        std::string error;
        contexts = veltrane::MakeTlsContexts(key.get(), &error);
        if (contexts == nullptr) {
            throw std::runtime_error(error);
        }
        identity = contexts->identity;
    }

    veltrane::KeyPtr key;
    std::shared_ptr<const veltrane::TlsContexts> contexts;
    std::string identity;
};

// Two ends of one TLS connection, in one process, each with a key of its own.
struct TlsPair {
    TlsPair()
    {
        std::thread other([this] { Connect(server_host, veltrane::TlsRole::server, &sockets.theirs, &server); });
        Connect(client_host, veltrane::TlsRole::client, &sockets.ours, &client);
        other.join();
        if (client == nullptr || server == nullptr) {
            throw std::runtime_error("no TLS connection");
        }
    }

    static void Connect(const ForeignHost &host, veltrane::TlsRole role, Descriptor *fd,
                        veltrane::ConnectionInfoPtr *ret_info)
    {
        veltrane::SslPtr ssl;
        if (veltrane::TlsHandshake(*host.contexts, role, fd->Get(), &ssl) == 0) {
            ret_info->reset(ConnectionInfoNew());
            ConnectionInfoSetSocket(ret_info->get(), fd->Get());
            ConnectionInfoSetSSL(ret_info->get(), ssl.release());
        }
    }

    ForeignHost client_host;
    ForeignHost server_host;
    SocketPair sockets;
    veltrane::ConnectionInfoPtr client;
    veltrane::ConnectionInfoPtr server;
};

#endif
