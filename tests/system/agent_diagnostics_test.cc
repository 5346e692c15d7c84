// vt-agent --diagnostics as an operator runs it: what it prints, what it leaves, and what it must not touch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>

#include "support/agent.h"

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

class AgentDiagnostics : public Agent {
  protected:
    AgentDiagnostics() { WritePolicy("      - files: " + Made("promised") + "\n        create: true\n"); }

    ProcessResult Diagnose() { return Run({"--diagnostics"}); }

    // A class report with a change of just now, so that packing reads and writes the index.
    void WriteRecentClass() { WriteState("diff/classes.diff", std::to_string(time(nullptr) - 10) + ",1,web,\r\n"); }

    void WriteState(const std::string &name, const std::string &bytes)
    {
        const fs::path path = work / "state" / name;
        fs::create_directories(path.parent_path());
        WriteFile(path, bytes);
    }

    std::string Reports() const { return ReadFile(work / "diagnostics/reports"); }

    static constexpr char kHostsChecks[] =
        "[ YES ] Work directory is safe from other users\n"
        "[ YES ] Key pair is in order\n"
        "[ YES ] Policy can be read\n"
        "[ YES ] Databases can be opened\n";
};

TEST_F(AgentDiagnostics, WithoutThePlugInTheHostsOwnChecksRun)
{
    const ProcessResult result = Diagnose();

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, kHostsChecks);
    EXPECT_FALSE(fs::exists(work / "diagnostics/reports"));
}

TEST_F(AgentDiagnostics, TheChecksOfThePlugInFollow)
{
    InstallPlugIn();

    const ProcessResult result = Diagnose();

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, std::string(kHostsChecks) + "[ YES ] Export all reports\n");
    EXPECT_THAT(Reports(), testing::StartsWith("VTR: 0 "));
    struct stat status {};
    ASSERT_EQ(stat((work / "diagnostics/reports").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(AgentDiagnostics, NothingIsPromisedNorReported)
{
    InstallPlugIn();

    ASSERT_EQ(Diagnose().status, 0);

    EXPECT_FALSE(fs::exists(Made("promised")));
    EXPECT_FALSE(fs::exists(work / "log/promise_summary.log"));
    EXPECT_FALSE(fs::exists(work / "state/previous_state/classes.cache"));
    EXPECT_FALSE(fs::exists(work / "keys/host.priv"));
}

TEST_F(AgentDiagnostics, WhatIsWrongIsSaidBesideItsCheckAndIsNoFailureOfTheProgram)
{
    InstallPlugIn();
    WriteInput("promises.vt", "bundles: [\n");
    WriteState("performance.lmdb", "this is no database");
    fs::create_directories(work / "diagnostics/reports");

    const ProcessResult result = Diagnose();

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, AllOf(HasSubstr("[ YES ] Work directory is safe from other users\n"),
                                  HasSubstr("[ NO  ] Policy can be read: '" + (work / "inputs/promises.vt").string() +
                                            "' is missing, or not as it must be\n"),
                                  HasSubstr("[ NO  ] Databases can be opened: '" +
                                            (work / "state/performance.lmdb").string() + "': "),
                                  EndsWith("[ NO  ] Export all reports: Cannot open output file for writing '" +
                                           (work / "diagnostics/reports").string() + "'\n")));
}

TEST_F(AgentDiagnostics, AKeyThatOthersMayReadIsNotInOrder)
{
    fs::create_directories(work / "keys");
    WriteFile(work / "keys/host.priv", "x");
    fs::permissions(work / "keys/host.priv", fs::perms::all);

    EXPECT_THAT(Diagnose().out, HasSubstr("[ NO  ] Key pair is in order: "));
}

TEST_F(AgentDiagnostics, WhatFiltersHideStaysHidden)
{
    const std::string index = "secret,\"1699999999,1,secret,noreport\"\r\n";
    InstallPlugIn();
    WriteRecentClass();
    WriteState("untracked/classes.idx", index);

    const ProcessResult result = Diagnose();

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(Reports(), HasSubstr(",1,secret,noreport"));  // it was packed without a filter
    EXPECT_EQ(ReadFile(work / "state/untracked/classes.idx"), index);
}

TEST_F(AgentDiagnostics, NoIndexIsLeftWhereNoneWas)
{
    InstallPlugIn();
    WriteRecentClass();
    fs::create_directories(work / "state/untracked");

    EXPECT_EQ(Diagnose().status, 0);

    EXPECT_THAT(Reports(), HasSubstr(",1,web,"));
    EXPECT_TRUE(fs::is_empty(work / "state/untracked"));
}

TEST_F(AgentDiagnostics, EachRunReplacesTheReportsOfTheOneBefore)
{
    InstallPlugIn();
    ASSERT_EQ(Diagnose().status, 0);
    WriteFile(work / "diagnostics/reports", std::string(100000, 'x'));

    EXPECT_EQ(Diagnose().status, 0);

    EXPECT_THAT(Reports(), Not(HasSubstr("x")));
}

}  // namespace
