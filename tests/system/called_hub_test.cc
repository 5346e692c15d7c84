// The host's side of a collect call, with this test as the hub that is called: whatever the hub does with a call that
// it has accepted, the host serves it or gives it up, and calls again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libveltrane/server_connection.h"
#include "libveltrane/server_handshake.h"
#include "support/daemon.h"
#include "support/peers.h"
#include "support/sockets.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class CalledHub : public Daemon {
  protected:
    CalledHub()
    {
        InstallPlugin();
        TrustEachOther();
        WriteFile(workdir.path / "hub_address", "127.0.0.1\n" + hub.port + "\n");
        SetPolicy(Admit("delta", own_key), kCalls);
    }

    // Start a daemon that listens nowhere and calls every second.
    void StartCalling(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {"--bind", "127.0.0.1", "--port", "0", "--timeout", "2"});
        daemon = std::make_unique<BackgroundProcess>(kProgram, Options(arguments));
        ASSERT_TRUE(Says("The policy does not let this daemon listen"));
    }

    // The socket of the next call, accepted; none when the caller is gone. TLS is forgotten without a word, as a hub
    // does.
    Descriptor TakeCall() const
    {
        constexpr int32_t kQueue = 1;
        pollfd waiting{hub.listener.Get(), POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, 20'000), 1) << "nobody calls";
        Descriptor fd = hub.Accept();
        const veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd.Get());
        char request[VT_BUFSIZE] = "";
        if (peer.connection == nullptr || ReceiveTransaction(peer.connection.get(), request, nullptr) < 0) {
            return Descriptor();
        }
        EXPECT_STREQ(request, "SCALLBACK CALL_ME_BACK collect_calls");
        EXPECT_EQ(SSL_write(ConnectionInfoSSL(peer.connection.get()), &kQueue, sizeof(kQueue)), 4);
        return fd;
    }

    // Ask for reports on a call's socket.
    std::vector<std::string> AskOn(Descriptor *fd)
    {
        const AgentPtr conn(veltrane::ConnectOverSocket(fd->Get(), nullptr, {}, &error));
        if (conn == nullptr) {
            return {"no connection"};
        }
        (void)fd->Release();
        return AskReport(conn, "QUERY delta 0 0");
    }

    // Whether a report comes on the next call.
    bool ServeNextCall()
    {
        Descriptor fd = TakeCall();
        return fd.IsOpen() && AskOn(&fd).back() == "QUERY complete";
    }

    void ExpectTheNextCallIsServed() { EXPECT_TRUE(ServeNextCall()) << error << daemon->Err(); }

    static constexpr char kCalls[] = "    listen: false\n    call_collect_interval: 1\n";
    LoopbackListener hub;
};

TEST_F(CalledHub, AsksOnTheConnectionOfTheCallAgainAndAgain)
{
    StartCalling();
    ExpectTheNextCallIsServed();
    ExpectTheNextCallIsServed();
    EXPECT_EQ(Stop().status, 0);
}

TEST_F(CalledHub, ThatSpeaksNoTlsIsGivenUpAndCalledAgain)
{
    StartCalling();
    const Descriptor fd = TakeCall();
    ASSERT_TRUE(SendBytes(fd.Get(), "GET / HTTP/1.1\r\n\r\n"));
    EXPECT_TRUE(IsEnded(fd.Get()));
    ExpectTheNextCallIsServed();
}

TEST_F(CalledHub, ThatGoesAwayIsCalledAgain)
{
    StartCalling();
    TakeCall().Close();
    ExpectTheNextCallIsServed();
    Descriptor fd = TakeCall();
    Vanish(&fd);
    ExpectTheNextCallIsServed();
}

TEST_F(CalledHub, ThatStaysSilentIsGivenUpAtTheTimeOutAndCalledAgain)
{
    StartCalling();
    const Descriptor before_the_handshake = TakeCall();
    EXPECT_TRUE(IsEnded(before_the_handshake.Get()));
    Descriptor fd = TakeCall();
    const AgentPtr conn(veltrane::ConnectOverSocket(fd.Get(), nullptr, {}, &error));
    ASSERT_NE(conn, nullptr);
    (void)fd.Release();
    EXPECT_TRUE(IsEnded(ConnectionInfoSocket(conn->conn_info)));
    ExpectTheNextCallIsServed();
}

TEST_F(CalledHub, WhoseKeyNobodyTrustsAnyMoreIsRefusedLikeAnybody)
{
    StartCalling();
    Descriptor fd = TakeCall();
    ASSERT_EQ(Run({"trust", "remove", own_key}).status, 0);
    EXPECT_EQ(AskOn(&fd).front(), "no connection");
    EXPECT_EQ(error, veltrane::kNotTrusted);
    EXPECT_TRUE(Says("key " + own_key + " is not trusted"));
    ASSERT_EQ(Run({"trust", "add", own_key}).status, 0);
    ExpectTheNextCallIsServed();
}

TEST_F(CalledHub, ThatThePolicyDoesNotAdmitGetsNothing)
{
    SetPolicy(Admit("delta", "SHA=" + std::string(64, '1')), kCalls);
    StartCalling();
    Descriptor fd = TakeCall();
    EXPECT_EQ(AskOn(&fd).back(), kEnded);
    EXPECT_TRUE(Says("Access to 'delta' denied for 127.0.0.1 (" + own_key + ")"));
}

TEST_F(CalledHub, IsServedHoweverManyOthersAreThere)
{
    SetPolicy(Admit("delta", own_key), "    max_connections: 1\n    call_collect_interval: 1\n");
    Start();
    const AgentPtr first = Connect();
    ASSERT_NE(first, nullptr);
    const Descriptor second = ConnectLoopback(port);
    EXPECT_EQ(ReadToEnd(second.Get()), "") << "there is no room for another";
    ExpectTheNextCallIsServed();
    EXPECT_EQ(AskReport(first, "QUERY delta 0 0").back(), "QUERY complete");
}

TEST_F(CalledHub, IsCalledNoMoreWhenAReloadSaysSoAndAgainWhenAnotherDoes)
{
    StartCalling({"--verbose"});
    ExpectTheNextCallIsServed();
    SetPolicy(Admit("delta", own_key), "    listen: false\n");
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("CollectCallWorker: setting interval to 0 and stopping"));
    SetPolicy(Admit("delta", own_key), kCalls);
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("CollectCallWorker: machinery started"));
    // A call that was under way when calls were turned off is nobody's: the first that is taken may be that one.
    bool served = false;
    for (int i = 0; i < 5 && !served; ++i) { served = ServeNextCall(); }
    EXPECT_TRUE(served);
    SetPolicy(Admit("delta", own_key), "    listen: false\n    call_collect_interval: 2\n");
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("CollectCallWorker: adjusting interval to [2] while running"));
    ExpectTheNextCallIsServed();
}

TEST_F(CalledHub, DoesNotHoldUpTheEndOfTheDaemon)
{
    StartCalling();
    const Descriptor silent = TakeCall();
    EXPECT_EQ(Stop().status, 0);
    EXPECT_FALSE(daemon->Wait().timed_out);
}

TEST_F(CalledHub, ThatIsThisHostIsNeverCalled)
{
    WriteFile(workdir.path / "hub_address", "localhost\n" + hub.port + "\n");
    SetPolicy(Admit("delta", own_key), "    call_collect_interval: 1\n");
    Start({"--inform"});
    EXPECT_TRUE(Says("No hub is registered to connect to"));
    pollfd waiting{hub.listener.Get(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 0), 0);
}

}  // namespace
