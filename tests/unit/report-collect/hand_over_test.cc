// A descriptor and a text on their way from one process to another.
#include "report-collect/hand_over.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/work_dir.h"
#include "unit/report-collect/fake_hub_process.h"

using report_collect::AskForPlace;
using report_collect::HandOver;
using report_collect::HubCallsPath;
using report_collect::kMaxHandOverText;
using report_collect::Place;
using report_collect::TakeHandOver;
using report_collect::TakenConnection;
using testing::IsEmpty;

namespace {

const std::string kKey = "SHA=" + std::string(64, 'a');

// Something to hand over, and to recognise: the reading end of a pipe.
struct Pipe {
    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        reading = Descriptor(ends[0]);
        writing = Descriptor(ends[1]);
    }
    Descriptor reading;
    Descriptor writing;
};

// What becomes of a message that no well-behaved process sends.
std::string TroubleWith(const std::string &bytes, const std::vector<int> &descriptors)
{
    const LinePair line;
    EXPECT_TRUE(SendAnything(line.ours.Get(), bytes, descriptors));
    const TakenConnection taken = TakeHandOver(line.theirs.Get());
    EXPECT_FALSE(taken.socket.IsOpen());
    return taken.trouble;
}

TEST(HandOver, ADescriptorAndItsTextArriveTogether)
{
    for (const int type : {SOCK_SEQPACKET, SOCK_STREAM}) {
        const LinePair line(type);
        const Pipe pipe;
        ASSERT_EQ(HandOver(line.ours.Get(), pipe.reading.Get(), kKey), "");
        const TakenConnection taken = TakeHandOver(line.theirs.Get());
        EXPECT_EQ(taken.trouble, "");
        EXPECT_EQ(taken.text, kKey);
        ASSERT_TRUE(taken.socket.IsOpen());
        EXPECT_TRUE(IsSameFile(taken.socket.Get(), pipe.reading.Get()));
        EXPECT_EQ(fcntl(taken.socket.Get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
}

TEST(HandOver, AnEmptyTextIsNoEnd)
{
    const LinePair line;
    const Pipe pipe;
    ASSERT_EQ(HandOver(line.ours.Get(), pipe.reading.Get(), ""), "");
    const TakenConnection taken = TakeHandOver(line.theirs.Get());
    EXPECT_TRUE(taken.socket.IsOpen()) << taken.trouble;
    EXPECT_EQ(taken.text, "");
}

TEST(HandOver, TheLongestTextArrivesAndALongerOneIsNotSent)
{
    const LinePair line;
    const Pipe pipe;
    EXPECT_EQ(HandOver(line.ours.Get(), pipe.reading.Get(), std::string(kMaxHandOverText + 1, 'x')),
              "the message is longer than 4095 bytes");
    EXPECT_TRUE(NothingToRead(line.theirs.Get()));
    ASSERT_EQ(HandOver(line.ours.Get(), pipe.reading.Get(), std::string(kMaxHandOverText, 'x')), "");
    EXPECT_EQ(TakeHandOver(line.theirs.Get()).text, std::string(kMaxHandOverText, 'x'));
}

TEST(HandOver, AClosedDescriptorIsNotSent)
{
    const LinePair line;
    EXPECT_EQ(HandOver(line.ours.Get(), -1, kKey), "(sendmsg: Bad file descriptor)");
}

TEST(HandOver, MessagesThatAreNoneAreRefusedAndTheirDescriptorsClosed)
{
    const Pipe pipe;
    const int fd = pipe.reading.Get();
    const std::string no_text = "its message is no text of at most 4095 bytes";
    const std::ptrdiff_t before = OpenDescriptors();
    EXPECT_EQ(TroubleWith(std::string("SHA=\0", 5), {}), "0 descriptors came instead of one");
    EXPECT_EQ(TroubleWith(std::string("SHA=\0", 5), {fd, fd}), "2 descriptors came instead of one");
    EXPECT_EQ(TroubleWith(std::string("SHA=\0", 5), std::vector<int>(253, fd)), "253 descriptors came instead of one");
    EXPECT_EQ(TroubleWith("SHA=", {fd}), no_text);
    EXPECT_EQ(TroubleWith(std::string("S\0HA\0", 5), {fd}), no_text);
    EXPECT_EQ(TroubleWith("", {fd}), no_text);
    EXPECT_EQ(TroubleWith(std::string(5000, 'x'), {fd}), no_text);
    EXPECT_EQ(TroubleWith(std::string(4096, 'x') + '\0', {fd}), no_text);
    EXPECT_EQ(TroubleWith(std::string(4095, 'x') + '\0' + '\0', {fd}), no_text);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(HandOver, ADescriptorThatFindsNoRoomInThisProcessIsRefused)
{
    const LinePair line;
    const Pipe pipe;
    ASSERT_EQ(HandOver(line.ours.Get(), pipe.reading.Get(), kKey), "");
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    rlimit few = usual;
    few.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    std::vector<Descriptor> all;
    do {
        all.emplace_back(dup(STDIN_FILENO));
    } while (all.back().IsOpen());
    const TakenConnection taken = TakeHandOver(line.theirs.Get());
    all.clear();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(taken.trouble, "its descriptors could not all be taken");
    EXPECT_FALSE(taken.socket.IsOpen());
}

TEST(HandOver, AnEndWithoutAMessageIsNoConnection)
{
    LinePair line;
    line.ours.Close();
    EXPECT_EQ(TakeHandOver(line.theirs.Get()).trouble, "the other side closed without handing anything over");
}

TEST(HandOver, ASilentSideCostsATimeOut)
{
    const TimeOut soon(1);
    const LinePair line;
    EXPECT_EQ(TakeHandOver(line.theirs.Get()).trouble, "(recvmsg: Connection timed out)");
}

TEST(HandOver, ASideThatReadsNothingCostsATimeOut)
{
    const WorkDirectory work;
    const TimeOut soon(1);
    FakeHubProcess hub;
    PipeEvent enough;
    hub.Serve([&](Descriptor line) {
        TellPlaceTo(line.Get(), 1);
        enough.Await();
    });
    const Place place = AskForPlace(HubCallsPath());
    ASSERT_EQ(place.number, 1);
    std::string trouble;
    for (int i = 0; i < 10'000 && trouble.empty(); ++i) {
        trouble = HandOver(place.line.Get(), place.line.Get(), std::string(kMaxHandOverText, 'x'));
    }
    EXPECT_EQ(trouble, "(sendmsg: Connection timed out)");
    enough.Set();
}

TEST(HandOver, OnlyALocalSocketCarriesIt)
{
    const LoopbackListener listener;
    const Descriptor client = ConnectLoopback(listener.port);
    const Descriptor server = listener.Accept();
    EXPECT_EQ(TakeHandOver(server.Get()).trouble, "the process there belongs to another user");
}

TEST(HandOver, OnlyTheOwnUserAndRootAreTrusted)
{
    EXPECT_TRUE(report_collect::IsOurUser(1000, 1000));
    EXPECT_TRUE(report_collect::IsOurUser(0, 1000));
    EXPECT_TRUE(report_collect::IsOurUser(0, 0));
    EXPECT_FALSE(report_collect::IsOurUser(1000, 0));
    EXPECT_FALSE(report_collect::IsOurUser(1000, 1001));
}

// Root makes a socket pair as another user; anybody else's own pair is his own.
TEST(HandOver, TheUserOfTheOtherProcessIsLookedAt)
{
    InChild([] {
        const bool is_root = geteuid() == 0;
        ASSERT_TRUE(!is_root || seteuid(65534) == 0);
        const LinePair line;
        ASSERT_TRUE(!is_root || seteuid(0) == 0);
        ASSERT_EQ(HandOver(line.ours.Get(), STDIN_FILENO, kKey), "");
        const TakenConnection taken = TakeHandOver(line.theirs.Get());
        EXPECT_EQ(taken.trouble, is_root ? "the process there belongs to another user" : "");
        EXPECT_EQ(taken.socket.IsOpen(), !is_root);
    });
}

class AskingForAPlace : public testing::Test {
  protected:
    Place AskWhile(std::function<void(int)> serve)
    {
        FakeHubProcess hub;
        hub.Serve([serve = std::move(serve)](Descriptor line) { serve(line.Get()); });
        Place place = AskForPlace(HubCallsPath());
        std::filesystem::remove(HubCallsPath());
        return place;
    }

    WorkDirectory work;
};

TEST_F(AskingForAPlace, TheNumberIsHandedBackWithTheLine)
{
    const Place place = AskWhile([](int line) { TellPlaceTo(line, 7); });
    EXPECT_EQ(place.number, 7);
    EXPECT_TRUE(place.line.IsOpen());
    EXPECT_EQ(place.trouble, "");
}

TEST_F(AskingForAPlace, AFullQueueIsNoTrouble)
{
    const Place place = AskWhile([](int line) { TellPlaceTo(line, 0); });
    EXPECT_EQ(place.number, 0);
    EXPECT_FALSE(place.line.IsOpen());
    EXPECT_EQ(place.trouble, "");
}

TEST_F(AskingForAPlace, NobodyThereIsTrouble)
{
    EXPECT_EQ(AskForPlace(HubCallsPath()).trouble, "(connect: No such file or directory)");
    {
        FakeHubProcess that_ends;
    }
    EXPECT_EQ(AskForPlace(HubCallsPath()).trouble, "(connect: Connection refused)");
}

TEST_F(AskingForAPlace, AProcessThatTellsNoPlaceIsTrouble)
{
    EXPECT_EQ(AskWhile([](int) {}).trouble, "the process there tells no place");
    EXPECT_EQ(AskWhile([](int line) { TellPlaceTo(line, -1); }).trouble, "the process there tells no place");
    EXPECT_EQ(AskWhile([](int line) { (void)SendAnything(line, "7", {}); }).trouble,
              "the process there tells no place");
}

TEST_F(AskingForAPlace, ASilentProcessCostsATimeOut)
{
    const TimeOut soon(1);
    PipeEvent enough;
    FakeHubProcess hub;
    hub.Serve([&enough](const Descriptor &) { enough.Await(); });
    EXPECT_EQ(AskForPlace(HubCallsPath()).trouble, "(recv: Connection timed out)");
    enough.Set();
}

TEST_F(AskingForAPlace, AProcessThatAcceptsNobodyCostsATimeOut)
{
    const TimeOut soon(1);
    const FakeHubProcess hub(HubCallsPath(), 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    HubCallsPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::vector<Descriptor> crowd;  // fills the queue of the listening socket
    int result = 0;
    while (result == 0 && crowd.size() < 100) {
        crowd.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        result = connect(crowd.back().Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    }
    ASSERT_EQ(result, -1);
    EXPECT_EQ(AskForPlace(HubCallsPath()).trouble, "(connect: Connection timed out)");
}

TEST_F(AskingForAPlace, APathBeyondWhatALocalSocketTakesIsTrouble)
{
    EXPECT_EQ(AskForPlace("/" + std::string(107, 'x')).trouble, "the path is too long for a local socket");
}

// Root meets a process of another user; anybody else meets one of his own.
TEST_F(AskingForAPlace, TheUserOfTheListeningProcessIsLookedAt)
{
    InChild([] {
        const bool is_root = geteuid() == 0;
        const std::string path = GetWorkDir() + std::string("/foreign");
        ASSERT_TRUE(!is_root || chmod(GetWorkDir(), 0777) == 0);
        ASSERT_TRUE(!is_root || seteuid(65534) == 0);
        FakeHubProcess hub(path);
        ASSERT_TRUE(!is_root || seteuid(0) == 0);
        hub.Serve([](const Descriptor &line) { TellPlaceTo(line.Get(), 1); });
        const Place place = AskForPlace(path);
        EXPECT_EQ(place.trouble, is_root ? "the process there belongs to another user" : "");
        EXPECT_EQ(place.number, is_root ? 0 : 1);
    });
}

TEST_F(AskingForAPlace, NothingIsLogged)
{
    LogCapture log;
    (void)AskForPlace(HubCallsPath());
    EXPECT_THAT(log.lines, IsEmpty());
}

}  // namespace
