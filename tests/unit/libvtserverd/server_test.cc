#include "libvtserverd/server.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/crypto.h>
#include <veltrane/dbm_api.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>
#include <veltrane/records.h>
#include <veltrane/rlist.h>
#include <veltrane/time_lib.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/log_capture.h"
#include "tests/support/served_connection.h"
#include "tests/support/texts.h"
#include "tests/support/work_dir.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;
using veltrane::SeqPtr;

SeqPtr NewLines(const Texts &texts)
{
    SeqPtr lines(SeqNew(10, free));
    for (const std::string &text : texts) { SeqAppend(lines.get(), text == "-" ? nullptr : xstrdup(text.c_str())); }
    return lines;
}

bool Query(ServerConnectionState *conn, std::string menu, int encrypt = 0)
{
    return ReturnQueryData__real(conn, menu.data(), encrypt);
}

// --- The query and its window ----------------------------------------------------------------------------------------

TEST(ParseReportQuery, TakesTheWordAndTwoNumbers)
{
    struct Good {
        std::string menu, word;
        time_t from, peer_time;
    };
    for (const Good &good : std::vector<Good>{
             {"delta 1700000000 1700000100", "delta", 1700000000, 1700000100},
             {"  rebase\t-5   7 ", "rebase", -5, 7},
             {"delta 1 2 3", "delta", 1, 2},
             {"delta 1 2x", "delta", 1, 2},
             {"delta 1 x", "delta", 1, 0},
             {"delta x 2", "delta", 0, 0},
             {"delta 1", "delta", 1, 0},
             {"delta", "delta", 0, 0},
             {"", "", 0, 0},
             {"   ", "", 0, 0},
             {"delta 99999999999999999999 -99999999999999999999", "delta", LONG_MAX, LONG_MIN},
             {std::string(255, 'w') + " 1 2", std::string(255, 'w'), 1, 2},
             {std::string(256, 'w') + " 1 2", std::string(255, 'w'), 0, 0},
             {std::string(255, 'w') + "7 1 2", std::string(255, 'w'), 7, 1},
         }) {
        const ReportQuery query = ParseReportQuery(good.menu.c_str());
        EXPECT_EQ(query.word, good.word) << good.menu;
        EXPECT_EQ(query.from, good.from) << good.menu;
        EXPECT_EQ(query.peer_time, good.peer_time) << good.menu;
    }
}

TEST(ReportWindowAt, EndsOneSecondAgo)
{
    const ReportWindow window = ReportWindowAt(ParseReportQuery("delta 1700000000 1700000100"), 1700000200);

    EXPECT_EQ(window.from, 1700000000);
    EXPECT_EQ(window.to, 1700000199);
    EXPECT_EQ(window.clock_error, 100);
}

TEST(ReportWindowAt, OfAHubAheadOfUsEndsWhereItBegins)
{
    EXPECT_EQ(ReportWindowAt(ParseReportQuery("delta 1700000200 1700000300"), 1700000200).to, 1700000200);
    EXPECT_EQ(ReportWindowAt(ParseReportQuery("delta 1700000199 0"), 1700000200).to, 1700000199);
    EXPECT_EQ(ReportWindowAt(ParseReportQuery("delta 1800000000 1700000300"), 1700000200).to, 1800000000);
    EXPECT_EQ(ReportWindowAt(ParseReportQuery("delta 0 1700000300"), 1700000200).clock_error, -100);
}

TEST(ReportWindowAt, HasANearestClockErrorForNumbersOutOfRange)
{
    EXPECT_EQ(ReportWindowAt({"delta", 0, LONG_MIN}, 1700000200).clock_error, LONG_MAX);
    EXPECT_EQ(ReportWindowAt({"delta", 0, LONG_MAX}, -5).clock_error, LONG_MIN);
    EXPECT_EQ(ReportWindowAt({"delta", 0, LONG_MAX}, 1700000200).clock_error, 1700000200 - LONG_MAX);
}

TEST(IsPoorlySynchronized, FromThirtySecondsOn)
{
    EXPECT_FALSE(IsPoorlySynchronized(0));
    EXPECT_FALSE(IsPoorlySynchronized(29));
    EXPECT_TRUE(IsPoorlySynchronized(30));
    EXPECT_TRUE(IsPoorlySynchronized(LONG_MAX));
    EXPECT_FALSE(IsPoorlySynchronized(-100));
    EXPECT_FALSE(IsPoorlySynchronized(LONG_MIN));
}

TEST(AgeingThreshold, LeavesAnHourToSpareUnlessThereIsNone)
{
    EXPECT_EQ(AgeingThreshold(3600), 3600);
    EXPECT_EQ(AgeingThreshold(3601), 1);
    EXPECT_EQ(AgeingThreshold(1700000000), 1699996400);
    EXPECT_EQ(AgeingThreshold(0), 0);
    EXPECT_EQ(AgeingThreshold(-7), -7);
}

TEST(ChopTimestamp, CutsTheLineEndOff)
{
    LogCapture log;
    char text[26];
    vt_strtimestamp_local(0, text);

    ChopTimestamp(text, sizeof(text));

    EXPECT_EQ(std::string(text).find('\n'), std::string::npos);
    EXPECT_EQ(std::string(text).size(), 24U);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ChopTimestamp, SaysSoWhenThereIsNoTerminator)
{
    LogCapture log;
    char text[26];
    std::fill(std::begin(text), std::end(text), 'x');

    ChopTimestamp(text, sizeof(text));

    EXPECT_EQ(std::string(text, sizeof(text)), std::string(26, 'x'));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Chop was called on a string that seemed to have no terminator")));
}

// --- Sending a packed reply ------------------------------------------------------------------------------------------

class SendingAReply : public ::testing::Test {
  protected:
    // A dump of the query delta, from 10 to 20, at 30, asked at 25.
    ReportDump NewDump() const { return ReportDump({"delta", 30, 10, 20, 25}); }

    std::string Dump() const { return ReadFile(work_.path / "diagnostics" / "report_dumps" / "30_20_10_delta"); }

    bool Send(const Seq *lines, bool encrypt = false)
    {
        ReportDump dump = NewDump();
        return SendReply(connection_.get(), lines, encrypt, &dump);
    }

    WorkDirectory work_;
    Connection connection_;
};

TEST_F(SendingAReply, SendsEachLineWithItsZeroAndThenTheCompletion)
{
    EXPECT_TRUE(Send(NewLines({"VTR: 0 1 2", "CLD", "", "-", "a row"}).get()));

    EXPECT_THAT(connection_.Received(),
                ElementsAre(Pair('m', WithZero("VTR: 0 1 2")), Pair('m', WithZero("CLD")), Pair('m', WithZero("")),
                            Pair('m', WithZero("a row")), Pair('t', WithZero("QUERY complete"))));
    EXPECT_EQ(connection_.Received().back().second.size(), 15U);
    EXPECT_EQ(Dump(), "# delta from 10 to 25 at 30\nVTR: 0 1 2\nCLD\n\na row\n# send QUERY complete successful\n");
}

TEST_F(SendingAReply, OfNoLinesSendsTheCompletionAlone)
{
    EXPECT_TRUE(Send(NewLines({}).get()));

    EXPECT_THAT(connection_.Received(), ElementsAre(Pair('t', WithZero("QUERY complete"))));
    EXPECT_EQ(Dump(), "# delta from 10 to 25 at 30\n# send QUERY complete successful\n");
}

TEST_F(SendingAReply, ThatCouldNotBePackedSendsNothing)
{
    LogCapture log;

    EXPECT_FALSE(Send(nullptr));

    EXPECT_THAT(log.lines, Contains(Pair(LOG_LEVEL_ERR, "Failed to pack reports")));
    EXPECT_THAT(connection_.Received(), IsEmpty());
    EXPECT_EQ(Dump(), "# delta from 10 to 25 at 30\n");
}

TEST_F(SendingAReply, SendsALineThatFillsATransaction)
{
    EXPECT_TRUE(Send(NewLines({std::string(4095, 'x')}).get()));

    EXPECT_THAT(connection_.Received(),
                ElementsAre(Pair('m', WithZero(std::string(4095, 'x'))), Pair('t', WithZero("QUERY complete"))));
}

TEST_F(SendingAReply, StopsAtTheFirstLineThatCannotBeSentAndDumpsAllAndThatLine)
{
    LogCapture log;
    const std::string too_long(4096, 'x');

    EXPECT_FALSE(Send(NewLines({"VTR: 0 1 2", "CLD", too_long, "never sent"}).get()));

    EXPECT_THAT(log.UpTo(LOG_LEVEL_ERR), ElementsAre(Pair(LOG_LEVEL_ERR, StartsWith("Failed send. (send: "))));
    EXPECT_THAT(connection_.Received(), ElementsAre(Pair('m', WithZero("VTR: 0 1 2")), Pair('m', WithZero("CLD"))));
    EXPECT_EQ(Dump(), "# delta from 10 to 25 at 30\nVTR: 0 1 2\nCLD\n" + too_long +
                          "\nnever sent\n# Failed send on report line 2:\n# " + too_long + "\n");
}

TEST_F(SendingAReply, ToAPeerThatIsGoneSaysWhatTheSystemSaid)
{
    LogCapture log;
    connection_.Shut();

    EXPECT_FALSE(Send(NewLines({"VTR: 0 1 2"}).get()));

    EXPECT_THAT(log.UpTo(LOG_LEVEL_ERR), ElementsAre(Pair(LOG_LEVEL_ERR, "Failed send. (send: Broken pipe)")));
    EXPECT_EQ(Dump(), "# delta from 10 to 25 at 30\nVTR: 0 1 2\n# Failed send on report line 0:\n# VTR: 0 1 2\n");
}

TEST_F(SendingAReply, WhoseCompletionCannotBeSentFails)
{
    LogCapture log;
    connection_.Shut();

    EXPECT_FALSE(Send(NewLines({"-"}).get()));

    EXPECT_THAT(log.UpTo(LOG_LEVEL_ERR), ElementsAre(Pair(LOG_LEVEL_ERR, "Failed send. (send: Broken pipe)")));
    EXPECT_EQ(Dump(), "# delta from 10 to 25 at 30\n# send QUERY complete failure: Broken pipe\n");
}

TEST_F(SendingAReply, EncryptedSendsTheSameLines)
{
    const unsigned char key[] = "0123456789abcdef0123456789abcdef";
    connection_.get()->session_key = static_cast<unsigned char *>(xmemdup(key, sizeof(key)));
    connection_.get()->encryption_type = 'c';
    const Texts lines = {"VTR: 0 1 2", "CLD", "", "a row", std::string(4000, 'x')};

    EXPECT_TRUE(Send(NewLines(lines).get(), true));

    std::vector<Transaction> plain;
    for (const auto &[status, cipher_text] : connection_.Received()) {
        char text[4096];
        const int length =
            DecryptString(text, sizeof(text), cipher_text.data(), static_cast<int>(cipher_text.size()), 'c', key);
        ASSERT_GE(length, 0);
        plain.emplace_back(status, std::string(text, static_cast<size_t>(length)));
        EXPECT_NE(plain.back().second, cipher_text);
    }
    std::vector<Transaction> expected;
    for (const std::string &line : lines) { expected.emplace_back('m', WithZero(line)); }
    expected.emplace_back('t', WithZero("QUERY complete"));
    EXPECT_EQ(plain, expected);
}

TEST_F(SendingAReply, EncryptedFailsAtALineWhoseCipherTextDoesNotFit)
{
    LogCapture log;
    const unsigned char key[] = "0123456789abcdef0123456789abcdef";
    connection_.get()->session_key = static_cast<unsigned char *>(xmemdup(key, sizeof(key)));
    connection_.get()->encryption_type = 'c';

    EXPECT_FALSE(Send(NewLines({"CLD", std::string(4095, 'x')}).get(), true));

    EXPECT_EQ(connection_.Received().size(), 1U);
    EXPECT_THAT(log.UpTo(LOG_LEVEL_ERR), ElementsAre(Pair(LOG_LEVEL_ERR, StartsWith("Failed send. (send: "))));
}

TEST_F(SendingAReply, EncryptedWithoutAKeySendsNothingInTheClear)
{
    LogCapture log;

    EXPECT_FALSE(Send(NewLines({"CLD"}).get(), true));

    EXPECT_THAT(connection_.Received(), IsEmpty());
    EXPECT_THAT(log.UpTo(LOG_LEVEL_ERR), ElementsAre(Pair(LOG_LEVEL_ERR, StartsWith("Failed send. (send: "))));
}

TEST_F(SendingAReply, WithoutADumpLeavesNoFile)
{
    ReportDump none;

    EXPECT_TRUE(SendReply(connection_.get(), NewLines({"CLD"}).get(), false, &none));

    EXPECT_FALSE(std::filesystem::exists(work_.path / "diagnostics" / "report_dumps"));
}

// --- The whole service -----------------------------------------------------------------------------------------------

class ReportQueryService : public ::testing::Test {
  protected:
    ReportQueryService() { CleanReportBookFilterSet__real(); }
    ~ReportQueryService() override { CleanReportBookFilterSet__real(); }

    void WriteClassDiff(const Texts &rows) const
    {
        std::string bytes;
        for (const std::string &row : rows) { bytes += row + "\r\n"; }
        WriteFile(work_.State("diff/classes.diff"), bytes);
    }

    std::string ClassDiff() const { return ReadFile(work_.State("diff/classes.diff")); }

    WorkDirectory work_;
};

Texts PayloadsOf(Connection *connection)
{
    Texts texts;
    for (const auto &[status, payload] : connection->Received()) {
        EXPECT_EQ(payload.back(), '\0');
        texts.push_back(payload.substr(0, payload.size() - 1));
    }
    return texts;
}

TEST_F(ReportQueryService, AnswersADeltaWithTheStreamUpToOneSecondAgo)
{
    WriteClassDiff({"1700000000,1,web,", "1700000500,2,db,"});
    Connection connection;

    const time_t before = time(nullptr);
    EXPECT_TRUE(Query(connection.get(), "delta 1700000100 " + std::to_string(before)));
    const time_t after = time(nullptr);

    const Texts lines = PayloadsOf(&connection);
    ASSERT_THAT(lines, ElementsAre(StartsWith("VTR: "), "CLD", "1700000500,2,db,", "QUERY complete"));
    long clock_error = -1;
    long to = -1;
    int length = -1;
    ASSERT_EQ(sscanf(lines[0].c_str(), "VTR: %ld %ld %d", &clock_error, &to, &length), 3);
    EXPECT_GE(clock_error, 0);
    EXPECT_LE(clock_error, after - before);
    EXPECT_GE(to, before - 1);
    EXPECT_LE(to, after - 1);
    EXPECT_EQ(length, 19);
}

TEST_F(ReportQueryService, TellsThePackerThePeersProtocol)
{
    WriteClassDiff({"1700000500,2,db,"});
    Connection connection;
    ConnectionInfoSetProtocolVersion(connection.get()->conn_info, VT_PROTOCOL_TLS);

    EXPECT_TRUE(Query(connection.get(), "delta 1700000100 0"));

    EXPECT_THAT(PayloadsOf(&connection), Contains("1700000500,2,db,\r\n"));
}

TEST_F(ReportQueryService, LogsTheQueryAndItsTimes)
{
    LogCapture log;
    Connection connection;

    const time_t before = time(nullptr);
    EXPECT_TRUE(Query(connection.get(), "rebase 1700000000 " + std::to_string(before)));
    const time_t after = time(nullptr);

    EXPECT_TRUE(log.Has(LOG_LEVEL_DEBUG, "Current sluice version '1.4.0'"));
    bool found = false;
    for (time_t now = before; now <= after; ++now) {
        std::string at = rpl_ctime(&now);
        at.pop_back();
        found = found || log.Has(LOG_LEVEL_VERBOSE,
                                 "Menu request \"rebase\" at " + at + ", clock error " + std::to_string(now - before));
    }
    EXPECT_TRUE(found);
    const time_t from = 1700000000;
    std::string start = rpl_ctime(&from);
    start.pop_back();
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Menu request starting from " + start));
    EXPECT_FALSE(log.Has(LOG_LEVEL_VERBOSE, "Poor clock synchronization between peers"));
}

TEST_F(ReportQueryService, APeerWhoseClockIsFarBehindOursIsSaid)
{
    LogCapture log;
    Connection connection;

    EXPECT_TRUE(Query(connection.get(), "full 0 " + std::to_string(time(nullptr) - 30)));

    EXPECT_THAT(log.lines, Contains(Pair(LOG_LEVEL_VERBOSE, "Poor clock synchronization between peers")));
}

TEST_F(ReportQueryService, AClockAheadOfOursIsNotSaid)
{
    LogCapture log;
    Connection connection;

    EXPECT_TRUE(Query(connection.get(), "full 0 " + std::to_string(time(nullptr) + 1000)));

    EXPECT_FALSE(log.Has(LOG_LEVEL_VERBOSE, "Poor clock synchronization between peers"));
}

TEST_F(ReportQueryService, AnUnknownQueryWordGetsNoAnswer)
{
    for (const std::string word : {"weekly", "error", "Delta"}) {
        LogCapture log;
        Connection connection;

        EXPECT_FALSE(Query(connection.get(), word + " 0 0"));

        EXPECT_THAT(connection.Received(), IsEmpty());
        EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Unknown menu type \"" + word + "\""));
        EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());
    }
}

TEST_F(ReportQueryService, AnUnknownQueryWordLeavesADumpOfItsFirstLine)
{
    Connection connection;
    connection.get()->dump_reports = true;

    EXPECT_FALSE(Query(connection.get(), "weekly 7 8"));

    const std::filesystem::directory_iterator dumps(work_.path / "diagnostics" / "report_dumps");
    ASSERT_NE(begin(dumps), end(dumps));
    EXPECT_THAT(ReadFile(dumps->path()), StartsWith("# weekly from 7 to 8 at "));
}

TEST_F(ReportQueryService, ACollectCallEndsTheProcess)
{
    EXPECT_DEATH(
        {
            Connection connection;
            Query(connection.get(), "collect_call 0 0");
        },
        "Unhandled report request type in switch: 2");
}

TEST_F(ReportQueryService, AFullQueryIsAHeaderAndTheCompletion)
{
    Connection connection;

    EXPECT_TRUE(Query(connection.get(), "full 0 0"));

    EXPECT_THAT(PayloadsOf(&connection), ElementsAre(StartsWith("VTR: "), "QUERY complete"));
}

TEST_F(ReportQueryService, DumpsWhatItSends)
{
    WriteClassDiff({"1700000500,2,db,"});
    Connection connection;
    connection.get()->dump_reports = true;

    EXPECT_TRUE(Query(connection.get(), "delta 1700000100 1700000200"));

    const Texts lines = PayloadsOf(&connection);
    const std::filesystem::directory_iterator dumps(work_.path / "diagnostics" / "report_dumps");
    ASSERT_NE(begin(dumps), end(dumps));
    uintmax_t now = 0;
    uintmax_t to = 0;
    ASSERT_EQ(sscanf(dumps->path().filename().c_str(), "%ju_%ju_1700000100_delta", &now, &to), 2);
    EXPECT_EQ(now, to + 1);
    EXPECT_EQ(dumps->path().filename(), std::to_string(now) + "_" + std::to_string(to) + "_1700000100_delta");
    EXPECT_EQ(ReadFile(dumps->path()), "# delta from 1700000100 to 1700000200 at " + std::to_string(now) + "\n" +
                                           lines[0] + "\nCLD\n1700000500,2,db,\n# send QUERY complete successful\n");
}

TEST_F(ReportQueryService, UsesTheFilterOfItsQueryWordAlone)
{
    const veltrane::PolicyPtr policy(PolicyNew());
    BundleSection *section =
        BundleAppendSection(PolicyAppendBundle(policy.get(), "default", "rules", "server", "promises.vt"), "access");
    Promise *pp = BundleSectionAppendPromise(section, "delta", Rval{}, SourceOffset{});
    PromiseAppendConstraint(pp, "report_data_select", RvalNew("yes", RVAL_TYPE_SCALAR));
    PromiseAppendConstraint(pp, "metatags_exclude", ListRval({"secret"}));
    KeepReportDataSelectAccessPromise__real(pp);
    WriteClassDiff({"1700000500,1,cfg,secret"});
    WriteFile(work_.State("previous_state/classes.cache"), "cfg,secret\r\n");

    Connection delta;
    EXPECT_TRUE(Query(delta.get(), "delta 1700000100 0"));
    EXPECT_THAT(PayloadsOf(&delta), Contains("1700000500,4,cfg,secret"));

    Connection rebase;
    EXPECT_TRUE(Query(rebase.get(), "rebase 1700000100 0"));
    EXPECT_THAT(PayloadsOf(&rebase), Contains(HasSubstr(",1,cfg,secret")));
}

TEST_F(ReportQueryService, MeasuresThePackingUnderTheNameOfTheQueryWord)
{
    Connection connection;
    EXPECT_TRUE(Query(connection.get(), "rebase 0 0"));

    DBHandle *handle = nullptr;
    ASSERT_TRUE(OpenDB(&handle, dbid_performance));
    const veltrane::DBHandlePtr db(handle);
    Event event{};
    EXPECT_TRUE(ReadDB(db.get(), "Packing reports: rebase", &event, sizeof(event)));
    EXPECT_GT(event.t, 0);
}

TEST_F(ReportQueryService, AgesTheDifferencesAfterADelta)
{
    for (const auto &[from, kept] : std::vector<std::pair<std::string, std::string>>{
             {"3600", "3600,1,c,\r\n"}, {"3601", "1,1,b,\r\n3600,1,c,\r\n"}}) {
        LogCapture log;
        WriteClassDiff({"0,1,a,", "1,1,b,", "3600,1,c,"});
        Connection connection;
        EXPECT_TRUE(Query(connection.get(), "delta " + from + " 0"));
        EXPECT_EQ(ClassDiff(), kept);
        EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Remove old diff data for execution_log report (remove older than " +
                                                   std::string(from == "3600" ? "3600" : "1") + ")"));
    }
}

TEST_F(ReportQueryService, AgesNothingAfterARebaseAFullQueryOrADeltaThatWasNotSent)
{
    for (const std::string word : {"rebase", "full"}) {
        LogCapture log;
        Connection connection;
        EXPECT_TRUE(Query(connection.get(), word + " 3600 0"));
        EXPECT_FALSE(log.Has(LOG_LEVEL_VERBOSE, "Remove old diff data for classes report (remove older than 3600)"));
    }
    WriteClassDiff({"0,1,a,"});
    Connection connection;
    connection.Shut();
    EXPECT_FALSE(Query(connection.get(), "delta 3600 0"));
    EXPECT_EQ(ClassDiff(), "0,1,a,\r\n");
}

TEST_F(ReportQueryService, ReadsAQueryWithoutItsNumbersAsZeros)
{
    WriteClassDiff({"5,1,a,"});
    Connection connection;

    EXPECT_TRUE(Query(connection.get(), "delta"));

    EXPECT_THAT(PayloadsOf(&connection), Contains("5,1,a,"));
}

TEST_F(ReportQueryService, AnswersQueriesOfSeveralThreads)
{
    std::string bytes;
    for (int i = 0; i < 200; ++i) { bytes += "1700000500,1,class" + std::to_string(i) + ",secret\r\n"; }
    WriteFile(work_.State("diff/classes.diff"), bytes);

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 3; ++i) {
                Connection connection;
                EXPECT_TRUE(Query(connection.get(), "delta 1700000100 0"));
                EXPECT_GE(PayloadsOf(&connection).size(), 203U);  // header, code, rows, completion; measurements later
            }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
}

}  // namespace
