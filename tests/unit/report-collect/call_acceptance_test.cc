// A collect call in the hub's server daemon: the host that calls and the hub process are played by the test.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <string>
#include <thread>

#include "report-collect/hand_over.h"
#include "report-collect/hub_functions.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/work_dir.h"
#include "unit/report-collect/fake_hub_process.h"

using report_collect::HubCallsPath;
using report_collect::TakeHandOver;
using report_collect::TakenConnection;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

// The daemon's side of a connection with a host, whose side is in pair.client.
class CollectCall : public testing::Test {
  protected:
    bool Accept() { return Vesk_AcceptCollectCall__real(&conn); }

    // What the host reads in answer to its call: its place, -1 at the end of the stream.
    int32_t Answer()
    {
        int32_t number = -1;
        return SSL_read(ConnectionInfoSSL(pair.client.get()), &number, sizeof(number)) == sizeof(number) ? number : -1;
    }

    const std::string &HostKey() const { return pair.client_host.identity; }

    void FillTheWayToTheHost()
    {
        const std::string bytes(65536, 'x');
        while (send(pair.sockets.theirs.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {}
        ASSERT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
    }

    WorkDirectory work;
    TlsPair pair;
    ServerConnectionState conn{pair.server.get(), nullptr, 0, false, nullptr};
};

TEST_F(CollectCall, TheHostHasItsAnswerBeforeTheHubProcessHasTheConnection)
{
    FakeHubProcess hub;
    bool answered_before = false;
    TakenConnection taken;
    hub.Serve([&](const Descriptor &line) {
        EXPECT_TRUE(NothingToRead(pair.sockets.ours.Get()));  // nothing goes out before the place is known
        TellPlaceTo(line.Get(), 3);
        taken = TakeHandOver(line.Get());
        answered_before = !NothingToRead(pair.sockets.ours.Get());
    });
    LogCapture log;
    EXPECT_TRUE(Accept());
    hub.Join();
    EXPECT_TRUE(answered_before);
    EXPECT_EQ(taken.trouble, "");
    EXPECT_EQ(taken.text, HostKey());
    EXPECT_TRUE(IsSameFile(taken.socket.Get(), pair.sockets.theirs.Get()));
    EXPECT_EQ(Answer(), 3);
    EXPECT_TRUE(NothingToRead(pair.sockets.ours.Get())) << "the answer is all that goes out";
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Accepted the collect call of '" + HostKey() + "', place 3")));
}

TEST_F(CollectCall, TheHubProcessBeginsAnewOnTheSocketInTheOtherDirection)
{
    FakeHubProcess hub;
    veltrane::ConnectionInfoPtr asking;
    Descriptor socket;
    hub.Serve([&](const Descriptor &line) {
        TellPlaceTo(line.Get(), 1);
        socket = std::move(TakeHandOver(line.Get()).socket);
        TlsPair::Connect(pair.server_host, veltrane::TlsRole::client, &socket, &asking);
    });
    ASSERT_TRUE(Accept());
    // The daemon frees its side as it does after a yes.
    pair.server.reset();
    pair.sockets.theirs.Close();
    ASSERT_EQ(Answer(), 1);
    pair.client.reset();
    veltrane::ConnectionInfoPtr answering;
    TlsPair::Connect(pair.client_host, veltrane::TlsRole::server, &pair.sockets.ours, &answering);
    hub.Join();
    ASSERT_NE(asking, nullptr);
    ASSERT_NE(answering, nullptr);
    EXPECT_STREQ(ConnectionInfoIdentity(asking.get()), pair.client_host.identity.c_str());
    EXPECT_STREQ(ConnectionInfoIdentity(answering.get()), pair.server_host.identity.c_str());
}

TEST_F(CollectCall, WithoutAHubProcessTheHostIsToldToCallLater)
{
    LogCapture log;
    EXPECT_FALSE(Accept());
    EXPECT_EQ(Answer(), 0);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING, "Put off the collect call of '" + HostKey() +
                                                        "': there is no hub process that takes it: (connect: No such "
                                                        "file or directory)")));
}

TEST_F(CollectCall, AFullQueueIsToldToTheHost)
{
    FakeHubProcess hub;
    TakenConnection taken;
    hub.Serve([&](const Descriptor &line) {
        TellPlaceTo(line.Get(), 0);
        taken = TakeHandOver(line.Get());
    });
    LogCapture log;
    EXPECT_FALSE(Accept());
    hub.Join();
    EXPECT_EQ(Answer(), 0);
    EXPECT_EQ(taken.trouble, "the other side closed without handing anything over");
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_INFO, "Put off the collect call of '" + HostKey() +
                                                                "': the queue of the hub process is full")));
}

TEST_F(CollectCall, AHostThatStopsReadingGivesItsPlaceBack)
{
    const TimeOut soon(1);
    FillTheWayToTheHost();
    FakeHubProcess hub;
    ssize_t end = -1;
    hub.Serve([&](const Descriptor &line) {
        TellPlaceTo(line.Get(), 1);
        char byte = 0;
        end = recv(line.Get(), &byte, 1, 0);
    });
    LogCapture log;
    EXPECT_FALSE(Accept());
    hub.Join();
    EXPECT_EQ(end, 0);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not answer the collect call of '" + HostKey() +
                                                               "'. (send: Connection timed out)")));
}

TEST_F(CollectCall, AHostThatIsGoneGivesItsPlaceBack)
{
    pair.sockets.ours.Close();
    FakeHubProcess hub;
    TakenConnection taken;
    hub.Serve([&](const Descriptor &line) {
        TellPlaceTo(line.Get(), 1);
        taken = TakeHandOver(line.Get());
    });
    LogCapture log;
    EXPECT_FALSE(Accept());
    hub.Join();
    EXPECT_FALSE(taken.socket.IsOpen());
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not answer the collect call of '" + HostKey() +
                                                               "'. (send: Broken pipe)")));
}

TEST_F(CollectCall, AHubProcessThatDiesAfterItsAnswerLosesTheCallAndItIsSaid)
{
    FakeHubProcess hub;
    hub.Serve([](Descriptor line) {
        shutdown(line.Get(), SHUT_RD);
        TellPlaceTo(line.Get(), 2);
    });
    const std::string lost = "The collect call of '" + HostKey() +
                             "' was accepted, and is lost on its way to the hub process: (sendmsg: Broken pipe)";
    LogCapture log;
    EXPECT_FALSE(Accept());
    hub.Join();
    EXPECT_EQ(Answer(), 2);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, lost)));
}

TEST_F(CollectCall, AConnectionWithoutTlsIsNoCollectCall)
{
    const SocketPair plain;
    const veltrane::ConnectionInfoPtr info(ConnectionInfoNew());
    ConnectionInfoSetSocket(info.get(), plain.theirs.Get());
    conn.conn_info = info.get();
    LogCapture log;
    EXPECT_FALSE(Accept());
    EXPECT_TRUE(NothingToRead(plain.ours.Get()));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "A collect call is taken over TLS alone, from a host that "
                                            "shows its key")));
}

TEST_F(CollectCall, NoDescriptorIsLeftWhateverHappens)
{
    const std::ptrdiff_t before = OpenDescriptors();
    EXPECT_FALSE(Accept());
    for (const int32_t place : {0, 1, -1}) {
        FakeHubProcess hub;
        hub.Serve([place](const Descriptor &line) {
            TellPlaceTo(line.Get(), place);
            (void)TakeHandOver(line.Get());
        });
        EXPECT_EQ(Accept(), place == 1);
        hub.Join();
        std::filesystem::remove(HubCallsPath());
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

class SharedConnection : public testing::Test {
  protected:
    WorkDirectory work;
};

TEST_F(SharedConnection, ADescriptorArrivesWithItsMessageAndStaysTheSenders)
{
    const SocketPair sockets;
    FakeHubProcess hub;
    char *message = nullptr;
    Descriptor taken;
    hub.Serve([&](const Descriptor &line) {
        TellPlaceTo(line.Get(), 1);
        taken = Descriptor(take_connection__real(line.Get(), &message));
    });
    LogCapture log;
    EXPECT_TRUE(share_connection__real(HubCallsPath().c_str(), sockets.theirs.Get(), "a message"));
    hub.Join();
    const veltrane::TextPtr owned(message);
    EXPECT_STREQ(message, "a message");
    EXPECT_TRUE(IsSameFile(taken.Get(), sockets.theirs.Get()));
    EXPECT_EQ(fcntl(taken.Get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(SharedConnection, NobodyHasToWantTheMessage)
{
    const LinePair line;
    ASSERT_EQ(report_collect::HandOver(line.ours.Get(), STDIN_FILENO, "a message"), "");
    const Descriptor taken(take_connection__real(line.theirs.Get(), nullptr));
    EXPECT_TRUE(taken.IsOpen());
}

TEST_F(SharedConnection, AFailureIsSaidOnTheSendersSide)
{
    {
        LogCapture log;
        EXPECT_FALSE(share_connection__real("/nowhere/at all", STDIN_FILENO, ""));
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                                "Could not share a connection through '/nowhere/at "
                                                "all': (connect: No such file or directory)")));
    }
    FakeHubProcess hub;
    hub.Serve([](const Descriptor &line) { TellPlaceTo(line.Get(), 0); });
    LogCapture log;
    EXPECT_FALSE(share_connection__real(HubCallsPath().c_str(), STDIN_FILENO, ""));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not share a connection through '" + HubCallsPath() +
                                                               "': the queue there is full")));
}

TEST_F(SharedConnection, AFailureIsSaidOnTheTakersSideAndHandsNothingBack)
{
    const LinePair line;
    ASSERT_TRUE(SendAnything(line.ours.Get(), std::string("text\0", 5), {}));
    LogCapture log;
    char before[] = "before";
    char *message = before;
    EXPECT_EQ(take_connection__real(line.theirs.Get(), &message), -1);
    EXPECT_EQ(message, before);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "Could not take a connection: 0 descriptors came instead of "
                                            "one")));
}

}  // namespace
