#include "libvtagent/enterprise-agent-diagnostics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include <veltrane/dbm_api.h>
#include <veltrane/owned.h>
#include <veltrane/writer.h>

#include "libvtenterprise/entry_points_real.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;
using veltrane::DBHandlePtr;
using veltrane::TextPtr;

namespace {

struct CheckResult {
    bool success;
    std::string message;
};

class AgentDiagnostics : public testing::Test {
  protected:
    AgentDiagnostics() { AgentDiagnosticsResultNewPtr = AgentDiagnosticsResultNew; }

    CheckResult Check() const
    {
        const AgentDiagnosticsResult result = AgentDiagnosticsCheckReportsExport(work_.path.c_str());
        const TextPtr message(result.message);
        return {result.success, message.get()};
    }

    std::filesystem::path Reports() const { return work_.path / "diagnostics" / "reports"; }

    const WorkDirectory work_;
};

// --- The entry point ---

struct RunCall {
    std::string workdir;
    Writer *output;
    std::vector<std::string> descriptions;
    std::vector<AgentDiagnosticsResult (*)(const char *)> checks;
};

std::vector<RunCall> run_calls;

void RecordRun(const char *workdir, const AgentDiagnosticCheck checks[], Writer *output)
{
    RunCall call{workdir, output, {}, {}};
    for (; checks->description != nullptr || checks->check != nullptr; checks++) {
        call.descriptions.emplace_back(checks->description);
        call.checks.push_back(checks->check);
    }
    run_calls.push_back(call);
}

AgentDiagnosticsResult OtherResult(bool success, char *message) { return {!success, message}; }

TEST_F(AgentDiagnostics, TheHostsRunnerGetsTheTableOnce)
{
    run_calls.clear();
    veltrane::WriterPtr output(StringWriter());

    AgentDiagnosticsRunAllChecksVesk__real("/somewhere", output.get(), RecordRun, OtherResult);

    ASSERT_EQ(run_calls.size(), 1U);
    EXPECT_EQ(run_calls[0].workdir, "/somewhere");
    EXPECT_EQ(run_calls[0].output, output.get());
    EXPECT_THAT(run_calls[0].descriptions, testing::ElementsAre("Export all reports"));
    EXPECT_EQ(run_calls[0].checks[0], AgentDiagnosticsCheckReportsExport);
    EXPECT_STREQ(StringWriterData(output.get()), "");
}

TEST_F(AgentDiagnostics, ChecksMakeTheirResultsWithWhatTheHostGave)
{
    const veltrane::WriterPtr output(StringWriter());
    AgentDiagnosticsRunAllChecksVesk__real("/somewhere", output.get(), RecordRun, OtherResult);

    EXPECT_EQ(AgentDiagnosticsResultNewPtr, OtherResult);
    EXPECT_FALSE(Check().success);  // as it makes it: the other way round
}

TEST_F(AgentDiagnostics, TheHostsOwnRunnerPrintsTheCheck)
{
    veltrane::WriterPtr output(StringWriter());

    AgentDiagnosticsRunAllChecksVesk__real(work_.path.c_str(), output.get(), AgentDiagnosticsRun,
                                           AgentDiagnosticsResultNew);

    EXPECT_STREQ(StringWriterData(output.get()), "[ YES ] Export all reports\n");
}

// --- Exporting reports ---

TEST_F(AgentDiagnostics, ADeltaOfTheLastFiveMinutesIsWrittenLineByLine)
{
    const time_t last = time(nullptr);
    const double average = 300;
    {
        DBHandle *opened = nullptr;
        ASSERT_TRUE(OpenDB(&opened, dbid_agent_execution));
        const DBHandlePtr db(opened);
        ASSERT_TRUE(WriteDB(db.get(), "delta_gavr", &average, sizeof(average)));
        ASSERT_TRUE(WriteDB(db.get(), "last_exec", &last, sizeof(last)));
    }
    WriteFile(work_.State("diff/classes.diff"),
              std::to_string(last - 1000) + ",1,old,\r\n" + std::to_string(last - 100) + ",1,web,\"a,b\"\r\n");

    const CheckResult result = Check();

    EXPECT_TRUE(result.success);
    EXPECT_EQ(result.message, "Wrote reports based on 5 rows to file '" + Reports().string() + "'");
    // An old peer's rows end in CR LF, of which the line feed is the line's.
    EXPECT_THAT(ReadFile(Reports()), MatchesRegex("VTR: 0 [0-9]+ [0-9]+\nCLD\n" + std::to_string(last - 100) +
                                                  ",1,web,\"a,b\"\r\nEXS\nf,300," + std::to_string(last) + "\r\n"));
}

TEST_F(AgentDiagnostics, TheFileIsWrittenAnewByEachRunAndIsOursAlone)
{
    WriteFile(Reports(), std::string(100000, 'x'));
    std::filesystem::permissions(Reports(), std::filesystem::perms::all);

    EXPECT_TRUE(Check().success);
    const std::string first = ReadFile(Reports());
    EXPECT_TRUE(Check().success);

    EXPECT_THAT(first, MatchesRegex("VTR: 0 [0-9]+ 0\n"));
    EXPECT_THAT(ReadFile(Reports()), MatchesRegex("VTR: 0 [0-9]+ 0\n"));
    struct stat status {};
    ASSERT_EQ(stat(Reports().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(AgentDiagnostics, ANewFileIsOursAlone)
{
    EXPECT_TRUE(Check().success);

    struct stat status {};
    ASSERT_EQ(stat(Reports().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(AgentDiagnostics, AFileThatCannotBeOpenedIsAFailureAndNothingIsPacked)
{
    std::filesystem::create_directory(Reports());
    LogCapture log;

    const CheckResult result = Check();

    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.message, "Cannot open output file for writing '" + Reports().string() + "'");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(AgentDiagnostics, AWorkDirectoryThatIsNotThereIsAFailure)
{
    const std::filesystem::path gone = work_.path / "gone";

    const AgentDiagnosticsResult result = AgentDiagnosticsCheckReportsExport(gone.c_str());
    const TextPtr message(result.message);

    EXPECT_FALSE(result.success);
    EXPECT_EQ(message.get(), "Cannot open output file for writing '" + (gone / "diagnostics/reports").string() + "'");
}

TEST_F(AgentDiagnostics, WhatDoesNotFitOnTheDiskIsAFailure)
{
    CheckResult result{};
    {
        const FileSizeLimit limit(10);
        result = Check();
    }

    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.message, "Cannot write output file '" + Reports().string() + "'");
}

}  // namespace
