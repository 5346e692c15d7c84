#include "libvtenterprise/datapack.h"

#include <dlfcn.h>

#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/dbm_api.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>
#include <veltrane/time_lib.h>

#include "libvtenterprise/report_data.h"
#include "support/fake_measurements.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/promise_log_lines.h"
#include "support/texts.h"
#include "support/work_dir.h"

namespace {

bool cursors_fail = false;

}  // namespace

// Stands before the host's own, so that a scan can fail where no file makes it fail.
extern "C" bool NewDBCursor(DBHandle *db, DBCursor **ret_cursor)
{
    using Function = bool (*)(DBHandle *, DBCursor **);
    static const Function hosts_own = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "NewDBCursor"));
    return !cursors_fail && hosts_own(db, ret_cursor);
}

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::StartsWith;
using veltrane::DBHandlePtr;
using veltrane::SeqPtr;
using ReportPtr = std::unique_ptr<ReportData, veltrane::Destroyer<ReportData_Destroy>>;

constexpr time_t kFrom = 1700000000;
constexpr time_t kTo = 1700001000;
constexpr time_t kClockError = 7;

Texts LinesOfFile(const std::string &name)
{
    std::ifstream file(VT_TEST_SOURCE_DIR "/golden/stream/" + name, std::ios::binary);
    Texts lines;
    for (std::string line; std::getline(file, line);) { lines.push_back(line); }
    return lines;
}

// The reply as one text, each line on a line of its own: the form of the golden files.
std::string StreamOf(const Seq *reply)
{
    std::string stream;
    for (const std::string &line : SeqTexts(reply)) { stream += line + "\n"; }
    return stream;
}

// A histogram file in which one slot was measured on one day at one distance from its average.
std::string HistogramFile()
{
    constexpr int kLoadOnMonday = 4 * VT_WEEK_DAYS;
    std::string file;
    for (int position = 0; position < VT_HISTOGRAM_POSITIONS; ++position) {
        file += std::to_string(position);
        for (int value = 0; value < VT_OBSERVABLES * VT_WEEK_DAYS; ++value) {
            file += value == kLoadOnMonday && position == 32 ? " 30.0000" : " 0.0000";
        }
        file += " \n";
    }
    return file;
}

class Datapack : public ::testing::Test {
  protected:
    Datapack() { Measurements() = {}; }

    SeqPtr Pack(ReportRequestType type, ProtocolVersion version = VT_PROTOCOL_COOKIE,
                const ReportBookFilter *book = nullptr) const
    {
        return SeqPtr(Vesk_PackAllReports(kFrom, kTo, kClockError, type, book, version));
    }

    Texts PackLines(ReportRequestType type) const { return SeqTexts(Pack(type).get()); }

    static DBHandlePtr Open(dbid id)
    {
        DBHandle *db = nullptr;
        EXPECT_TRUE(OpenDB(&db, id));
        return DBHandlePtr(db);
    }

    static void WriteEvent(const std::string &name, time_t t, double q = 1, double expect = 2, double var = 4)
    {
        Event event{};
        event.t = t;
        event.Q = {q, expect, var, 0};
        EXPECT_TRUE(WriteDB(Open(dbid_performance).get(), name.c_str(), &event, sizeof(event)));
    }

    static void WriteExecution(double average, time_t last)
    {
        const DBHandlePtr db = Open(dbid_agent_execution);
        EXPECT_TRUE(WriteDB(db.get(), "delta_gavr", &average, sizeof(average)));
        EXPECT_TRUE(WriteDB(db.get(), "last_exec", &last, sizeof(last)));
    }

    // A directory where the database's file should be.
    static void PutInTheWayOf(dbid id) { std::filesystem::create_directory(veltrane::TextPtr(DBIdToPath(id)).get()); }

    void WriteRecords(const std::string &name, const Texts &records) const
    {
        std::string bytes;
        for (const std::string &record : records) { bytes += record + "\r\n"; }
        WriteFile(work_.State(name), bytes);
    }

    // A host with something in every source.
    void FillSources() const
    {
        const std::string execution =
            "9f86d081,promises.vt,rel-1,99,default,main,files,/etc/motd,/default/main,"
            "motd_ok,,,42,abcdef,inventory";
        const std::string variable = "default,sys,host,0,\"a \"\"quoted\"\" name\",inventory";
        const std::string peer = "43,SHA=0011,192.0.2.7,1.500000,1700000155";
        const std::string web = "web,\"inventory,attribute_name=Role\"";

        WriteRecords("diff/classes.diff",
                     {"1699999999,1,before,", "1700000200,2,gone,", "1700000100,1," + web, "1700001000,1,later,"});
        WriteRecords("diff/variables.diff", {"1700000150,3," + variable});
        WriteRecords("diff/lastseen.diff", {"1700000160,1," + peer});
        WriteRecords("diff/software.diff", {"1700000170,1,bash,5.2.15-2,x"});
        WriteRecords("diff/patch.diff", {"1700000170,1,openssl,3.0.19,x,0"});
        WriteRecords("diff/execution_log.diff", {"1700000180,1," + execution});
        WriteRecords("previous_state/classes.cache", {web, "any,"});
        WriteRecords("previous_state/variables.cache", {variable});
        WriteRecords("previous_state/lastseen.cache", {peer});
        WriteRecords("previous_state/software.cache", {"bash,5.2.15-2,x"});
        WriteRecords("previous_state/patch.cache", {"openssl,3.0.19,x,0"});
        WriteRecords("previous_state/execution_log.cache", {execution});
        WriteEvent("Packing reports: delta", 1700000500, 0.25, 0.5, 0.0625);
        WriteExecution(300.9, 1600000000);
        FillLogsAndMeasurements();
    }

    void FillLogsAndMeasurements() const
    {
        WriteFile(work_.State("file_changes.log"),
                  "1700000000,/etc/motd,M,before\n1700000400,/etc/motd,M,content changed\n"
                  "1700000700,/etc/a \"quoted\" name,P,mode 0600 set to 0644\n");
        WriteFile(work_.State("vesk_diff.log"),
                  "CHANGE /etc/motd\npromise handle: motd_ok\n1700000400;2\n-,1,old\n+,1,new\t\"text\"\nEND\n");
        Measurements().samples = {Measured(1700000300, {{4, {0.5, 0.25, 0.0625, 0.25}}})};
        Measurements().weeks = {Measured(1699833600, {{4, {0.5, 0.25, 0.0625, 0.25}}})};
        WriteFile(work_.State("histograms"), HistogramFile());
        WriteFile(work_.State("promise_log.jsonl"), PromiseLogText({.timestamp = 1700000180, .handle = "motd_ok"}));
    }

    WorkDirectory work_;
};

// --- The whole reply -------------------------------------------------------------------------------------------------

TEST_F(Datapack, ADeltaIsTheGoldenStream)
{
    FillSources();

    ExpectGolden("stream/delta.stream", StreamOf(Pack(REPORT_REQUEST_TYPE_DELTA).get()));
}

TEST_F(Datapack, ADeltaForAnOldPeerIsTheGoldenStream)
{
    FillSources();

    ExpectGolden("stream/delta-old-peer.stream", StreamOf(Pack(REPORT_REQUEST_TYPE_DELTA, VT_PROTOCOL_TLS).get()));
}

TEST_F(Datapack, ARebaseIsTheGoldenStream)
{
    FillSources();

    ExpectGolden("stream/rebase.stream", StreamOf(Pack(REPORT_REQUEST_TYPE_REBASE).get()));
}

TEST_F(Datapack, AFullRequestIsItsHeaderAloneWithAWarning)
{
    LogCapture log;
    FillSources();

    ExpectGolden("stream/full.stream", StreamOf(Pack(REPORT_REQUEST_TYPE_FULL).get()));

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_FULL), ElementsAre("VTR: 7 1700001000 0"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_WARNING, "Request for FULL query have been deprecated"));
}

TEST_F(Datapack, TheGoldenStreamsReadBackIntoChapters)
{
    for (const char *name : {"delta.stream", "delta-old-peer.stream", "rebase.stream"}) {
        LogCapture log;
        const ReportPtr report(ReportData_Start("SHA=00", REPORT_REQUEST_TYPE_DELTA));
        for (const std::string &line : LinesOfFile(name)) {
            // A row for an old peer ends in CR LF and so stands on two lines of the file.
            if (!line.empty()) {
                EXPECT_TRUE(ReportData_AddNext(report.get(), line.c_str())) << line;
            }
        }
        EXPECT_EQ(report->requested_timestamp, kClockError);
        EXPECT_EQ(report->response_timestamp, kTo);
        EXPECT_EQ(report->last_exec_timestamp, 1600000000);
        EXPECT_EQ(MapSize(report->map), std::string(name) == "rebase.stream" ? 7U : 14U);
        EXPECT_THAT(log.lines, IsEmpty());
    }
}

TEST_F(Datapack, TheLengthInTheHeaderIsThatOfAllOtherLines)
{
    FillSources();
    const Texts lines = PackLines(REPORT_REQUEST_TYPE_DELTA);

    size_t length = 0;
    for (size_t i = 1; i < lines.size(); ++i) { length += lines[i].size(); }

    EXPECT_EQ(lines[0], "VTR: 7 1700001000 " + std::to_string(length));
}

TEST_F(Datapack, TheHeaderTakesAnyNumbers)
{
    const time_t end = std::numeric_limits<time_t>::max();
    const SeqPtr reply(Vesk_PackAllReports(0, end, -5, REPORT_REQUEST_TYPE_FULL, nullptr, VT_PROTOCOL_TLS));

    EXPECT_THAT(SeqTexts(reply.get()), ElementsAre("VTR: -5 9223372036854775807 0"));
}

TEST_F(Datapack, TheEndTimeOfTheReplyIsLoggedInLocalTime)
{
    LogCapture log;

    PackLines(REPORT_REQUEST_TYPE_REBASE);

    const time_t to = kTo;
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, std::string("Reply end time: ") + rpl_ctime(&to)));
}

TEST_F(Datapack, WithoutAnySourceTheReplyIsItsHeader)
{
    LogCapture log;

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_REBASE), ElementsAre("VTR: 7 1700001000 0"));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA), ElementsAre("VTR: 7 1700001000 0"));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING),
                ElementsAre(Pair(LOG_LEVEL_ERR, "Could not find promise log files while preparing reports")));
}

TEST_F(Datapack, ADeltaWithoutChangesStillCarriesTheExecutionStatusAndTheHistogramChapter)
{
    WriteExecution(300, 1600000000);
    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA), ElementsAre("VTR: 7 1700001000 19", "EXS", "t,300,1600000000"));

    WriteFile(work_.State("histograms"), "");
    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA),
                ElementsAre("VTR: 7 1700001000 22", "EXS", "t,300,1600000000", "MOH"));
}

TEST_F(Datapack, ADeltaCarriesItsChaptersInTheirOrder)
{
    FillSources();

    Texts codes;
    for (const std::string &line : PackLines(REPORT_REQUEST_TYPE_DELTA)) {
        if (line.size() == 3) {
            codes.push_back(line);
        }
    }

    EXPECT_THAT(codes, ElementsAre("CLD", "VAD", "LSD", "SDI", "SPD", "ELD", "PRD", "EXS", "CNG", "CND", "MOM", "MOY",
                                   "MOH", "PLG"));
}

TEST_F(Datapack, ARebaseNeverCarriesPerformanceFileChangesHistogramsOrPromiseLogs)
{
    FillSources();

    const Texts lines = PackLines(REPORT_REQUEST_TYPE_REBASE);

    for (const char *code : {"PRD", "CNG", "CND", "MOM", "MOY", "MOH", "PLG"}) {
        EXPECT_THAT(lines, Not(Contains(code)));
    }
}

TEST_F(Datapack, ARequestThatIsNoneOfTheThreeEndsTheProcess)
{
    EXPECT_DEATH(Pack(REPORT_REQUEST_TYPE_COLLECT_CALL), "Unhandled report request type in switch: 2");
    EXPECT_DEATH(Pack(REPORT_REQUEST_TYPE_ERROR), "Unhandled report request type in switch: 3");
}

TEST_F(Datapack, TagsFilterClassesAndVariablesAndHandlesTheExecutionLog)
{
    const std::unique_ptr<ReportBookFilter, veltrane::Destroyer<ReportBookFilterDestroy>> book(
        ReportBookFilterNewFrom("delta"));
    for (const char *type : {"metatags", "promise_handles"}) {
        Seq *excluded = SeqNew(1, free);
        SeqAppend(excluded, xstrdup(std::string(type) == "metatags" ? "inventory" : "motd_ok"));
        ReportBookFilterAppendReportFilter(book.get(), ReportFilterNewFrom(type, nullptr, excluded));
    }
    FillSources();

    const Texts delta = SeqTexts(Pack(REPORT_REQUEST_TYPE_DELTA, VT_PROTOCOL_COOKIE, book.get()).get());
    const Texts rebase = SeqTexts(Pack(REPORT_REQUEST_TYPE_REBASE, VT_PROTOCOL_COOKIE, book.get()).get());

    EXPECT_THAT(delta, AllOf(Contains(StartsWith("1700000100,4,web,")), Contains(StartsWith("1700000150,4,default")),
                             Contains(StartsWith("1700000180,4,9f86d081")), Contains(StartsWith("1700000200,2,gone")),
                             Contains(StartsWith("1700000160,1,43")), Contains(StartsWith("1700000170,1,bash")),
                             Contains(StartsWith("1700000170,1,openssl"))));
    // What the delta announced as untracked is withheld from then on.
    EXPECT_THAT(rebase, Contains("1700001000,1,any,"));
    for (const char *code : {"VAD", "ELD"}) { EXPECT_THAT(rebase, Not(Contains(code))); }
    for (const char *code : {"CLD", "LSD", "SDI", "SPD"}) { EXPECT_THAT(rebase, Contains(code)); }
}

TEST_F(Datapack, SlotNamesFilterMeasurementsAndHandlesThePromiseLog)
{
    const std::unique_ptr<ReportBookFilter, veltrane::Destroyer<ReportBookFilterDestroy>> book(
        ReportBookFilterNewFrom("delta"));
    for (const auto &[type, pattern] : {std::pair("monitoring", "load.*"), std::pair("promise_handles", "motd_ok")}) {
        Seq *excluded = SeqNew(1, free);
        SeqAppend(excluded, xstrdup(pattern));
        ReportBookFilterAppendReportFilter(book.get(), ReportFilterNewFrom(type, nullptr, excluded));
    }
    FillSources();

    const Texts lines = SeqTexts(Pack(REPORT_REQUEST_TYPE_DELTA, VT_PROTOCOL_COOKIE, book.get()).get());

    for (const char *code : {"MOM", "MOY", "PLG"}) { EXPECT_THAT(lines, Not(Contains(code))); }
    EXPECT_EQ(lines.back(), "MOH");
    for (const char *code : {"CNG", "CND", "PRD"}) { EXPECT_THAT(lines, Contains(code)); }
}

TEST_F(Datapack, ABookWithoutFiltersLetsEverythingThrough)
{
    FillSources();
    const std::unique_ptr<ReportBookFilter, veltrane::Destroyer<ReportBookFilterDestroy>> book(
        ReportBookFilterNewFrom("delta"));

    EXPECT_EQ(StreamOf(Pack(REPORT_REQUEST_TYPE_DELTA, VT_PROTOCOL_COOKIE, book.get()).get()),
              GoldenBytes("stream/delta.stream"));
}

// --- Performance -----------------------------------------------------------------------------------------------------

TEST_F(Datapack, OnlyEventsMeasuredAfterTheStartAreSent)
{
    LogCapture log;
    WriteEvent("at the start", kFrom);
    WriteEvent("before", kFrom - 1);
    WriteEvent("later, quoted", kFrom + 1);

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA),
                ElementsAre(StartsWith("VTR:"), "PRD", "\"later, quoted\",2.000000,2.000000,1.000000,1700000001"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Packing performance data"));
}

TEST_F(Datapack, EventsThatAreAllOldMakeNoChapter)
{
    WriteEvent("before", kFrom - 1);

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA), ElementsAre(StartsWith("VTR:")));
}

TEST_F(Datapack, AnEventWithANameOf512CharactersIsSentAndALongerOneIsCorrupt)
{
    LogCapture log;
    WriteEvent(std::string(512, 'a'), kFrom + 1);
    WriteEvent(std::string(513, 'b'), kFrom + 1);

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA),
                ElementsAre(StartsWith("VTR:"), "PRD", StartsWith(std::string(512, 'a') + ",")));

    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Corrupt entry in database"));
}

TEST_F(Datapack, AnEventWithoutANameIsCorrupt)
{
    LogCapture log;
    WriteEvent("", kFrom + 1);

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA), ElementsAre(StartsWith("VTR:")));

    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Corrupt entry in database"));
}

TEST_F(Datapack, AnOldEventWithABadNameIsPassedOverSilently)
{
    LogCapture log;
    WriteEvent(std::string(513, 'b'), kFrom);

    PackLines(REPORT_REQUEST_TYPE_DELTA);

    EXPECT_FALSE(log.Has(LOG_LEVEL_INFO, "Corrupt entry in database"));
}

TEST_F(Datapack, AnEventWithAValueThatIsTooLongIsSkippedWithAnError)
{
    LogCapture log;
    const char bytes[48] = {127, 127, 127, 127, 127, 127, 127, 127};
    WriteDB(Open(dbid_performance).get(), "long", bytes, sizeof(bytes));

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA), ElementsAre(StartsWith("VTR:")));

    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Invalid entry in performance database. Expected size: 40, actual size: 48"));
}

TEST_F(Datapack, AnEventWithAShortValueKeepsTheRestOfTheOneBefore)
{
    const time_t t = kFrom + 5;
    WriteEvent("a", kFrom + 1, 1, 2, 9);
    WriteDB(Open(dbid_performance).get(), "b", &t, sizeof(t));

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA),
                ElementsAre(StartsWith("VTR:"), "PRD", "a,3.000000,2.000000,1.000000,1700000001",
                            "b,3.000000,2.000000,1.000000,1700000005"));
}

TEST_F(Datapack, TheFirstEventWithAShortValueHasZerosInItsRest)
{
    const time_t t = kFrom + 5;
    WriteDB(Open(dbid_performance).get(), "b", &t, sizeof(t));

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA),
                ElementsAre(StartsWith("VTR:"), "PRD", "b,0.000000,0.000000,0.000000,1700000005"));
}

TEST_F(Datapack, AnEventWithoutAValueIsSkipped)
{
    LogCapture log;
    WriteFile(work_.State("promise_log.jsonl"), "");
    WriteEvent("a", kFrom + 1);
    ASSERT_TRUE(WriteDB(Open(dbid_performance).get(), "b", "", 0));

    EXPECT_EQ(PackLines(REPORT_REQUEST_TYPE_DELTA).size(), 3U);
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());
}

TEST_F(Datapack, APerformanceDatabaseThatDoesNotOpenLeavesTheChapterOut)
{
    LogCapture log;
    WriteExecution(300, 1600000000);
    PutInTheWayOf(dbid_performance);

    EXPECT_THAT(PackLines(REPORT_REQUEST_TYPE_DELTA), ElementsAre(StartsWith("VTR:"), "EXS", StartsWith("t,300,")));

    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Unable to open performance database"));
}

TEST_F(Datapack, APerformanceDatabaseThatCannotBeScannedLeavesTheChapterOut)
{
    LogCapture log;
    WriteEvent("a", kFrom + 1);
    WriteExecution(300, 1600000000);

    cursors_fail = true;
    const Texts lines = PackLines(REPORT_REQUEST_TYPE_DELTA);
    cursors_fail = false;

    EXPECT_THAT(lines, ElementsAre(StartsWith("VTR:"), "EXS", StartsWith("t,300,")));
    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Unable to scan performance database"));
    EXPECT_EQ(PackLines(REPORT_REQUEST_TYPE_DELTA).size(), 5U);
}

// --- Execution status ------------------------------------------------------------------------------------------------

TEST(ExecutionStatusRow, AnAgentIsOverdueAfterMoreThan3Point3TimesItsInterval)
{
    EXPECT_EQ(ExecutionStatusRow(2000, 1000, 300, false), "t,300,1000");
    EXPECT_EQ(ExecutionStatusRow(1990, 1000, 300, false), "f,300,1000");
    EXPECT_EQ(ExecutionStatusRow(1991, 1000, 300, false), "t,300,1000");
    EXPECT_EQ(ExecutionStatusRow(4300, 1000, 1000, false), "f,1000,1000");
    EXPECT_EQ(ExecutionStatusRow(4301, 1000, 1000, false), "t,1000,1000");
}

TEST(ExecutionStatusRow, AnIntervalBelowFiveMinutesCountsAsFive)
{
    EXPECT_EQ(ExecutionStatusRow(1990, 1000, 10.7, false), "f,10,1000");
    EXPECT_EQ(ExecutionStatusRow(1991, 1000, 10.7, false), "t,10,1000");
    EXPECT_EQ(ExecutionStatusRow(1990, 1000, -5.9, false), "f,-5,1000");
}

TEST(ExecutionStatusRow, ARunInTheFutureIsNotOverdue)
{
    EXPECT_EQ(ExecutionStatusRow(1000, 5000, 300, false), "f,300,5000");
}

TEST(ExecutionStatusRow, OldPeersGetTheRecordEnd)
{
    EXPECT_EQ(ExecutionStatusRow(2000, 1000, 300, true), "t,300,1000\r\n");
}

TEST(ExecutionStatusRow, AnyStoredNumberGivesARow)
{
    const time_t first = std::numeric_limits<time_t>::min();
    EXPECT_EQ(ExecutionStatusRow(std::numeric_limits<time_t>::max(), first, 1e300, false),
              "f,2147483647,-9223372036854775808");
    EXPECT_EQ(ExecutionStatusRow(2000, 1000, -1e300, false), "t,-2147483648,1000");
    EXPECT_EQ(ExecutionStatusRow(2000, 1000, std::numeric_limits<double>::quiet_NaN(), false), "t,0,1000");
    EXPECT_EQ(ExecutionStatusRow(2000, 1000, std::numeric_limits<double>::infinity(), false), "f,2147483647,1000");
}

TEST_F(Datapack, TheExecutionStatusIsItsCodeAndOneRow)
{
    LogCapture log;
    WriteExecution(312.9, 1600000000);
    const SeqPtr reply(SeqNew(10, free));

    Vesk_PackExecutionStatus(reply.get(), VT_PROTOCOL_COOKIE);
    Vesk_PackExecutionStatus(reply.get(), VT_PROTOCOL_TLS);

    EXPECT_THAT(SeqTexts(reply.get()), ElementsAre("EXS", "t,312,1600000000", "EXS", "t,312,1600000000\r\n"));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing execution status data"),
                                       Pair(LOG_LEVEL_VERBOSE, "Packing execution status data")));
}

TEST_F(Datapack, AnAgentThatRanJustNowIsNotOverdue)
{
    WriteExecution(300, time(nullptr));
    const SeqPtr reply(SeqNew(10, free));

    Vesk_PackExecutionStatus(reply.get(), VT_PROTOCOL_COOKIE);

    EXPECT_THAT(SeqTexts(reply.get()), ElementsAre("EXS", StartsWith("f,300,")));
}

TEST_F(Datapack, WithoutBothExecutionRecordsThereIsNoExecutionStatus)
{
    const double average = 300;
    const time_t last = 1600000000;
    const SeqPtr reply(SeqNew(10, free));

    for (const char *present : {"", "delta_gavr", "last_exec"}) {
        LogCapture log;
        const DBHandlePtr db = Open(dbid_agent_execution);
        DeleteDB(db.get(), "delta_gavr");
        if (std::string(present) == "delta_gavr") {
            WriteDB(db.get(), present, &average, sizeof(average));
        } else if (std::string(present) == "last_exec") {
            WriteDB(db.get(), present, &last, sizeof(last));
        }
        Vesk_PackExecutionStatus(reply.get(), VT_PROTOCOL_COOKIE);
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing execution status data"),
                                           Pair(LOG_LEVEL_INFO, "Unable to read from agent_execution db")));
    }

    EXPECT_EQ(SeqLength(reply.get()), 0U);
}

TEST_F(Datapack, AnExecutionDatabaseThatDoesNotOpenGivesNoExecutionStatus)
{
    LogCapture log;
    PutInTheWayOf(dbid_agent_execution);
    const SeqPtr reply(SeqNew(10, free));

    Vesk_PackExecutionStatus(reply.get(), VT_PROTOCOL_COOKIE);

    EXPECT_EQ(SeqLength(reply.get()), 0U);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing execution status data"),
                                       Pair(LOG_LEVEL_INFO, "Unable to open agent_execution db")));
}

// --- Ageing ----------------------------------------------------------------------------------------------------------

TEST_F(Datapack, AgeingTouchesAllSixReportsInTheirOrder)
{
    LogCapture log;
    WriteRecords("diff/classes.diff", {"99,1,old,", "100,1,new,"});
    WriteRecords("diff/patch.diff", {"99,1,old,1,x,0"});
    WriteRecords("diff/execution_log.diff", {"200,1,h,p.vt,,99,default,main,files,/a,/,my_handle,,,7,,"});

    PurgeOldDiffReports(100);

    Texts reports;
    for (const auto &[level, message] : log.lines) {
        const std::string begin = "Remove old diff data for ";
        if (level == LOG_LEVEL_VERBOSE && message.rfind(begin, 0) == 0) {
            reports.push_back(message.substr(begin.size()));
        }
    }
    EXPECT_THAT(reports,
                ElementsAre("classes report (remove older than 100)", "variables report (remove older than 100)",
                            "lastseen report (remove older than 100)", "software report (remove older than 100)",
                            "patch report (remove older than 100)", "execution_log report (remove older than 100)"));
    EXPECT_EQ(ReadFile(work_.State("diff/classes.diff")), "100,1,new,\r\n");
    EXPECT_FALSE(std::filesystem::exists(work_.State("diff/patch.diff")));
    EXPECT_NE(ReadFile(work_.State("diff/execution_log.diff")), "");
}

}  // namespace
