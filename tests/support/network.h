// A test of the transport in which this process is both ends of a connection over loopback.
#ifndef TESTS_SUPPORT_NETWORK_H
#define TESTS_SUPPORT_NETWORK_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <veltrane/dbm_api.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "libveltrane/server_handshake.h"
#include "support/sockets.h"
#include "support/work_dir.h"

using AgentPtr = std::unique_ptr<AgentConnection, veltrane::Destroyer<DisconnectServer>>;

// The payload of the next transaction, or the reason in brackets.
inline std::string ReceiveText(ConnectionInfo *info)
{
    char payload[VT_BUFSIZE];
    const int length = ReceiveTransaction(info, payload, nullptr);
    return length < 0 ? "(" + std::string(strerror(errno)) + ")" : std::string(payload, static_cast<size_t>(length));
}

// What the last-seen database holds under a key; nothing when it holds none.
inline KeyHostSeen SeenPeer(const std::string &key, bool *ret_there)
{
    KeyHostSeen seen{};
    DBHandle *db = nullptr;
    EXPECT_TRUE(OpenDB(&db, dbid_lastseen));
    *ret_there = ReadDB(db, key.c_str(), &seen, sizeof(seen));
    CloseDB(db);
    return seen;
}

// This process is both ends, so both have the same key: the own one, which is trusted. Strangers are ForeignHosts.
class NetworkTest : public testing::Test {
  protected:
    NetworkTest() { vtnet_Init(); }
    ~NetworkTest() override
    {
        if (server.joinable()) {
            server.join();
        }
        vtnet_Shut();
    }

    // One connection is accepted and handed to serve, in a thread.
    void Serve(std::function<void(Descriptor)> serve)
    {
        if (server.joinable()) {
            server.join();
        }
        server = std::thread([this, serve = std::move(serve)] { serve(listener.Accept()); });
    }

    // The server as the daemon has it: what AcceptPeer made of the connection is in accepted.
    void ServeProperly()
    {
        Serve([this](Descriptor fd) {
            accepted = veltrane::AcceptPeer(fd.Get());
            accepted_socket = std::move(fd);
            if (accepted.connection == nullptr) {
                accepted_socket.Close();
            }
        });
    }

    AgentPtr Connect(ConnectionFlags flags = {}, const Rlist *keys = nullptr)
    {
        error = 0;
        errno = 0;
        AgentPtr conn(ServerConnection("127.0.0.1", listener.port.c_str(), keys, 5, flags, &error));
        failure = errno;
        return conn;
    }

    std::string OwnIdentity() const { return veltrane::CurrentTlsContexts()->identity; }

    WorkDirectory work;
    LoopbackListener listener;
    std::thread server;
    veltrane::AcceptedPeer accepted;
    Descriptor accepted_socket;
    int error = 0;
    int failure = 0;
};

#endif
