#include "libvtagent/agent_reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <sluice/sluice.h>
#include <veltrane/dbm_api.h>
#include <veltrane/generic_agent.h>
#include <veltrane/measure.h>
#include <veltrane/owned.h>
#include <veltrane/packages.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/reports.h"
#include "support/file_size_limit.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/process_tree.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::DBHandlePtr;
using veltrane::EvalContextPtr;
using veltrane::TextPtr;

namespace {

DBHandlePtr Open(dbid id)
{
    DBHandle *db = nullptr;
    EXPECT_TRUE(OpenDB(&db, id));
    return DBHandlePtr(db);
}

template <typename Value>
void Store(const char *key, Value value)
{
    EXPECT_TRUE(WriteDB(Open(dbid_agent_execution).get(), key, &value, sizeof(value)));
}

// The value under key, which must be 8 bytes long.
template <typename Value>
Value Stored(const char *key)
{
    const DBHandlePtr db = Open(dbid_agent_execution);
    EXPECT_EQ(ValueSizeDB(db.get(), key, static_cast<int>(strlen(key)) + 1), 8);
    Value value{};
    EXPECT_TRUE(ReadDB(db.get(), key, &value, sizeof(value)));
    return value;
}

std::string PassedLine(const char *file, time_t last, double average)
{
    const TextPtr line(StringFormat("TrackExecution: policy file '%s', last_exec %jd, avr %g PASSED", file,
                                    static_cast<intmax_t>(last), average));
    return line.get();
}

// --- Vesk_TrackExecution ---

TEST(TrackExecution, UpdateAndFailsafeRunsAreNeverTracked)
{
    for (const char *file :
         {"/var/veltrane/inputs/failsafe.vt", "update.vt", "/inputs/my_update.vt.bak", "xfailsafe.vty"}) {
        const WorkDirectory work;
        LogCapture log;

        Vesk_TrackExecution__real(file);

        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_DEBUG,
                                                "TrackExecution: policy file '" + std::string(file) + "' skipped")));
        const TextPtr path(DBIdToPath(dbid_agent_execution));
        EXPECT_FALSE(std::filesystem::exists(path.get()));
    }
}

TEST(TrackExecution, AFreshHostStartsWithFiveMinutes)
{
    const WorkDirectory work;
    const time_t before = time(nullptr);
    LogCapture log;

    Vesk_TrackExecution__real("promises.vt");

    const time_t now = Stored<time_t>("last_exec");
    EXPECT_GE(now, before);
    EXPECT_LE(now, time(nullptr));
    EXPECT_EQ(Stored<double>("delta_gavr"), GAverage(300.0, 300.0, 0.7));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_DEBUG, PassedLine("promises.vt", now - 300, GAverage(300, 300, 0.7)))));
}

TEST(TrackExecution, TheIntervalGoesIntoTheAverageWithWeightOfSeventyPercent)
{
    const WorkDirectory work;
    const time_t last = time(nullptr) - 1000;
    Store("last_exec", last);
    Store("delta_gavr", 400.0);
    LogCapture log;

    Vesk_TrackExecution__real("/inputs/promises.vt");

    const time_t now = Stored<time_t>("last_exec");
    const double average = GAverage(static_cast<double>(now - last), 400.0, 0.7);
    EXPECT_EQ(Stored<double>("delta_gavr"), average);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_DEBUG, PassedLine("/inputs/promises.vt", last, average))));
}

TEST(TrackExecution, ALastRunAloneStartsTheAverageFromThisInterval)
{
    const WorkDirectory work;
    const time_t last = time(nullptr) - 77;
    Store("last_exec", last);
    LogCapture log;

    Vesk_TrackExecution__real("promises.vt");

    const double delta = static_cast<double>(Stored<time_t>("last_exec") - last);
    EXPECT_EQ(Stored<double>("delta_gavr"), GAverage(delta, delta, 0.7));
    EXPECT_TRUE(log.Has(LOG_LEVEL_DEBUG, PassedLine("promises.vt", last, GAverage(delta, delta, 0.7))));
}

TEST(TrackExecution, AnAverageAloneGetsAnIntervalOfZero)
{
    const WorkDirectory work;
    Store("delta_gavr", 500.0);
    LogCapture log;

    Vesk_TrackExecution__real("promises.vt");

    const time_t now = Stored<time_t>("last_exec");
    EXPECT_EQ(Stored<double>("delta_gavr"), GAverage(0.0, 500.0, 0.7));
    EXPECT_TRUE(log.Has(LOG_LEVEL_DEBUG, PassedLine("promises.vt", now, GAverage(0.0, 500.0, 0.7))));
}

TEST(TrackExecution, ADatabaseThatDoesNotOpenIsAnInfoLine)
{
    const WorkDirectory work;
    const TextPtr path(DBIdToPath(dbid_agent_execution));
    std::filesystem::create_directory(path.get());
    LogCapture log;

    Vesk_TrackExecution__real("promises.vt");

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_INFO, "Unable to open vesk_agent_execution db")));
}

TEST(TrackExecution, EachFailedWriteIsAnInfoLineAndTheRunGoesOn)
{
    const WorkDirectory work;
    const time_t last = time(nullptr) - 10;
    Store("last_exec", last);
    Store("delta_gavr", 10.0);
    LogCapture log;
    {
        const DBHandlePtr kept_open = Open(dbid_agent_execution);
        const FileSizeLimit limit(0);
        Vesk_TrackExecution__real("promises.vt");
    }

    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0], LogCapture::Line(LOG_LEVEL_INFO, "Unable to write to vesk_agent_execution db"));
    EXPECT_EQ(log.lines[1], LogCapture::Line(LOG_LEVEL_INFO, "Unable to write to vesk_agent_execution db"));
    EXPECT_EQ(log.lines[2].first, LOG_LEVEL_DEBUG);
    EXPECT_EQ(Stored<time_t>("last_exec"), last);
    EXPECT_EQ(Stored<double>("delta_gavr"), 10.0);
}

// --- GenerateReports ---

// Agents of this machine are not those of a test.
class GenerateReports : public testing::Test {
  protected:
    ProcessTree processes_{{{"/var/veltrane/bin/vt-agent"}, {"/sbin/init"}}};
};

struct Config {
    explicit Config(std::string file, bool bootstrap = false, bool class_log = false) : input_file(std::move(file))
    {
        config.agent_specific.report_class_log = class_log;
        config.input_file = input_file.data();
        config.agent_specific.bootstrap_argument = bootstrap ? bootstrap_argument.data() : nullptr;
    }

    std::string input_file;
    std::string bootstrap_argument = "hub.example";
    GenericAgentConfig config{};
};

EvalContextPtr Context()
{
    EvalContextPtr ctx(EvalContextNew());
    EvalContextClassPutHard(ctx.get(), "linux", "a");
    return ctx;
}

void Generate(const char *input_file, const EvalContext *ctx)
{
    const Config config(input_file);
    GenerateReports__real(&config.config, ctx);
}

void PutVariable(EvalContext *ctx)
{
    EXPECT_TRUE(
        EvalContextVariablePutSpecial(ctx, SPECIAL_SCOPE_DEF, "colour", "red", VT_DATA_TYPE_STRING, "inventory"));
}

TEST_F(GenerateReports, AnUpdateOrFailsafeRunKeepsItsClassesAndVariablesForTheMainRun)
{
    for (const char *file : {"/inputs/update.vt", "failsafe.vt", "my_update.vt.bak"}) {
        const WorkDirectory work;
        const Config config(file);
        const EvalContextPtr ctx = Context();
        PutVariable(ctx.get());
        LogCapture log;

        GenerateReports__real(&config.config, ctx.get());

        EXPECT_EQ(ReadFile(work.State("context.cache.tmp")), "linux,a\r\n");
        EXPECT_EQ(ReadFile(work.State("variable.cache.tmp")), "default,def,colour,0,red,inventory\r\n");
        EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Cache context and variable information for reporting."));
        EXPECT_EQ(log.lines.back(), LogCapture::Line(LOG_LEVEL_VERBOSE, "Generate diff state reports for policy '" +
                                                                            std::string(file) + "' SKIPPED"));
        EXPECT_FALSE(std::filesystem::exists(work.State("previous_state/classes.cache")));
    }
}

TEST_F(GenerateReports, ARunOfAnotherPolicyLeavesNothing)
{
    const WorkDirectory work;
    const Config config("/inputs/site.vt");
    LogCapture log;

    GenerateReports__real(&config.config, Context().get());

    EXPECT_FALSE(std::filesystem::exists(work.State("context.cache.tmp")));
    EXPECT_FALSE(std::filesystem::exists(work.State("previous_state/classes.cache")));
    EXPECT_THAT(
        log.UpTo(LOG_LEVEL_VERBOSE),
        ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Generate diff state reports for policy '/inputs/site.vt' SKIPPED")));
}

TEST_F(GenerateReports, TheVersionOfTheHelperLibraryIsToldFirst)
{
    const WorkDirectory work;
    const Config config("/inputs/site.vt");
    LogCapture log;

    GenerateReports__real(&config.config, Context().get());

    ASSERT_FALSE(log.lines.empty());
    EXPECT_EQ(log.lines.front(),
              LogCapture::Line(LOG_LEVEL_DEBUG, "Current sluice version '" + std::string(SLC_Version()) + "'"));
}

// The first line that names a type's files or the type itself; -1 without one.
int FirstLineAbout(const LogCapture &log, ReportType type)
{
    const std::string name = ReportTypeToString(type);
    for (size_t i = 0; i < log.lines.size(); i++) {
        const std::string &text = log.lines[i].second;
        if (text.find("/" + name + ".cache'") != std::string::npos ||
            text.find("'" + name + "'") != std::string::npos) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

TEST_F(GenerateReports, TheMainPolicyGeneratesAllSixReportsInOrder)
{
    const WorkDirectory work;
    const Config config("/inputs/promises.vt");
    LogCapture log;

    GenerateReports__real(&config.config, Context().get());

    ASSERT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Generate diff state reports"));
    int previous = 0;
    for (int type = 0; type < report_type_max; type++) {
        const int line = FirstLineAbout(log, static_cast<ReportType>(type));
        EXPECT_GT(line, previous) << ReportTypeToString(static_cast<ReportType>(type));
        previous = line;
    }
    EXPECT_EQ(ReadFile(work.State("previous_state/classes.cache")), "linux,a\r\n");
    EXPECT_FALSE(std::filesystem::exists(work.State("context.cache.tmp")));
}

TEST_F(GenerateReports, RowsCarryTheTimeOfTheCall)
{
    const WorkDirectory work;
    const Config config("promises.vt");
    const time_t before = time(nullptr);

    GenerateReports__real(&config.config, Context().get());

    const std::string row = ReadFile(work.State("diff/classes.diff"));
    long agent_time = 0;
    ASSERT_EQ(StringToLong(row.substr(0, row.find(',')).c_str(), &agent_time), 0) << row;
    EXPECT_GE(agent_time, before);
    EXPECT_LE(agent_time, time(nullptr));
    EXPECT_EQ(row.substr(row.find(',')), ",1,linux,a\r\n");
}

TEST_F(GenerateReports, ABootstrapRunGeneratesReportsWhateverItsPolicy)
{
    for (const char *file : {"/inputs/failsafe.vt", "/inputs/update.vt", "/inputs/site.vt"}) {
        const WorkDirectory work;
        const Config config(file, true);
        LogCapture log;

        GenerateReports__real(&config.config, Context().get());

        EXPECT_EQ(ReadFile(work.State("previous_state/classes.cache")), "linux,a\r\n");
        EXPECT_FALSE(std::filesystem::exists(work.State("context.cache.tmp")));
        EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Generate diff state reports"));
        EXPECT_FALSE(log.Has(LOG_LEVEL_VERBOSE, "Cache context and variable information for reporting."));
    }
}

TEST_F(GenerateReports, AReportThatFailsDoesNotStopTheOthers)
{
    const WorkDirectory work;
    std::filesystem::create_directory(work.State("previous_state/classes.cache"));
    const Config config("promises.vt");
    LogCapture log;

    GenerateReports__real(&config.config, Context().get());

    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE,
                        "Could not write cached state: '" + work.State("previous_state/classes.cache").string() + "'"));
    EXPECT_GT(FirstLineAbout(log, report_type_execution_log), FirstLineAbout(log, report_type_classes));
}

TEST_F(GenerateReports, WhatAnUpdateRunKeptIsReportedByTheMainRun)
{
    const WorkDirectory work;
    const EvalContextPtr update = Context();
    EvalContextClassPutSoft(update.get(), "updated", "b");
    PutVariable(update.get());
    Generate("update.vt", update.get());

    Generate("promises.vt", Context().get());

    EXPECT_EQ(ReadFile(work.State("previous_state/classes.cache")), "linux,a\r\nupdated,b\r\n");
    EXPECT_EQ(ReadFile(work.State("previous_state/variables.cache")), "default,def,colour,0,red,inventory\r\n");
    EXPECT_FALSE(std::filesystem::exists(work.State("context.cache.tmp")));
    EXPECT_FALSE(std::filesystem::exists(work.State("variable.cache.tmp")));
}

TEST_F(GenerateReports, AnotherAgentMakesTheReportsBeSkipped)
{
    const Texts other_agents[] = {{"/var/veltrane/bin/vt-twin"}, {"vt-agent", "-v"}};
    for (const Texts &other : other_agents) {
        const WorkDirectory work;
        const ProcessTree busy({{"/var/veltrane/bin/vt-agent"}, other});
        const Config config("/inputs/promises.vt");
        LogCapture log;

        GenerateReports__real(&config.config, Context().get());

        EXPECT_EQ(log.lines.back(),
                  LogCapture::Line(LOG_LEVEL_VERBOSE,
                                   "Generate diff state reports for policy '/inputs/promises.vt' SKIPPED (detected "
                                   "parallel vt-agent process running)"));
        EXPECT_FALSE(log.Has(LOG_LEVEL_VERBOSE, "Generate diff state reports"));
        EXPECT_FALSE(std::filesystem::exists(work.State("previous_state/classes.cache")));
    }
}

TEST_F(GenerateReports, ABootstrapRunIsSkippedBesideAnotherAgentToo)
{
    const WorkDirectory work;
    const ProcessTree busy({{"vt-agent"}, {"vt-agent"}});
    const Config config("failsafe.vt", true);
    LogCapture log;

    GenerateReports__real(&config.config, Context().get());

    EXPECT_EQ(log.lines.back(), LogCapture::Line(LOG_LEVEL_VERBOSE,
                                                 "Generate diff state reports for policy 'failsafe.vt' SKIPPED "
                                                 "(detected parallel vt-agent process running)"));
    EXPECT_FALSE(std::filesystem::exists(work.State("context.cache.tmp")));
}

TEST_F(GenerateReports, AnUpdateRunBesideAnotherAgentKeepsItsClassesAllTheSame)
{
    const WorkDirectory work;
    const ProcessTree busy({{"vt-agent"}, {"vt-agent"}});
    Generate("update.vt", Context().get());
    EXPECT_EQ(ReadFile(work.State("context.cache.tmp")), "linux,a\r\n");
}

TEST_F(GenerateReports, ClassesAreLoggedWhenAskedForWhateverThePolicy)
{
    for (const char *file : {"promises.vt", "update.vt", "/inputs/site.vt"}) {
        const WorkDirectory work;
        const Config config(file, false, true);
        const EvalContextPtr ctx = Context();
        EvalContextClassHistoryEnable(ctx.get(), true);
        LogCapture log;

        GenerateReports__real(&config.config, ctx.get());

        EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Logging classes to 'classes.jsonl': enabled."));
        EXPECT_THAT(ReadFile(work.State("classes.jsonl")),
                    testing::MatchesRegex("\\{\"name\":\"linux\",\"timestamp\":[0-9]+\\}\r\n"));
        EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());
    }
}

TEST_F(GenerateReports, WithoutBeingAskedForClassesAreNotLogged)
{
    const WorkDirectory work;
    const Config config("promises.vt");
    const EvalContextPtr ctx = Context();
    EvalContextClassHistoryEnable(ctx.get(), true);
    LogCapture log;

    GenerateReports__real(&config.config, ctx.get());

    EXPECT_FALSE(std::filesystem::exists(work.State("classes.jsonl")));
    EXPECT_FALSE(log.Has(LOG_LEVEL_VERBOSE, "Logging classes to 'classes.jsonl': enabled."));
}

TEST_F(GenerateReports, AClassLogThatFailsIsAnErrorLineAndTheReportsAreMade)
{
    const WorkDirectory work;
    const Config config("promises.vt", false, true);
    LogCapture log;

    GenerateReports__real(&config.config, Context().get());  // without a class history

    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Failed while logging classes 'classes.jsonl'"));
    EXPECT_EQ(ReadFile(work.State("previous_state/classes.cache")), "linux,a\r\n");
}

// --- ReportPatches ---

// A package manager's list; its texts belong to the test.
struct Patches {
    explicit Patches(std::vector<Texts> items) : texts(std::move(items)), nodes(texts.size())
    {
        for (size_t i = 0; i < nodes.size(); i++) {
            nodes[i] = {texts[i][0].data(), texts[i][1].data(), texts[i][2].data(), nullptr,
                        i + 1 < nodes.size() ? &nodes[i + 1] : nullptr};
        }
    }
    PackageItem *list() { return nodes.empty() ? nullptr : nodes.data(); }

    std::vector<Texts> texts;
    std::vector<PackageItem> nodes;
};

PackageManager Manager(std::string *command, Patches *installed, Patches *available, PackageManager *next)
{
    return {command->data(),
            PACKAGE_ACTION_PATCH,
            PACKAGE_POLICY_BULK,
            nullptr,
            installed->list(),
            available->list(),
            next};
}

constexpr const char *kInstalledPatches = "software_patch_status.csv";
constexpr const char *kAvailablePatches = "software_patches_avail.csv";

TEST(ReportPatches, BothFilesHaveTheirGoldenBytes)
{
    const WorkDirectory work;
    std::string zypper = "/usr/bin/env LC_ALL=C /usr/bin/zypper --non-interactive";
    std::string apt = "/usr/bin/apt-get -y";
    Patches installed({{"kernel", "6.1.2", "amd64"}, {"odd, \"quoted\"", " 1.0", ""}});
    Patches available({{"openssl", "3.0.1", "amd64"}});
    Patches more_available({{"libc6", "2.36-9", "amd64"}, {"b\xff", "1", "all"}});
    Patches none({});
    PackageManager second = Manager(&apt, &none, &more_available, nullptr);
    PackageManager first = Manager(&zypper, &installed, &available, &second);
    LogCapture log;

    ReportPatches__real(&first);

    ExpectGolden("state/software_patch_status.csv", ReadFile(work.State(kInstalledPatches)));
    ExpectGolden("state/software_patches_avail.csv", ReadFile(work.State(kAvailablePatches)));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ReportPatches, WithoutManagersBothFilesAreEmpty)
{
    const WorkDirectory work;
    WriteFile(work.State(kInstalledPatches), "old\r\n");
    LogCapture log;

    ReportPatches__real(nullptr);

    for (const char *name : {kInstalledPatches, kAvailablePatches}) {
        ASSERT_TRUE(std::filesystem::exists(work.State(name))) << name;
        EXPECT_EQ(std::filesystem::file_size(work.State(name)), 0u) << name;
    }
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ReportPatches, ManagersWithoutPatchesLeaveEmptyFiles)
{
    const WorkDirectory work;
    std::string apt = "apt-get";
    Patches none({});
    PackageManager manager = Manager(&apt, &none, &none, nullptr);
    ReportPatches__real(&manager);
    EXPECT_TRUE(std::filesystem::exists(work.State(kInstalledPatches)));
    EXPECT_EQ(ReadFile(work.State(kInstalledPatches)) + ReadFile(work.State(kAvailablePatches)), "");
}

TEST(ReportPatches, EachCallRewritesTheFiles)
{
    const WorkDirectory work;
    std::string apt = "/usr/bin/apt-get";
    Patches available({{"openssl", "3.0.1", "amd64"}});
    Patches none({});
    PackageManager manager = Manager(&apt, &none, &available, nullptr);
    ReportPatches__real(&manager);
    ReportPatches__real(&manager);
    EXPECT_EQ(ReadFile(work.State(kAvailablePatches)), "openssl,3.0.1,amd64,apt-get\r\n");
}

TEST(ReportPatches, AFirstFileThatCannotBeOpenedLeavesTheSecondAlone)
{
    const WorkDirectory work;
    std::filesystem::create_directory(work.State(kInstalledPatches));
    LogCapture log;

    ReportPatches__real(nullptr);

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Cannot open the destination file '" +
                                                               work.State(kInstalledPatches).string() +
                                                               "'. (fopen: Is a directory)")));
    EXPECT_FALSE(std::filesystem::exists(work.State(kAvailablePatches)));
}

TEST(ReportPatches, ASecondFileThatCannotBeOpenedIsAnErrorLine)
{
    const WorkDirectory work;
    std::filesystem::create_directory(work.State(kAvailablePatches));
    LogCapture log;

    ReportPatches__real(nullptr);

    EXPECT_TRUE(std::filesystem::exists(work.State(kInstalledPatches)));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Cannot open the destination file '" +
                                                               work.State(kAvailablePatches).string() +
                                                               "'. (fopen: Is a directory)")));
}

TEST(ReportPatches, PatchesThatDoNotFitOnTheDiskAreAnErrorLine)
{
    const WorkDirectory work;
    std::string apt = "/usr/bin/apt-get";
    Patches installed({{"kernel", "6.1.2", "amd64"}});
    Patches none({});
    PackageManager manager = Manager(&apt, &installed, &none, nullptr);
    LogCapture log;
    {
        const FileSizeLimit full(0);
        ReportPatches__real(&manager);
    }
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Cannot write CSV to file '" +
                                                               work.State(kInstalledPatches).string() + "'")));
    EXPECT_TRUE(std::filesystem::exists(work.State(kAvailablePatches)));
}

// --- Vesk_NoteAgentExecutionPerformance ---

TEST(NoteAgentExecutionPerformance, TheRunIsMeasuredUnderThePolicysName)
{
    const WorkDirectory work;
    struct timespec start = BeginMeasure();
    start.tv_sec -= 5;

    Vesk_NoteAgentExecutionPerformance__real("/inputs/promises.vt", start);

    Event event{};
    ASSERT_TRUE(ReadDB(Open(dbid_performance).get(), "Veltrane Execution (policy filename: '/inputs/promises.vt')",
                       &event, sizeof(event)));
    EXPECT_GE(event.Q.q, 5.0);
    EXPECT_LT(event.Q.q, 60.0);
}

}  // namespace
