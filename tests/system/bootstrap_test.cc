// vt-agent --bootstrap against a real hub: what a new host takes from it, and what it does not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/sockets.h"
#include "support/two_hosts.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

// The daemon is the hub's.
class BootstrapRun : public TwoHosts {
  protected:
    ProcessResult Bootstrap(const std::string &hub, const std::string &key, std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), {"--bootstrap", hub, "--key", key});
        return Host("vt-agent", more);
    }

    std::string Hub() const { return DaemonAddress(); }
    std::string KeptAddress() const { return ReadFile(host.path / "hub_address"); }
    std::string TrustedKeys() const { return Host("vt-serverd", {"trust", "list"}).out; }

    const std::string hub_key = daemon_key;
};

TEST_F(BootstrapRun, ATrustedHostKeepsItsHubsAddressAndKey)
{
    TrustTheHost();
    Start();
    const ProcessResult result = Bootstrap(Hub(), hub_key);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("The hub of this host is '127.0.0.1' port " + port +
                                      " from now on, and its key " + hub_key + " is trusted"));
    EXPECT_THAT(result.err, Not(HasSubstr("does not trust")));
    EXPECT_EQ(KeptAddress(), "127.0.0.1\n" + port + "\n");
    EXPECT_EQ(TrustedKeys(), hub_key + "\n");
}

TEST_F(BootstrapRun, AHostThatTheHubDoesNotTrustYetIsToldWhatToRunThere)
{
    Start();
    const ProcessResult result = Bootstrap(Hub(), hub_key);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(KeptAddress(), "127.0.0.1\n" + port + "\n");
    EXPECT_EQ(TrustedKeys(), hub_key + "\n");
    EXPECT_THAT(result.err,
                HasSubstr("The hub does not trust this host yet. To be run there: vt-serverd trust add " + host_key));

    EXPECT_EQ(Run({"trust", "add", host_key}).out, host_key + "\n") << "the hub remembers whom it refused";
    EXPECT_THAT(Bootstrap(Hub(), hub_key).err, Not(HasSubstr("does not trust")));
}

TEST_F(BootstrapRun, AWrongKeyChangesNothing)
{
    TrustTheHost();
    Start();
    const std::string wrong = "SHA=" + std::string(64, 'a');
    const ProcessResult result = Bootstrap(Hub(), wrong);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Bootstrap to '127.0.0.1' failed: its key is not " + wrong));
    EXPECT_EQ(TrustedKeys(), "");
    EXPECT_FALSE(fs::exists(host.path / "hub_address"));

    ASSERT_EQ(Bootstrap(Hub(), hub_key).status, 0);
    EXPECT_EQ(Bootstrap(Hub(), wrong).status, 1) << "though its key is trusted by now";
    EXPECT_EQ(KeptAddress(), "127.0.0.1\n" + port + "\n");
}

TEST_F(BootstrapRun, WithoutAHubTheOneBeforeStays)
{
    WriteFile(host.path / "hub_address", "10.0.0.1\n");
    std::string free_port;
    {
        const LoopbackListener nobody;
        free_port = nobody.port;
    }
    const ProcessResult nobody = Bootstrap("127.0.0.1:" + free_port, hub_key);
    EXPECT_EQ(nobody.status, 1);
    EXPECT_THAT(nobody.err, HasSubstr("Bootstrap to '127.0.0.1' failed: Connection refused"));

    const LoopbackListener silent;
    const ProcessResult late = Bootstrap("127.0.0.1:" + silent.port, hub_key, {"--timeout", "1"});
    EXPECT_EQ(late.status, 1);
    EXPECT_THAT(late.err, HasSubstr("Connection timed out"));

    const ProcessResult nowhere = Bootstrap("127.0.0.1.1.1.1..", hub_key);
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_THAT(nowhere.err, HasSubstr("there is no such host"));
    EXPECT_EQ(KeptAddress(), "10.0.0.1\n");
    EXPECT_EQ(TrustedKeys(), "");
}

TEST_F(BootstrapRun, AKeyMustBeNamedAndEverythingBeWellFormed)
{
    const ProcessResult without = Host("vt-agent", {"--bootstrap", "hub.example.org"});
    EXPECT_EQ(without.status, 2);
    EXPECT_THAT(without.err, HasSubstr("On the hub, this prints it: vt-serverd key"));
    for (const std::string hub : {"", ":6127", "hub:", "hub:0", "hub:65536", "hub:x", "a b", "::1", "[::1"}) {
        EXPECT_EQ(Bootstrap(hub, hub_key).status, 2) << hub;
    }
    for (const std::string &key : {std::string(), std::string("SHA="), hub_key + "0", "MD5" + hub_key.substr(3)}) {
        EXPECT_EQ(Bootstrap("hub", key).status, 2) << key;
    }
    EXPECT_EQ(Host("vt-agent", {"--key", hub_key}).status, 2);
    EXPECT_FALSE(fs::exists(host.path / "hub_address"));
}

TEST_F(BootstrapRun, WithItsOwnKeyAHostIsTheHub)
{
    WriteInput("promises.vt",
               "bundles:\n  - agent: main\n    promises:\n      - reports: i am the hub\n        if: "
               "am_policy_hub.policy_server\n");
    EXPECT_THAT(Host("vt-agent", {}).out, Not(HasSubstr("i am the hub")));
    const ProcessResult result = Bootstrap("hub.example.org:7001", host_key);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("The key is this host's own: this host is the hub"));
    EXPECT_EQ(KeptAddress(), "localhost\n");
    EXPECT_EQ(TrustedKeys(), "");
    EXPECT_THAT(Host("vt-agent", {}).out, HasSubstr("i am the hub"));
}

TEST_F(BootstrapRun, LocalhostIsNobodyElsesAddress)
{
    const ProcessResult result = Bootstrap("localhost", hub_key);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("'localhost' would make this host the hub, and the key is another's"));
    EXPECT_FALSE(fs::exists(host.path / "hub_address"));
}

TEST_F(BootstrapRun, AnAddressThatCannotBeKeptIsAFailure)
{
    TrustTheHost();
    Start();
    fs::create_directory(host.path / "hub_address");
    const ProcessResult result = Bootstrap(Hub(), hub_key);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Bootstrap failed: could not replace '" + (host.path / "hub_address").string()));
}

TEST_F(BootstrapRun, OnlyTheFailsafePolicyRunsAndItsStateIsReported)
{
    TrustTheHost();
    InstallPluginAtHost();
    WriteInput("promises.vt", "bundles:\n  - agent: main\n    promises:\n      - reports: the whole policy\n");
    WriteInput("failsafe.vt", "bundles:\n  - agent: main\n    promises:\n      - reports: the first policy\n");
    Start();
    const ProcessResult result = Bootstrap(Hub(), hub_key);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("R: the first policy"));
    EXPECT_THAT(result.out, Not(HasSubstr("the whole policy")));
    EXPECT_THAT(ReadFile(host.path / "state/previous_state/classes.cache"), HasSubstr("linux"));

    WriteInput("other.vt", "bundles:\n  - agent: main\n    promises:\n      - reports: another policy\n");
    EXPECT_THAT(Bootstrap(Hub(), hub_key, {"--file", "other.vt"}).out, HasSubstr("R: another policy"));
}

}  // namespace
