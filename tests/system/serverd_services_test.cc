// What the server daemon does beside answering report queries: published values, cookies, whether it listens, its
// announcement, and what becomes of a call for which there is no hub.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/sockets.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr char kNoValue[] = "BAD: no such value is served to you";
constexpr char kNoHandle[] = "BAD: this is no handle of a value";

class Services : public Daemon {
  protected:
    // A promise that publishes a value to a key; attributes as further lines.
    static std::string Publish(const std::string &value, const std::string &handle, const std::string &key,
                               const std::string &attributes = "")
    {
        return "      - access: \"" + value + "\"\n        resource: literal\n        handle: \"" + handle +
               "\"\n        admit_keys: [\"" + key + "\"]\n" + attributes;
    }

    // The answer to one request on a connection of its own.
    std::string AskOnce(const std::string &request) { return Ask(Connect(), request); }

    // Whether the daemon ended the connection.
    static bool IsEnded(const AgentPtr &conn) { return Ask(conn, "COOKIES") == kEnded; }

    ProcessResult SetScalar(const std::string &handle, const std::string &value) const
    {
        return Run({"scalar", "set", handle, value});
    }

    void BecomeHub() const { WriteFile(workdir.path / "hub_address", "localhost\n"); }

    void Reload()
    {
        daemon->Signal(SIGHUP);
        ASSERT_TRUE(Says("Read the policy '" + Policy().string() + "' again"));
    }

    const std::string stranger = "SHA=" + std::string(64, '1');
};

TEST_F(Services, APublishedValueIsGivenToWhomThePolicyAdmitsAndTheConnectionStaysOpen)
{
    InstallPlugin();
    SetPolicy(Publish("10.2.0.1/24", "site_network", own_key));
    StartTrusting();
    const AgentPtr conn = Connect();
    EXPECT_EQ(Ask(conn, "VAR site_network"), "10.2.0.1/24");
    EXPECT_EQ(Ask(conn, "VAR site_network"), "10.2.0.1/24");
    EXPECT_THAT(Ask(conn, "COOKIES"), MatchesRegex("COOKIES 0 [0-9]+"));
}

TEST_F(Services, AnUnknownHandleAndOneOfSomebodyElseGetTheSameWords)
{
    InstallPlugin();
    SetPolicy(Publish("secret", "of_others", stranger));
    StartTrusting();
    const AgentPtr conn = Connect();
    EXPECT_EQ(Ask(conn, "VAR of_others"), kNoValue);
    EXPECT_TRUE(IsEnded(conn));
    EXPECT_EQ(AskOnce("VAR of_nobody"), kNoValue);
    const std::string err = Stop().err;
    EXPECT_THAT(err, HasSubstr("Access to 'of_others' denied for 127.0.0.1 (" + own_key + ")"));
    EXPECT_THAT(err, HasSubstr("Access to 'of_nobody' denied for 127.0.0.1 (" + own_key + ")"));
    EXPECT_THAT(err, Not(HasSubstr("secret")));
}

TEST_F(Services, WhatIsNoHandleIsRefusedBeforeAnythingIsLookedUp)
{
    InstallPlugin();
    const std::string longest(1024, 'h');
    SetPolicy(Publish("value", longest, own_key));
    StartTrusting();
    EXPECT_EQ(AskOnce("VAR " + longest), "value");
    for (const std::string &handle : {std::string(), longest + "h", std::string("a\nb"), std::string("a\0b", 3)}) {
        EXPECT_EQ(AskOnce("VAR " + handle), kNoHandle) << handle;
    }
}

TEST_F(Services, WithoutThePluginNoValueIsServedAndNoCookie)
{
    SetPolicy(Publish("value", "h", own_key));
    StartTrusting();
    EXPECT_EQ(AskOnce("VAR h"), kNoValue);
    EXPECT_EQ(AskOnce("COOKIES"), kEnded);
}

TEST_F(Services, AValueOf4095BytesArrivesWholeAndALongerOneIsCut)
{
    InstallPlugin();
    const std::string most(4095, 'x');
    SetPolicy(Publish(most, "most", own_key) + Publish(most + "yz", "more", own_key));
    StartTrusting();
    const AgentPtr conn = Connect();
    EXPECT_EQ(Ask(conn, "VAR most"), most);
    EXPECT_EQ(Ask(conn, "VAR more"), most);
}

TEST_F(Services, AReloadPublishesOtherValuesAndTakesOldOnesBack)
{
    InstallPlugin();
    SetPolicy(Publish("one", "a", own_key) + Publish("two", "b", own_key));
    StartTrusting();
    EXPECT_EQ(AskOnce("VAR a"), "one");
    SetPolicy(Publish("three", "a", own_key));
    Reload();
    EXPECT_EQ(AskOnce("VAR a"), "three");
    EXPECT_EQ(AskOnce("VAR b"), kNoValue);
}

TEST_F(Services, AHandleThatTurnsOutToBeNoneIsNotPublished)
{
    InstallPlugin();
    SetPolicy("      - vars: name\n        string: \"a\\tb\"\n" + Publish("value", "$(name)", own_key) +
              Publish("other", "fine", own_key));
    StartTrusting();
    EXPECT_TRUE(Says("'value' is not published: a handle has 1 to 1024 bytes and no control characters"));
    EXPECT_EQ(AskOnce("VAR fine"), "other");
}

TEST_F(Services, AnOperatorsValueStandsBeforeThePolicysFor900Seconds)
{
    InstallPlugin();
    SetPolicy(Publish("of the policy", "h", own_key));
    StartTrusting();
    EXPECT_EQ(AskOnce("VAR h"), "of the policy");
    const ProcessResult result = SetScalar("h", "of the operator");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(AskOnce("VAR h"), "of the operator");
    AgeScalar("h", 890);
    EXPECT_EQ(AskOnce("VAR h"), "of the operator");
    AgeScalar("h", 11);
    EXPECT_EQ(AskOnce("VAR h"), "of the policy");
    EXPECT_EQ(SetScalar("unpublished", "value").status, 0);
    EXPECT_EQ(AskOnce("VAR unpublished"), kNoValue) << "nobody is admitted to it";
    EXPECT_EQ(SetScalar("h", "").status, 0);
    EXPECT_EQ(AskOnce("VAR h"), "") << "no text is a value as well";
}

TEST_F(Services, WhatNoValueCanBeIsNotSet)
{
    EXPECT_EQ(SetScalar("h", std::string(1023, 'v')).status, 0);
    const ProcessResult too_long = SetScalar("h", std::string(1024, 'v'));
    EXPECT_EQ(too_long.status, 2);
    EXPECT_THAT(too_long.err, HasSubstr("it has at most 1023 bytes and does not begin with \"BAD:\""));
    EXPECT_EQ(SetScalar("h", "BAD: luck").status, 2);
    EXPECT_EQ(SetScalar(std::string(1025, 'h'), "v").status, 2);
    EXPECT_EQ(SetScalar("a\nb", "v").status, 2);
    EXPECT_EQ(Run({"scalar", "set", "h"}).status, 2);
    EXPECT_EQ(Run({"scalar"}).status, 2);

    fs::remove_all(workdir.path / "state/scalars.lmdb");
    ASSERT_TRUE(fs::create_directories(workdir.path / "state/scalars.lmdb/in_the_way"));
    const ProcessResult full = SetScalar("h", "v");
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr("Could not store the value of 'h'"));
}

TEST_F(Services, EachAnswerWithCookiesBringsTheOneBeforeAndANewOne)
{
    InstallPlugin();
    StartTrusting();
    const AgentPtr conn = Connect();
    const std::string first = Ask(conn, "COOKIES");
    ASSERT_THAT(first, MatchesRegex("COOKIES 0 [0-9]+"));
    const std::string second = Ask(conn, "COOKIES");
    EXPECT_THAT(second, MatchesRegex("COOKIES " + first.substr(first.rfind(' ') + 1) + " [0-9]+"));
    EXPECT_THAT(AskOnce("COOKIES"), MatchesRegex("COOKIES " + second.substr(second.rfind(' ') + 1) + " [0-9]+"))
        << "on another connection too";
}

TEST_F(Services, AHubListensWhateverItsPolicySays)
{
    InstallPlugin();
    BecomeHub();
    SetPolicy(Publish("hub", "role", own_key, "        if: am_policy_hub.policy_server\n"), "    listen: false\n");
    StartTrusting();
    EXPECT_EQ(AskOnce("VAR role"), "hub");
}

TEST_F(Services, AHostThatIsNoHubDoesNotListenWhenItsPolicySaysNo)
{
    InstallPlugin();
    WriteFile(workdir.path / "hub_address", "127.0.0.1\n");
    SetPolicy(Publish("value", "h", own_key), "    listen: false\n");
    daemon = std::make_unique<BackgroundProcess>(kProgram, Options({"--port", "0", "--bind", "127.0.0.1"}));
    ASSERT_TRUE(Says("The policy does not let this daemon listen"));
    EXPECT_EQ(Stop().out, "");
}

TEST_F(Services, APortInUseEndsNoDaemonThatIsNotToListen)
{
    auto taken = std::make_unique<LoopbackListener>();
    const std::string number = taken->port;
    SetPolicy(Publish("value", "h", own_key), "    listen: false\n");
    daemon = std::make_unique<BackgroundProcess>(kProgram, Options({"--port", number, "--bind", "127.0.0.1"}));
    ASSERT_TRUE(Says("The policy does not let this daemon listen"));

    SetPolicy(Publish("value", "h", own_key));
    Reload();
    EXPECT_TRUE(Says("Could not listen on '127.0.0.1' port " + number + ". (bind: Address already in use)"));
    taken.reset();
    daemon->Signal(SIGHUP);
    ReadPort();
    EXPECT_EQ(port, number);
    EXPECT_EQ(Stop().status, 0);
}

TEST_F(Services, AReloadReadsTheHubsPartInHighAvailabilityFirst)
{
    InstallPlugin();
    const fs::path library = workdir.path / "lib/veltrane-report-collect.so";
    fs::copy_file(fs::path(VT_TEST_LIB_DIR) / "veltrane-report-collect.so", library);
    const fs::path config = workdir.path / "hub_config.json";
    WriteFile(config, "{\"high_availability\": {\"role\": \"passive\"}}");
    fs::permissions(config, fs::perms::owner_read | fs::perms::owner_write);
    BecomeHub();
    SetPolicy(Publish("yes", "passive", own_key, "        if: ha_passive\n") +
              Publish("yes", "active", own_key, "        if: ha_active\n"));
    StartTrusting();
    EXPECT_EQ(AskOnce("VAR passive"), "yes");
    EXPECT_EQ(AskOnce("VAR active"), kNoValue);
    WriteFile(config, "{\"high_availability\": {\"role\": \"active\"}}");
    Reload();
    EXPECT_EQ(AskOnce("VAR active"), "yes");
    EXPECT_EQ(AskOnce("VAR passive"), kNoValue);
}

class Announcement : public Services {
  protected:
    void AnnounceIn(const fs::path &path) const
    {
        SetPolicy(Admit("delta", own_key), "    service_announcement: " + path.string() + "\n");
    }

    std::string Group(const std::string &edition) const
    {
        return "<?xml version=\"1.0\" standalone=\"no\"?>\n<!DOCTYPE service-group SYSTEM \"avahi-service.dtd\">\n"
               "<service-group>\n  <name replace-wildcards=\"yes\" >" +
               edition + " 3.27.0 Policy Hub on %h </name>\n  <service>\n    <type>_veltrane._tcp</type>\n    <port>" +
               port + "</port>\n  </service>\n</service-group>\n";
    }

    const fs::path file = workdir.path / "state/hub.service";
};

TEST_F(Announcement, OfAHubIsAFileThatEverybodyMayRead)
{
    InstallPlugin();
    BecomeHub();
    AnnounceIn(file);
    Start({"--verbose"});
    ASSERT_TRUE(Says("This hub is announced in '" + file.string() + "'"));
    EXPECT_EQ(ReadFile(file), Group("Veltrane Enterprise"));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0644));
}

TEST_F(Announcement, IsWrittenAgainAtAReload)
{
    BecomeHub();
    AnnounceIn(file);
    Start();
    WriteFile(file, "of somebody else, and longer than what will stand here" + std::string(1000, '.'));
    Reload();
    ASSERT_TRUE(daemon->WaitForLine("' again"));
    EXPECT_EQ(Stop().status, 0);
    EXPECT_EQ(ReadFile(file), Group("Veltrane")) << "without the plug-in";
}

TEST_F(Announcement, IsNoneOfAHostsBusiness)
{
    InstallPlugin();
    AnnounceIn(file);
    Start();
    EXPECT_EQ(Stop().status, 0);
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(Announcement, ThatCannotBeWrittenIsSaidAndTheHubServes)
{
    InstallPlugin();
    BecomeHub();
    AnnounceIn(workdir.path / "none/hub.service");
    StartTrusting();
    EXPECT_TRUE(
        Says("This hub is not announced: '" + (workdir.path / "none/hub.service").string() + "' has no directory"));
    EXPECT_EQ(AskReport(Connect(), "QUERY delta 0 0").back(), "QUERY complete");
}

class CalledHost : public Services {
  protected:
    // What a caller reads: bytes of the answer, 0 when the connection was closed without one.
    int Call()
    {
        const AgentPtr conn = Connect();
        EXPECT_NE(conn, nullptr);
        EXPECT_EQ(SendTransaction(conn->conn_info, "SCALLBACK CALL_ME_BACK collect_calls", 36, 't'), 0);
        int32_t queue = 0;
        const int read = SSL_read(ConnectionInfoSSL(conn->conn_info), &queue, sizeof(queue));
        return read < 0 ? 0 : read;
    }

    static std::string AdmitCalls(const std::string &key)
    {
        return "      - access: collect_calls\n        resource: context\n        admit_keys: [\"" + key + "\"]\n";
    }
};

TEST_F(CalledHost, ThatIsNoHubTakesNoCallsHoweverAdmitted)
{
    InstallPlugin();
    SetPolicy(AdmitCalls(own_key));
    StartTrusting({"--verbose"});
    EXPECT_EQ(Call(), 0);
    EXPECT_TRUE(Says("Call Collect is only supported on Enterprise Hub"));
    EXPECT_TRUE(Says("A collect call of 127.0.0.1 (" + own_key + ") was not accepted"));
}

TEST_F(CalledHost, TakesNoCallsOfSomebodyWhoIsNotAdmitted)
{
    InstallPlugin();
    SetPolicy(AdmitCalls(stranger));
    StartTrusting();
    EXPECT_EQ(Call(), 0);
    EXPECT_TRUE(Says("Access to 'collect_calls' denied for 127.0.0.1 (" + own_key + ")"));
}

}  // namespace
