#include "libvtenterprise/remote_scalar.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/crypto.h>
#include <veltrane/entry_points.h>
#include <veltrane/extension.h>
#include <veltrane/owned.h>

#include "libveltrane/connection_info.h"
#include "libveltrane/server_connection.h"
#include "libvtenterprise/entry_points_real.h"
#include "support/log_capture.h"
#include "support/network.h"
#include "support/sockets.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

constexpr char kKey[] = "0123456789abcdef0123456789abcdef";

std::string ErrorText(const char *what, int error) { return std::string(what) + strerror(error) + ")"; }

// A transaction as it stands on the wire.
std::string OnTheWire(char status, const std::string &payload, size_t length)
{
    const std::string header = {status, static_cast<char>(length >> 16), static_cast<char>(length >> 8),
                                static_cast<char>(length)};
    return header + payload;
}
std::string OnTheWire(const std::string &payload) { return OnTheWire('t', payload, payload.size()); }

// The client, and what it was given. The plug-in is installed, so that the host's ciphers are those of the product.
class RemoteScalar : public NetworkTest {
  protected:
    RemoteScalar() : ctx_(EvalContextNew())
    {
        const fs::path library = work.path / "lib" / "veltrane-enterprise.so";
        fs::copy_file(fs::path(VT_TEST_LIB_DIR) / "veltrane-enterprise.so", library);
        fs::permissions(library, fs::perms::owner_all);
    }

    std::string Get(std::string address, std::string handle = "h1", int encrypted = 0, std::string word = "VAR")
    {
        buffer_.assign(VT_BUFSIZE, 'x');
        buffer_.push_back('\0');
        char *result =
            GetRemoteScalar__real(ctx_.get(), word.data(), handle.data(), address.c_str(), encrypted, buffer_.data());
        EXPECT_EQ(result, buffer_.data());
        return buffer_.c_str();
    }

    std::vector<LogCapture::Line> Errors() const { return log_.UpTo(LOG_LEVEL_WARNING); }

    veltrane::EvalContextPtr ctx_;
    std::string buffer_;
    LogCapture log_;
};

// --- Peers inside the process ----------------------------------------------------------------------------------------

// What the function in place of ServerConnection hands out, once, and what it was asked for.
struct PeerPlan {
    ProtocolVersion protocol = VT_PROTOCOL_CLASSIC;
    bool with_key = true;
    int error = 0;  // refuse with this errno
    int fd = -1;

    int given = -1;  // the descriptor that was handed out
    std::string host;
    std::string port;
    unsigned int timeout = 0;
    ConnectionFlags flags = {};
    bool restricted = false;
};
PeerPlan plan;

AgentConnection *ConnectToPlan(const char *server, const char *port, const Rlist *keys, unsigned int timeout,
                               ConnectionFlags flags, int *ret_error)
{
    plan.host = server;
    plan.port = port != nullptr ? port : "(none)";
    plan.timeout = timeout;
    plan.flags = flags;
    plan.restricted = keys != nullptr;
    if (plan.error != 0) {
        *ret_error = veltrane::kNoAnswer;
        errno = plan.error;
        return nullptr;
    }
    ConnectionInfo *info = ConnectionInfoNew();
    plan.given = std::exchange(plan.fd, -1);
    ConnectionInfoSetSocket(info, plan.given);
    ConnectionInfoSetProtocolVersion(info, plan.protocol);
    AgentConnection *conn = veltrane::AgentConnectionNew(info);
    if (plan.with_key) {
        conn->session_key = static_cast<unsigned char *>(xmemdup(kKey, sizeof(kKey)));
    }
    conn->encryption_type = 'N';
    return conn;
}

class RemoteScalarInside : public RemoteScalar {
  protected:
    RemoteScalarInside()
    {
        plan = PeerPlan();
        plan.fd = sockets_.ours.Release();
        before_ = ServerConnectionReplace(ConnectToPlan);
    }
    ~RemoteScalarInside() override
    {
        ServerConnectionReplace(before_);
        if (plan.fd >= 0) {
            close(plan.fd);
        }
    }

    // Bytes that wait for the client before it asks.
    void Answer(const std::string &bytes) { ASSERT_TRUE(SendBytes(sockets_.theirs.Get(), bytes)); }

    // The request as it came, without its header; "" when none did.
    std::string Request()
    {
        std::string bytes(VT_BUFSIZE + 5, '\0');
        const ssize_t n = recv(sockets_.theirs.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (n < 4) {
            return "";
        }
        bytes.resize(static_cast<size_t>(n));
        const std::string payload = bytes.substr(4);
        EXPECT_EQ(bytes, OnTheWire(payload));
        return payload;
    }

    // Whether the client's end is closed, not only ended.
    static bool IsClosed() { return fcntl(plan.given, F_GETFD) < 0; }

    static std::string Encrypt(const std::string &text)
    {
        std::string cipher_text(VT_BUFSIZE, '\0');
        const int length =
            EncryptString(cipher_text.data(), cipher_text.size(), text.data(), static_cast<int>(text.size()), 'N',
                          reinterpret_cast<const unsigned char *>(kKey));
        EXPECT_GE(length, 0);
        return cipher_text.substr(0, static_cast<size_t>(length));
    }

    static std::string Decrypt(const std::string &cipher_text)
    {
        std::string text(VT_BUFSIZE, '\0');
        const int length =
            DecryptString(text.data(), text.size(), cipher_text.data(), static_cast<int>(cipher_text.size()), 'N',
                          reinterpret_cast<const unsigned char *>(kKey));
        EXPECT_GE(length, 0);
        return text.substr(0, static_cast<size_t>(length));
    }

    SocketPair sockets_;
    ServerConnectionFunction before_;
};

TEST_F(RemoteScalarInside, AsksInPlainWordsWithoutAZeroAndReturnsTheValue)
{
    Answer(OnTheWire("10.2.0.1/24"));

    EXPECT_EQ(Get("peer"), "10.2.0.1/24");

    EXPECT_EQ(Request(), "VAR h1");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "* Hailing peer for remote handle \"h1\"")));
}

TEST_F(RemoteScalarInside, CarriesTheWordOfItsCaller)
{
    Answer(OnTheWire("v"));

    EXPECT_EQ(Get("peer", "two words", 0, "CONTEXT"), "v");
    EXPECT_EQ(Request(), "CONTEXT two words");
}

TEST_F(RemoteScalarInside, ClearsTheWholeBufferBeforeTheAnswer)
{
    Answer(OnTheWire("v"));

    Get("peer");

    EXPECT_EQ(buffer_, "v" + std::string(VT_BUFSIZE, '\0'));
}

TEST_F(RemoteScalarInside, AnEmptyValueIsAValue)
{
    Answer(OnTheWire(""));

    EXPECT_EQ(Get("peer"), "");
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RemoteScalarInside, ConnectsAsPolicyAndTheHostSay)
{
    const TimeOut time_out(17);
    EvalContextVariableControlCommonPut(ctx_.get(), COMMON_CONTROL_PROTOCOL_VERSION, "cookie");
    Answer(OnTheWire("v"));

    Get("peer");

    EXPECT_EQ(plan.host, "peer");
    EXPECT_EQ(plan.port, "(none)");
    EXPECT_EQ(plan.timeout, 17U);
    EXPECT_FALSE(plan.restricted);
    EXPECT_EQ(plan.flags.protocol_version, VT_PROTOCOL_COOKIE);
    EXPECT_FALSE(plan.flags.cache_connection);
    EXPECT_FALSE(plan.flags.force_ipv4);
    EXPECT_FALSE(plan.flags.trust_server);
    EXPECT_FALSE(plan.flags.off_the_record);
}

TEST_F(RemoteScalarInside, SplitsAPortFromTheServer)
{
    Answer(OnTheWire("v"));

    Get("[2001:db8::1]:7001");

    EXPECT_EQ(plan.host, "2001:db8::1");
    EXPECT_EQ(plan.port, "7001");
    EXPECT_EQ(plan.flags.protocol_version, VT_PROTOCOL_UNDEFINED);
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "* Hailing 2001:db8::1 for remote handle \"h1\""));
}

TEST_F(RemoteScalarInside, ARefusalWithMoreTextIsExactlyBad)
{
    for (const std::string refusal : {"BAD: access denied", "BAD:", "BAD:x"}) {
        SocketPair sockets;
        close(std::exchange(plan.fd, sockets.ours.Release()));
        ASSERT_TRUE(SendBytes(sockets.theirs.Get(), OnTheWire(refusal)));
        EXPECT_EQ(Get("peer"), "BAD:") << refusal;
        EXPECT_THAT(Errors(), IsEmpty());
    }
}

TEST_F(RemoteScalarInside, AValueThatOnlyBeginsLikeARefusalIsAValue)
{
    Answer(OnTheWire("BAD"));

    EXPECT_EQ(Get("peer"), "BAD");
}

TEST_F(RemoteScalarInside, LeavesTheConnectionOpenAfterAValueUntilTheHostClosesIt)
{
    Answer(OnTheWire("v"));

    Get("peer");

    EXPECT_FALSE(IsClosed());
    vtnet_Shut();
    EXPECT_TRUE(IsClosed());
}

TEST_F(RemoteScalarInside, LeavesTheConnectionOpenAfterARefusal)
{
    Answer(OnTheWire("BAD: no"));

    Get("peer");

    EXPECT_FALSE(IsClosed());
}

TEST_F(RemoteScalarInside, AValueThatFillsATransactionIsReturnedWhole)
{
    for (const size_t length : {size_t{4095}, size_t{4096}}) {
        SocketPair sockets;
        close(std::exchange(plan.fd, sockets.ours.Release()));
        const std::string value(length, 'v');
        ASSERT_TRUE(SendBytes(sockets.theirs.Get(), OnTheWire(value)));
        EXPECT_EQ(Get("peer"), value);
    }
}

TEST_F(RemoteScalarInside, AnAnswerOfMoreThan4096BytesIsNone)
{
    Answer(OnTheWire(std::string(4097, 'v')));

    EXPECT_EQ(Get("peer"), "BAD:");
    ASSERT_EQ(Errors().size(), 1U);
    EXPECT_THAT(Errors()[0], Pair(LOG_LEVEL_ERR, StartsWith("remotescalar: failed to receive (recv: ")));
    EXPECT_TRUE(IsClosed());
}

TEST_F(RemoteScalarInside, AnAnswerWithAnUnknownStatusIsNone)
{
    Answer(OnTheWire('x', "value", 5));

    EXPECT_EQ(Get("peer"), "BAD:");
    ASSERT_EQ(Errors().size(), 1U);
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "No answer from host"));
}

TEST_F(RemoteScalarInside, AnAnswerThatEndsTooSoonIsNoneWhereverItIsCut)
{
    const std::string answer = OnTheWire("value");
    for (size_t cut = 0; cut < answer.size(); ++cut) {
        SocketPair sockets;
        close(std::exchange(plan.fd, sockets.ours.Release()));
        ASSERT_TRUE(SendBytes(sockets.theirs.Get(), answer.substr(0, cut)));
        shutdown(sockets.theirs.Get(), SHUT_WR);
        log_.lines.clear();

        EXPECT_EQ(Get("peer"), "BAD:") << cut;

        ASSERT_EQ(log_.lines.size(), 3U);
        EXPECT_THAT(log_.lines[1], Pair(LOG_LEVEL_ERR, StartsWith("remotescalar: failed to receive (recv: ")));
        EXPECT_EQ(log_.lines[2], LogCapture::Line(LOG_LEVEL_VERBOSE, "No answer from host"));
        std::string all = ReadToEnd(sockets.theirs.Get());  // the client's end is closed, else this would not end
        EXPECT_EQ(all, OnTheWire("VAR h1"));
    }
}

TEST_F(RemoteScalarInside, APeerThatIsGoneCannotBeSentTo)
{
    sockets_.theirs.Close();

    EXPECT_EQ(Get("peer"), "BAD:");
    EXPECT_THAT(Errors(), ElementsAre(Pair(LOG_LEVEL_ERR, ErrorText("remotescalar: failed to send (send: ", EPIPE))));
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, "No answer from host"));
}

TEST_F(RemoteScalarInside, APeerThatStopsReadingEndsAtTheTimeOut)
{
    const TimeOut time_out(1);
    const std::string piece(4096, 'x');
    while (send(plan.fd, piece.data(), piece.size(), MSG_DONTWAIT) > 0) {}

    EXPECT_EQ(Get("peer"), "BAD:");
    ASSERT_EQ(Errors().size(), 1U);
    EXPECT_THAT(Errors()[0], Pair(LOG_LEVEL_ERR, StartsWith("remotescalar: failed to send (send: ")));
}

TEST_F(RemoteScalarInside, APeerThatDoesNotAnswerEndsAtTheTimeOut)
{
    const TimeOut time_out(1);

    EXPECT_EQ(Get("peer"), "BAD:");
    ASSERT_EQ(Errors().size(), 1U);
    EXPECT_THAT(Errors()[0], Pair(LOG_LEVEL_ERR, StartsWith("remotescalar: failed to receive (recv: ")));
    EXPECT_TRUE(IsClosed());
}

TEST_F(RemoteScalarInside, AServerThatDoesNotRespondIsSaidWithWhatTheSystemSaid)
{
    plan.error = ECONNREFUSED;

    EXPECT_EQ(Get("peer:1"), "BAD:");
    EXPECT_EQ(buffer_, std::string("BAD:") + std::string(VT_BUFSIZE - 3, '\0'));
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "* Hailing peer for remote handle \"h1\""),
                            Pair(LOG_LEVEL_ERR,
                                 ErrorText("remotescalar: no suitable server responded (connect: ", ECONNREFUSED))));
}

TEST_F(RemoteScalarInside, ARequestThatFitsNoTransactionIsNotSent)
{
    EXPECT_EQ(Get("peer", std::string(4093, 'h')), "BAD:");
    ASSERT_EQ(Errors().size(), 1U);
    EXPECT_THAT(Errors()[0], Pair(LOG_LEVEL_ERR, StartsWith("remotescalar: failed to send (send: ")));
    EXPECT_EQ(Request(), "");
}

// --- Encrypted -------------------------------------------------------------------------------------------------------

TEST_F(RemoteScalarInside, TheClassicProtocolEncryptsBothWays)
{
    Answer(OnTheWire(Encrypt("secret value")));

    EXPECT_EQ(Get("peer", "h1", 1), "secret value");

    const std::string request = Request();
    ASSERT_EQ(request.size(), 16U + 32U);  // one block before, one of text and padding
    EXPECT_EQ(request.substr(0, 16), std::string("SVAR 32") + std::string(9, '\0'));
    EXPECT_EQ(Decrypt(request.substr(16)), std::string("VAR h1") + '\0');
    EXPECT_EQ(VtSessionKeySize('N'), 32) << "the product's cipher";
    EXPECT_FALSE(IsClosed());
}

TEST_F(RemoteScalarInside, AnEncryptedValueMayBringItsZero)
{
    Answer(OnTheWire(Encrypt(std::string("value") + '\0')));

    EXPECT_EQ(Get("peer", "h1", 1), "value");
}

TEST_F(RemoteScalarInside, TheClassicProtocolWithoutEncryptionIsPlain)
{
    Answer(OnTheWire("value"));

    EXPECT_EQ(Get("peer", "h1", 0), "value");
    EXPECT_EQ(Request(), "VAR h1");
}

TEST_F(RemoteScalarInside, ARefusalInPlainWordsIsSeenUnderEncryptionToo)
{
    Answer(OnTheWire("BAD: denied"));

    EXPECT_EQ(Get("peer", "h1", 1), "BAD:");
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RemoteScalarInside, NewerProtocolsAreNeverEncryptedTwice)
{
    for (const ProtocolVersion version : {VT_PROTOCOL_TLS, VT_PROTOCOL_COOKIE, VT_PROTOCOL_FILESTREAM}) {
        SocketPair sockets;
        close(std::exchange(plan.fd, sockets.ours.Release()));
        plan.protocol = version;
        ASSERT_TRUE(SendBytes(sockets.theirs.Get(), OnTheWire("value")));

        EXPECT_EQ(Get("peer", "h1", 1), "value");

        std::string request(10, '\0');
        EXPECT_EQ(recv(sockets.theirs.Get(), request.data(), request.size(), MSG_WAITALL), 10);
        EXPECT_EQ(request, OnTheWire("VAR h1"));
    }
}

TEST_F(RemoteScalarInside, WithoutASessionKeyNothingIsSentAndTheBufferIsEmpty)
{
    plan.with_key = false;

    EXPECT_EQ(Get("peer", "h1", 1), "");

    EXPECT_EQ(buffer_, std::string(VT_BUFSIZE + 1, '\0'));
    EXPECT_THAT(Errors(), ElementsAre(Pair(LOG_LEVEL_ERR, "Encryption failed for \"VAR h1\"")));
    EXPECT_EQ(Request(), "");
    EXPECT_FALSE(IsClosed()) << "the connection is left as it is";
}

TEST_F(RemoteScalarInside, AnAnswerThatCannotBeDecryptedIsNone)
{
    Answer(OnTheWire("no cipher text"));

    EXPECT_EQ(Get("peer", "h1", 1), "BAD:");
    EXPECT_THAT(Errors(), ElementsAre(Pair(LOG_LEVEL_ERR, "Decryption failed for \"VAR h1\"")));
}

// With its word, blank and zero this handle makes a text whose cipher text has 4080 bytes.
const std::string kLongestSecretHandle(4063 - 5, 'h');

TEST_F(RemoteScalarInside, ACipherTextOf4080BytesFillsATransaction)
{
    Answer(OnTheWire(Encrypt("value")));

    EXPECT_EQ(Get("peer", kLongestSecretHandle, 1), "value");

    const std::string request = Request();
    ASSERT_EQ(request.size(), 4096U);
    EXPECT_EQ(request.substr(0, 10), std::string("SVAR 4080") + '\0');
    EXPECT_EQ(Decrypt(request.substr(16)), "VAR " + kLongestSecretHandle + '\0');
}

TEST_F(RemoteScalarInside, TheNextLongerCipherTextEndsTheProcess)
{
    EXPECT_DEATH(Get("peer", kLongestSecretHandle + "h", 1),
                 "programming error: GetRemoteScalar: tosend \\(4112\\) > sendbuffer \\(4096\\)");
}

TEST_F(RemoteScalarInside, ATextWhoseCipherTextFitsNoBufferIsNotEncrypted)
{
    EXPECT_EQ(Get("peer", std::string(5000, 'h'), 1), "");
    EXPECT_THAT(Errors(),
                ElementsAre(Pair(LOG_LEVEL_ERR, "Encryption failed for \"VAR " + std::string(5000, 'h') + "\"")));
}

TEST(WriteEncryptedRequest, PutsTheCipherTextAtByte16)
{
    char message[VT_BUFSIZE] = {};

    EXPECT_EQ(WriteEncryptedRequest("VAR", "0123456789", 10, message), 26);

    EXPECT_EQ(std::string(message, 27), std::string("SVAR 10") + std::string(9, '\0') + "0123456789" + '\0');
}

TEST(WriteEncryptedRequest, TakesACipherTextOf4080Bytes)
{
    char message[VT_BUFSIZE] = {};
    const std::string cipher_text(4080, 'c');

    EXPECT_EQ(WriteEncryptedRequest("VAR", cipher_text.data(), 4080, message), 4096);

    EXPECT_EQ(std::string(message + 16, 4080), cipher_text);
}

TEST(WriteEncryptedRequest, EndsTheProcessAtACipherTextOf4081Bytes)
{
    char message[VT_BUFSIZE] = {};
    const std::string cipher_text(4081, 'c');
    EXPECT_DEATH(WriteEncryptedRequest("VAR", cipher_text.data(), 4081, message),
                 "programming error: GetRemoteScalar: tosend \\(4097\\) > sendbuffer \\(4096\\)");
}

TEST(WriteEncryptedRequest, AWordThatIsTooLongKeepsToItsPlace)
{
    char message[VT_BUFSIZE] = {};

    EXPECT_EQ(WriteEncryptedRequest("0123456789abcdef", "cipher", 6, message), 22);

    EXPECT_EQ(std::string(message, 22), std::string("S0123456789abcd") + '\0' + "cipher");
}

// --- Over TLS --------------------------------------------------------------------------------------------------------

class RemoteScalarOverTls : public RemoteScalar {
  protected:
    ~RemoteScalarOverTls() override
    {
        vtnet_Shut();  // the server waits for the end of a connection that was left open
        if (server.joinable()) {
            server.join();
        }
    }

    std::string Address() const { return "127.0.0.1:" + listener.port; }

    // A server as the daemon is one, for one request; what it heard is in request_.
    void ServeAnswer(const std::string &answer)
    {
        Serve([this, answer](Descriptor fd) {
            const veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd.Get());
            if (peer.connection == nullptr) {
                return;
            }
            request_ = ReceiveText(peer.connection.get());
            EXPECT_EQ(SendTransaction(peer.connection.get(), answer.data(), static_cast<int>(answer.size()), 't'), 0);
            after_ = ReceiveText(peer.connection.get());
        });
    }

    std::string request_;
    std::string after_;
};

TEST_F(RemoteScalarOverTls, AValueIsFetched)
{
    ServeAnswer("10.2.0.1/24");

    EXPECT_EQ(Get(Address()), "10.2.0.1/24");

    vtnet_Shut();  // the connection was left open: this ends it
    server.join();
    EXPECT_EQ(request_, "VAR h1");
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RemoteScalarOverTls, EncryptionAskedForChangesNothing)
{
    ServeAnswer("value");

    EXPECT_EQ(Get(Address(), "h1", 1), "value");

    vtnet_Shut();
    server.join();
    EXPECT_EQ(request_, "VAR h1");
}

TEST_F(RemoteScalarOverTls, ARefusalIsBad)
{
    ServeAnswer("BAD: no such handle");

    EXPECT_EQ(Get(Address()), "BAD:");
    vtnet_Shut();
}

TEST_F(RemoteScalarOverTls, ManyLookUpsLeaveNothingBehindOnceTheHostCloses)
{
    for (int i = 0; i < 20; ++i) {
        ServeAnswer("value " + std::to_string(i));
        EXPECT_EQ(Get(Address()), "value " + std::to_string(i));
        veltrane::CloseOpenConnections();
    }
}

TEST_F(RemoteScalarOverTls, NobodyThereIsSaid)
{
    const std::string nobody = Address();
    listener.listener.Close();

    EXPECT_EQ(Get(nobody), "BAD:");
    EXPECT_THAT(Errors(),
                ElementsAre(Pair(LOG_LEVEL_ERR,
                                 ErrorText("remotescalar: no suitable server responded (connect: ", ECONNREFUSED))));
}

TEST_F(RemoteScalarOverTls, AServerThatIsNotTrustedIsNotAsked)
{
    const ForeignHost stranger;
    Serve([&stranger](Descriptor fd) {
        veltrane::SslPtr ssl;
        ASSERT_EQ(veltrane::TlsHandshake(*stranger.contexts, veltrane::TlsRole::server, fd.Get(), &ssl), 0);
        EXPECT_EQ(ReadToEnd(fd.Get()), "") << "not even a HELLO";
    });

    EXPECT_EQ(Get(Address()), "BAD:");
    EXPECT_THAT(
        Errors(),
        ElementsAre(Pair(LOG_LEVEL_ERR, ErrorText("remotescalar: no suitable server responded (connect: ", EACCES))));
    server.join();
}

TEST_F(RemoteScalarOverTls, ThePolicysProtocolMayAskForClassicWhichIsNeverSpoken)
{
    EvalContextVariableControlCommonPut(ctx_.get(), COMMON_CONTROL_PROTOCOL_VERSION, "classic");

    EXPECT_EQ(Get(Address()), "BAD:");
    EXPECT_THAT(Errors(),
                ElementsAre(Pair(LOG_LEVEL_ERR,
                                 ErrorText("remotescalar: no suitable server responded (connect: ", EPROTONOSUPPORT))));
}

TEST_F(RemoteScalarOverTls, WithoutANetworkThereIsNoAnswerAndTheBufferIsUntouched)
{
    vtnet_Shut();
    char word[] = "VAR";
    char handle[] = "h1";
    char buffer[VT_BUFSIZE + 1] = "before";

    EXPECT_EQ(GetRemoteScalar__real(ctx_.get(), word, handle, "127.0.0.1", 0, buffer), nullptr);

    EXPECT_STREQ(buffer, "before");
    EXPECT_THAT(log_.lines, IsEmpty());
}

}  // namespace
