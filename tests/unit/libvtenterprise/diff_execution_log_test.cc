#include "libvtenterprise/diff_execution_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "libvtenterprise/diff_engine.h"
#include "libvtenterprise/promise_execution_json.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using veltrane::EvalContextPtr;
using veltrane::JsonPtr;
using veltrane::SeqPtr;

namespace {

constexpr int kKept = PROMISE_STATE_KEPT;
constexpr int kRepaired = PROMISE_STATE_REPAIRED;
constexpr int kNotKept = PROMISE_STATE_NOTKEPT;

std::filesystem::path LogFile(const WorkDirectory &work) { return work.State("promise_execution.log"); }

// The reduced log as the columns of the report, or what is said instead.
std::vector<std::string> Reduced()
{
    const SeqPtr executions(GetCurrentHubPromiseExecutionList(nullptr));
    return executions != nullptr ? StateTexts(executions.get(), report_type_execution_log)
                                 : std::vector<std::string>{"(no state)"};
}

std::vector<std::string> Reduce(const WorkDirectory &work, const std::string &log)
{
    WriteFile(LogFile(work), log);
    return Reduced();
}

// A record of the log with these four, and nothing else.
std::string Evaluation(const std::string &hash, int outcome, const std::string &type = "files",
                       const std::string &promiser = "")
{
    return "," + std::to_string(outcome) + "," + hash + ",,,,,,," + type + "," + promiser + ",\r\n";
}

// What becomes of it.
std::string Execution(const std::string &hash, int outcome, const std::string &type = "files",
                      const std::string &promiser = "")
{
    return hash + ",,," + std::to_string(outcome) + ",,," + type + "," + promiser + ",,,,,0,,";
}

// --- GetCurrentHubPromiseExecutionList ---

TEST(ExecutionLog, EachFieldOfTheLogHasItsPlaceInTheReport)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work,
                       "release,114,hash,/path,handle,\"[\"\"p\"\"]\",\"[\"\"m\"\"]\",ns,bundle,type,promiser,file.vt,"
                       "42,fhash,\"[\"\"t\"\"]\"\r\n"),
                ElementsAre("hash,file.vt,release,114,ns,bundle,type,promiser,/path,handle,\"[\"\"p\"\"]\","
                            "\"[\"\"m\"\"]\",42,fhash,\"[\"\"t\"\"]\""));
}

TEST(ExecutionLog, EmptyFieldsAreAbsent)
{
    const WorkDirectory work;
    WriteFile(LogFile(work), ",,,,,,,,,,,,,,\r\n");
    const SeqPtr executions(GetCurrentHubPromiseExecutionList(nullptr));
    ASSERT_NE(executions, nullptr);
    ASSERT_EQ(SeqLength(executions.get()), 1u);
    const auto *e = static_cast<const HubPromiseExecution *>(SeqAt(executions.get(), 0));
    for (const char *text : {e->release_id, e->promise_hash, e->ns, e->bundle, e->promise_type, e->promiser,
                             e->stack_path, e->handle, e->promisee_list_serialized, e->message_list_serialized,
                             e->meta_serialized, e->policy_file, e->policy_file_hash}) {
        EXPECT_EQ(text, nullptr);
    }
    EXPECT_EQ(e->promise_outcome, 0);
    EXPECT_EQ(e->line_number, 0u);
}

TEST(ExecutionLog, ARecordMayEndAfterItsTwelfthField)
{
    const WorkDirectory work;
    const std::string twelve = "r,99,h,s,a,p,m,n,b,t,q,f";
    const std::string head = "h,f,r,99,n,b,t,q,s,a,p,m,";
    EXPECT_THAT(Reduce(work, twelve + "\r\n"), ElementsAre(head + "0,,"));
    EXPECT_THAT(Reduce(work, twelve + ",7\r\n"), ElementsAre(head + "7,,"));
    EXPECT_THAT(Reduce(work, twelve + ",7,fh\r\n"), ElementsAre(head + "7,fh,"));
    EXPECT_THAT(Reduce(work, twelve + ",7,fh,tags\r\n"), ElementsAre(head + "7,fh,tags"));
}

TEST(ExecutionLog, TagsAreTakenFromTheFifteenthFieldOnlyWhenItIsTheLast)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work, "r,99,h,s,a,p,m,n,b,t,q,f,7,fh,tags,more\r\n"),
                ElementsAre("h,f,r,99,n,b,t,q,s,a,p,m,7,fh,"));
}

TEST(ExecutionLog, ElevenFieldsAreAnInvalidEntry)
{
    const WorkDirectory work;
    LogCapture log;
    EXPECT_THAT(Reduce(work, "r,99,h,s,a,p,m,n,b,t,q\r\n" + Evaluation("x", kKept)),
                ElementsAre(Execution("x", kKept)));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING, "Invalid csv file entry ('" + LogFile(work).string() +
                                                                   "'): 'r,99,h,s,a,p,m,n,b,t,q'")));
}

TEST(ExecutionLog, ARecordThatDoesNotSplitIsSkippedWithAWarning)
{
    const WorkDirectory work;
    LogCapture log;
    EXPECT_THAT(Reduce(work, "r,99,\"h\"x,s,a,p,m,n,b,t,q,f\r\n\r\n" + Evaluation("x", kKept)),
                ElementsAre(Execution("x", kKept)));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING, "Failed to parse csv file entry ('" + LogFile(work).string() +
                                                        "'): 'r,99,\"h\"x,s,a,p,m,n,b,t,q,f'"),
                            Pair(LOG_LEVEL_WARNING, "Invalid csv file entry ('" + LogFile(work).string() + "'): ''")));
}

TEST(ExecutionLog, ATornLastRecordIsSkippedWithAWarning)
{
    const WorkDirectory work;
    for (const char *torn : {"r,99,h", "r,99,h,s,a,\"[\"\"m"}) {
        LogCapture log;
        EXPECT_THAT(Reduce(work, Evaluation("x", kKept) + torn), ElementsAre(Execution("x", kKept)));
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].first, LOG_LEVEL_WARNING);
    }
}

TEST(ExecutionLog, NumbersAreReadUnchecked)
{
    const WorkDirectory work;
    const auto with = [&](const std::string &outcome, const std::string &line) {
        return Reduce(work, "," + outcome + ",h,,,,,,,,,," + line + "\r\n").at(0);
    };
    EXPECT_EQ(with("99", "12"), "h,,,99,,,,,,,,,12,,");
    EXPECT_EQ(with("", ""), "h,,,0,,,,,,,,,0,,");
    EXPECT_EQ(with("kept", "twelve"), "h,,,0,,,,,,,,,0,,");
    EXPECT_EQ(with(" 110x", "12x"), "h,,,110,,,,,,,,,0,,");
    EXPECT_EQ(with("-5", "-5"), "h,,,-5,,,,,,,,,0,,");
    EXPECT_EQ(with("1", "9223372036854775807"), "h,,,1,,,,,,,,,9223372036854775807,,");
    EXPECT_EQ(with("1", "9223372036854775808"), "h,,,1,,,,,,,,,0,,");
}

TEST(ExecutionLog, FieldsMayHoldLineEndsQuotesAndAnyBytes)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work, ",99,h,,,,,,,files,\"a \"\"b\"\",\r\nc\xFF\xE9\",\r\n"),
                ElementsAre("h,,,99,,,files,\"a \"\"b\"\",\r\nc\xFF\xE9\",,,,,0,,"));
}

TEST(ExecutionLog, RecordsMayEndInALineFeedAlone)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work, ",99,h,,,,,,,files,,\n,110,i,,,,,,,files,,\n"),
                ElementsAre(Execution("h", kKept), Execution("i", kNotKept)));
}

TEST(ExecutionLog, TheLastEvaluationOfAPromiseCountsInThePlaceOfTheFirst)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work, Evaluation("b", kRepaired, "files", "first") + Evaluation("a", kNotKept) +
                                 Evaluation("b", kKept, "files", "last")),
                ElementsAre(Execution("b", kKept, "files", "last"), Execution("a", kNotKept)));
}

TEST(ExecutionLog, APackagesPromiseKeepsItsWorstOutcome)
{
    const WorkDirectory work;
    const auto after = [&](int before, int outcome) {
        return Reduce(work,
                      Evaluation("h", before, "packages", "before") + Evaluation("h", outcome, "packages", "after"))
            .at(0);
    };
    for (const int before : {kKept, kRepaired, kNotKept, static_cast<int>(PROMISE_STATE_ANY), 0}) {
        for (const int outcome : {kKept, kRepaired, kNotKept, static_cast<int>(PROMISE_STATE_ANY), 0}) {
            const bool replaced = before == kNotKept    ? false
                                  : before == kRepaired ? outcome == kNotKept
                                  : before == kKept     ? outcome == kRepaired || outcome == kNotKept
                                                        : true;
            EXPECT_EQ(after(before, outcome), replaced ? Execution("h", outcome, "packages", "after")
                                                       : Execution("h", before, "packages", "before"))
                << before << " then " << outcome;
        }
    }
}

TEST(ExecutionLog, KeptRepairedKeptIsRepairedForPackagesAndKeptForFiles)
{
    const WorkDirectory work;
    const auto run = [&](const char *type) {
        return Reduce(work,
                      Evaluation("h", kKept, type) + Evaluation("h", kRepaired, type) + Evaluation("h", kKept, type));
    };
    EXPECT_THAT(run("packages"), ElementsAre(Execution("h", kRepaired, "packages")));
    EXPECT_THAT(run("files"), ElementsAre(Execution("h", kKept)));
    EXPECT_THAT(run("Packages"), ElementsAre(Execution("h", kKept, "Packages")));
}

TEST(ExecutionLog, TheTypeOfTheLaterEvaluationDecides)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work, Evaluation("h", kNotKept, "files") + Evaluation("h", kKept, "packages")),
                ElementsAre(Execution("h", kNotKept, "files")));
    EXPECT_THAT(Reduce(work, Evaluation("h", kNotKept, "packages") + Evaluation("h", kKept, "files")),
                ElementsAre(Execution("h", kKept, "files")));
}

TEST(ExecutionLog, EvaluationsWithoutAHashAreOnePromise)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work, Evaluation("", kKept) + Evaluation("h", kKept) + Evaluation("", kNotKept)),
                ElementsAre(Execution("", kNotKept), Execution("h", kKept)));
}

TEST(ExecutionLog, AnEmptyLogIsAnEmptyState)
{
    const WorkDirectory work;
    EXPECT_THAT(Reduce(work, ""), IsEmpty());
}

TEST(ExecutionLog, ALogThatIsMissingOrCannotBeReadIsNoState)
{
    const WorkDirectory work;
    for (const bool is_directory : {false, true}) {
        if (is_directory) {
            std::filesystem::create_directory(LogFile(work));
        }
        LogCapture log;
        EXPECT_THAT(Reduced(), ElementsAre("(no state)"));
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                                "Could not read execution log: '" + LogFile(work).string() + "'")));
    }
}

// --- PurgeCurrentPromiseExecutions ---

TEST(PurgeCurrentPromiseExecutions, DeletesTheLog)
{
    const WorkDirectory work;
    WriteFile(LogFile(work), Evaluation("h", kKept));
    LogCapture log;
    EXPECT_TRUE(PurgeCurrentPromiseExecutions(0));
    EXPECT_FALSE(std::filesystem::exists(LogFile(work)));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(PurgeCurrentPromiseExecutions, ALogThatIsNotThereOrCannotBeDeletedIsAnError)
{
    const WorkDirectory work;
    for (const bool is_directory : {false, true}) {
        if (is_directory) {
            std::filesystem::create_directory(LogFile(work));
        }
        LogCapture log;
        EXPECT_FALSE(PurgeCurrentPromiseExecutions(0));
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Failed to remove file '" + LogFile(work).string() +
                                                                   "' during execution log cleanup")));
    }
}

// --- Through the engine ---

TEST(ExecutionLogReport, TheLogGoesWithThePassAndWithoutOneNothingChanges)
{
    const WorkDirectory work;
    const EvalContextPtr ctx(EvalContextNew());
    WriteFile(LogFile(work), Evaluation("h", kKept));

    EXPECT_TRUE(DiffReportGenerate(report_type_execution_log, 1000, ctx.get()));
    EXPECT_FALSE(std::filesystem::exists(LogFile(work)));
    LogCapture log;
    EXPECT_FALSE(DiffReportGenerate(report_type_execution_log, 2000, ctx.get()));

    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read execution log: '" + LogFile(work).string() + "'"),
                            Pair(LOG_LEVEL_VERBOSE,
                                 "Failed to access current state for report: 'execution_log' "
                                 "(skipping report)")));
    EXPECT_EQ(ReadFile(CachePath(work, "execution_log")), Execution("h", kKept) + "\r\n");
    EXPECT_EQ(ReadFile(DiffPath(work, "execution_log")), "1000,1," + Execution("h", kKept) + "\r\n");
}

TEST(ExecutionLogReport, APromiseWithoutAHashDoesNotLookNewAfterEachRun)
{
    const WorkDirectory work;
    const EvalContextPtr ctx(EvalContextNew());
    for (const time_t now : {1000, 2000}) {
        WriteFile(LogFile(work), Evaluation("", kKept) + Evaluation("h", kKept));
        EXPECT_TRUE(DiffReportGenerate(report_type_execution_log, now, ctx.get()));
    }
    EXPECT_EQ(ReadFile(DiffPath(work, "execution_log")),
              "1000,1," + Execution("", kKept) + "\r\n1000,1," + Execution("h", kKept) + "\r\n");
}

TEST(ExecutionLogReport, TheLogAsTheAgentWritesItIsReadWhole)
{
    const WorkDirectory work;
    LogCapture log;
    const std::vector<std::string> executions = Reduce(work, GoldenBytes("state/promise_execution.log"));
    EXPECT_THAT(executions, Not(IsEmpty()));
    for (const std::string &execution : executions) {
        const SeqPtr fields(SeqParseCsvString(execution.c_str()));
        ASSERT_EQ(SeqLength(fields.get()), 15u) << execution;
        EXPECT_EQ(strlen(static_cast<const char *>(SeqAt(fields.get(), 0))), 64u) << execution;  // the hash
        for (const size_t list : {10u, 11u, 14u}) {
            const char *text = static_cast<const char *>(SeqAt(fields.get(), list));
            EXPECT_NE(JsonPtr(JsonArrayOfStringsFromJsonString(text)), nullptr) << text;
        }
    }
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ExecutionLogReport, CacheAndDifferenceFileHaveTheirGoldenBytes)
{
    const WorkDirectory work;
    const EvalContextPtr ctx(EvalContextNew());
    const auto evaluation = [](const std::string &outcome, const std::string &hash, const std::string &type,
                               const std::string &rest) {
        return "rel-1," + outcome + "," + hash + ",/default/main/" + type + ",handle_" + hash +
               ",[],\"[\"\"said\"\"]\"," + "default,main," + type + ",/etc/motd,promises.vt" + rest + "\r\n";
    };
    WriteFile(LogFile(work), evaluation("114", "aa", "files", ",7,f00d,\"[\"\"report\"\"]\"") +
                                 evaluation("99", "bb", "packages", ",8,f00d") +
                                 evaluation("114", "bb", "packages", ",8,f00d") + evaluation("110", "cc", "files", "") +
                                 evaluation("99", "bb", "packages", ",8,f00d") + evaluation("99", "dd", "files", ",9"));
    EXPECT_TRUE(DiffReportGenerate(report_type_execution_log, 1000, ctx.get()));
    WriteFile(LogFile(work), evaluation("99", "aa", "files", ",7,f00d,\"[\"\"report\"\"]\"") +
                                 evaluation("114", "bb", "packages", ",8,f00d") +
                                 evaluation("99", "ee", "files", ",3") + evaluation("99", "dd", "files", ",9"));
    EXPECT_TRUE(DiffReportGenerate(report_type_execution_log, 2000, ctx.get()));

    ExpectGolden("state/execution_log.cache", ReadFile(CachePath(work, "execution_log")));
    ExpectGolden("state/execution_log.diff", ReadFile(DiffPath(work, "execution_log")));
}

}  // namespace
