#include "libveltrane/server_handshake.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "libveltrane/hello.h"
#include "libveltrane/keys.h"
#include "support/network.h"

namespace {

namespace fs = std::filesystem;
using veltrane::ConnectionInfoPtr;
using veltrane::Refusal;
using veltrane::SslPtr;
using veltrane::TlsRole;

using ServerHandshake = NetworkTest;

TEST_F(ServerHandshake, AClientOfANewerVersionIsAnsweredWithOurs)
{
    ServeProperly();
    const Descriptor fd = ConnectLoopback(listener.port);
    SslPtr ssl;
    ASSERT_EQ(veltrane::TlsHandshake(*veltrane::CurrentTlsContexts(), TlsRole::client, fd.Get(), &ssl), 0);
    const ConnectionInfoPtr info(ConnectionInfoNew());
    ConnectionInfoSetSocket(info.get(), fd.Get());
    ConnectionInfoSetSSL(info.get(), ssl.release());
    ASSERT_EQ(veltrane::SendHello(info.get(), 9), 0);
    EXPECT_EQ(ReceiveText(info.get()), "HELLO 4");
    server.join();
    EXPECT_EQ(accepted.refusal, Refusal::none);
}

TEST_F(ServerHandshake, AHelloBelow2HasNoCommonProtocol)
{
    for (const std::string hello : {"HELLO 1", "HELLO 0", "HELLO", "HELLO ", "HELLO -3", "HELLO 4 ", "hello 4", "",
                                    "QUERY delta 0 0", "HELLO 99999999999999999999"}) {
        ServeProperly();
        const Descriptor fd = ConnectLoopback(listener.port);
        SslPtr ssl;
        ASSERT_EQ(veltrane::TlsHandshake(*veltrane::CurrentTlsContexts(), TlsRole::client, fd.Get(), &ssl), 0);
        const ConnectionInfoPtr info(ConnectionInfoNew());
        ConnectionInfoSetSocket(info.get(), fd.Get());
        ConnectionInfoSetSSL(info.get(), ssl.release());
        ASSERT_EQ(SendTransaction(info.get(), hello.data(), static_cast<int>(hello.size()), 't'), 0);
        EXPECT_EQ(ReceiveText(info.get()), "BAD: no common protocol version") << hello;
        server.join();
        EXPECT_EQ(accepted.refusal, Refusal::no_common_protocol);
        EXPECT_EQ(accepted.connection, nullptr);
    }
}

TEST_F(ServerHandshake, AnUntrustedClientGetsNothingBeyondTheHandshake)
{
    ServeProperly();
    const ForeignHost stranger;
    const Descriptor fd = ConnectLoopback(listener.port);
    SslPtr ssl;
    ASSERT_EQ(veltrane::TlsHandshake(*stranger.contexts, TlsRole::client, fd.Get(), &ssl), 0);
    EXPECT_EQ(ReadToEnd(fd.Get()), "");
    server.join();
    EXPECT_EQ(accepted.refusal, Refusal::not_trusted);
    EXPECT_EQ(accepted.identity, stranger.identity);
    EXPECT_EQ(accepted.connection, nullptr);
    EXPECT_TRUE(fs::exists(work.path / "keys/seen" / (stranger.identity + ".pub")));
}

TEST_F(ServerHandshake, AClientThatIsTrustedLaterIsLetIn)
{
    const ForeignHost peer;
    ASSERT_EQ(veltrane::TrustKey(peer.key.get()), "");
    ServeProperly();
    const Descriptor fd = ConnectLoopback(listener.port);
    SslPtr ssl;
    ASSERT_EQ(veltrane::TlsHandshake(*peer.contexts, TlsRole::client, fd.Get(), &ssl), 0);
    const ConnectionInfoPtr info(ConnectionInfoNew());
    ConnectionInfoSetSSL(info.get(), ssl.release());
    ASSERT_EQ(veltrane::SendHello(info.get(), 4), 0);
    EXPECT_EQ(ReceiveText(info.get()), "HELLO 4");
    server.join();
    EXPECT_EQ(accepted.identity, peer.identity);
}

TEST_F(ServerHandshake, SwappedKeyFilesTrustNeitherOfTheTwo)
{
    const ForeignHost one;
    const ForeignHost two;
    ASSERT_EQ(veltrane::TrustKey(one.key.get()), "");
    ASSERT_EQ(veltrane::TrustKey(two.key.get()), "");
    const fs::path keys = work.path / "keys";
    fs::rename(keys / (one.identity + ".pub"), keys / "aside");
    fs::rename(keys / (two.identity + ".pub"), keys / (one.identity + ".pub"));
    fs::rename(keys / "aside", keys / (two.identity + ".pub"));
    for (const ForeignHost *peer : {&one, &two}) {
        ServeProperly();
        const Descriptor fd = ConnectLoopback(listener.port);
        SslPtr ssl;
        ASSERT_EQ(veltrane::TlsHandshake(*peer->contexts, TlsRole::client, fd.Get(), &ssl), 0);
        server.join();
        EXPECT_EQ(accepted.refusal, Refusal::not_trusted);
    }
}

TEST_F(ServerHandshake, ASilentClientIsGivenUpAtTheTimeOut)
{
    const TimeOut one_second(1);
    ServeProperly();
    const Descriptor fd = ConnectLoopback(listener.port);
    server.join();
    EXPECT_EQ(accepted.refusal, Refusal::no_handshake);
    EXPECT_EQ(accepted.error, ETIMEDOUT);
}

TEST_F(ServerHandshake, AClientThatNeverSaysHelloIsGivenUpAtTheTimeOut)
{
    const TimeOut one_second(1);
    ServeProperly();
    const Descriptor fd = ConnectLoopback(listener.port);
    SslPtr ssl;
    ASSERT_EQ(veltrane::TlsHandshake(*veltrane::CurrentTlsContexts(), TlsRole::client, fd.Get(), &ssl), 0);
    server.join();
    EXPECT_EQ(accepted.refusal, Refusal::no_common_protocol);
    EXPECT_EQ(accepted.error, ETIMEDOUT);
}

TEST_F(ServerHandshake, RubbishBeforeTheHandshakeIsRefused)
{
    ServeProperly();
    const Descriptor fd = ConnectLoopback(listener.port);
    ASSERT_TRUE(SendBytes(fd.Get(), "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    server.join();
    EXPECT_EQ(accepted.refusal, Refusal::no_handshake);
    EXPECT_EQ(accepted.error, EPROTO);
}

TEST_F(ServerHandshake, ARefusedPeerLeavesNoEntry)
{
    const ForeignHost stranger;
    ServeProperly();
    const Descriptor fd = ConnectLoopback(listener.port);
    SslPtr ssl;
    ASSERT_EQ(veltrane::TlsHandshake(*stranger.contexts, TlsRole::client, fd.Get(), &ssl), 0);
    server.join();
    bool there = true;
    SeenPeer("qi" + stranger.identity, &there);
    EXPECT_FALSE(there);
}

}  // namespace
