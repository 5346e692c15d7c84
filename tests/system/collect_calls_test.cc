// Collect calls with real processes: a host that listens nowhere, the hub's server daemon, the process that asks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "support/calling_site.h"

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char kFirstPolicy[] = "      - classes: kept_class\n        expression: any\n        meta: [report]\n";
constexpr char kSecondPolicy[] = "      - classes: new_class\n        expression: any\n        meta: [report]\n";

// What a rebase carries, without an agent run: classes that begin with a name.
void PutState(const std::filesystem::path &workdir, const std::string &name, int rows)
{
    std::filesystem::create_directories(workdir / "state/previous_state");
    std::string bytes;
    for (int i = 0; i < rows; ++i) { bytes += name + "_" + std::to_string(i) + ",\"report\"\r\n"; }
    WriteFile(workdir / "state/previous_state/classes.cache", bytes);
}

size_t Count(const std::string &text, const std::string &piece)
{
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) { ++count; }
    return count;
}

class CollectCalls : public testing::Test {
  protected:
    void SetUp() override
    {
        site.SetPolicy(kFirstPolicy);
        PutState(site.Host(), "state_class", 3);
    }

    // The next call of the real host is answered, so nothing that went before left anything behind.
    void ExpectTheNextCallIsAnswered()
    {
        const size_t before = Count(site.hub->Out(), "state_class_2");
        EXPECT_TRUE(Eventually([&] {
            site.hub->WaitForLine("no such line", 100ms);  // collects its output
            return Count(site.hub->Out(), "state_class_2") > before;
        })) << site.hub->Out()
            << site.hub->Err() << site.hub_daemon->Err() << site.daemon->Err();
    }

    std::unique_ptr<TestCaller> NewCaller() const
    {
        return std::make_unique<TestCaller>(ReadPrivateKey(site.Host() / "keys/host.priv").get());
    }

    std::string CallerName() const { return "127.0.0.1 (" + site.host_key + ")"; }

    CallingSite site;
};

TEST_F(CollectCalls, TheStateOfAHostThatListensNowhereArrives)
{
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase", "--count", "1"})) << site.hub->Err();
    site.StartCalling();

    const ProcessResult &result = site.hub->Wait();

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("Waiting for calls\nHost " + site.host_key + "\nUp to "));
    EXPECT_THAT(result.out, ContainsRegex("ADD +kept_class"));
    EXPECT_THAT(result.out, ContainsRegex("ADD +linux"));
    EXPECT_THAT(result.err, IsEmpty());
    EXPECT_TRUE(site.daemon->WaitForLine("The policy does not let this daemon listen")) << site.daemon->Err();
    EXPECT_TRUE(site.daemon->WaitForLine("CollectCallWorker: current waiting queue is [1]")) << site.daemon->Err();
}

TEST_F(CollectCalls, WhatChangedOnAHostThatListensNowhereArrives)
{
    ASSERT_EQ(site.RunAgent().status, 0);
    site.SetPolicy(kSecondPolicy);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--raw"})) << site.hub->Err();
    site.StartCalling();
    EXPECT_TRUE(site.hub->WaitForLine(",1,new_class,")) << site.hub->Out() << site.hub->Err();
    EXPECT_THAT(site.hub->Out(),
                AllOf(HasSubstr("\n# Host " + site.host_key + "\nVTR: "), HasSubstr(",2,kept_class,")));
    site.hub->Signal(SIGTERM);
    EXPECT_EQ(site.hub->Wait().status, 0);
}

TEST_F(CollectCalls, ACallAfterTheHubsDaemonWasDownIsAnswered)
{
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    site.hub_daemon->Kill();
    site.StartCalling();
    ASSERT_TRUE(site.daemon->WaitForLine("Failed to contact the hub for report collection.")) << site.daemon->Err();
    EXPECT_TRUE(site.daemon->WaitForLine("No suitable hub server responded to hail (-2)")) << site.daemon->Err();
    ASSERT_TRUE(site.StartHubDaemon());
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, ACallAfterTheHubProcessWasDownIsAnswered)
{
    ASSERT_TRUE(site.StartHubDaemon());
    site.StartCalling();
    ASSERT_TRUE(site.daemon->WaitForLine("Server is busy, we'll try calling again later.")) << site.daemon->Err();
    EXPECT_TRUE(site.hub_daemon->WaitForLine("Put off the collect call of '" + site.host_key +
                                             "': there is no hub process that takes it: (connect: "))
        << site.hub_daemon->Err();
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, AKeyThatIsNotAdmittedGetsNoAnswerUntilItIs)
{
    site.Admit({"SHA=" + std::string(64, 'a')});
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    site.StartCalling();
    ASSERT_TRUE(site.daemon->WaitForLine("Failed to contact the hub for report collection.")) << site.daemon->Err();
    EXPECT_TRUE(site.hub_daemon->WaitForLine("Access to 'collect_calls' denied for ")) << site.hub_daemon->Err();
    EXPECT_EQ(NewCaller()->Call(site.port), -1);
    EXPECT_EQ(site.hub->Out(), "Waiting for calls\n");
    site.Admit({site.host_key});
    site.hub_daemon->Signal(SIGHUP);
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, AnotherKeyInTheSecondHandshakeIsRefusedThoughItIsTrusted)
{
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    const auto caller = NewCaller();
    EXPECT_EQ(caller->Call(site.port), 1);
    std::string error;
    const auto of_the_hub =
        veltrane::MakeTlsContexts(ReadPrivateKey(site.Hub() / "keys/host.priv").get(), &error);  // trusts itself
    EXPECT_EQ(caller->AnswerHandshake(*of_the_hub), 0);
    EXPECT_TRUE(IsEnded(caller->peer.fd.Get()));
    EXPECT_TRUE(site.hub->WaitForLine("Could not call '" + CallerName() + "' back: its key is not trusted"))
        << site.hub->Err();
    site.StartCalling();
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, ASilentCallerCostsItsTimeOutAndOneLine)
{
    ASSERT_TRUE(site.StartHubDaemon());
    WriteFile(site.Hub() / "hub_config.json", "{\"max_hub_processes\": 1}");
    ASSERT_TRUE(site.StartListening({"--type", "rebase", "--timeout", "3"}));
    const auto silent = NewCaller();
    EXPECT_EQ(silent->Call(site.port), 1);
    site.StartCalling();
    EXPECT_TRUE(site.hub->WaitForLine("Could not call '" + CallerName() +
                                      "' back: no answer. (connect: Connection timed"
                                      " out)"))
        << site.hub->Err();
    ExpectTheNextCallIsAnswered();
    EXPECT_EQ(Count(site.hub->Err(), "error:"), 1u) << site.hub->Err();
}

TEST_F(CollectCalls, ACallerThatIsGoneCostsOneLine)
{
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    const auto gone = NewCaller();
    EXPECT_EQ(gone->Call(site.port), 1);
    Vanish(&gone->peer.fd);
    EXPECT_TRUE(site.hub->WaitForLine("(" + site.host_key + ")' back: no answer. (connect: Connection reset by peer)"))
        << site.hub->Err();
    site.StartCalling();
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, AHubProcessThatIsKilledTakesItsCallersAlongAndIsReplaced)
{
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    const auto caller = NewCaller();
    EXPECT_EQ(caller->Call(site.port), 1);
    site.hub->Kill();
    EXPECT_TRUE(IsEnded(caller->peer.fd.Get()));
    EXPECT_EQ(NewCaller()->Call(site.port), 0);
    ASSERT_TRUE(std::filesystem::exists(site.Hub() / "state/hub_calls.sock")) << "it had no time to remove it";
    ASSERT_TRUE(site.StartListening({"--type", "rebase"})) << site.hub->Err();
    site.StartCalling();
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, AConnectionThatWasHandedOverOutlivesTheDaemonThatTookIt)
{
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    const auto caller = NewCaller();
    EXPECT_EQ(caller->Call(site.port), 1);
    // Nothing of the handover is left in the daemon once the new handshake has begun.
    pollfd begun{caller->peer.fd.Get(), POLLIN, 0};
    ASSERT_EQ(poll(&begun, 1, 20'000), 1);
    site.hub_daemon->Kill();
    std::string error;
    const auto contexts = veltrane::MakeTlsContexts(ReadPrivateKey(site.Host() / "keys/host.priv").get(), &error);
    EXPECT_EQ(caller->AnswerHandshake(*contexts), 0);
    ASSERT_TRUE(site.StartHubDaemon());
    site.StartCalling();
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, AHostThatIsKilledCallsAgainWhenItIsBack)
{
    PutState(site.Host(), "state_class", 200'000);
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase"}));
    site.StartCalling();
    ASSERT_TRUE(site.daemon->WaitForLine("Collect call established socket")) << site.daemon->Err();
    site.daemon->Kill();
    PutState(site.Host(), "state_class", 3);
    site.StartCalling();
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, MoreCallersThanTheQueueHoldsAreToldToComeBack)
{
    constexpr int kWaiting = 64;
    ASSERT_TRUE(site.StartHubDaemon());
    WriteFile(site.Hub() / "hub_config.json", "{\"max_hub_processes\": 1}");
    ASSERT_TRUE(site.StartListening({"--type", "rebase", "--timeout", "60"}));
    std::vector<std::unique_ptr<TestCaller>> callers;
    int32_t place = 1;
    while (place > 0 && callers.size() < 2 * kWaiting) {
        callers.push_back(NewCaller());
        place = callers.back()->Call(site.port);
        EXPECT_LE(place, kWaiting);
    }
    EXPECT_EQ(place, 0);
    EXPECT_EQ(callers.size(), kWaiting + 2u) << "one is asked, so many wait, the last one is put off";
    callers.clear();
    site.StartCalling();
    ExpectTheNextCallIsAnswered();
}

TEST_F(CollectCalls, ASignalEndsItAndItsCallersAndRemovesItsSocket)
{
    for (const int signum : {SIGTERM, SIGINT, SIGHUP}) {
        ASSERT_TRUE(site.hub_daemon != nullptr || site.StartHubDaemon());
        ASSERT_TRUE(site.StartListening({})) << site.hub->Err();
        const auto caller = NewCaller();
        EXPECT_EQ(caller->Call(site.port), 1);
        site.hub->Signal(signum);
        EXPECT_TRUE(IsEnded(caller->peer.fd.Get()));
        EXPECT_EQ(site.hub->Wait().status, 0) << site.hub->Err();
        EXPECT_FALSE(std::filesystem::exists(site.Hub() / "state/hub_calls.sock"));
    }
}

TEST_F(CollectCalls, OnlyOneProcessOfAWorkDirectoryWaitsForCalls)
{
    ASSERT_TRUE(site.StartListening({}));
    const ProcessResult second = site.Run("vt-hub", site.Hub(), {"listen"});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err, HasSubstr("Another vt-hub waits for calls in '" + site.Hub().string() + "' already"));
    EXPECT_THAT(second.out, IsEmpty());
    struct stat status {};
    ASSERT_EQ(stat((site.Hub() / "state/hub_calls.sock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(CollectCalls, WithoutTheHubsLibraryNobodyWaits)
{
    std::filesystem::remove(site.Hub() / "lib/veltrane-report-collect.so");
    const ProcessResult without_library = site.Run("vt-hub", site.Hub(), {"listen"});
    EXPECT_EQ(without_library.status, 1);
    EXPECT_THAT(without_library.err, HasSubstr("'veltrane-report-collect.so' cannot be used"));
    std::filesystem::remove(site.Hub() / "lib/veltrane-enterprise.so");
    const ProcessResult without_plugin = site.Run("vt-hub", site.Hub(), {"listen"});
    EXPECT_EQ(without_plugin.status, 1);
    EXPECT_THAT(without_plugin.err, HasSubstr("the enterprise plug-in cannot be used"));
}

TEST_F(CollectCalls, WrongOptionsAreWrongUsage)
{
    for (const std::vector<std::string> &wrong :
         {std::vector<std::string>{"--type", "full"}, {"--count", "0"}, {"--count", "-1"}, {"--since", "-1"}}) {
        std::vector<std::string> arguments{"listen"};
        arguments.insert(arguments.end(), wrong.begin(), wrong.end());
        EXPECT_EQ(site.Run("vt-hub", site.Hub(), arguments).status, 2);
    }
}

TEST_F(CollectCalls, AnOutputThatTakesNothingIsAFailure)
{
    ASSERT_TRUE(site.StartHubDaemon());
    ProcessOptions options;
    options.arguments = {"-c", "exec \"$0\" --workdir \"$1\" listen --type rebase >/dev/full",
                         std::string(VT_TEST_BIN_DIR) + "/vt-hub", site.Hub().string()};
    BackgroundProcess hub("/bin/sh", options);
    site.StartCalling();
    const ProcessResult &result = hub.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Could not write the report of '" + CallerName() + "'"));
}

TEST_F(CollectCalls, AnOutputThatNobodyReadsDoesNotKeepItFromEnding)
{
    PutState(site.Host(), "state_class", 20'000);
    const std::string fifo = (site.Hub() / "output").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const Descriptor reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(site.StartHubDaemon());
    ProcessOptions options;
    options.arguments = {"-c", "exec \"$0\" --workdir \"$1\" listen --type rebase --raw >\"$2\"",
                         std::string(VT_TEST_BIN_DIR) + "/vt-hub", site.Hub().string(), fifo};
    BackgroundProcess hub("/bin/sh", options);
    site.StartCalling();
    ASSERT_TRUE(Eventually([&reader] {
        int unread = 0;
        return ioctl(reader.Get(), FIONREAD, &unread) == 0 && unread > 32'768;
    })) << hub.Wait(0ms).err;  // it has begun to write more than a pipe holds
    hub.Signal(SIGTERM);
    const ProcessResult &result = hub.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Nobody reads the output; a report is lost"));
}

TEST_F(CollectCalls, TheReportsOfTwoHostsNeverMix)
{
    constexpr int kRows = 20'000;
    Site other;
    site.Admit({site.host_key, other.host_key});
    other.control = site.control;
    other.hub_key = site.hub_key;
    other.SetPolicy(kFirstPolicy);
    ASSERT_EQ(site.Run("vt-hub", site.Hub(), {"trust", "add", (other.Host() / "keys/host.pub").string()}).status, 0);
    ASSERT_EQ(other.Run("vt-serverd", other.Host(), {"trust", "add", (site.Hub() / "keys/host.pub").string()}).status,
              0);
    PutState(site.Host(), "one", kRows);
    PutState(other.Host(), "two", kRows);
    ASSERT_TRUE(site.StartHubDaemon());
    ASSERT_TRUE(site.StartListening({"--type", "rebase", "--raw"}));
    WriteFile(other.Host() / "hub_address", "127.0.0.1\n" + site.port + "\n");
    site.StartCalling({});
    ProcessOptions options;
    options.arguments = {"--workdir", other.Host().string(), "--bind", "127.0.0.1", "--port", "0"};
    const BackgroundProcess other_daemon(std::string(VT_TEST_BIN_DIR) + "/vt-serverd", options);
    EXPECT_TRUE(site.hub->WaitForLine("two_19999"));
    EXPECT_TRUE(site.hub->WaitForLine("one_19999"));
    site.hub->Signal(SIGTERM);
    const ProcessResult &result = site.hub->Wait();
    EXPECT_EQ(result.status, 0) << result.err;

    std::string host;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("# Host ", 0) == 0) {
            host = line.substr(7);
        }
        const bool is_one = line.find("one_") != std::string::npos;
        if (is_one || line.find("two_") != std::string::npos) {
            ASSERT_EQ(host, is_one ? site.host_key : other.host_key) << line;
        }
    }
    EXPECT_EQ(Count(result.out, "one_") % kRows, 0u);
    EXPECT_EQ(Count(result.out, "two_") % kRows, 0u);
}

}  // namespace
