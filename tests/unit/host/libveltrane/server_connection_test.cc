#include "libveltrane/server_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>

#include <veltrane/globals.h>
#include <veltrane/rlist.h>

#include "libveltrane/hello.h"
#include "libveltrane/keys.h"
#include "support/log_capture.h"
#include "support/network.h"
#include "support/texts.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using veltrane::ConnectionInfoPtr;
using veltrane::Refusal;
using veltrane::RlistPtr;
using veltrane::SslPtr;
using veltrane::TlsRole;

using Network = NetworkTest;

TEST_F(Network, BothSidesAgreeOnTheNewestVersionAndKnowEachOther)
{
    ServeProperly();
    const AgentPtr conn = Connect();
    server.join();
    ASSERT_NE(conn, nullptr) << error;
    ASSERT_NE(accepted.connection, nullptr);
    EXPECT_EQ(ConnectionInfoProtocolVersion(conn->conn_info), VT_PROTOCOL_FILESTREAM);
    EXPECT_EQ(ConnectionInfoProtocolVersion(accepted.connection.get()), VT_PROTOCOL_FILESTREAM);
    EXPECT_EQ(ConnectionInfoIdentity(conn->conn_info), OwnIdentity());
    EXPECT_EQ(accepted.identity, OwnIdentity());
    EXPECT_EQ(accepted.address, "127.0.0.1");
    EXPECT_EQ(conn->session_key, nullptr);

    ASSERT_EQ(SendTransaction(conn->conn_info, "QUERY", 5, 't'), 0);
    EXPECT_EQ(ReceiveText(accepted.connection.get()), "QUERY");
}

TEST_F(Network, TheLowerVersionOfBothIsAgreed)
{
    for (const ProtocolVersion version : {VT_PROTOCOL_TLS, VT_PROTOCOL_COOKIE, VT_PROTOCOL_FILESTREAM}) {
        ServeProperly();
        ConnectionFlags flags{};
        flags.protocol_version = version;
        const AgentPtr conn = Connect(flags);
        server.join();
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(ConnectionInfoProtocolVersion(conn->conn_info), version);
        EXPECT_EQ(ConnectionInfoProtocolVersion(accepted.connection.get()), version);
    }
}

TEST_F(Network, ClassicIsNeverSpokenOnAWire)
{
    ConnectionFlags flags{};
    flags.protocol_version = VT_PROTOCOL_CLASSIC;
    EXPECT_EQ(Connect(flags), nullptr);
    EXPECT_EQ(error, -4);
    EXPECT_EQ(failure, EPROTONOSUPPORT);
}

TEST_F(Network, AServerThatAnswersNoVersionOfOursHasNoCommonProtocol)
{
    for (const std::string hello : {"HELLO 1", "HELLO 5", "BAD: no common protocol version", "rubbish"}) {
        Serve([hello](Descriptor fd) {
            SslPtr ssl;
            ASSERT_EQ(veltrane::TlsHandshake(*veltrane::CurrentTlsContexts(), TlsRole::server, fd.Get(), &ssl), 0);
            const ConnectionInfoPtr info(ConnectionInfoNew());
            ConnectionInfoSetSocket(info.get(), fd.Get());
            ConnectionInfoSetSSL(info.get(), ssl.release());
            ReceiveText(info.get());
            SendTransaction(info.get(), hello.data(), static_cast<int>(hello.size()), 't');
        });
        EXPECT_EQ(Connect(), nullptr);
        EXPECT_EQ(error, -4) << hello;
        EXPECT_EQ(failure, EPROTONOSUPPORT);
    }
}

TEST_F(Network, AVersionAboveTheOneAskedForIsNotTaken)
{
    Serve([](Descriptor fd) {
        SslPtr ssl;
        ASSERT_EQ(veltrane::TlsHandshake(*veltrane::CurrentTlsContexts(), TlsRole::server, fd.Get(), &ssl), 0);
        const ConnectionInfoPtr info(ConnectionInfoNew());
        ConnectionInfoSetSSL(info.get(), ssl.release());
        EXPECT_EQ(ReceiveText(info.get()), "HELLO 2");
        veltrane::SendHello(info.get(), 4);
    });
    ConnectionFlags flags{};
    flags.protocol_version = VT_PROTOCOL_TLS;
    EXPECT_EQ(Connect(flags), nullptr);
    EXPECT_EQ(error, -4);
}

TEST_F(Network, AnUntrustedServerIsRefusedAndItsKeyRemembered)
{
    const ForeignHost stranger;
    Serve([&stranger](Descriptor fd) {
        SslPtr ssl;
        ASSERT_EQ(veltrane::TlsHandshake(*stranger.contexts, TlsRole::server, fd.Get(), &ssl), 0);
        EXPECT_EQ(ReadToEnd(fd.Get()), "") << "not even a HELLO";
    });
    EXPECT_EQ(Connect(), nullptr);
    EXPECT_EQ(error, -3);
    EXPECT_EQ(failure, EACCES);
    std::string added;
    EXPECT_EQ(veltrane::TrustAdd(stranger.identity, "", &added), "");
}

TEST_F(Network, TrustServerTrustsAKeyNotSeenBefore)
{
    const ForeignHost stranger;
    Serve([&stranger](Descriptor fd) {
        SslPtr ssl;
        ASSERT_EQ(veltrane::TlsHandshake(*stranger.contexts, TlsRole::server, fd.Get(), &ssl), 0);
        const ConnectionInfoPtr info(ConnectionInfoNew());
        ConnectionInfoSetSSL(info.get(), ssl.release());
        ReceiveText(info.get());
        veltrane::SendHello(info.get(), 4);
    });
    ConnectionFlags flags{};
    flags.trust_server = true;
    EXPECT_NE(Connect(flags), nullptr);
    EXPECT_TRUE(veltrane::IsTrusted(stranger.identity));
}

TEST_F(Network, OnlyTheKeysOfTheListAreTakenHoweverTrusted)
{
    ServeProperly();
    const RlistPtr other = RlistOf({ForeignHost().identity});
    EXPECT_EQ(Connect({}, other.get()), nullptr);
    EXPECT_EQ(error, -3);
    EXPECT_EQ(failure, EACCES);
    ServeProperly();
    const RlistPtr own = RlistOf({OwnIdentity()});
    EXPECT_NE(Connect({}, own.get()), nullptr);
}

TEST_F(Network, AKeyOfTheListIsNotTrustedForThat)
{
    const ForeignHost stranger;
    Serve([&stranger](Descriptor fd) {
        SslPtr ssl;
        EXPECT_EQ(veltrane::TlsHandshake(*stranger.contexts, TlsRole::server, fd.Get(), &ssl), 0);
        ReadToEnd(fd.Get());
    });
    const RlistPtr keys = RlistOf({stranger.identity});
    EXPECT_EQ(Connect({}, keys.get()), nullptr);
    EXPECT_EQ(error, -3);
}

TEST_F(Network, AServerThatDoesNotTrustUsClosesInsteadOfSayingHello)
{
    Serve([](Descriptor fd) {
        SslPtr ssl;
        EXPECT_EQ(veltrane::TlsHandshake(*veltrane::CurrentTlsContexts(), TlsRole::server, fd.Get(), &ssl), 0);
    });
    EXPECT_EQ(Connect(), nullptr);
    EXPECT_EQ(error, -3);
    EXPECT_THAT(failure, testing::AnyOf(ECONNRESET, EPIPE));
}

TEST_F(Network, AServerThatIsNoneOfOursHasNoCommonProtocol)
{
    Serve([](Descriptor fd) {
        SendBytes(fd.Get(), "SSH-2.0-something else\r\n");
        ReadToEnd(fd.Get());
    });
    EXPECT_EQ(Connect(), nullptr);
    EXPECT_EQ(error, -4);
    EXPECT_EQ(failure, EPROTO);
}

TEST_F(Network, ASilentServerIsGivenUpAtTheTimeOut)
{
    const TimeOut one_second(1);
    Serve([](Descriptor fd) { ReadToEnd(fd.Get()); });
    EXPECT_EQ(Connect(), nullptr);
    EXPECT_EQ(error, -2);
    EXPECT_EQ(failure, ETIMEDOUT);
}

TEST_F(Network, APortThatNobodyListensOnGivesNoAnswer)
{
    const std::string port = listener.port;
    listener.listener.Close();
    EXPECT_EQ(ServerConnection("127.0.0.1", port.c_str(), nullptr, 5, {}, &error), nullptr);
    EXPECT_EQ(error, -2);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(Network, AHostThatIsNoneIsSaidSo)
{
    EXPECT_EQ(ServerConnection("127.0.0.1.1.1.1..", "6127", nullptr, 5, {}, &error), nullptr);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(errno, EHOSTUNREACH);
    for (const char *port : {"no port", "65536", "-1", "6127x"}) {
        error = 0;
        EXPECT_EQ(ServerConnection("127.0.0.1", port, nullptr, 5, {}, &error), nullptr);
        EXPECT_EQ(error, -1) << port;
        EXPECT_EQ(errno, EINVAL) << port;
    }
}

TEST_F(Network, WithoutAPortItIsTheUsualOne)
{
    const std::string before = VELTRANE_PORT_STR;
    snprintf(VELTRANE_PORT_STR, sizeof(VELTRANE_PORT_STR), "%s", listener.port.c_str());
    for (const char *port : {static_cast<const char *>(nullptr), ""}) {
        ServeProperly();
        EXPECT_NE(AgentPtr(ServerConnection("127.0.0.1", port, nullptr, 5, {}, &error)), nullptr);
    }
    snprintf(VELTRANE_PORT_STR, sizeof(VELTRANE_PORT_STR), "%s", before.c_str());
}

TEST_F(Network, BeforeInitAndAfterShutThereIsNoNetwork)
{
    EXPECT_TRUE(vtnet_IsInitialized());
    vtnet_Shut();
    EXPECT_FALSE(vtnet_IsInitialized());
    Serve([](Descriptor fd) { ReadToEnd(fd.Get()); });
    EXPECT_EQ(Connect(), nullptr);
    EXPECT_EQ(error, -3);
    EXPECT_EQ(failure, ENOKEY);
    vtnet_Init();
    EXPECT_TRUE(vtnet_IsInitialized());
}

TEST_F(Network, WithoutAKeyPairTheNetworkIsNotInitialised)
{
    vtnet_Shut();
    fs::remove_all(work.path / "keys");
    LogCapture log;
    vtnet_Init();
    EXPECT_FALSE(vtnet_IsInitialized());
    EXPECT_THAT(log.UpTo(LOG_LEVEL_ERR),
                ElementsAre(LogCapture::Line(LOG_LEVEL_ERR, "The network cannot be used. Could not write '" +
                                                                (work.path / "keys/host.priv").string() +
                                                                "': No such file or directory")));
}

TEST_F(Network, ShuttingTheNetworkClosesWhatWasLeftOpen)
{
    ServeProperly();
    AgentConnection *left_open = Connect().release();
    server.join();
    ASSERT_NE(left_open, nullptr);
    vtnet_Shut();
    EXPECT_EQ(ReceiveText(accepted.connection.get()), "(Connection reset by peer)");
    EXPECT_TRUE(veltrane::ConnectionClosedByPeer(accepted.connection.get()));
}

TEST_F(Network, DisconnectingIsAnEndInGoodOrder)
{
    ServeProperly();
    AgentPtr conn = Connect();
    server.join();
    ASSERT_NE(conn, nullptr);
    conn.reset();
    ReceiveText(accepted.connection.get());
    EXPECT_TRUE(veltrane::ConnectionClosedByPeer(accepted.connection.get()));
    EXPECT_EQ(SSL_get_shutdown(ConnectionInfoSSL(accepted.connection.get())), SSL_RECEIVED_SHUTDOWN);
}

TEST_F(Network, DeletingSendsNothingAndKeepsTheSocketForSomebodyElse)
{
    ServeProperly();
    AgentConnection *conn = Connect().release();
    server.join();
    ASSERT_NE(conn, nullptr);
    const Descriptor kept(ConnectionInfoSocket(conn->conn_info));
    DeleteAgentConn(conn);
    EXPECT_TRUE(NothingToRead(accepted_socket.Get()));
    vtnet_Shut();  // nothing of it is left to close
    EXPECT_TRUE(SendBytes(kept.Get(), "handed on"));
    std::array<char, 16> bytes{};
    EXPECT_EQ(recv(accepted_socket.Get(), bytes.data(), bytes.size(), 0), 9);
}

TEST_F(Network, ASocketThatIsConnectedAlreadyTakesANewHandshake)
{
    // As a collect call does it: the roles turn on one socket.
    ServeProperly();
    AgentConnection *first = Connect().release();
    server.join();
    ASSERT_NE(first, nullptr);
    Descriptor called(ConnectionInfoSocket(first->conn_info));
    DeleteAgentConn(first);
    accepted.connection.reset();
    std::thread caller([&] { accepted = veltrane::AcceptPeer(called.Get()); });
    const AgentPtr second(veltrane::ConnectOverSocket(accepted_socket.Get(), nullptr, {}, &error));
    caller.join();
    ASSERT_NE(second, nullptr);
    accepted_socket.Release();  // it belongs to the connection now
    ASSERT_EQ(SendTransaction(second->conn_info, "QUERY", 5, 't'), 0);
    EXPECT_EQ(ReceiveText(accepted.connection.get()), "QUERY");
}

TEST_F(Network, AnotherWayToConnectMayTakeThePlace)
{
    static int calls = 0;
    const ServerConnectionFunction ours = ServerConnectionReplace(
        [](const char *host, const char *port, const Rlist *, unsigned int, ConnectionFlags, int *) {
            EXPECT_STREQ(host, "127.0.0.1");
            EXPECT_NE(port, nullptr);
            ++calls;
            return veltrane::AgentConnectionNew(ConnectionInfoNew());
        });
    EXPECT_NE(Connect(), nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(ServerConnectionReplace(nullptr), ours);
    EXPECT_EQ(ServerConnectionReplace(ours), ours) << "NULL puts the own one back";
    ServeProperly();
    EXPECT_NE(Connect(), nullptr);
    EXPECT_EQ(calls, 1);
}

TEST_F(Network, EachSideNotesWhomItHasSeen)
{
    ServeProperly();
    const AgentPtr conn = Connect();
    server.join();
    bool outgoing = false;
    bool incoming = false;
    const KeyHostSeen seen = SeenPeer("qo" + OwnIdentity(), &outgoing);
    SeenPeer("qi" + OwnIdentity(), &incoming);
    EXPECT_TRUE(outgoing && incoming);
    EXPECT_GE(seen.lastseen, VTSTARTTIME);
    EXPECT_EQ(seen.Q.expect, 0.0);
}

TEST_F(Network, OffTheRecordLeavesNoEntry)
{
    ServeProperly();
    ConnectionFlags flags{};
    flags.off_the_record = true;
    const AgentPtr conn = Connect(flags);
    server.join();
    bool there = true;
    SeenPeer("qo" + OwnIdentity(), &there);
    EXPECT_FALSE(there);
}

TEST_F(Network, AScopeClosesWhatItsThreadLeftOpenInIt)
{
    ServeProperly();
    {
        const veltrane::ConnectionScope scope;
        ASSERT_NE(Connect().release(), nullptr);
    }
    server.join();
    ASSERT_NE(accepted.connection, nullptr);
    EXPECT_EQ(ReceiveText(accepted.connection.get()), "(Connection reset by peer)");
    EXPECT_TRUE(veltrane::ConnectionClosedByPeer(accepted.connection.get())) << "in good order";
}

TEST_F(Network, AScopeLeavesOtherConnectionsAlone)
{
    ServeProperly();
    const AgentPtr before = Connect();
    server.join();
    const veltrane::AcceptedPeer of_before = std::move(accepted);
    const Descriptor socket_of_before = std::move(accepted_socket);
    AgentPtr elsewhere;
    {
        const veltrane::ConnectionScope scope;
        {
            const veltrane::ConnectionScope inner;
        }
        ServeProperly();
        std::thread([this, &elsewhere] { elsewhere = Connect(); }).join();
    }
    server.join();
    ASSERT_TRUE(before != nullptr && elsewhere != nullptr);
    EXPECT_EQ(SendTransaction(of_before.connection.get(), "a", 1, 't'), 0);
    EXPECT_EQ(ReceiveText(before->conn_info), "a");
    EXPECT_EQ(SendTransaction(accepted.connection.get(), "b", 1, 't'), 0);
    EXPECT_EQ(ReceiveText(elsewhere->conn_info), "b");
}

TEST_F(Network, AConnectionThatWasPutAsideOutlivesTheScope)
{
    ConnectionFlags flags{};
    flags.cache_connection = true;
    ServeProperly();
    {
        const veltrane::ConnectionScope scope;
        ASSERT_NE(Connect(flags), nullptr);  // and disconnected
    }
    server.join();
    const AgentPtr again = Connect(flags);  // nobody accepts
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(SendTransaction(accepted.connection.get(), "a", 1, 't'), 0);
    EXPECT_EQ(ReceiveText(again->conn_info), "a");
}

TEST_F(Network, AScopeForgetsAConnectionThatWasEndedInIt)
{
    ServerConnectionReplace([](const char *, const char *, const Rlist *, unsigned int, ConnectionFlags, int *) {
        return veltrane::AgentConnectionNew(ConnectionInfoNew());
    });
    {
        const veltrane::ConnectionScope scope;
        EXPECT_NE(Connect(), nullptr);
        DeleteAgentConn(Connect().release());
        EXPECT_NE(Connect().release(), nullptr) << "this one is left, and goes with the scope";
    }
    ServerConnectionReplace(nullptr);
}

}  // namespace
