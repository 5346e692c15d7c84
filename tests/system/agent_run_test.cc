// What real agent runs leave behind: the six state reports as a hub reads them, the logs of outcomes, the summary, the
// class log, and the bounds of all that grows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include <veltrane/dbm_api.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "support/agent.h"
#include "support/site.h"

using testing::AllOf;
using testing::ContainsRegex;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

std::vector<std::string> Lines(const fs::path &path, const std::string &end = "\n")
{
    std::vector<std::string> lines;
    const std::string bytes = ReadFile(path);
    size_t start = 0;
    for (size_t at = bytes.find(end); at != std::string::npos; at = bytes.find(end, start)) {
        lines.push_back(bytes.substr(start, at - start));
        start = at + end.size();
    }
    EXPECT_EQ(start, bytes.size()) << path << " ends in half a line";
    return lines;
}

constexpr char kAgentKeepsAndRepairs[] =
    "      - vars: owner\n        string: nobody\n        meta: [inventory]\n"
    "      - classes: web_server\n        expression: any\n        meta: [inventory]\n"
    "      - commands: /bin/true\n        handle: always_repaired\n"
    "      - commands: /bin/false\n        handle: never_kept\n"
    "      - methods: other\n        handle: kept\n"
    "  - agent: other\n    promises:\n      - reports: here\n";

// A peer of a host's last-seen database; nothing when it is not there.
class LastSeenOf {
  public:
    explicit LastSeenOf(const fs::path &workdir)
    {
        SetWorkDir(workdir.c_str());
        DBHandle *opened = nullptr;
        EXPECT_TRUE(OpenDB(&opened, dbid_lastseen));
        db_.reset(opened);
    }

    bool Has(const std::string &key) const
    {
        KeyHostSeen seen{};
        return ReadDB(db_.get(), key.c_str(), &seen, sizeof(seen));
    }

    void Put(const std::string &key, time_t when) const
    {
        KeyHostSeen seen{};
        seen.lastseen = when;
        EXPECT_TRUE(WriteDB(db_.get(), key.c_str(), &seen, sizeof(seen)));
    }

    std::string Text(const std::string &key) const
    {
        char text[256] = "";
        return ReadDB(db_.get(), key.c_str(), text, sizeof(text) - 1) ? text : "(none)";
    }

  private:
    veltrane::DBHandlePtr db_;
};

class AgentReports : public Agent {
  protected:
    AgentReports() { InstallPlugIn(); }

    std::string State(const std::string &name) const { return (work / "state" / name).string(); }
    std::string Cache(const std::string &report) const
    {
        return ReadFile(State("previous_state/" + report + ".cache"));
    }
    fs::path Summary() const { return work / "log/promise_summary.log"; }

    static std::string Skipped(const std::string &input_file)
    {
        return "Generate diff state reports for policy '" + input_file +
               "' SKIPPED (detected parallel vt-agent process running)";
    }

    // A run that stays until it is killed, in a work directory of its own.
    std::unique_ptr<BackgroundProcess> StartOtherAgent(const std::string &name)
    {
        const fs::path other = directory.path / "other";
        for (const fs::path &path : {other, other / "inputs"}) { mkdir(path.c_str(), 0700); }
        WriteFile(other / "inputs/promises.vt",
                  "bundles:\n  - agent: main\n    promises:\n      - reports: started\n"
                  "      - commands: /bin/sleep 1000\n");
        chmod((other / "inputs/promises.vt").c_str(), 0600);
        ProcessOptions options;
        options.arguments = {"--workdir", other.string()};
        auto agent = std::make_unique<BackgroundProcess>(std::string(VT_TEST_BIN_DIR) + "/" + name, options);
        EXPECT_TRUE(agent->WaitForLine("R: started"));
        return agent;
    }
};

}  // namespace

TEST(AgentReportsToHub, AllSixReportsComeFromRealRuns)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.control = "control:\n  common: {package_inventory: [apt]}\n";
    site.SetPolicy(kAgentKeepsAndRepairs);
    const ProcessResult first = site.RunAgent();
    ASSERT_EQ(first.status, 0) << first.err;
    ASSERT_TRUE(site.StartDaemon());
    ASSERT_EQ(site.Collect("delta").status, 0);  // the host meets the hub
    ASSERT_EQ(site.RunAgent().status, 0);

    const ProcessResult rebase = site.Collect("rebase");

    EXPECT_EQ(rebase.status, 0) << rebase.err;
    EXPECT_THAT(rebase.out, ContainsRegex("CLD  classes, [0-9]+ rows\n"));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +web_server +source=promise,inventory"));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +[^\n]* main +owner +string +nobody +source=promise,inventory"));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +INCOMING +" + site.hub_key + " +127.0.0.1 "));
    ProcessOptions query;
    query.arguments = {"-W", "-f=${Package} +${Version}", "dpkg"};
    const ProcessResult dpkg = RunProcess("/usr/bin/dpkg-query", query);
    ASSERT_EQ(dpkg.status, 0);
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +" + dpkg.out + " "));
    EXPECT_THAT(rebase.out, ContainsRegex("SPD  patches, [0-9]+ rows?\n"));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +REPAIRED +main +commands +/bin/true +always_repaired "));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +NOTKEPT +main +commands +/bin/false +never_kept "));
    EXPECT_THAT(rebase.out, ContainsRegex("ADD +KEPT +main +methods +other +kept "));
}

TEST(AgentReportsToHub, WideShowsEveryColumnOfAnOutcome)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    WriteFile(site.Host() / "inputs/release_id", "release-7\n");
    site.SetPolicy(kAgentKeepsAndRepairs);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());

    const ProcessResult rebase = site.Collect("rebase", {"--wide"});

    EXPECT_THAT(rebase.out, ContainsRegex("KIND +PROMISE +POLICY FILE +RELEASE +OUTCOME +NAMESPACE +BUNDLE +TYPE "
                                          "+PROMISER +PATH +HANDLE +PROMISEES +MESSAGES +LINE +FILE HASH +TAGS\n"));
    EXPECT_THAT(
        rebase.out,
        ContainsRegex("ADD +[0-9a-f]{64} +[^ ]*/inputs/promises.vt +release-7 +NOTKEPT +default +main +commands "
                      "+/bin/false +/default/main/commands/'/bin/false'.0. +never_kept +.. "
                      "+.\"Command '/bin/false' failed: exit status 1\". +[0-9]+ +[0-9a-f]{64}"));
}

TEST(AgentReportsToHub, ChaptersAreShownInTheOrderOfTheStream)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kAgentKeepsAndRepairs);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());

    const std::string out = site.Collect("rebase").out;

    std::vector<std::string> chapters;
    const std::regex heading("(^|\n)([A-Z]{3})  ");
    for (std::sregex_iterator i(out.begin(), out.end(), heading), end; i != end; ++i) { chapters.push_back((*i)[2]); }
    EXPECT_THAT(chapters, ElementsAre("CLD", "VAD", "ELD", "EXS", "LSD", "SDI", "SPD"))
        << "what the stream does not bring comes last";
}

TEST(AgentReportsToHub, BothSidesOfAConnectionNoteEachOther)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy(kAgentKeepsAndRepairs);
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());

    ASSERT_EQ(site.Collect("delta").status, 0);

    {
        const LastSeenOf host(site.Host());
        EXPECT_TRUE(host.Has("qi" + site.hub_key));
        EXPECT_FALSE(host.Has("qo" + site.hub_key));
        EXPECT_EQ(host.Text("k" + site.hub_key), "127.0.0.1");
        EXPECT_EQ(host.Text("p127.0.0.1"), site.hub_key);
    }
    const LastSeenOf hub(site.Hub());
    EXPECT_TRUE(hub.Has("qo" + site.host_key));
    EXPECT_FALSE(hub.Has("qi" + site.host_key));
    EXPECT_EQ(hub.Text("k" + site.host_key), "127.0.0.1");
}

TEST(AgentReportsToHub, APeerThatIsNotTrustedLeavesNoSighting)
{
    Site site;
    ASSERT_EQ(site.Run("vt-hub", site.Hub(), {"trust", "add", (site.Host() / "keys/host.pub").string()}).status, 0);
    site.SetPolicy(kAgentKeepsAndRepairs);
    ASSERT_TRUE(site.StartDaemon());

    EXPECT_EQ(site.Collect("delta").status, 1);

    EXPECT_TRUE(site.daemon->WaitForLine(site.hub_key));
    EXPECT_FALSE(LastSeenOf(site.Host()).Has("qi" + site.hub_key));
}

TEST_F(AgentReports, APeerIsReportedUntilItExpires)
{
    const std::string peer = "SHA=" + std::string(64, '7');
    const auto policy = [&](int seconds) {
        WriteInput("promises.vt", "control:\n  common: {lastseen_expire_after: " + std::to_string(seconds) +
                                      "}\nbundles:\n  - agent: main\n    promises:\n      - reports: here\n");
    };
    policy(3600);
    ASSERT_EQ(Run().status, 0);
    LastSeenOf(work).Put("qo" + peer, time(nullptr) - 100);
    ASSERT_EQ(Run().status, 0);
    EXPECT_THAT(Cache("lastseen"), StartsWith("43," + peer + ","));

    policy(50);
    ASSERT_EQ(Run().status, 0);  // still reported, then expired
    EXPECT_FALSE(LastSeenOf(work).Has("qo" + peer));
    ASSERT_EQ(Run().status, 0);

    EXPECT_EQ(Cache("lastseen"), "");
    EXPECT_THAT(ReadFile(State("diff/lastseen.diff")),
                MatchesRegex("[0-9]+,1,43," + peer + "[^\r]*\r\n[0-9]+,2,43," + peer + "[^\r]*\r\n"));
}

TEST_F(AgentReports, WhatAnUpdateRunFoundReachesTheMainRunsReports)
{
    WritePolicy(
        "      - classes: from_update\n        expression: any\n        meta: [report]\n"
        "      - vars: from_update\n        string: one\n        meta: [report]\n",
        "update.vt");
    WritePolicy(kAgentKeepsAndRepairs);

    const ProcessResult run = Run({"-v"});

    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.err, AllOf(HasSubstr(" verbose: Cache context and variable information for reporting.\n"),
                               HasSubstr(" verbose: Generate diff state reports for policy '" +
                                         (work / "inputs/update.vt").string() + "' SKIPPED\n")));
    EXPECT_THAT(Cache("classes"), AllOf(HasSubstr("from_update"), HasSubstr("web_server")));
    EXPECT_THAT(Cache("variables"), AllOf(HasSubstr("from_update"), HasSubstr("owner")));
    EXPECT_FALSE(fs::exists(State("context.cache.tmp")));
    EXPECT_FALSE(fs::exists(State("variable.cache.tmp")));
}

TEST_F(AgentReports, WhatAFailsafeRunFoundReachesTheNextMainRunsReports)
{
    WritePolicy("      - classes: from_failsafe\n        expression: any\n        meta: [report]\n", "failsafe.vt");
    ASSERT_EQ(Run().status, 1);  // there is no main policy
    EXPECT_FALSE(fs::exists(State("previous_state/classes.cache")));
    EXPECT_TRUE(fs::exists(State("context.cache.tmp")));
    WritePolicy(kAgentKeepsAndRepairs);

    ASSERT_EQ(Run().status, 0);

    EXPECT_THAT(Cache("classes"), AllOf(HasSubstr("from_failsafe"), HasSubstr("web_server")));
}

TEST_F(AgentReports, ARunLeavesOneSummaryLine)
{
    WriteInput("release_id", "release-7\n");
    WritePolicy(
        "      - commands: /bin/true\n        handle: vte_internal_cleanup\n"
        "      - commands: /bin/false\n"
        "      - methods: other\n"
        "  - agent: other\n    promises:\n      - reports: here\n");
    ASSERT_EQ(Run().status, 0);
    ASSERT_EQ(Run().status, 0);

    EXPECT_THAT(
        Lines(Summary()),
        AllOf(SizeIs(2),
              Each(MatchesRegex(
                  "[0-9]+,[0-9]+: Outcome of version release-7 \\(agent-0\\): Promises observed - Total promise "
                  "compliance: 50% kept, 25% repaired, 25% not kept \\(out of 4 events\\)\\. User promise compliance: "
                  "67% kept, 0% repaired, 33% not kept \\(out of 3 events\\)\\. Veltrane system compliance: 0% kept, "
                  "100% repaired, 0% not kept \\(out of 1 events\\)\\."))));
}

TEST_F(AgentReports, TheMainPolicysSummaryCountsTheUpdateAsWell)
{
    WritePolicy("      - commands: /bin/true\n", "update.vt");
    WritePolicy("      - commands: /bin/false\n      - reports: here\n");

    const ProcessResult run = Run({"-v"});

    EXPECT_THAT(
        Lines(Summary()),
        ElementsAre(AllOf(HasSubstr("Outcome of version (not specified) (agent-0)"),
                          HasSubstr("(out of 1 events). User promise compliance: 0% kept, 100% repaired, 0% not "
                                    "kept (out of 1 events)")),
                    HasSubstr("(out of 3 events). User promise compliance: 33% kept, 33% repaired, 33% not kept "
                              "(out of 3 events)")));
    EXPECT_THAT(run.err, HasSubstr("promises.vt': 1 kept, 0 repaired, 1 not kept\n")) << "of this policy alone";
}

TEST_F(AgentReports, RepairsAndFailuresAreLoggedWithTheirMessagesAndOthersAreNot)
{
    WritePolicy("      - commands: \"/bin/echo of the update\"\n", "update.vt");
    WritePolicy(kAgentKeepsAndRepairs);

    ASSERT_EQ(Run().status, 0);

    const std::vector<std::string> records = Lines(State("promise_log.jsonl"), "\r\n");
    ASSERT_THAT(records, SizeIs(3));
    EXPECT_THAT(records[0], AllOf(HasSubstr("/inputs/update.vt\""), HasSubstr("\"promise_outcome\":\"REPAIRED\""),
                                  HasSubstr("\"log_messages\":[\"Command '/bin/echo of the update' output: of the "
                                            "update\",\"Command '/bin/echo of the update' succeeded\"]")));
    EXPECT_THAT(records[1], AllOf(HasSubstr("\"handle\":\"always_repaired\""), HasSubstr("\"promiser\":\"/bin/true\""),
                                  HasSubstr("\"log_messages\":[\"Command '/bin/true' succeeded\"]")));
    EXPECT_THAT(records[2], AllOf(HasSubstr("\"handle\":\"never_kept\""), HasSubstr("\"promise_outcome\":\"NOTKEPT\""),
                                  HasSubstr("exit status 1")));
    EXPECT_FALSE(fs::exists(State("promise_execution.log"))) << "the report has taken it over";
    EXPECT_THAT(Cache("execution_log"), Not(HasSubstr(",vars,")));
    EXPECT_THAT(Lines(State("previous_state/execution_log.cache"), "\r\n"), SizeIs(4)) << "the kept ones are here";
}

TEST_F(AgentReports, ClassesAreLoggedOnlyWhenAskedFor)
{
    WritePolicy(kAgentKeepsAndRepairs);
    ASSERT_EQ(Run().status, 0);
    EXPECT_FALSE(fs::exists(State("classes.jsonl")));

    ASSERT_EQ(Run({"--log-classes"}).status, 0);
    const std::vector<std::string> once = Lines(State("classes.jsonl"), "\r\n");
    EXPECT_THAT(once, Each(MatchesRegex("\\{\"name\":\"[^\"]+\",\"timestamp\":[0-9]+\\}")));
    EXPECT_THAT(once, testing::Contains(StartsWith("{\"name\":\"web_server\",")));
    EXPECT_THAT(once, testing::Contains(StartsWith("{\"name\":\"enterprise_edition\",")));

    WriteInput("promises.vt", std::string("control:\n  agent: {report_class_log: true}\nbundles:\n  - agent: main\n"
                                          "    promises:\n") +
                                  kAgentKeepsAndRepairs);
    ASSERT_EQ(Run().status, 0);
    EXPECT_THAT(Lines(State("classes.jsonl"), "\r\n"), SizeIs(2 * once.size())) << "appended";
}

TEST_F(AgentReports, AnotherAgentAtWorkMakesARunLeaveItsReportsOut)
{
    WritePolicy(kAgentKeepsAndRepairs);
    for (const char *name : {"vt-agent", "vt-twin"}) {
        const std::unique_ptr<BackgroundProcess> other = StartOtherAgent(name);

        const ProcessResult run = Run({"-v"});

        EXPECT_EQ(run.status, 0);
        EXPECT_THAT(run.err, HasSubstr(" verbose: " + Skipped((work / "inputs/promises.vt").string()) + "\n")) << name;
        EXPECT_FALSE(fs::exists(State("previous_state/classes.cache")));
        EXPECT_TRUE(fs::exists(State("promise_execution.log"))) << "waits for the next report";
    }
    EXPECT_THAT(Lines(Summary()), SizeIs(2));

    const ProcessResult alone = Run({"-v"});

    EXPECT_THAT(alone.err, HasSubstr(" verbose: Generate diff state reports\n"));
    EXPECT_THAT(Cache("classes"), HasSubstr("web_server"));
    EXPECT_FALSE(fs::exists(State("promise_execution.log")));
    EXPECT_THAT(Lines(State("previous_state/execution_log.cache"), "\r\n"), SizeIs(3)) << "three runs, one record each";
}

TEST_F(AgentReports, LogsThatCannotBeWrittenCostTheirRecordsAndNothingElse)
{
    WritePolicy(kAgentKeepsAndRepairs);
    ASSERT_EQ(Run().status, 0);
    fs::remove(State("promise_log.jsonl"));
    fs::create_directories(State("promise_log.jsonl"));
    fs::create_directories(State("promise_execution.log"));
    fs::remove(Summary());
    fs::create_directories(Summary());

    const ProcessResult run = Run();

    EXPECT_EQ(run.status, 0);
    for (const std::string &file : {State("promise_log.jsonl"), State("promise_execution.log")}) {
        EXPECT_THAT(run.err, HasSubstr(" warning: Could not repair the end of '" + file + "': Is a directory\n"));
        EXPECT_THAT(run.err,
                    HasSubstr("   error: Could not create log file at '" + file + "', (open: Is a directory)\n"));
    }
    EXPECT_THAT(run.err, HasSubstr("   error: Could not open '" + Summary().string() + "'. (fopen: Is a directory)\n"));
    EXPECT_THAT(Cache("classes"), HasSubstr("web_server"));
}

TEST_F(AgentReports, AReportWhoseFilesCannotBeReadOrWrittenDoesNotKeepTheOthersFromTheirs)
{
    fs::create_directories(work / "state/previous_state/classes.cache");
    WritePolicy(kAgentKeepsAndRepairs);
    fs::create_directories(work / "state/diff/variables.diff");
    for (const char *name : {"", "state", "state/previous_state", "state/diff"}) { chmod((work / name).c_str(), 0700); }

    const ProcessResult run = Run({"-v"});

    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err,
                HasSubstr(" verbose: Could not write cached state: '" + State("previous_state/classes.cache") + "'\n"));
    EXPECT_THAT(run.err,
                HasSubstr("   error: Could not write diff to the file: '" + State("diff/variables.diff") + "'\n"));
    EXPECT_THAT(Cache("execution_log"), HasSubstr("always_repaired"));
    EXPECT_FALSE(fs::exists(State("diff/classes.diff")));
}

TEST_F(AgentReports, WithoutThePlugInARunKeepsItsPromisesAndLeavesNoReport)
{
    fs::remove(work / "lib/veltrane-enterprise.so");
    WritePolicy(kAgentKeepsAndRepairs);

    const ProcessResult run = Run({"--log-classes", "-v"});

    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.err, HasSubstr(": 4 kept, 1 repaired, 1 not kept\n"));
    for (const std::string &file :
         {State("classes.jsonl"), State("promise_execution.log"), State("promise_log.jsonl"), Summary().string(),
          State("previous_state/classes.cache"), State("software_patch_status.csv")}) {
        EXPECT_FALSE(fs::exists(file)) << file;
    }
}

TEST_F(AgentReports, ATornRecordIsCutOffBeforeAnythingIsAppended)
{
    WritePolicy("      - commands: /bin/true\n", "update.vt");
    WritePolicy(kAgentKeepsAndRepairs);
    ASSERT_EQ(Run().status, 0);
    const std::string whole = ReadFile(State("promise_log.jsonl"));
    WriteFile(State("promise_log.jsonl"), whole + "{\"timestamp\":1");
    WriteFile(State("promise_execution.log"), "r1,110,ha\"sh");
    WriteFile(Summary(), ReadFile(Summary()) + "17000");

    const ProcessResult run = Run();

    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(
        run.err,
        AllOf(HasSubstr(" warning: Cut off an unfinished record at the end of '" + State("promise_log.jsonl") + "'\n"),
              HasSubstr("'" + State("promise_execution.log") + "'\n"), HasSubstr("'" + Summary().string() + "'\n")));
    EXPECT_THAT(ReadFile(State("promise_log.jsonl")), StartsWith(whole + "{\"timestamp\":"));
    EXPECT_THAT(Lines(State("promise_log.jsonl"), "\r\n"), AllOf(SizeIs(6), Each(EndsWith("}}"))));
    EXPECT_THAT(Lines(Summary()), AllOf(SizeIs(4), Each(EndsWith(" events)."))));
}

TEST_F(AgentReports, WhatGrowsIsHeldToTheLimitOfTheMainPolicy)
{
    const std::string record = "{\"name\":\"" + std::string(80, 'x') + "\",\"timestamp\":1}\r\n";
    std::string bytes;
    for (int i = 0; i < 100; i++) { bytes += record; }
    WritePolicy("      - reports: update\n", "update.vt");
    WriteInput("promises.vt",
               "control:\n  agent: {log_limit: 5000}\nbundles:\n  - agent: main\n    promises:\n"
               "      - reports: main\n");
    ASSERT_EQ(Run().status, 0);
    WriteFile(State("classes.jsonl"), bytes);

    const ProcessResult run = Run({"-I"});

    EXPECT_EQ(ReadFile(State("classes.jsonl")), bytes.substr(0, 5000 / record.size() * record.size()));
    EXPECT_THAT(run.err, ContainsRegex("    info: Dropped the oldest [0-9]+ bytes of '" + State("classes.jsonl") +
                                       "': it may hold 5000\n"));
}

TEST_F(AgentReports, TenMebibytesAreTheLimitOfAPolicyThatSaysNothing)
{
    WritePolicy("      - reports: main\n");
    ASSERT_EQ(Run().status, 0);
    const std::string record = std::string(1022, 'x') + "\r\n";
    std::string bytes;
    for (int i = 0; i < 10 * 1024; i++) { bytes += record; }
    WriteFile(State("classes.jsonl"), bytes);
    ASSERT_EQ(Run().status, 0);
    EXPECT_EQ(fs::file_size(State("classes.jsonl")), bytes.size());

    WriteFile(State("classes.jsonl"), "x\r\n" + bytes);
    ASSERT_EQ(Run().status, 0);

    EXPECT_EQ(ReadFile(State("classes.jsonl")), bytes);
}

TEST_F(AgentReports, ThePromiseLogIsRotatedAtTheStartOfARun)
{
    WritePolicy(kAgentKeepsAndRepairs);
    ASSERT_EQ(Run().status, 0);
    const std::string records = ReadFile(State("promise_log.jsonl"));
    std::string bytes;
    while (bytes.size() <= 1024 * 1024) { bytes += records; }
    WriteFile(State("promise_log.jsonl"), bytes);

    ASSERT_EQ(Run().status, 0);

    EXPECT_EQ(ReadFile(State("promise_log.jsonl.1")), bytes);
    EXPECT_THAT(Lines(State("promise_log.jsonl"), "\r\n"), SizeIs(2)) << "of this run";
}

TEST_F(AgentReports, ARunWithoutRepairsLeavesNoEmptyPromiseLogBehindARotatedOne)
{
    WritePolicy("      - reports: here\n");
    ASSERT_EQ(Run().status, 0);
    WriteFile(State("promise_log.jsonl"), std::string(1024 * 1024, 'x') + "\r\n");

    ASSERT_EQ(Run().status, 0);

    EXPECT_TRUE(fs::exists(State("promise_log.jsonl.1")));
    EXPECT_FALSE(fs::exists(State("promise_log.jsonl")));
}
