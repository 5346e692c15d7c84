// The policy function remotescalar between real hosts: a daemon that publishes values, and an agent that reads them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/two_hosts.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

class RemoteScalars : public TwoHosts {
  protected:
    RemoteScalars()
    {
        InstallPlugin();
        InstallPluginAtHost();
        Publish("10.2.0.1/24");
    }

    // Policy of the daemon: a value under the handle site_network, for the host.
    void Publish(const std::string &value) const
    {
        SetPolicy("      - access: \"" + value + "\"\n        resource: literal\n        handle: site_network\n" +
                  "        admit_keys: [\"" + host_key + "\"]\n");
    }

    void StartTrustingEachOther()
    {
        TrustTheHost();
        HostTrustsTheDaemon();
        Start();
    }

    // Run the host's agent with a policy that reads a value into the variable site and reports it.
    ProcessResult Read(const std::string &handle = "site_network", const std::string &bundle = "site") const
    {
        WriteInput("promises.vt", "bundles:\n  - common: " + bundle +
                                      "\n    promises:\n      - vars: network\n        string: {remotescalar: [" +
                                      handle + ", \"" + DaemonAddress() +
                                      "\"]}\n  - agent: main\n    promises:\n      - reports: \"network is $(" +
                                      bundle + ".network)\"\n");
        return Host("vt-agent", {"--timeout", "5"});
    }

    // What the host would report of the variable, as its state has it.
    std::string Reported() const { return ReadFile(host.path / "state/previous_state/variables.cache"); }
};

TEST_F(RemoteScalars, APublishedValueIsRead)
{
    StartTrustingEachOther();
    const ProcessResult result = Read();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("R: network is 10.2.0.1/24"));
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(Reported(), HasSubstr("10.2.0.1/24"));
    EXPECT_THAT(Reported(), Not(HasSubstr("source=cache")));
}

TEST_F(RemoteScalars, AStoppedServersLastValueStandsForItWithATagAndAWarning)
{
    StartTrustingEachOther();
    ASSERT_THAT(Read().out, HasSubstr("R: network is 10.2.0.1/24"));
    Stop();
    const ProcessResult result = Read();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("R: network is 10.2.0.1/24"));
    EXPECT_THAT(result.err, HasSubstr("remotescalar: no suitable server responded (connect: Connection refused)"));
    EXPECT_THAT(result.err, HasSubstr(" warning: Function 'remotescalar': '" + DaemonAddress() +
                                      "' gives no value of 'site_network': the last known one is used"));
    EXPECT_THAT(Reported(), HasSubstr("source=promise,source=cache"));
}

TEST_F(RemoteScalars, AValueThatWasNeverReadLeavesThePromiseSkipped)
{
    StartTrustingEachOther();
    ASSERT_THAT(Read().out, HasSubstr("R: network is 10.2.0.1/24"));
    Stop();
    const ProcessResult other_bundle = Read("site_network", "elsewhere");
    EXPECT_EQ(other_bundle.status, 0);
    EXPECT_EQ(other_bundle.out, "") << "the report needs the variable";
    EXPECT_THAT(other_bundle.err, HasSubstr("' gives no value of 'site_network', and no earlier one is known"));
}

TEST_F(RemoteScalars, ARefusalCountsLikeAStoppedServer)
{
    StartTrustingEachOther();
    const ProcessResult unknown = Read("other_network");
    EXPECT_EQ(unknown.out, "");
    EXPECT_THAT(unknown.err, HasSubstr("' gives no value of 'other_network', and no earlier one is known"));

    ASSERT_THAT(Read().out, HasSubstr("R: network is 10.2.0.1/24"));
    ASSERT_EQ(Run({"trust", "remove", host_key}).status, 0);
    EXPECT_THAT(Read().out, HasSubstr("R: network is 10.2.0.1/24")) << "the last known one";
    EXPECT_TRUE(Says("key " + host_key + " is not trusted"));
}

TEST_F(RemoteScalars, AnOperatorsValueIsReadUntilItIsOneSecondTooOld)
{
    StartTrustingEachOther();
    ASSERT_EQ(Run({"scalar", "set", "site_network", "10.9.0.0/16"}).status, 0);
    EXPECT_THAT(Read().out, HasSubstr("R: network is 10.9.0.0/16"));
    AgeScalar("site_network", 901);
    const ProcessResult result = Read();
    EXPECT_THAT(result.out, HasSubstr("R: network is 10.2.0.1/24"));
    EXPECT_EQ(result.err, "") << "it is the server's own value, not a remembered one";
}

TEST_F(RemoteScalars, ADaemonsPolicyReadsThemToo)
{
    StartTrustingEachOther();
    WriteInput("promises.vt",
               "bundles:\n  - common: site\n    promises:\n      - vars: network\n        string: "
               "{remotescalar: [site_network, \"" +
                   DaemonAddress() +
                   "\"]}\n  - server: rules\n    promises:\n      - access: "
                   "\"again $(site.network)\"\n        resource: literal\n        handle: again\n"
                   "        admit_keys: [\"" +
                   own_key + "\"]\n");
    ASSERT_EQ(Host("vt-serverd", {"trust", "add", veltrane::OwnPublicKeyPath()}).status, 0);
    ProcessOptions options;
    options.arguments = {"--workdir", host.path.string(), "--bind", "127.0.0.1", "--port", "0"};
    BackgroundProcess second(kProgram, options);
    std::string line;
    ASSERT_TRUE(second.WaitForLine("Listening on ", std::chrono::seconds(20), &line)) << second.Err();
    std::string why;
    const veltrane::KeyPtr key = veltrane::ReadPublicKey(host.path / "keys/host.pub", &why);
    ASSERT_EQ(veltrane::TrustKey(key.get()), "");
    int failure = 0;
    const AgentPtr conn(
        ServerConnection("127.0.0.1", line.substr(line.rfind(':') + 1).c_str(), nullptr, 20, {}, &failure));
    ASSERT_NE(conn, nullptr) << failure;
    EXPECT_EQ(Ask(conn, "VAR again"), "again 10.2.0.1/24") << second.Err();
}

TEST_F(RemoteScalars, ADaemonThatAsksItselfTimesOutAndGoesOn)
{
    TrustEachOther();
    Start({"--timeout", "1"});
    SetPolicy("      - vars: own\n        string: {remotescalar: [h, \"" + DaemonAddress() + "\"]}\n" +
              Admit("delta", own_key));
    daemon->Signal(SIGHUP);
    ASSERT_TRUE(Says("Read the policy '" + Policy().string() + "' again"));
    EXPECT_THAT(daemon->Err(), HasSubstr("remotescalar: no suitable server responded (connect: Connection timed out)"));
    EXPECT_THAT(daemon->Err(), HasSubstr("' gives no value of 'h', and no earlier one is known"));
    EXPECT_EQ(AskReport(Connect(), "QUERY delta 0 0").back(), "QUERY complete");
}

TEST_F(RemoteScalars, HostsAreListedOnAHubOnly)
{
    WriteInput("promises.vt",
               "bundles:\n  - agent: main\n    promises:\n      - vars: hosts\n        slist: {hostswithclass: [linux, "
               "name]}\n      - reports: \"$(hosts)\"\n");
    const ProcessResult result = Host("vt-agent");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("!! Listing hosts with a class is only available locally on Enterprise hubs"));
    EXPECT_THAT(result.err,
                HasSubstr("Function 'hostswithclass' failed: the hosts with class 'linux' are not known here"));
}

}  // namespace
