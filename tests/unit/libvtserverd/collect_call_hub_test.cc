// One collect call against hubs of every kind: in this process, and over TLS on loopback.
#include "libvtserverd/collect_call_hub.h"

#include <dlfcn.h>
#include <netinet/in.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/globals.h>
#include <veltrane/string_lib.h>

#include "support/log_capture.h"
#include "support/network.h"
#include "unit/libvtserverd/collect_call_support.h"

using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

using Line = LogCapture::Line;
using Lines = std::vector<Line>;

// What PolicyServerGetIP answers instead of looking into the work directory.
std::optional<std::string> address_of_hub;

const Line kFailed = {LOG_LEVEL_INFO, "Failed to contact the hub for report collection."};
const Line kSending = {LOG_LEVEL_VERBOSE, "CollectCallWorker: sending request to server"};

Lines Hailing(const std::string &address)
{
    const Line rule = {LOG_LEVEL_INFO, "......................................................................"};
    return {rule, {LOG_LEVEL_INFO, " * Peer collect call back to hub " + address + " : " + VELTRANE_PORT_STR}, rule};
}

Lines operator+(Lines lines, const Lines &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

// A hub that ServerConnection finds without a network.
class InProcessHub : public testing::Test {
  protected:
    InProcessHub()
    {
        hub = this;
        address_of_hub = "192.0.2.1";
        before_ = ServerConnectionReplace(Connect);
        descriptors_before_ = OpenDescriptors();
    }
    ~InProcessHub() override
    {
        far_end.Close();
        EXPECT_EQ(OpenDescriptors(), descriptors_before_);
        ServerConnectionReplace(before_);
        address_of_hub.reset();
        hub = nullptr;
    }

    static AgentConnection *Connect(const char *server, const char *port, const Rlist *keys, unsigned int timeout,
                                    ConnectionFlags flags, int *ret_error)
    {
        hub->calls++;
        hub->server = server;
        hub->port = port;
        hub->any_key = keys == nullptr;
        hub->timeout = timeout;
        hub->flags = flags;
        *ret_error = hub->error;
        return std::exchange(hub->connection, nullptr);
    }

    // What the call gives a host that cannot call, with these lines about why.
    void ExpectNoCall(const Lines &lines)
    {
        LogCapture log;
        EXPECT_FALSE(CallHub().has_value());
        EXPECT_THAT(log.lines, ElementsAreArray(lines));
    }

    void Answer(const std::string &bytes, ProtocolVersion version = VT_PROTOCOL_FILESTREAM)
    {
        connection = ConnectionToHub(bytes, &far_end, version);
    }

    // A connection without TLS, on one end of a socket pair.
    void ConnectPlainly(ProtocolVersion version)
    {
        SocketPair sockets;
        ConnectionInfo *info = ConnectionInfoNew();
        ConnectionInfoSetSocket(info, sockets.ours.Release());
        ConnectionInfoSetProtocolVersion(info, version);
        connection = veltrane::AgentConnectionNew(info);
        far_end = std::move(sockets.theirs);
    }

    inline static InProcessHub *hub = nullptr;
    AgentConnection *connection = nullptr;  // that the next call gets
    int error = -2;
    Descriptor far_end;  // of that connection

    int calls = 0;
    std::string server;
    std::string port;
    bool any_key = false;
    unsigned int timeout = 0;
    ConnectionFlags flags{};

  private:
    ServerConnectionFunction before_;
    size_t descriptors_before_;
};

// A hub over TLS on loopback, whose key is this host's own.
class LoopbackHub : public NetworkTest {
  protected:
    LoopbackHub() : port_before_(VELTRANE_PORT_STR)
    {
        WriteFile(work.path / "hub_address", "127.0.0.1\n");
        StringCopy(listener.port.c_str(), VELTRANE_PORT_STR, sizeof(VELTRANE_PORT_STR));
    }
    ~LoopbackHub() override
    {
        if (server.joinable()) {
            server.join();
        }
        StringCopy(port_before_.c_str(), VELTRANE_PORT_STR, sizeof(VELTRANE_PORT_STR));
    }

    // Accept a connection, read the request, answer with these bytes, and go on.
    void Answer(const std::string &bytes, std::function<void(ConnectionInfo *)> then = {})
    {
        Serve([this, bytes, then = std::move(then)](Descriptor fd) {
            veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd.Get());
            accepted_socket = std::move(fd);
            ASSERT_NE(peer.connection, nullptr);
            request = ReceiveText(peer.connection.get());
            if (!bytes.empty()) {
                SSL_write(ConnectionInfoSSL(peer.connection.get()), bytes.data(), static_cast<int>(bytes.size()));
            }
            if (then) {
                then(peer.connection.get());
            }
        });
    }

    // As ExpectNoCall above; the hub is asked first and its thread is done.
    void ExpectNoCall(const Lines &lines)
    {
        LogCapture log;
        EXPECT_FALSE(CallHub().has_value());
        EXPECT_THAT(log.lines, ElementsAreArray(lines));
    }

    Lines Asked(const Line &outcome) const { return Hailing("127.0.0.1") + Lines{kSending, outcome, kFailed}; }

    std::string request;

  private:
    std::string port_before_;
};

void CloseInGoodOrder(ConnectionInfo *info) { veltrane::ConnectionSayGoodbye(info); }

}  // namespace

// The host's answer, unless a test has its own.
extern "C" char *PolicyServerGetIP(void)
{
    if (address_of_hub.has_value()) {
        return SafeStringDuplicate(address_of_hub->c_str());
    }
    static const auto real = reinterpret_cast<char *(*)()>(dlsym(RTLD_NEXT, "PolicyServerGetIP"));
    return real();
}

TEST_F(InProcessHub, AnAcceptedCallGivesTheOpenSocketAndTheQueueLength)
{
    Answer(QueueLength(3));
    const int fd = ConnectionInfoSocket(connection->conn_info);
    LogCapture log;

    const std::optional<AcceptedCall> call = CallHub();

    ASSERT_TRUE(call.has_value());
    EXPECT_EQ(call->socket.Get(), fd);
    EXPECT_EQ(call->queue, 3);
    EXPECT_THAT(log.lines,
                ElementsAreArray(
                    Hailing("192.0.2.1") +
                    Lines{kSending,
                          {LOG_LEVEL_VERBOSE, "Collect call established socket: " + std::to_string(fd) + ", queue: 3."},
                          {LOG_LEVEL_VERBOSE, "CollectCallWorker: current waiting queue is [3]"}}));
    EXPECT_TRUE(SendBytes(fd, "x"));  // still open
}

TEST_F(InProcessHub, TheConnectionIsAskedForWithTheHostsSettings)
{
    ExpectNoCall(Hailing("192.0.2.1") +
                 Lines{{LOG_LEVEL_VERBOSE, "No suitable hub server responded to hail (-2)"}, kFailed});

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(server, "192.0.2.1");
    EXPECT_EQ(port, VELTRANE_PORT_STR);
    EXPECT_TRUE(any_key);
    EXPECT_EQ(timeout, static_cast<unsigned int>(CONNTIMEOUT));
    EXPECT_EQ(flags.protocol_version, VT_PROTOCOL_FILESTREAM);
    EXPECT_FALSE(flags.cache_connection);
    EXPECT_FALSE(flags.force_ipv4);
    EXPECT_FALSE(flags.trust_server);
    EXPECT_FALSE(flags.off_the_record);
}

TEST_F(InProcessHub, TheReasonOfAFailedConnectionIsItsNumber)
{
    error = -4;
    ExpectNoCall(Hailing("192.0.2.1") +
                 Lines{{LOG_LEVEL_VERBOSE, "No suitable hub server responded to hail (-4)"}, kFailed});
}

TEST_F(InProcessHub, AnAddressOfLocalhostNeverCausesAConnectionAttempt)
{
    address_of_hub = "localhost";
    ExpectNoCall(Hailing("localhost") + Lines{{LOG_LEVEL_INFO, "No hub is registered to connect to"}, kFailed});
    EXPECT_EQ(calls, 0);
}

TEST_F(InProcessHub, AnEmptyAddressNeverCausesAConnectionAttempt)
{
    address_of_hub = "";
    ExpectNoCall(Hailing("") + Lines{{LOG_LEVEL_INFO, "No hub is registered to connect to"}, kFailed});
    EXPECT_EQ(calls, 0);
}

TEST_F(InProcessHub, AConnectionThatAgreedOnAProtocolWithoutTlsIsDropped)
{
    for (const ProtocolVersion version :
         {VT_PROTOCOL_UNDEFINED, VT_PROTOCOL_CLASSIC, static_cast<ProtocolVersion>(5)}) {
        SCOPED_TRACE(version);
        ConnectPlainly(version);
        ExpectNoCall(Hailing("192.0.2.1") + Lines{{LOG_LEVEL_ERR, "Call Collect is only supported over TLS"}, kFailed});
        EXPECT_EQ(ReadToEnd(far_end.Get()), "");
    }
}

TEST_F(InProcessHub, EveryProtocolOverTlsWillDo)
{
    for (const ProtocolVersion version : {VT_PROTOCOL_TLS, VT_PROTOCOL_COOKIE, VT_PROTOCOL_FILESTREAM}) {
        SCOPED_TRACE(version);
        Answer(QueueLength(1), version);
        EXPECT_TRUE(CallHub().has_value());
    }
}

TEST_F(InProcessHub, ARequestThatCannotBeSentIsAnError)
{
    ConnectPlainly(VT_PROTOCOL_FILESTREAM);
    far_end.Close();
    ExpectNoCall(Hailing("192.0.2.1") +
                 Lines{kSending, {LOG_LEVEL_ERR, "Couldn't send data. (send: Broken pipe)"}, kFailed});
}

TEST_F(InProcessHub, WithoutATlsObjectNothingCanBeReceived)
{
    ConnectPlainly(VT_PROTOCOL_FILESTREAM);
    ExpectNoCall(Hailing("192.0.2.1") + Lines{kSending, {LOG_LEVEL_ERR, "Couldn't receive data."}, kFailed});
    EXPECT_EQ(ReadToEnd(far_end.Get()), std::string("t\0\0\44SCALLBACK CALL_ME_BACK collect_calls", 40));
}

TEST_F(InProcessHub, TheLargestQueueIsAccepted)
{
    Answer(QueueLength(INT32_MAX));
    const std::optional<AcceptedCall> call = CallHub();
    ASSERT_TRUE(call.has_value());
    EXPECT_EQ(call->queue, INT32_MAX);
}

TEST_F(InProcessHub, NoMoreThanFourBytesAreTheAnswer)
{
    Answer(QueueLength(2) + "more");
    const std::optional<AcceptedCall> call = CallHub();
    ASSERT_TRUE(call.has_value());
    EXPECT_EQ(call->queue, 2);
}

TEST_F(LoopbackHub, TheHubBeginsANewHandshakeOnTheSocketThatItAccepted)
{
    AgentPtr of_hub;
    Answer(QueueLength(7), [&](ConnectionInfo *info) {
        ConnectionInfoSetSSL(info, nullptr);  // without a close alert
        int failure_of_hub = 0;
        of_hub.reset(veltrane::ConnectOverSocket(accepted_socket.Get(), nullptr, {}, &failure_of_hub));
        if (of_hub != nullptr) {
            (void)accepted_socket.Release();
            (void)SendTransaction(of_hub->conn_info, "QUERY", 5, 't');
        }
    });

    std::optional<AcceptedCall> call = CallHub();

    ASSERT_TRUE(call.has_value());
    EXPECT_EQ(call->queue, 7);
    const veltrane::AcceptedPeer hub = veltrane::AcceptPeer(call->socket.Get());
    server.join();
    ASSERT_NE(hub.connection, nullptr);
    EXPECT_EQ(request, "SCALLBACK CALL_ME_BACK collect_calls");
    EXPECT_EQ(ReceiveText(hub.connection.get()), "QUERY");
}

TEST_F(LoopbackHub, ABusyHubIsCalledAgainLater)
{
    Answer(QueueLength(0));
    ExpectNoCall(Asked({LOG_LEVEL_INFO, "Server is busy, we'll try calling again later."}));
}

TEST_F(LoopbackHub, ANegativeQueueLengthIsUnknown)
{
    Answer(QueueLength(-5));
    ExpectNoCall(Asked({LOG_LEVEL_CRIT, "Unknown reply from hub [-5]."}));
}

TEST_F(LoopbackHub, ClosingAfterTwoBytesIsAWarningWithTheCounts)
{
    Answer("ab", CloseInGoodOrder);
    ExpectNoCall(Asked({LOG_LEVEL_WARNING,
                        "Hub failed to report collect call queue length (sent only 2/4 bytes); possibly refusing "
                        "access, check ACL for collect_calls."}));
}

TEST_F(LoopbackHub, ClosingWithoutAnAnswerIsAWarningWithTheCounts)
{
    Answer("", CloseInGoodOrder);
    ExpectNoCall(Asked({LOG_LEVEL_WARNING,
                        "Hub failed to report collect call queue length (sent only 0/4 bytes); possibly refusing "
                        "access, check ACL for collect_calls."}));
}

TEST_F(LoopbackHub, AHubThatNeverAnswersIsGivenUpAfterTheTimeOut)
{
    const TimeOut time_out(1);
    Answer("");
    ExpectNoCall(Asked({LOG_LEVEL_ERR, "Couldn't receive data."}));
}

TEST_F(LoopbackHub, NoHubListens)
{
    listener.listener.Close();
    ExpectNoCall(Hailing("127.0.0.1") +
                 Lines{{LOG_LEVEL_VERBOSE, "No suitable hub server responded to hail (-2)"}, kFailed});
}

TEST_F(LoopbackHub, AHubWithAKeyThatIsNotTrustedIsNotAsked)
{
    const ForeignHost stranger;
    Serve([&](Descriptor fd) {
        veltrane::SslPtr ssl;
        EXPECT_EQ(veltrane::TlsHandshake(*stranger.contexts, veltrane::TlsRole::server, fd.Get(), &ssl), 0);
        request = ReadToEnd(fd.Get());
    });
    ExpectNoCall(Hailing("127.0.0.1") +
                 Lines{{LOG_LEVEL_VERBOSE, "No suitable hub server responded to hail (-3)"}, kFailed});
}

TEST_F(LoopbackHub, AHubThatDoesNotSpeakTlsIsNotAsked)
{
    Serve([](Descriptor fd) {
        EXPECT_TRUE(SendBytes(fd.Get(), "220 welcome\r\n"));
        (void)ReadToEnd(fd.Get());
    });
    ExpectNoCall(Hailing("127.0.0.1") +
                 Lines{{LOG_LEVEL_VERBOSE, "No suitable hub server responded to hail (-4)"}, kFailed});
}

TEST_F(LoopbackHub, WithoutAnAddressThereIsNoHub)
{
    std::filesystem::remove(work.path / "hub_address");
    ExpectNoCall({{LOG_LEVEL_ERR, "Failed to resolve hub IP address"}, kFailed});
}

TEST_F(LoopbackHub, NoOutcomeLeaksADescriptor)
{
    // what is opened once for the process, such as the last-seen database, is open after the first round
    size_t first = 0;
    for (int round = 0; round < 3; round++) {
        for (const std::string &bytes : {QueueLength(0), QueueLength(-1), std::string("a"), QueueLength(9)}) {
            Answer(bytes, CloseInGoodOrder);
            EXPECT_EQ(CallHub().has_value(), bytes == QueueLength(9));
            server.join();
            accepted_socket.Close();
        }
        first = round == 0 ? OpenDescriptors() : first;
    }
    EXPECT_EQ(OpenDescriptors(), first);
}
