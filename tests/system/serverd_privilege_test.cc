// What the running daemon may do: as the kernel says, and that its work goes on without what it has given up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "libveltrane/privilege.h"
#include "support/site.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kNoCapabilities[] = "0000000000000000";
constexpr char kPromises[] = "      - vars: greeting\n        string: hello\n";

class Confined : public testing::Test {
  protected:
    void Start(std::vector<std::string> arguments = {})
    {
        ASSERT_TRUE(site.StartDaemon(arguments)) << site.daemon->Err();
    }

    std::string Status(const std::string &name) const
    {
        std::ifstream file("/proc/" + std::to_string(site.daemon->Pid()) + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.rfind(name + ":\t", 0) == 0) {
                return line.substr(name.size() + 2);
            }
        }
        return "(no " + name + ")";
    }

    void ExpectConfined() const
    {
        EXPECT_EQ(Status("NoNewPrivs"), "1");
        EXPECT_EQ(Status("Seccomp"), veltrane::SandboxFiltersCalls() ? "2" : "0");
        for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
            EXPECT_EQ(Status(set), kNoCapabilities) << set;
        }
        if (geteuid() == 0) {
            EXPECT_EQ(Status("CapBnd"), kNoCapabilities);
        }
    }

    void ExpectAnswers()
    {
        for (const char *type : {"rebase", "delta"}) {
            const ProcessResult result = site.Collect(type, {"--raw"});
            EXPECT_EQ(result.status, 0) << type << ": " << result.err << site.daemon->Err();
            EXPECT_THAT(result.out, StartsWith("VTR: "));
        }
    }

    Site site;
};

TEST_F(Confined, TheDaemonRunsInItsSandboxAndAnswers)
{
    site.SetPolicy(kPromises);
    ASSERT_TRUE(site.TrustEachOther());
    ASSERT_EQ(site.RunAgent().status, 0);
    Start();
    ExpectConfined();
    ExpectAnswers();
    ExpectConfined();
}

TEST_F(Confined, AReloadAndNewTrustWorkInside)
{
    site.WritePolicy("bundles:\n  - server: reports\n    promises: []\n");
    Start({"--verbose"});
    EXPECT_EQ(site.Collect("delta").status, 1);
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kPromises);
    site.daemon->Signal(SIGHUP);
    ASSERT_TRUE(site.daemon->WaitForLine("promises.vt' again"));
    ExpectAnswers();
}

TEST_F(Confined, ListeningBeginsAtAReload)
{
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kPromises);
    const std::string policy = ReadFile(site.Host() / "inputs/promises.vt");
    Start();
    site.WritePolicy("control:\n  server:\n    listen: false\n" + policy);
    site.daemon->Signal(SIGHUP);
    ASSERT_TRUE(site.daemon->WaitForLine("The policy does not let this daemon listen"));
    EXPECT_EQ(site.Collect("delta").status, 1);
    const size_t before = site.daemon->Out().size();
    site.WritePolicy(policy);
    site.daemon->Signal(SIGHUP);
    while (site.daemon->Out().size() == before && site.daemon->WaitForLine("again", std::chrono::seconds(20))) {
        site.daemon->WaitForLine("no such line", std::chrono::milliseconds(50));
    }
    const std::string out = site.daemon->Out();
    const std::string line = out.substr(before, out.size() - before - 1);
    site.address = line.substr(line.find("on ") + 3);
    ExpectAnswers();
}

TEST_F(Confined, NoCommandOfThePolicyIsRunFromTheStartOn)
{
    const fs::path trace = site.Host() / "trace";
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kPromises);
    const std::string policy = ReadFile(site.Host() / "inputs/promises.vt");
    site.WritePolicy(
        policy + "  - common: facts\n    promises:\n      - vars: text\n        string: {execresult: [\"/bin/touch " +
        trace.string() + "\", noshell]}\n");
    Start();
    const std::string line = "Function 'execresult' failed: the server daemon runs no commands";
    EXPECT_TRUE(site.daemon->WaitForLine(line)) << site.daemon->Err();
    EXPECT_FALSE(fs::exists(trace));
    site.daemon->Signal(SIGHUP);
    ASSERT_TRUE(site.daemon->WaitForLine("promises.vt' again"));
    ExpectAnswers();
    EXPECT_FALSE(fs::exists(trace));
    EXPECT_THAT(site.Run("vt-serverd", site.Host(), {"--help"}).out, HasSubstr("execresult"));
}

class AsUser : public Confined {
  protected:
    // Another user when this test may become one, else its own.
    AsUser() : entry(geteuid() == 0 ? getpwnam("nobody") : getpwuid(geteuid()))
    {
        site.SetPolicy(kPromises);
        site.TrustEachOther();
        fs::permissions(site.Host().parent_path(), fs::perms(0711));
    }

    void GiveTheHost() const
    {
        Give(site.Host());
        for (const auto &file : fs::recursive_directory_iterator(site.Host())) { Give(file.path()); }
    }

    void Give(const fs::path &path) const { ASSERT_EQ(lchown(path.c_str(), entry->pw_uid, entry->pw_gid), 0) << path; }

    const passwd *entry;
};

TEST_F(AsUser, TheDaemonServesAsHim)
{
    GiveTheHost();
    Start({"--user", entry->pw_name});
    const std::string uid = std::to_string(entry->pw_uid);
    EXPECT_EQ(Status("Uid"), uid + "\t" + uid + "\t" + uid + "\t" + uid);
    ExpectConfined();
    ExpectAnswers();
    site.daemon->Signal(SIGHUP);
    ASSERT_TRUE(site.daemon->WaitForLine("promises.vt' again"));
    ExpectAnswers();
    site.daemon->Signal(SIGTERM);
    EXPECT_EQ(site.daemon->Wait().status, 0);
}

TEST_F(AsUser, AWorkDirectoryThatIsNotHisIsRefusedPlainly)
{
    const std::string user = geteuid() == 0 ? entry->pw_name : "root";
    const ProcessResult result = site.Run("vt-serverd", site.Host(), {"--user", user, "--port", "0"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(geteuid() == 0 ? "The work directory '" + site.Host().string() +
                                                           "' is refused: it does not belong to user '" + user + "'"
                                                     : "Could not become user 'root'. (only root can become another "
                                                       "user)"));
}

TEST_F(AsUser, AUserThatIsNoneIsRefused)
{
    const ProcessResult result = site.Run("vt-serverd", site.Host(), {"--user", "no-such-user-here", "key"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Could not become user 'no-such-user-here'. (there is no such user)"));
}

}  // namespace
