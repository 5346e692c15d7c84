// The server daemon as a process of its own; this test is its peer, with a key and a work directory of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libveltrane/hello.h"
#include "libveltrane/keys.h"
#include "libveltrane/server_connection.h"
#include "support/ask.h"
#include "support/daemon.h"
#include "support/process.h"
#include "support/sockets.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TEST_F(Daemon, BadOptionsEndWithStatus2)
{
    const std::vector<std::vector<std::string>> wrong = {{"--prot", "1"},     {"--port", "65536"}, {"--port", "x"},
                                                         {"start"},           {"trust"},           {"trust", "add"},
                                                         {"trust", "remove"}, {"run", "run2"},     {"--bind"}};
    for (const std::vector<std::string> &arguments : wrong) {
        const ProcessResult result = Run(arguments);
        EXPECT_EQ(result.status, 2) << arguments[0];
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
}

TEST_F(Daemon, HelpAndVersionArePrinted)
{
    EXPECT_THAT(Run({"--help"}).out, HasSubstr("--workdir"));
    const ProcessResult version = Run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "Veltrane Core 3.27.0\n");
}

TEST_F(Daemon, AMalformedPolicyIsSaidWithFileLineAndColumn)
{
    WriteFile(Policy(), "bundles:\n  - server: rules\n    promises:\n      - acess: delta\n");
    const ProcessResult result = Run({"--port", "0"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(Policy().string() + ":4:"));
    EXPECT_THAT(result.err, Not(HasSubstr("Listening")));
    EXPECT_EQ(result.out, "");
}

TEST_F(Daemon, AMissingPolicyAndOneThatOthersCouldWriteAreRefused)
{
    const ProcessResult missing = Run({"--port", "0", "--file", (workdir.path / "none.vt").string()});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("none.vt"));
    EXPECT_THAT(missing.err, HasSubstr("No such file or directory"));

    fs::permissions(Policy(), fs::perms::others_write, fs::perm_options::add);
    const ProcessResult writable = Run({"--port", "0"});
    EXPECT_EQ(writable.status, 1);
    EXPECT_THAT(writable.err, HasSubstr("'" + Policy().string() + "' is writable by other users"));
}

TEST_F(Daemon, APortInUseEndsItWithTheReason)
{
    const LoopbackListener taken;
    const ProcessResult result = Run({"--port", taken.port, "--bind", "127.0.0.1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                HasSubstr("Could not listen on '127.0.0.1' port " + taken.port + ". (bind: Address already in use)"));
}

TEST_F(Daemon, ItsKeyAndItsTrustAreKeptByCommands)
{
    const ProcessResult key = Run({"key"});
    EXPECT_EQ(key.status, 0);
    EXPECT_THAT(key.out, testing::MatchesRegex("SHA=[0-9a-f]{64}\n.*/keys/host\\.pub\n"));
    EXPECT_EQ(Run({"key"}).out, key.out) << "made once";

    EXPECT_EQ(Run({"trust", "list"}).out, "");
    EXPECT_EQ(Run({"trust", "add", veltrane::OwnPublicKeyPath(), own_key}).out, own_key + "\n");
    EXPECT_EQ(Run({"trust", "list"}).out, own_key + "\n");
    EXPECT_EQ(Run({"trust", "add", veltrane::OwnPublicKeyPath(), "SHA=" + std::string(64, '0')}).status, 1);
    EXPECT_EQ(Run({"trust", "remove", own_key}).status, 0);
    const ProcessResult again = Run({"trust", "remove", own_key});
    EXPECT_EQ(again.status, 1);
    EXPECT_THAT(again.err, HasSubstr("'" + own_key + "' is not among the trusted keys"));
}

TEST_F(Daemon, AnUntrustedPeerGetsNothingAndIsNamedOnceInTheLog)
{
    Start();
    const Descriptor fd = ConnectLoopback(port);
    veltrane::SslPtr ssl;
    ASSERT_EQ(veltrane::TlsHandshake(*veltrane::CurrentTlsContexts(), veltrane::TlsRole::client, fd.Get(), &ssl), 0);
    EXPECT_EQ(ReadToEnd(fd.Get()), "");
    const std::string line = "Refused a connection from 127.0.0.1: key " + own_key + " is not trusted";
    EXPECT_TRUE(Says(line));
    const ProcessResult &result = Stop();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(Count(result.err, own_key), 1u) << result.err;
}

TEST_F(Daemon, ARefusedKeyMayBeTrustedByItsIdentityWhileTheDaemonRuns)
{
    TrustTheDaemon();
    Start();
    EXPECT_EQ(Connect(), nullptr);
    EXPECT_EQ(error, -3) << "it closes instead of saying HELLO";
    ASSERT_TRUE(Says("key " + own_key + " is not trusted"));

    EXPECT_EQ(Run({"trust", "add", own_key}).out, own_key + "\n");
    EXPECT_NE(Connect(), nullptr) << error;
}

TEST_F(Daemon, ATrustedPeerThatNoPromiseAdmitsGetsNothing)
{
    SetPolicy(Admit("delta", "SHA=" + std::string(64, '1')));
    StartTrusting();
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr) << error;
    EXPECT_EQ(Ask(conn, "QUERY delta 0 0"), kEnded);
    const std::string line = "Access to 'delta' denied for 127.0.0.1 (" + own_key + ")";
    EXPECT_TRUE(Says(line));
    EXPECT_EQ(Count(Stop().err, own_key), 1u);
}

TEST_F(Daemon, AQueryIsAnsweredWholeAndTheNextAfterIt)
{
    InstallPlugin();
    StartTrusting();
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr) << error;
    for (const std::string query : {"QUERY rebase 0 0", "QUERY delta 0 0"}) {
        const std::vector<std::string> lines = AskReport(conn, query);
        ASSERT_GE(lines.size(), 2u);
        EXPECT_THAT(lines.front(), StartsWith("VTR: "));
        EXPECT_EQ(lines.back(), "QUERY complete");
    }
}

TEST_F(Daemon, WithoutThePluginAQueryEndsTheConnection)
{
    StartTrusting({"--verbose"});
    EXPECT_EQ(Ask(Connect(), "QUERY delta 0 0"), kEnded);
    EXPECT_TRUE(Says("No answer to the query 'delta 0 0' of 127.0.0.1"));
}

TEST_F(Daemon, AMalformedQueryEndsItsConnectionAndNothingElse)
{
    InstallPlugin();
    StartTrusting();
    const std::vector<std::string> queries = {"QUERY collect_call 0 0",
                                              "QUERY error 0 0",
                                              "QUERY delta 0",
                                              "QUERY delta",
                                              "QUERY ",
                                              "QUERY delta 0 0 0",
                                              "QUERY delta -1 0",
                                              "QUERY delta 99999999999 0",
                                              std::string("QUERY delta 0 0\0", 16)};
    for (const std::string &query : queries) {
        const AgentPtr conn = Connect();
        ASSERT_NE(conn, nullptr) << query;
        EXPECT_EQ(Ask(conn, query), kEnded) << query;
    }
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(AskReport(conn, "QUERY delta 0 0").back(), "QUERY complete") << "the daemon lives";
    const std::string err = Stop().err;
    EXPECT_EQ(Count(err, "Refused a malformed query from 127.0.0.1 (" + own_key + "): "), queries.size()) << err;
}

TEST_F(Daemon, OtherRequestsAreRefusedInWords)
{
    StartTrusting();
    for (const std::string request : {"VAR", "COOKIES 2", "SQUERY 16", "GET /", "", "query delta 0 0"}) {
        const AgentPtr conn = Connect();
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(Ask(conn, request), "BAD: this request is not served") << request;
    }
}

TEST_F(Daemon, ARequestInSeveralTransactionsIsRefused)
{
    StartTrusting();
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(SendTransaction(conn->conn_info, "QUERY", 5, 'm'), 0);
    EXPECT_EQ(Ask(conn, " delta 0 0"), "BAD: a request is one transaction");
}

TEST_F(Daemon, ACollectCallIsClosedWithoutAByte)
{
    StartTrusting();
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(SendTransaction(conn->conn_info, "SCALLBACK CALL_ME_BACK collect_calls", 36, 't'), 0);
    int32_t queue = 0;
    EXPECT_LE(SSL_read(ConnectionInfoSSL(conn->conn_info), &queue, sizeof(queue)), 0);
}

TEST_F(Daemon, RubbishBeforeAndAfterTheHandshakeHarmsNobodyElse)
{
    StartTrusting();
    const Descriptor before = ConnectLoopback(port);
    ASSERT_TRUE(SendBytes(before.Get(), "GET / HTTP/1.1\r\n\r\n"));
    ReadToEnd(before.Get());

    const AgentPtr after = Connect();
    ASSERT_NE(after, nullptr);
    ASSERT_TRUE(SendBytes(ConnectionInfoSocket(after->conn_info), std::string(1000, '\xff')));
    char payload[VT_BUFSIZE];
    EXPECT_EQ(ReceiveTransaction(after->conn_info, payload, nullptr), -1);

    EXPECT_EQ(Ask(Connect(), "GET /"), "BAD: this request is not served");
}

TEST_F(Daemon, ReportsAreDumpedWhenThePolicySaysSo)
{
    InstallPlugin();
    SetPolicy(Admit("delta", own_key), "    dump_reports: true\n");
    StartTrusting();
    EXPECT_EQ(AskReport(Connect(), "QUERY delta 0 0").back(), "QUERY complete");
    EXPECT_EQ(Stop().status, 0);
    const fs::path dumps = workdir.path / "diagnostics/report_dumps";
    ASSERT_TRUE(fs::is_directory(dumps));
    EXPECT_EQ(std::distance(fs::directory_iterator(dumps), fs::directory_iterator()), 1);
}

TEST_F(Daemon, AFilterForOneOfTheTwoQueriesIsWarnedOf)
{
    SetPolicy(Admit("delta", own_key) + "        report_data_select:\n          metatags_include: [inventory]\n" +
              Admit("rebase", own_key));
    Start();
    EXPECT_TRUE(Says("Only 'delta' queries have a report filter: 'rebase' queries are answered with everything"));
}

TEST_F(Daemon, SighupReadsThePolicyAgain)
{
    SetPolicy(Admit("delta", "SHA=" + std::string(64, '1')));
    InstallPlugin();
    StartTrusting();
    EXPECT_EQ(Ask(Connect(), "QUERY delta 0 0"), kEnded);
    SetPolicy(Admit("delta", own_key));
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("Read the policy '" + Policy().string() + "' again"));
    EXPECT_EQ(AskReport(Connect(), "QUERY delta 0 0").back(), "QUERY complete");
}

TEST_F(Daemon, AMalformedPolicyAtSighupLeavesTheOldOneInForce)
{
    InstallPlugin();
    StartTrusting();
    WriteFile(Policy(), "bundles: [\n");
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("The policy before stays in force"));
    EXPECT_THAT(daemon->Err(), HasSubstr(Policy().string() + ":"));
    EXPECT_EQ(AskReport(Connect(), "QUERY delta 0 0").back(), "QUERY complete");
}

TEST_F(Daemon, ThePolicyDecidesWhetherItListens)
{
    SetPolicy(Admit("delta", own_key), "    listen: false\n");
    daemon = std::make_unique<BackgroundProcess>(kProgram, Options({"--port", "0", "--bind", "127.0.0.1"}));
    ASSERT_TRUE(Says("The policy does not let this daemon listen"));
    EXPECT_EQ(daemon->Out(), "");
    SetPolicy(Admit("delta", own_key), "    listen: true\n");
    daemon->Signal(SIGHUP);
    ReadPort();
    const Descriptor peer = ConnectLoopback(port);
    EXPECT_EQ(Stop().status, 0);
}

TEST_F(Daemon, SigtermAndSigintEndItInGoodOrder)
{
    for (const int signum : {SIGTERM, SIGINT}) {
        Start();
        daemon->Signal(signum);
        const ProcessResult &result = daemon->Wait();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(Daemon, IdleAndSilentPeersDoNotHoldUpItsEnd)
{
    StartTrusting();
    const AgentPtr idle = Connect();
    ASSERT_NE(idle, nullptr);
    const Descriptor silent = ConnectLoopback(port);
    daemon->Signal(SIGTERM);
    const ProcessResult &result = daemon->Wait(std::chrono::seconds(9));  // less than its patience for answers
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.status, 0);
}

TEST_F(Daemon, AnAnswerUnderWayIsSentToItsEndBeforeTheDaemonStops)
{
    InstallPlugin();
    MakeLargeState();
    StartTrusting();
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(SendTransaction(conn->conn_info, "QUERY rebase 0 0", 16, 't'), 0);
    char payload[VT_BUFSIZE];
    bool more = false;
    ASSERT_GT(ReceiveTransaction(conn->conn_info, payload, &more), 0);  // it has begun, and cannot have been sent whole
    daemon->Signal(SIGTERM);
    int lines = 1;
    int length = 0;
    while (more && (length = ReceiveTransaction(conn->conn_info, payload, &more)) > 0) { ++lines; }
    EXPECT_STREQ(payload, "QUERY complete");
    EXPECT_GT(lines, kLargeState);
    EXPECT_EQ(daemon->Wait().status, 0);
}

TEST_F(Daemon, APeerThatReadsNothingMoreIsCutOffWhenTheDaemonStops)
{
    InstallPlugin();
    MakeLargeState();
    StartTrusting();
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(SendTransaction(conn->conn_info, "QUERY rebase 0 0", 16, 't'), 0);
    char payload[VT_BUFSIZE];
    ASSERT_GT(ReceiveTransaction(conn->conn_info, payload, nullptr), 0);
    daemon->Signal(SIGTERM);
    const ProcessResult &result = daemon->Wait(std::chrono::seconds(25));  // its patience is 10, a time-out is 30
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("Failed send. (send: "));
}

TEST_F(Daemon, AReloadWaitsForNoReaderAndCutsNoAnswer)
{
    InstallPlugin();
    MakeLargeState();
    StartTrusting();
    const AgentPtr slow = Connect();
    ASSERT_NE(slow, nullptr);
    ASSERT_EQ(SendTransaction(slow->conn_info, "QUERY rebase 0 0", 16, 't'), 0);
    char payload[VT_BUFSIZE];
    bool more = false;
    ASSERT_GT(ReceiveTransaction(slow->conn_info, payload, &more), 0);
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("Read the policy '" + Policy().string() + "' again")) << "while a peer reads slowly";
    EXPECT_EQ(AskReport(Connect(), "QUERY delta 0 0").back(), "QUERY complete");
    while (more && ReceiveTransaction(slow->conn_info, payload, &more) > 0) {}
    EXPECT_STREQ(payload, "QUERY complete");
}

TEST_F(Daemon, NoReloadLetsAnAnswerOutUnfiltered)
{
    InstallPlugin();
    const std::string filter = "        report_data_select:\n          metatags_include: [nothing_has_this_tag]\n";
    fs::create_directories(workdir.path / "state/previous_state");
    WriteFile(workdir.path / "state/previous_state/classes.cache", "secret_class,inventory\r\n");
    static constexpr char kRow[] = ",1,secret_class";  // as an addition; that it is no longer sent may be said
    SetPolicy(Admit("rebase", own_key));
    StartTrusting();
    const AgentPtr conn = Connect();
    ASSERT_NE(conn, nullptr);
    ASSERT_THAT(AskReport(conn, "QUERY rebase 0 0"), testing::Contains(HasSubstr(kRow)));

    // The filter that counts is put in force after many others, so that there is time to come between.
    std::string promises;
    for (int i = 0; i < 3000; ++i) { promises += Admit("word_" + std::to_string(i), own_key) + filter; }
    SetPolicy(promises + Admit("rebase", own_key) + filter + Admit("delta", own_key) + filter);
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("Read the policy '" + Policy().string() + "' again"));
    // Several peers ask all the time, so that each waits for the other's packing amid its query.
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> peers;
    for (int i = 0; i < 4; ++i) {
        peers.emplace_back([this, &done, &wrong] {
            int failure = 0;
            const AgentPtr peer = ConnectFromThread(&failure);
            while (!done && peer != nullptr) {
                const std::vector<std::string> answer = AskReport(peer, "QUERY rebase 0 0");
                const auto secret = [](const std::string &line) { return line.find(kRow) != std::string::npos; };
                wrong += answer.back() != "QUERY complete" || std::any_of(answer.begin(), answer.end(), secret);
            }
            wrong += peer == nullptr;
        });
    }
    for (size_t reloads = 1; reloads < 4;) {
        daemon->Signal(SIGHUP);
        while (Count(daemon->Err(), "' again") == reloads && daemon->WaitForLine("again", std::chrono::seconds(20))) {
            daemon->WaitForLine("no such line", std::chrono::milliseconds(50));
        }
        reloads = Count(daemon->Err(), "' again");
    }
    done = true;
    for (std::thread &peer : peers) { peer.join(); }
    EXPECT_EQ(wrong, 0);
}

TEST_F(Daemon, BeyondItsBoundAnAddressesConnectionIsClosedAtOnceWithOneLine)
{
    SetPolicy(Admit("delta", own_key), "    max_connections: 4\n");
    StartTrusting();
    AgentPtr first = Connect();
    const AgentPtr second = Connect();
    ASSERT_TRUE(first != nullptr && second != nullptr);
    for (int i = 0; i < 5; ++i) {
        const Descriptor further = ConnectLoopback(port);
        EXPECT_EQ(ReadToEnd(further.Get()), "") << "closed though it is silent";
    }
    const std::string line = "Closed a connection from 127.0.0.1 at once: 2 are open already from there";
    ASSERT_TRUE(Says(line));

    first.reset();  // its place is free as soon as the daemon has seen it go
    AgentPtr next = Connect();
    for (int i = 0; i < 1000 && next == nullptr; ++i) { next = Connect(); }
    EXPECT_NE(next, nullptr);
    EXPECT_EQ(Count(Stop().err, "at once"), 1u) << "a flood of peers is no flood of lines";
}

TEST_F(Daemon, ManyPeersAtOnceAreAllAnswered)
{
    InstallPlugin();
    StartTrusting();
    std::vector<std::thread> peers;
    std::atomic<int> answered{0};
    for (int i = 0; i < 20; ++i) {
        peers.emplace_back([this, &answered] {
            int failure = 0;
            const AgentPtr conn = ConnectFromThread(&failure);
            if (conn != nullptr && AskReport(conn, "QUERY delta 0 0").back() == "QUERY complete") {
                ++answered;
            }
        });
    }
    for (std::thread &peer : peers) { peer.join(); }
    EXPECT_EQ(answered, 20);
}

TEST_F(Daemon, WithThePluginFipsModeEndsItAtOnce)
{
    InstallPlugin();
    const ProcessResult result = Run({"--fips", "--port", "0"});
    EXPECT_EQ(result.status, 255);
    EXPECT_THAT(result.err, HasSubstr("This software version has not been built with FIPS mode support"));
}

}  // namespace
