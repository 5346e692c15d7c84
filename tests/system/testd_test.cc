// The test daemon as a process of its own, asked by the real hub and by a peer that knows no manners.
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libveltrane/server_connection.h"
#include "support/ask.h"
#include "support/golden.h"
#include "support/site.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr char kNotServed[] = "BAD: this request is not served";

// A test daemon in the host's place; its only policy is that there is none.
class TestDaemon : public testing::Test {
  protected:
    void Start(const std::vector<std::string> &arguments = {})
    {
        ASSERT_TRUE(site_.TrustEachOther());
        ASSERT_TRUE(site_.StartDaemon(arguments, "vt-testd")) << site_.daemon->Err();
    }

    // This test in the hub's place: a connection with the hub's key.
    AgentPtr Connect() const
    {
        int error = 0;
        AgentPtr conn(ServerConnection("127.0.0.1", site_.address.substr(site_.address.rfind(':') + 1).c_str(), nullptr,
                                       20, {}, &error));
        EXPECT_NE(conn, nullptr) << error;
        return conn;
    }

    void BeTheHub() const
    {
        SetWorkDir(site_.Hub().c_str());
        vtnet_Init();
    }
    ~TestDaemon() override { vtnet_Shut(); }

    Site site_;
};

std::string JoinLines(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines) { text += line + '\n'; }
    return text;
}

}  // namespace

TEST_F(TestDaemon, ADeltaIsReadByTheHubAsItWasPacked)
{
    Start();

    const ProcessResult raw = site_.Collect("delta", {"--raw"});

    EXPECT_EQ(raw.status, 0) << raw.err;
    EXPECT_EQ(raw.out, GoldenBytes("stream/test-delta.stream"));
}

TEST_F(TestDaemon, ARebaseIsReadByTheHubAsItWasPacked)
{
    Start();

    const ProcessResult raw = site_.Collect("rebase", {"--raw"});

    EXPECT_EQ(raw.status, 0) << raw.err;
    EXPECT_EQ(raw.out, GoldenBytes("stream/test-rebase.stream"));
}

TEST_F(TestDaemon, TheHubShowsItsReportsAsTables)
{
    Start();

    const ProcessResult delta = site_.Collect("delta", {"--wide"});
    EXPECT_EQ(delta.status, 0) << delta.err;
    EXPECT_THAT(delta.out, AllOf(ContainsRegex("UNTRACKED +enterprise_edition"), HasSubstr("testnode-delta"),
                                 HasSubstr("192.0.2.20"), ContainsRegex("REMOVE +python3-minimal"),
                                 HasSubstr("Method 'vte_foo' failed in some repairs")));

    const ProcessResult rebase = site_.Collect("rebase", {"--wide"});
    EXPECT_EQ(rebase.status, 0) << rebase.err;
    EXPECT_THAT(rebase.out, AllOf(HasSubstr("testnode"), HasSubstr("192.0.2.10"), Not(HasSubstr("testnode-delta"))));
}

TEST_F(TestDaemon, OtherRequestsAreRefusedAndEndOneConnectionOnly)
{
    Start();
    BeTheHub();
    for (const std::string request : {"QUERY full 0 0", "QUERY collect_call 0 0", "QUERY error 0 0", "QUERY weekly 0 0",
                                      "QUERY delta", "QUERY delta 0", "QUERY delta -1 0", "QUERY  delta 0 0",
                                      "QUERY delta 0 0 ", "QUERY ", "QUERY", "VAR h1", "COOKIES", "SQUERY 16", ""}) {
        const AgentPtr conn = Connect();
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(Ask(conn, request), kNotServed) << request;
        EXPECT_EQ(Ask(conn, "QUERY delta 0 0"), kEnded) << request;
    }
    const AgentPtr conn = Connect();
    EXPECT_EQ(JoinLines(AskReport(conn, "QUERY delta 0 0")),
              GoldenBytes("stream/test-delta.stream") + "QUERY complete\n");
}

TEST_F(TestDaemon, ACollectCallIsClosedWithoutAWord)
{
    Start();
    BeTheHub();

    EXPECT_EQ(Ask(Connect(), "SCALLBACK CALL_ME_BACK collect_calls"), kEnded);
}

TEST_F(TestDaemon, ARequestInTwoTransactionsIsRefused)
{
    Start();
    BeTheHub();
    const AgentPtr conn = Connect();
    ASSERT_EQ(SendTransaction(conn->conn_info, "QUERY delta", 11, 'm'), 0);

    EXPECT_EQ(Ask(conn, " 0 0"), kNotServed);
}

TEST_F(TestDaemon, OneConnectionMayAskAgain)
{
    Start();
    BeTheHub();
    const AgentPtr conn = Connect();

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(JoinLines(AskReport(conn, "QUERY delta 0 1700000000")),
                  GoldenBytes("stream/test-delta.stream") + "QUERY complete\n");
        EXPECT_EQ(JoinLines(AskReport(conn, "QUERY rebase 0 1700000000")),
                  GoldenBytes("stream/test-rebase.stream") + "QUERY complete\n");
    }
}

TEST_F(TestDaemon, ManyPeersAreServedAtOnce)
{
    Start();
    BeTheHub();
    std::vector<std::thread> peers;
    for (int i = 0; i < 16; ++i) {
        peers.emplace_back([this] {
            const AgentPtr conn = Connect();
            ASSERT_NE(conn, nullptr);
            EXPECT_EQ(JoinLines(AskReport(conn, "QUERY rebase 0 0")),
                      GoldenBytes("stream/test-rebase.stream") + "QUERY complete\n");
        });
    }
    for (std::thread &peer : peers) { peer.join(); }
}

TEST_F(TestDaemon, AKeyThatIsNotTrustedGetsNoAnswer)
{
    ASSERT_TRUE(site_.TrustEachOther());
    ASSERT_EQ(site_.Run("vt-testd", site_.Host(), {"trust", "remove", site_.hub_key}).status, 0);
    ASSERT_TRUE(site_.StartDaemon({}, "vt-testd"));

    const ProcessResult refused = site_.Collect("delta", {"--raw"});

    EXPECT_NE(refused.status, 0);
    EXPECT_EQ(refused.out, "");
    EXPECT_TRUE(
        site_.daemon->WaitForLine("Refused a connection from 127.0.0.1: key " + site_.hub_key + " is not trusted"));
}

TEST_F(TestDaemon, WithoutThePlugInItSaysSoAndAnswersNoQuery)
{
    fs::remove(site_.Host() / "lib/veltrane-enterprise.so");
    Start();
    EXPECT_TRUE(site_.daemon->WaitForLine("Without the enterprise plug-in no query is answered"));
    BeTheHub();
    const AgentPtr conn = Connect();

    EXPECT_EQ(Ask(conn, "QUERY delta 0 0"), kEnded);
}

TEST_F(TestDaemon, ATerminationEndsItWell)
{
    Start({"-I"});

    site_.daemon->Signal(SIGTERM);

    const ProcessResult &ended = site_.daemon->Wait();
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_THAT(ended.err, HasSubstr("Stopping"));
}

TEST_F(TestDaemon, APortThatIsTakenIsAnError)
{
    Start();
    const std::string port = site_.address.substr(site_.address.rfind(':') + 1);

    const ProcessResult second = site_.Run("vt-testd", site_.Host(), {"--bind", "127.0.0.1", "--port", port});

    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err,
                HasSubstr("Could not listen on '127.0.0.1' port " + port + ". (bind: Address already in use)"));
}

TEST_F(TestDaemon, ItsOtherCommandsAreThoseOfTheServerDaemon)
{
    const ProcessResult version = site_.Run("vt-testd", site_.Host(), {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "Veltrane Core 3.27.0\nVeltrane Enterprise 3.27.0\n");
    EXPECT_THAT(site_.Run("vt-testd", site_.Host(), {"key"}).out, HasSubstr(site_.host_key));
    ASSERT_EQ(site_.Run("vt-testd", site_.Host(), {"trust", "add", (site_.Hub() / "keys/host.pub").string()}).status,
              0);
    EXPECT_EQ(site_.Run("vt-testd", site_.Host(), {"trust", "list"}).out, site_.hub_key + "\n");
    EXPECT_EQ(site_.Run("vt-testd", site_.Host(), {"--port", "70000"}).status, 2);
    EXPECT_EQ(site_.Run("vt-testd", site_.Host(), {"frobnicate"}).status, 2);
    EXPECT_THAT(site_.Run("vt-testd", site_.Host(), {"--help"}).out, HasSubstr("Every trusted key may ask"));
}
