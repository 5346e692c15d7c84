#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <veltrane/net.h>

#include "libveltrane/connection_info.h"
#include "libveltrane/socket_io.h"
#include "support/sockets.h"

namespace {

using veltrane::ConnectionInfoPtr;

ConnectionInfoPtr PlainConnection(int fd)
{
    ConnectionInfoPtr info(ConnectionInfoNew());
    ConnectionInfoSetSocket(info.get(), fd);
    return info;
}

int Send(const ConnectionInfoPtr &info, const std::string &payload, char status)
{
    return SendTransaction(info.get(), payload.data(), static_cast<int>(payload.size()), status);
}

struct Received {
    int length;
    std::string payload;
    bool more;
};

Received Receive(const ConnectionInfoPtr &info)
{
    std::array<char, VT_BUFSIZE> buffer{};
    Received received{0, "", false};
    received.length = ReceiveTransaction(info.get(), buffer.data(), &received.more);
    if (received.length > 0) {
        received.payload.assign(buffer.data(), static_cast<size_t>(received.length));
    }
    return received;
}

// Two ends of a plain connection.
struct PlainPair {
    SocketPair sockets;
    ConnectionInfoPtr ours = PlainConnection(sockets.ours.Get());
    ConnectionInfoPtr theirs = PlainConnection(sockets.theirs.Get());
};

TEST(ConnectionInfo, ANewOneHasNothing)
{
    const ConnectionInfoPtr info(ConnectionInfoNew());
    EXPECT_EQ(ConnectionInfoProtocolVersion(info.get()), VT_PROTOCOL_UNDEFINED);
    EXPECT_EQ(ConnectionInfoSocket(info.get()), -1);
    EXPECT_EQ(ConnectionInfoSSL(info.get()), nullptr);
    EXPECT_EQ(ConnectionInfoIdentity(info.get()), nullptr);
    ConnectionInfoDestroy(nullptr);
}

TEST(ConnectionInfo, DestroyingItLeavesTheSocketOpen)
{
    PlainPair pair;
    pair.ours.reset();
    EXPECT_TRUE(SendBytes(pair.sockets.ours.Get(), "x"));
    ServerConnectionStateDestroy(nullptr);
    DisconnectServer(nullptr);
    DeleteAgentConn(nullptr);
}

TEST(ConnectionInfo, AServersStateClosesTheSocket)
{
    SocketPair sockets;
    ServerConnectionState *state = ServerConnectionStateNew(PlainConnection(sockets.ours.Release()).release());
    EXPECT_EQ(state->session_key, nullptr);
    EXPECT_FALSE(state->dump_reports);
    ServerConnectionStateDestroy(state);
    EXPECT_EQ(ReadToEnd(sockets.theirs.Get()), "");
}

TEST(Transaction, TheHeaderIsTheStatusAndThreeBytesOfLength)
{
    PlainPair pair;
    ASSERT_EQ(Send(pair.ours, "hello", 't'), 0);
    ASSERT_EQ(Send(pair.ours, std::string(0x123, 'x'), 'm'), 0);
    ASSERT_EQ(Send(pair.ours, "", 't'), 0);
    pair.sockets.ours.Close();
    EXPECT_EQ(ReadToEnd(pair.sockets.theirs.Get()), std::string("t\0\0\5hello", 9) + std::string("m\0\1\x23", 4) +
                                                        std::string(0x123, 'x') + std::string("t\0\0\0", 4));
}

TEST(Transaction, EveryLengthUpTo4096Travels)
{
    PlainPair pair;
    for (const size_t length : {size_t{0}, size_t{1}, size_t{255}, size_t{256}, size_t{4095}, size_t{4096}}) {
        const std::string payload(length, 'p');
        ASSERT_EQ(Send(pair.ours, payload, 't'), 0);
        const Received received = Receive(pair.theirs);
        EXPECT_EQ(received.length, static_cast<int>(length));
        EXPECT_EQ(received.payload, payload);
    }
}

TEST(Transaction, ALengthOutside0To4096IsRefusedAndNothingIsSent)
{
    PlainPair pair;
    const std::string payload(VT_BUFSIZE + 1, 'x');
    for (const int length : {-1, VT_BUFSIZE + 1}) {
        errno = 0;
        EXPECT_EQ(SendTransaction(pair.ours.get(), payload.data(), length, 't'), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(Send(pair.ours, "x", 'q'), -1);
    EXPECT_TRUE(NothingToRead(pair.sockets.theirs.Get()));
    EXPECT_EQ(Send(pair.ours, "still open", 't'), 0);
}

TEST(Transaction, AZeroIsPutAfterAShortPayloadAndNothingAfterAFullOne)
{
    PlainPair pair;
    std::array<char, VT_BUFSIZE + 1> buffer{};
    buffer.fill('#');
    ASSERT_EQ(Send(pair.ours, "ab", 't'), 0);
    ASSERT_EQ(ReceiveTransaction(pair.theirs.get(), buffer.data(), nullptr), 2);
    EXPECT_EQ(std::string(buffer.data(), 4), std::string("ab\0#", 4));

    ASSERT_EQ(Send(pair.ours, std::string(VT_BUFSIZE, 'f'), 't'), 0);
    ASSERT_EQ(ReceiveTransaction(pair.theirs.get(), buffer.data(), nullptr), VT_BUFSIZE);
    EXPECT_EQ(buffer[VT_BUFSIZE], '#');
}

TEST(Transaction, MoreIsSaidForMAndDoneForT)
{
    PlainPair pair;
    ASSERT_EQ(Send(pair.ours, "a", 'm'), 0);
    ASSERT_EQ(Send(pair.ours, "b", 't'), 0);
    EXPECT_TRUE(Receive(pair.theirs).more);
    EXPECT_FALSE(Receive(pair.theirs).more);
}

TEST(Transaction, AnotherLetterEndsTheConnection)
{
    PlainPair pair;
    ASSERT_TRUE(SendBytes(pair.sockets.ours.Get(), std::string("x\0\0\1a", 5) + std::string("t\0\0\1b", 5)));
    EXPECT_EQ(Receive(pair.theirs).length, -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(Receive(pair.theirs).length, -1) << "nobody goes on in the middle of rubbish";
    EXPECT_EQ(Send(pair.theirs, "answer", 't'), -1);
    EXPECT_EQ(ReadToEnd(pair.sockets.ours.Get()), "");
}

TEST(Transaction, AHeaderOf4097BytesEndsTheConnection)
{
    PlainPair pair;
    ASSERT_TRUE(SendBytes(pair.sockets.ours.Get(), std::string("t\0\x10\x01", 4) + std::string(VT_BUFSIZE + 1, 'x')));
    errno = 0;
    EXPECT_EQ(Receive(pair.theirs).length, -1);
    EXPECT_EQ(errno, EPROTO);
}

TEST(Transaction, AFailureLeavesWhatItWouldHandBack)
{
    PlainPair pair;
    ASSERT_TRUE(SendBytes(pair.sockets.ours.Get(), "rubbish"));
    std::array<char, VT_BUFSIZE> buffer{};
    bool more = true;
    EXPECT_EQ(ReceiveTransaction(pair.theirs.get(), buffer.data(), &more), -1);
    EXPECT_TRUE(more);
}

TEST(Transaction, AStreamCutAnywhereIsAFailure)
{
    const std::string whole = std::string("t\0\0\5hello", 9);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        PlainPair pair;
        ASSERT_TRUE(SendBytes(pair.sockets.ours.Get(), whole.substr(0, cut)));
        pair.sockets.ours.Close();
        errno = 0;
        EXPECT_EQ(Receive(pair.theirs).length, -1) << cut;
        EXPECT_EQ(errno, ECONNRESET);
        EXPECT_EQ(veltrane::ConnectionClosedByPeer(pair.theirs.get()), cut == 0);
    }
}

TEST(Transaction, AConnectionWithoutASocketFails)
{
    const ConnectionInfoPtr info(ConnectionInfoNew());
    EXPECT_EQ(Send(info, "x", 't'), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(Receive(info).length, -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST(Transaction, SendingToAClosedPeerFailsWithoutASignal)
{
    PlainPair pair;
    pair.sockets.theirs.Close();
    EXPECT_EQ(Send(pair.ours, "x", 'm'), -1) << "a plain connection sends at once";
    EXPECT_EQ(errno, EPIPE);
}

TEST(Transaction, ASilentPeerEndsAtTheTimeOut)
{
    const TimeOut one_second(1);
    PlainPair pair;
    ASSERT_TRUE(SendBytes(pair.sockets.ours.Get(), std::string("t\0\0", 3)));
    EXPECT_EQ(Receive(pair.theirs).length, -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_FALSE(veltrane::ConnectionClosedByPeer(pair.theirs.get()));
}

TEST(Transaction, APeerThatTakesNothingEndsTheSenderAtTheTimeOut)
{
    const TimeOut one_second(1);
    PlainPair pair;
    const std::string payload(VT_BUFSIZE, 'x');
    int sent = 0;
    while (sent < 10'000 && Send(pair.ours, payload, 'm') == 0) { ++sent; }  // until the socket's buffers are full
    EXPECT_LT(sent, 10'000);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(SocketIo, TheDeadlineHoldsEvenWhileBytesKeepComing)
{
    SocketPair sockets;
    ASSERT_TRUE(SendBytes(sockets.ours.Get(), "one byte a second"));
    char byte = 0;
    const veltrane::Deadline past = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    EXPECT_EQ(veltrane::ReadSocket(sockets.theirs.Get(), &byte, 1, past), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_FALSE(veltrane::WriteSocket(sockets.theirs.Get(), "x", 1, past));
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(veltrane::ReadSocket(sockets.theirs.Get(), &byte, 1, veltrane::TransactionDeadline()), 1);
}

TEST(SocketIo, ATimeOutBelowASecondIsASecond)
{
    const TimeOut none(0);
    EXPECT_GT(veltrane::TransactionDeadline(), std::chrono::steady_clock::now());
}

TEST(TlsTransaction, PayloadsTravelBothWays)
{
    TlsPair pair;
    for (const size_t length : {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}}) {
        const std::string payload(length, 'p');
        ASSERT_EQ(Send(pair.client, payload, 't'), 0);
        EXPECT_EQ(Receive(pair.server).payload, payload);
        ASSERT_EQ(Send(pair.server, payload, 't'), 0);
        EXPECT_EQ(Receive(pair.client).payload, payload);
    }
}

TEST(TlsTransaction, TransactionsWithMWaitAndTSendsThemAll)
{
    TlsPair pair;
    ASSERT_EQ(Send(pair.client, "first", 'm'), 0);
    ASSERT_EQ(Send(pair.client, "second", 'm'), 0);
    EXPECT_TRUE(NothingToRead(pair.sockets.theirs.Get()));
    ASSERT_EQ(Send(pair.client, "last", 't'), 0);
    EXPECT_EQ(Receive(pair.server).payload, "first");
    EXPECT_EQ(Receive(pair.server).payload, "second");
    const Received last = Receive(pair.server);
    EXPECT_EQ(last.payload, "last");
    EXPECT_FALSE(last.more);
    EXPECT_TRUE(NothingToRead(pair.sockets.theirs.Get()));
}

TEST(TlsTransaction, MIsGatheredIntoFullRecords)
{
    TlsPair pair;
    const std::string payload(4000, 'x');
    for (int i = 0; i < 4; ++i) { ASSERT_EQ(Send(pair.client, payload, 'm'), 0); }
    EXPECT_TRUE(NothingToRead(pair.sockets.theirs.Get())) << "16,016 bytes are no full record";
    ASSERT_EQ(Send(pair.client, payload, 'm'), 0);

    std::array<unsigned char, 5> header{};  // of a TLS record: type, version, length of what follows
    ASSERT_EQ(recv(pair.sockets.theirs.Get(), header.data(), header.size(), MSG_PEEK),
              static_cast<ssize_t>(header.size()));
    EXPECT_EQ(header[3] << 8 | header[4], 16384 + 1 + 16) << "16 KiB, the type inside, the tag";

    ASSERT_EQ(Send(pair.client, "end", 't'), 0);
    for (int i = 0; i < 5; ++i) { EXPECT_EQ(Receive(pair.server).payload, payload); }
    EXPECT_EQ(Receive(pair.server).payload, "end");
}

TEST(TlsTransaction, AFailedFlushIsReportedByTheCallThatFlushes)
{
    TlsPair pair;
    pair.sockets.theirs.Close();
    EXPECT_EQ(Send(pair.client, "gathered", 'm'), 0);
    EXPECT_EQ(Send(pair.client, "flushed", 't'), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(Send(pair.client, "late", 'm'), -1) << "the connection is ended";
}

TEST(TlsTransaction, BytesThatAreNoTlsEndTheConnection)
{
    TlsPair pair;
    ASSERT_TRUE(SendBytes(pair.sockets.ours.Get(), "GET / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(Receive(pair.server).length, -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(Send(pair.server, "answer", 't'), -1);
}

TEST(TlsTransaction, AMalformedHeaderInsideTlsEndsTheConnection)
{
    TlsPair pair;
    size_t written = 0;
    ASSERT_EQ(SSL_write_ex(ConnectionInfoSSL(pair.client.get()), "QUERY delta", 11, &written), 1);
    EXPECT_EQ(Receive(pair.server).length, -1);
    EXPECT_EQ(errno, EPROTO);
}

TEST(TlsTransaction, ACloseInGoodOrderAndACutAreTheEndOfTheStream)
{
    TlsPair good;
    veltrane::ConnectionSayGoodbye(good.client.get());
    EXPECT_EQ(Receive(good.server).length, -1);
    EXPECT_TRUE(veltrane::ConnectionClosedByPeer(good.server.get()));

    TlsPair cut;
    cut.sockets.ours.Close();
    EXPECT_EQ(Receive(cut.server).length, -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(TlsTransaction, ASilentPeerEndsAtTheTimeOut)
{
    TlsPair pair;
    const TimeOut one_second(1);
    EXPECT_EQ(Receive(pair.server).length, -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(TlsTransaction, HalfARecordEndsAtTheTimeOut)
{
    TlsPair pair;
    const TimeOut one_second(1);
    ASSERT_TRUE(SendBytes(pair.sockets.ours.Get(), std::string("\x17\x03\x03\x01\x00"
                                                               "abc",
                                                               8)));
    EXPECT_EQ(Receive(pair.server).length, -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(TlsTransaction, APlainReadFromTheTlsObjectHasATimeOutToo)
{
    TlsPair pair;
    const TimeOut one_second(1);
    int32_t number = 0;
    EXPECT_LE(SSL_read(ConnectionInfoSSL(pair.client.get()), &number, sizeof(number)), 0);
}

TEST(TlsTransaction, ATlsObjectOverOpenSslsOwnSocketGetsOurTimeOuts)
{
    TlsPair pair;
    SSL *ssl = SSL_new(pair.client_host.contexts->client.get());
    ASSERT_EQ(SSL_set_fd(ssl, pair.sockets.ours.Get()), 1);
    const ConnectionInfoPtr info(ConnectionInfoNew());
    ConnectionInfoSetSSL(info.get(), ssl);
    EXPECT_TRUE(veltrane::IsSocketBio(SSL_get_rbio(ssl)));
    EXPECT_EQ(SSL_get_fd(ssl), pair.sockets.ours.Get());
    EXPECT_EQ(ConnectionInfoIdentity(info.get()), nullptr) << "no handshake yet";
}

TEST(TlsTransaction, TheIdentityIsThatOfThePeersKey)
{
    TlsPair pair;
    EXPECT_EQ(ConnectionInfoIdentity(pair.client.get()), pair.server_host.identity);
    EXPECT_EQ(ConnectionInfoIdentity(pair.server.get()), pair.client_host.identity);
}

TEST(BeforeNextSend, TheActionRunsOnceBeforeTheFirstByte)
{
    PlainPair pair;
    int runs = 0;
    veltrane::ConnectionBeforeNextSend(pair.ours.get(), [&] {
        ++runs;
        EXPECT_TRUE(NothingToRead(pair.sockets.theirs.Get()));
    });
    EXPECT_EQ(runs, 0);
    ASSERT_EQ(Send(pair.ours, "a", 'm'), 0);
    ASSERT_EQ(Send(pair.ours, "b", 't'), 0);
    EXPECT_EQ(runs, 1);
}

TEST(BeforeNextSend, TheActionRunsWhenNothingIsEverSent)
{
    PlainPair pair;
    int runs = 0;
    veltrane::ConnectionBeforeNextSend(pair.ours.get(), [&] { ++runs; });
    veltrane::ConnectionBeforeNextSend(pair.ours.get(), [&] { ++runs; });
    EXPECT_EQ(runs, 1);
    pair.ours.reset();
    EXPECT_EQ(runs, 2);
}

}  // namespace
