#include "libvtenterprise/enterprise_compliance_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/promise_log.h"
#include "support/child.h"
#include "support/file_size_limit.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/promise_site.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using veltrane::JsonPtr;
using veltrane::StringSetPtr;

namespace fs = std::filesystem;

namespace {

constexpr PromiseResult kResults[] = {PROMISE_RESULT_NOOP,       PROMISE_RESULT_CHANGE, PROMISE_RESULT_WARN,
                                      PROMISE_RESULT_FAIL,       PROMISE_RESULT_DENIED, PROMISE_RESULT_TIMEOUT,
                                      PROMISE_RESULT_INTERRUPTED};

class ComplianceLog : public testing::Test {
  protected:
    void Outcome(const PromiseSite &site, PromiseResult result)
    {
        EvalContextLogPromiseIterationOutcome__real(site.ctx(), site.promise(), result);
    }

    fs::path ExecutionLog() const { return work_.State("promise_execution.log"); }
    fs::path PromiseLog() const { return work_.State("promise_log.jsonl"); }

    WorkDirectory work_;
    LogCapture log_;
};

// The JSON lines of a log with every timestamp, which must be of now, made 1700000000.
std::string WithFixedTimes(const std::string &lines)
{
    static const std::string kKey = "{\"timestamp\":";
    std::string fixed;
    size_t at = 0;
    while (at < lines.size()) {
        const size_t end = lines.find("\r\n", at) + 2;
        EXPECT_EQ(lines.compare(at, kKey.size(), kKey), 0);
        const size_t comma = lines.find(',', at);
        const long timestamp = std::stol(lines.substr(at + kKey.size(), comma - at - kKey.size()));
        EXPECT_LE(timestamp, time(nullptr));
        EXPECT_GT(timestamp, time(nullptr) - 600);
        fixed += kKey + "1700000000" + lines.substr(comma, end - comma);
        at = end;
    }
    return fixed;
}

}  // namespace

// --- What goes where ---

TEST_F(ComplianceLog, AKeptPromiseIsInTheExecutionLogOnly)
{
    Outcome(PromiseSite(), PROMISE_RESULT_NOOP);

    EXPECT_THAT(ReadFile(ExecutionLog()), testing::StartsWith("r1,99,"));
    EXPECT_FALSE(fs::exists(PromiseLog()));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(ComplianceLog, ARepairedPromiseIsInBothLogs)
{
    Outcome(PromiseSite(), PROMISE_RESULT_CHANGE);

    EXPECT_THAT(ReadFile(ExecutionLog()), testing::StartsWith("r1,114,"));
    EXPECT_THAT(ReadFile(PromiseLog()), HasSubstr("\"promise_outcome\":\"REPAIRED\""));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(ComplianceLog, EveryResultThatIsNotKeptIsInBothLogs)
{
    for (const PromiseResult result : {PROMISE_RESULT_WARN, PROMISE_RESULT_FAIL, PROMISE_RESULT_DENIED,
                                       PROMISE_RESULT_TIMEOUT, PROMISE_RESULT_INTERRUPTED}) {
        fs::remove(ExecutionLog());
        fs::remove(PromiseLog());
        Outcome(PromiseSite(), result);
        EXPECT_THAT(ReadFile(ExecutionLog()), testing::StartsWith("r1,110,"));
        EXPECT_THAT(ReadFile(PromiseLog()), HasSubstr("\"promise_outcome\":\"NOTKEPT\""));
    }
}

TEST_F(ComplianceLog, ASkippedPromiseIsInNeither)
{
    Outcome(PromiseSite(), PROMISE_RESULT_SKIPPED);

    EXPECT_FALSE(fs::exists(ExecutionLog()));
    EXPECT_FALSE(fs::exists(PromiseLog()));
}

TEST_F(ComplianceLog, PromisesOfVarsClassesAndReportsAreInNeither)
{
    for (const char *type : {"vars", "classes", "reports"}) {
        for (const PromiseResult result : kResults) { Outcome(PromiseSite({.type = type}), result); }
    }
    EXPECT_FALSE(fs::exists(ExecutionLog()));
    EXPECT_FALSE(fs::exists(PromiseLog()));
}

TEST_F(ComplianceLog, ATypeThatThePromiseLogDoesNotTakeIsInTheExecutionLogOnly)
{
    Outcome(PromiseSite({.type = "methods"}), PROMISE_RESULT_CHANGE);

    EXPECT_THAT(ReadFile(ExecutionLog()), HasSubstr(",methods,"));
    EXPECT_FALSE(fs::exists(PromiseLog()));
}

TEST_F(ComplianceLog, AnUnknownResultIsInTheExecutionLogOnly)
{
    Outcome(PromiseSite(), static_cast<PromiseResult>('z'));

    EXPECT_THAT(ReadFile(ExecutionLog()), testing::StartsWith("r1,120,"));
    EXPECT_FALSE(fs::exists(PromiseLog()));
}

// --- The bytes ---

TEST_F(ComplianceLog, TheLogsHaveTheirGoldenBytes)
{
    PromiseSite kept({.promiser = "/etc/hosts", .line = 3});
    Outcome(kept, PROMISE_RESULT_NOOP);

    PromiseSite repaired({.promisees = {"ops", "web \"team\""}, .line = 12});
    repaired.Scalar("handle", "motd");
    repaired.List("meta", {"critical", "team=ops"});
    repaired.Message("Created file '/etc/motd', mode 0644");
    repaired.Message("Two lines:\nthe second");
    Outcome(repaired, PROMISE_RESULT_CHANGE);

    PromiseSite not_kept({.release_id = nullptr,
                          .ns = "site",
                          .bundle = "services",
                          .source_path = nullptr,
                          .type = "commands",
                          .promiser = " /bin/false \xff ",
                          .line = 100000});
    not_kept.Message("Command ended with status 1 \xff");
    Outcome(not_kept, PROMISE_RESULT_FAIL);

    ExpectGolden("state/promise_execution.log", ReadFile(ExecutionLog()));
    ExpectGolden("state/promise_log.jsonl", WithFixedTimes(ReadFile(PromiseLog())));
}

TEST_F(ComplianceLog, AHandleThatIsAListIsAnEmptyField)
{
    PromiseSite site;
    site.List("handle", {"motd"});
    Outcome(site, PROMISE_RESULT_NOOP);
    EXPECT_THAT(ReadFile(ExecutionLog()), HasSubstr(",/default/main/files/'/etc/motd'[0],,[],[],default,main,"));
}

TEST_F(ComplianceLog, ThePromiseLogReadsBack)
{
    PromiseSite site;
    site.Message("Created");
    Outcome(site, PROMISE_RESULT_CHANGE);

    JsonElement *json = nullptr;
    ASSERT_EQ(JsonParse(ReadFile(PromiseLog()).c_str(), &json), JSON_PARSE_OK);
    const JsonPtr owned(json);
    const PromiseLogEntryPtr entry(PromiseLogEntryFromJson(json));
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->promise->promiser, "/etc/motd");
    EXPECT_STREQ(entry->promise->message_list_serialized, "[\"Created\"]");
}

TEST_F(ComplianceLog, RecordsAreAppended)
{
    for (int i = 0; i < 3; i++) { Outcome(PromiseSite(), PROMISE_RESULT_CHANGE); }

    const std::string executions = ReadFile(ExecutionLog());
    const std::string record = executions.substr(0, executions.size() / 3);
    EXPECT_EQ(executions, record + record + record);
    const std::string lines = WithFixedTimes(ReadFile(PromiseLog()));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 3);
}

// --- Failures ---

TEST_F(ComplianceLog, AnExecutionLogThatCannotBeWrittenLeavesThePromiseLogAlone)
{
    fs::create_directory(ExecutionLog());

    Outcome(PromiseSite(), PROMISE_RESULT_CHANGE);

    EXPECT_THAT(ReadFile(PromiseLog()), HasSubstr("\"REPAIRED\""));
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not create log file at '" + ExecutionLog().string() +
                                                                "', (open: Is a directory)")));
}

TEST_F(ComplianceLog, AFullDiskLosesTheRecordsAndNothingElse)
{
    Outcome(PromiseSite(), PROMISE_RESULT_CHANGE);
    const std::string executions = ReadFile(ExecutionLog());
    const std::string lines = ReadFile(PromiseLog());
    {
        const FileSizeLimit full(std::min(executions.size(), lines.size()) + 1);
        Outcome(PromiseSite(), PROMISE_RESULT_CHANGE);
    }

    EXPECT_EQ(ReadFile(ExecutionLog()), executions);
    EXPECT_EQ(ReadFile(PromiseLog()), lines);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not write to log file '" + ExecutionLog().string() +
                                                                "' (write: File too large)"),
                                        Pair(LOG_LEVEL_ERR, "Could not write to log file '" + PromiseLog().string() +
                                                                "' (write: File too large)")));
}

// What is lost of one log is a message of the promise, and so told by the other.
TEST(ComplianceLogMessages, TheLossOfOneRecordIsAMessageInTheOther)
{
    const WorkDirectory work;
    fs::create_directory(work.State("promise_execution.log"));
    InChild([&] {
        LogSetOutput(nullptr, false);
        const PromiseSite site;
        EvalContextSetupHubviewLogHook__real(site.ctx());
        EvalContextLogPromiseIterationOutcome__real(site.ctx(), site.promise(), PROMISE_RESULT_FAIL);
    });
    EXPECT_THAT(ReadFile(work.State("promise_log.jsonl")), HasSubstr("\"log_messages\":[\"Could not create log file"));
}

// --- The hook ---

TEST(HubviewLogHookSetup, MessagesUpToInfoAreCollectedWhateverTheLevelInForce)
{
    InChild([] {
        LogSetOutput(nullptr, false);
        LogSetGlobalLevel(LOG_LEVEL_CRIT);
        const PromiseSite site;

        EvalContextSetupHubviewLogHook__real(site.ctx());

        const LoggingPrivContext *bound = LoggingPrivGetContext();
        ASSERT_NE(bound, nullptr);
        EXPECT_EQ(bound->log_hook, &HubviewLogHook);
        EXPECT_EQ(bound->param, site.ctx());
        EXPECT_EQ(bound->force_hook_level, LOG_LEVEL_INFO);
        Log(LOG_LEVEL_ERR, "an error");
        Log(LOG_LEVEL_INFO, "a repair");
        Log(LOG_LEVEL_VERBOSE, "a detail");
        EXPECT_EQ(RingBufferLength(EvalContextStackCurrentMessages(site.ctx())), 2u);
    });
}

TEST(HubviewLogHookSetup, AContextThatIsBoundAlreadyIsReportedAndReplaced)
{
    InChild([] {
        LogCapture log;
        const PromiseSite site;

        EvalContextSetupHubviewLogHook__real(site.ctx());

        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].first, LOG_LEVEL_ERR);
        EXPECT_THAT(log.lines[0].second,
                    testing::MatchesRegex("enterprise_compliance_log:[0-9]+: unexpected error: SetupHubviewLogHook: "
                                          "Logging context bound to something else!"));
        EXPECT_EQ(LoggingPrivGetContext()->log_hook, &HubviewLogHook);
        EXPECT_EQ(LoggingPrivGetContext()->param, site.ctx());
    });
}

// --- Class history ---

TEST(ClassHistory, EnablingMakesASetOnceAndDisablingDropsIt)
{
    StringSet *list = nullptr;
    Vesk_ClassHistoryEnable__real(&list, true);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(StringSetSize(list), 0u);

    Vesk_ClassHistoryAddContextName__real(list, "linux");
    StringSet *const first = list;
    Vesk_ClassHistoryEnable__real(&list, true);
    EXPECT_EQ(list, first);
    EXPECT_TRUE(StringSetContains(list, "linux"));

    Vesk_ClassHistoryEnable__real(&list, false);
    EXPECT_EQ(list, nullptr);
    Vesk_ClassHistoryEnable__real(&list, false);
    EXPECT_EQ(list, nullptr);
}

TEST(ClassHistory, NamesAreKeptCanonified)
{
    const StringSetPtr list(StringSetNew());
    const std::string name = "ns:web-server 2.0";

    Vesk_ClassHistoryAddContextName__real(list.get(), name.c_str());
    Vesk_ClassHistoryAddContextName__real(list.get(), "ns_web_server_2_0");

    EXPECT_TRUE(StringSetContains(list.get(), "ns_web_server_2_0"));
    EXPECT_EQ(StringSetSize(list.get()), 1u);
    EXPECT_EQ(name, "ns:web-server 2.0");
}

TEST(ClassHistory, WithoutAListOrANameNothingHappens)
{
    const StringSetPtr list(StringSetNew());

    Vesk_ClassHistoryAddContextName__real(nullptr, "linux");
    Vesk_ClassHistoryAddContextName__real(list.get(), "");

    EXPECT_EQ(StringSetSize(list.get()), 0u);
}
