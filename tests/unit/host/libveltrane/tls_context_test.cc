#include "libveltrane/tls_context.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <string>

#include "support/sockets.h"

namespace {

using veltrane::SslContextPtr;
using veltrane::SslPtr;
using veltrane::TlsRole;

struct Outcome {
    int client;
    int server;
    SslPtr client_ssl;
    SslPtr server_ssl;
};

// The handshake of both ends, the server in a thread. The sockets are closed as each end gives up, as programs do.
Outcome Handshake(const veltrane::TlsContexts &client, const veltrane::TlsContexts &server, SocketPair *sockets)
{
    Outcome outcome{-1, -1, nullptr, nullptr};
    std::thread other([&] {
        outcome.server = veltrane::TlsHandshake(server, TlsRole::server, sockets->theirs.Get(), &outcome.server_ssl);
        if (outcome.server != 0) {
            sockets->theirs.Close();
        }
    });
    outcome.client = veltrane::TlsHandshake(client, TlsRole::client, sockets->ours.Get(), &outcome.client_ssl);
    if (outcome.client != 0) {
        sockets->ours.Close();
    }
    other.join();
    return outcome;
}

// The same with a client whose context a test has changed.
Outcome HandshakeWithClient(void (*change)(SSL_CTX *), const ForeignHost &host, SocketPair *sockets)
{
    std::string error;
    const ForeignHost client;
    change(client.contexts->client.get());
    return Handshake(*client.contexts, *host.contexts, sockets);
}

TEST(Tls, BothSidesSeeTheKeyOfTheOther)
{
    const ForeignHost client;
    const ForeignHost server;
    SocketPair sockets;
    const Outcome outcome = Handshake(*client.contexts, *server.contexts, &sockets);
    ASSERT_EQ(outcome.client, 0);
    ASSERT_EQ(outcome.server, 0);
    EXPECT_EQ(veltrane::KeyIdentity(veltrane::PeerKey(outcome.client_ssl.get()).get()), server.identity);
    EXPECT_EQ(veltrane::KeyIdentity(veltrane::PeerKey(outcome.server_ssl.get()).get()), client.identity);
    EXPECT_NE(client.identity, server.identity);
}

TEST(Tls, AnOtherKindOfKeyWorksAsWell)
{
    for (const char *kind : {"RSA", "ED25519"}) {
        const veltrane::KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, kind, size_t{2048}));
        std::string error;
        const auto contexts = veltrane::MakeTlsContexts(key.get(), &error);
        ASSERT_NE(contexts, nullptr) << error;
        const ForeignHost server;
        SocketPair sockets;
        const Outcome outcome = Handshake(*contexts, *server.contexts, &sockets);
        ASSERT_EQ(outcome.server, 0) << kind;
        EXPECT_EQ(veltrane::KeyIdentity(veltrane::PeerKey(outcome.server_ssl.get()).get()), contexts->identity);
    }
}

TEST(Tls, Version12IsSpokenAndNothingOlder)
{
    const ForeignHost host;
    SocketPair sockets;
    const Outcome newer = HandshakeWithClient(
        [](SSL_CTX *context) { SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION); }, host, &sockets);
    EXPECT_EQ(newer.server, 0);
    EXPECT_EQ(SSL_version(newer.client_ssl.get()), TLS1_2_VERSION);

    SocketPair others;
    const Outcome older = HandshakeWithClient(
        [](SSL_CTX *context) {
            SSL_CTX_set_security_level(context, 0);
            SSL_CTX_set_cipher_list(context, "ALL");
            SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
            SSL_CTX_set_max_proto_version(context, TLS1_1_VERSION);
        },
        host, &others);
    EXPECT_EQ(older.client, EPROTO);
    EXPECT_EQ(older.server, EPROTO);
}

TEST(Tls, AClientWithoutACertificateIsRefused)
{
    const ForeignHost server;
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const SslContextPtr bare(SSL_CTX_new(TLS_client_method()));
        SSL_CTX_set_min_proto_version(bare.get(), version);
        SSL_CTX_set_max_proto_version(bare.get(), version);
        SocketPair sockets;
        std::thread client([&] {
            const SslPtr ssl(SSL_new(bare.get()));
            SSL_set_fd(ssl.get(), sockets.ours.Get());
            SSL_connect(ssl.get());  // in TLS 1.3 it takes itself for connected
            sockets.ours.Close();
        });
        SslPtr ssl;
        EXPECT_EQ(veltrane::TlsHandshake(*server.contexts, TlsRole::server, sockets.theirs.Get(), &ssl), EPROTO);
        EXPECT_EQ(ssl, nullptr);
        sockets.theirs.Close();
        client.join();
    }
}

TEST(Tls, ACertificateWithoutItsKeyIsWorthNothing)
{
    // Who shows the certificate of somebody else cannot sign for it.
    const ForeignHost victim;
    const ForeignHost thief;
    const ForeignHost server;
    EXPECT_NE(SSL_CTX_use_PrivateKey(victim.contexts->client.get(), thief.key.get()), 1);
    SSL_CTX_set_cert_cb(
        thief.contexts->client.get(),
        [](SSL *ssl, void *certificate) {
            return SSL_use_certificate(ssl, static_cast<X509 *>(certificate)) == 1 ? 1 : 0;
        },
        SSL_CTX_get0_certificate(victim.contexts->client.get()));
    SocketPair sockets;
    const Outcome outcome = Handshake(*thief.contexts, *server.contexts, &sockets);
    EXPECT_NE(outcome.server, 0);
}

TEST(Tls, NoTicketIsSentAndNothingWaitsAfterTheHandshake)
{
    const ForeignHost client;
    const ForeignHost server;
    SocketPair sockets;
    const Outcome outcome = Handshake(*client.contexts, *server.contexts, &sockets);
    ASSERT_EQ(outcome.server, 0);
    EXPECT_TRUE(NothingToRead(sockets.ours.Get()));
    EXPECT_TRUE(NothingToRead(sockets.theirs.Get()));
    EXPECT_EQ(SSL_SESSION_has_ticket(SSL_get0_session(outcome.client_ssl.get())), 0);
}

TEST(Tls, ASessionIsNeverResumed)
{
    const ForeignHost client;
    const ForeignHost server;
    SSL_CTX_set_max_proto_version(client.contexts->client.get(), TLS1_2_VERSION);
    SocketPair first;
    const Outcome one = Handshake(*client.contexts, *server.contexts, &first);
    ASSERT_EQ(one.client, 0);
    const SslPtr again(SSL_new(client.contexts->client.get()));
    SSL_set_session(again.get(), SSL_get0_session(one.client_ssl.get()));

    SocketPair second;
    SslPtr accepted;
    int error = -1;
    std::thread other(
        [&] { error = veltrane::TlsHandshake(*server.contexts, TlsRole::server, second.theirs.Get(), &accepted); });
    SSL_set_fd(again.get(), second.ours.Get());
    EXPECT_EQ(SSL_connect(again.get()), 1);
    other.join();
    EXPECT_EQ(error, 0);
    EXPECT_EQ(SSL_session_reused(again.get()), 0);
}

TEST(Tls, RenegotiationIsRefused)
{
    const ForeignHost client;
    const ForeignHost server;
    SSL_CTX_set_max_proto_version(client.contexts->client.get(), TLS1_2_VERSION);
    SSL_CTX_clear_options(client.contexts->client.get(), SSL_OP_NO_RENEGOTIATION);
    SocketPair sockets;
    const Outcome outcome = Handshake(*client.contexts, *server.contexts, &sockets);
    ASSERT_EQ(outcome.server, 0);
    ASSERT_EQ(SSL_renegotiate(outcome.client_ssl.get()), 1);
    std::thread other([&] {
        char byte = 0;
        SSL_read(outcome.server_ssl.get(), &byte, 1);  // answers with a "no renegotiation" alert and reads on
    });
    EXPECT_NE(SSL_do_handshake(outcome.client_ssl.get()), 1);
    sockets.ours.Close();
    other.join();
}

TEST(Tls, RubbishInsteadOfAHandshakeIsAProtocolError)
{
    const ForeignHost host;
    for (const TlsRole role : {TlsRole::client, TlsRole::server}) {
        SocketPair sockets;
        ASSERT_TRUE(SendBytes(sockets.theirs.Get(), "QUERY delta 0 0\r\nno TLS at all, whichever way it is read\r\n"));
        SslPtr ssl;
        EXPECT_EQ(veltrane::TlsHandshake(*host.contexts, role, sockets.ours.Get(), &ssl), EPROTO);
        EXPECT_EQ(ssl, nullptr);
    }
}

TEST(Tls, APeerThatGoesAwayIsAReset)
{
    const ForeignHost host;
    SocketPair sockets;
    sockets.theirs.Close();
    SslPtr ssl;
    EXPECT_EQ(veltrane::TlsHandshake(*host.contexts, TlsRole::server, sockets.ours.Get(), &ssl), ECONNRESET);
}

TEST(Tls, ASilentPeerEndsAtTheTimeOut)
{
    const TimeOut one_second(1);
    const ForeignHost host;
    SocketPair sockets;
    SslPtr ssl;
    EXPECT_EQ(veltrane::TlsHandshake(*host.contexts, TlsRole::server, sockets.ours.Get(), &ssl), ETIMEDOUT);
}

TEST(Tls, AKeyThatCannotSignGivesNoContexts)
{
    const veltrane::KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"));
    std::string error;
    EXPECT_EQ(veltrane::MakeTlsContexts(key.get(), &error), nullptr);
    EXPECT_THAT(error, testing::StartsWith("Could not set up TLS: "));
}

}  // namespace
