// A peer of the plug-in's server rooms, in this process: it collects what they send.
#ifndef TESTS_SUPPORT_SERVED_CONNECTION_H
#define TESTS_SUPPORT_SERVED_CONNECTION_H

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

// A transaction as it stood on the wire.
using Transaction = std::pair<char, std::string>;

// A connection between the service and a peer of this process that collects what it is sent.
class Connection {
  public:
    Connection()
    {
        signal(SIGPIPE, SIG_IGN);
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ConnectionInfo *info = ConnectionInfoNew();
        ConnectionInfoSetSocket(info, ends[0]);
        ConnectionInfoSetProtocolVersion(info, VT_PROTOCOL_COOKIE);
        conn_.reset(ServerConnectionStateNew(info));
        peer_ = ends[1];
        reader_ = std::thread([this] { ReadAll(); });
    }
    ~Connection() { Received(); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    ServerConnectionState *get() const { return conn_.get(); }

    // Everything that was sent, once the connection is closed.
    const std::vector<Transaction> &Received()
    {
        if (conn_ != nullptr) {
            conn_.reset();
            reader_.join();
            close(peer_);
        }
        return received_;
    }

    // From now on every send fails.
    void Shut() const { shutdown(ConnectionInfoSocket(conn_->conn_info), SHUT_WR); }

  private:
    bool Read(char *bytes, size_t size) const
    {
        for (size_t done = 0; done < size;) {
            const ssize_t n = read(peer_, bytes + done, size - done);
            if (n <= 0) {
                return false;
            }
            done += static_cast<size_t>(n);
        }
        return true;
    }

    void ReadAll()
    {
        unsigned char header[4];
        while (Read(reinterpret_cast<char *>(header), sizeof(header))) {
            const size_t length =
                (static_cast<size_t>(header[1]) << 16) | (static_cast<size_t>(header[2]) << 8) | header[3];
            std::string payload(length, '\0');
            if (!Read(payload.data(), length)) {
                return;
            }
            received_.emplace_back(static_cast<char>(header[0]), payload);
        }
    }

    std::unique_ptr<ServerConnectionState, veltrane::Destroyer<ServerConnectionStateDestroy>> conn_;
    int peer_;
    std::thread reader_;
    std::vector<Transaction> received_;
};

// A text as it travels in a report: with its zero.
inline std::string WithZero(const std::string &text) { return text + std::string(1, '\0'); }

#endif
