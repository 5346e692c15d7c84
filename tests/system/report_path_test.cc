// The main job with real processes: an agent run ends as a report that a hub reads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "support/site.h"

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char kFirstPolicy[] =
    "      - classes: kept_class\n        expression: any\n        meta: [report, one]\n"
    "      - classes: lost_class\n        expression: any\n        meta: [report]\n"
    "      - classes: secret_class\n        expression: any\n        meta: [secret]\n";
constexpr char kSecondPolicy[] =
    "      - classes: kept_class\n        expression: any\n        meta: [report, two]\n"
    "      - classes: new_class\n        expression: any\n        meta: [report]\n"
    "      - classes: secret_class\n        expression: any\n        meta: [secret]\n";
constexpr char kHideSecrets[] = "        report_data_select: {metatags_exclude: [secret]}\n";

TEST(ReportPath, ARebaseShowsTheRealClassesOfThisMachine)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kFirstPolicy, kHideSecrets);
    const ProcessResult run = site.RunAgent();
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_TRUE(site.StartDaemon()) << site.daemon->Err();

    const ProcessResult rebase = site.Collect("rebase");

    EXPECT_EQ(rebase.status, 0) << rebase.err;
    EXPECT_THAT(rebase.out, HasSubstr("Host " + site.host_key));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +linux"));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +enterprise_edition"));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +kept_class +[^\n]*report,one"));
    EXPECT_THAT(rebase.out, ContainsRegex("UNTRACKED +secret_class"));
    EXPECT_THAT(rebase.out, Not(ContainsRegex("ADD +Hr[0-9]")));
}

TEST(ReportPath, ADeltaShowsWhatAChangedPolicyAddedRemovedAndChanged)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kFirstPolicy, kHideSecrets);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon()) << site.daemon->Err();
    ASSERT_EQ(site.Collect("rebase").status, 0);
    site.SetPolicy(kSecondPolicy, kHideSecrets);
    ASSERT_EQ(site.RunAgent().status, 0);

    const ProcessResult delta = site.CollectDeltaUntil("new_class");

    EXPECT_EQ(delta.status, 0) << delta.err;
    EXPECT_THAT(delta.out, ContainsRegex("ADD +new_class"));
    EXPECT_THAT(delta.out, ContainsRegex("REMOVE +lost_class"));
    EXPECT_THAT(delta.out, ContainsRegex("CHANGE +kept_class +[^\n]*report,two"));
    EXPECT_THAT(delta.out, Not(HasSubstr("secret_class")));
    EXPECT_THAT(delta.out, ContainsRegex("EXS +agent, 1 row"));
}

TEST(ReportPath, TheRawStreamIsShownAgainFromAFile)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kFirstPolicy);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());
    const ProcessResult raw = site.Collect("rebase", {"--raw"});
    ASSERT_EQ(raw.status, 0) << raw.err;
    ASSERT_THAT(raw.out, ContainsRegex("^VTR: [0-9-]+ [0-9]+ [0-9]+\nCLD\n"));
    const std::filesystem::path file = site.Hub() / "stream";
    WriteFile(file, raw.out);

    const ProcessResult shown = site.Run("vt-hub", site.Hub(), {"show", file.string(), "--type", "rebase"});

    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_THAT(shown.out, ContainsRegex("ADD +kept_class"));
    EXPECT_THAT(shown.out, HasSubstr("SDI  software, 0 rows"));  // absent from a rebase is an empty state
}

TEST(ReportPath, AnUnchangedHostHasAnEmptyDelta)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kFirstPolicy);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());
    ASSERT_EQ(site.Collect("rebase").status, 0);
    ASSERT_EQ(site.RunAgent().status, 0);

    const ProcessResult delta = site.Collect("delta");

    EXPECT_EQ(delta.status, 0) << delta.err;
    EXPECT_THAT(delta.out, Not(HasSubstr("CLD")));
    EXPECT_FALSE(std::filesystem::exists(site.Host() / "state/diff/classes.diff"));
}

TEST(ReportPath, AnUntrustedHubGetsNothing)
{
    Site site;
    ASSERT_EQ(site.Run("vt-hub", site.Hub(), {"trust", "add", (site.Host() / "keys/host.pub").string()}).status, 0);
    site.SetPolicy(kFirstPolicy);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());

    const ProcessResult refused = site.Collect("rebase", {"--raw"});

    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.out, IsEmpty());
    EXPECT_TRUE(site.daemon->WaitForLine(site.hub_key)) << site.daemon->Err();
    ASSERT_EQ(site.Run("vt-serverd", site.Host(), {"trust", "add", (site.Hub() / "keys/host.pub").string()}).status, 0);
    EXPECT_EQ(site.Collect("rebase").status, 0) << "the daemon lives on and sees the new trust";
}

TEST(ReportPath, ATrustedHubThatNoAccessPromiseNamesGetsNothing)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    const std::string own_key = site.hub_key;
    site.hub_key = "SHA=" + std::string(64, '0');
    site.SetPolicy(kFirstPolicy);
    site.hub_key = own_key;
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());

    const ProcessResult refused = site.Collect("rebase", {"--raw"});

    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.out, IsEmpty());
    EXPECT_TRUE(site.daemon->WaitForLine(own_key)) << site.daemon->Err();
}

TEST(ReportPath, WithoutThePlugInTheHostProgramsWorkAndSayWhatIsMissing)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kFirstPolicy);
    std::filesystem::remove(site.Host() / "lib/veltrane-enterprise.so");
    std::filesystem::remove(site.Hub() / "lib/veltrane-enterprise.so");

    EXPECT_EQ(site.RunAgent().status, 0);
    EXPECT_FALSE(std::filesystem::exists(site.Host() / "state/previous_state/classes.cache"));
    ASSERT_TRUE(site.StartDaemon());
    EXPECT_EQ(site.Collect("rebase", {"--raw"}).status, 1);
    WriteFile(site.Hub() / "stream", "VTR: 0 1700000000 0\n");
    const ProcessResult shown = site.Run("vt-hub", site.Hub(), {"show", (site.Hub() / "stream").string()});
    EXPECT_EQ(shown.status, 1);
    EXPECT_THAT(shown.err, HasSubstr("Reading reports needs the enterprise plug-in, and it is not installed"));
}

TEST(ReportPath, APlugInThatOthersMayWriteIsRefusedOnceAndTheHostWorksOn)
{
    Site site;
    site.SetPolicy(kFirstPolicy);
    const std::filesystem::path plug_in = site.Host() / "lib/veltrane-enterprise.so";
    std::filesystem::permissions(plug_in, std::filesystem::perms::others_write, std::filesystem::perm_options::add);

    const ProcessResult run = site.RunAgent();

    EXPECT_EQ(run.status, 0);
    const std::string refusal = "Extension library '" + plug_in.string() + "' is refused: '" + plug_in.string() +
                                "' can be written by its group or by everybody";
    const std::size_t first = run.err.find(refusal);
    EXPECT_NE(first, std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("is refused", first + refusal.size()), std::string::npos) << run.err;
    EXPECT_FALSE(std::filesystem::exists(site.Host() / "state/previous_state/classes.cache"));
}

TEST(ReportPath, AMalformedPolicyIsRefusedWithItsPlaceAndChangesNothing)
{
    Site site;
    site.WritePolicy("bundles:\n  - agent: main\n    promises:\n      - commands: /usr/bin/touch " +
                     (site.Host() / "touched").string() + "\n        tiemout: 3\n");

    const ProcessResult run = site.RunAgent();

    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr((site.Host() / "inputs/promises.vt").string() + ":5:9: "));
    EXPECT_FALSE(std::filesystem::exists(site.Host() / "touched"));
    EXPECT_FALSE(std::filesystem::exists(site.Host() / "state/previous_state/classes.cache"));
}

TEST(ReportPath, ClassesOfTheUpdateRunReachTheMainRunsReport)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    WriteFile(site.Host() / "inputs/update.vt",
              "bundles:\n  - agent: main\n    promises:\n      - classes: from_update\n        expression: any\n");
    site.SetPolicy(kFirstPolicy);

    ASSERT_EQ(site.RunAgent().status, 0);

    EXPECT_THAT(ReadFile(site.Host() / "state/previous_state/classes.cache"),
                AllOf(HasSubstr("from_update"), HasSubstr("kept_class")));
    EXPECT_FALSE(std::filesystem::exists(site.Host() / "state/context.cache.tmp"));
}

TEST(ReportPath, ABrokenCacheLineIsSkippedAndTheRestIsReported)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kFirstPolicy);
    ASSERT_EQ(site.RunAgent().status, 0);
    const std::filesystem::path cache = site.Host() / "state/previous_state/classes.cache";
    WriteFile(cache, "one,two,three\r\nbro\"k\"en,x\r\n" + ReadFile(cache));
    ASSERT_TRUE(site.StartDaemon());

    const ProcessResult rebase = site.Collect("rebase");

    EXPECT_EQ(rebase.status, 0) << rebase.err;
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +kept_class"));
    EXPECT_TRUE(site.daemon->WaitForLine("Failed to parse csv file entry ('" + cache.string() + "'): 'bro\"k\"en,x'"))
        << site.daemon->Err();
}

TEST(ReportPath, AKilledDaemonLeavesAStateThatTheNextOneServes)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kFirstPolicy);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());
    site.daemon->Signal(SIGKILL);
    site.daemon->Wait();
    EXPECT_EQ(site.Collect("rebase").status, 1);
    ASSERT_TRUE(site.StartDaemon());

    EXPECT_EQ(site.Collect("rebase").status, 0);
}

}  // namespace
