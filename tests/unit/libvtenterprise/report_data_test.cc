#include "libvtenterprise/report_data.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "tests/support/log_capture.h"
#include "tests/support/texts.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ReportPtr = std::unique_ptr<ReportData, veltrane::Destroyer<ReportData_Destroy>>;

constexpr CodeBookIndex kDiffChapters[] = {vtr_code_class_diff,          vtr_code_variable_diff,
                                           vtr_code_last_seen_diff,      vtr_code_software_diff,
                                           vtr_code_software_patch_diff, vtr_code_execution_log_diff};

ReportPtr StartDelta() { return ReportPtr(ReportData_Start("SHA=00", REPORT_REQUEST_TYPE_DELTA)); }

// A record that has read its header.
ReportPtr StartedDelta()
{
    ReportPtr report = StartDelta();
    EXPECT_TRUE(ReportData_AddNext(report.get(), "VTR: 1 2 3"));
    return report;
}

Texts Lines(const ReportData *report, CodeBookIndex chapter)
{
    return SeqTexts(ReportData_GetChapter(report, chapter));
}

TEST(ReportData, ARecordForBuildingKnowsItsHostAndRequestAndTakesNoHeader)
{
    std::string hostkey = "SHA=ab";
    const ReportPtr report(ReportData_New(hostkey.c_str(), REPORT_REQUEST_TYPE_REBASE));
    hostkey = "changed";

    EXPECT_STREQ(report->hostkey, "SHA=ab");
    EXPECT_EQ(report->request_type, REPORT_REQUEST_TYPE_REBASE);
    EXPECT_EQ(report->state_chapter, vtr_code_max);
    EXPECT_EQ(report->state_counter, -1);
    EXPECT_EQ(report->string_length, 0);
    EXPECT_EQ(report->last_exec_timestamp, 0);
    EXPECT_EQ(report->requested_timestamp, 0);
    EXPECT_EQ(report->response_timestamp, 0);
    EXPECT_FALSE(report->has_diffs);
    EXPECT_EQ(MapSize(report->map), 0U);

    LogCapture log;
    EXPECT_FALSE(ReportData_AddNext(report.get(), "VTR: 1 2 3"));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Could not determine reporting chapter before line 'VTR: 1 2 3'")));
}

TEST(ReportData, TheCounterOfARecordForBuildingGrowsAsThatOfAReaderDoes)
{
    LogCapture log;
    const ReportPtr report(ReportData_New("SHA=00", REPORT_REQUEST_TYPE_DELTA));

    EXPECT_TRUE(ReportData_AddNext(report.get(), "CLD"));  // from -1 to 0, so the next line must be a header
    EXPECT_FALSE(ReportData_AddNext(report.get(), "rows"));
    EXPECT_TRUE(ReportData_AddNext(report.get(), "VTR: 1 2 3"));
    EXPECT_TRUE(ReportData_AddNext(report.get(), "a row"));

    EXPECT_THAT(Lines(report.get(), vtr_code_class_diff), ElementsAre("a row"));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Invalid header format in reporting data: 'rows'")));
}

TEST(ReportData, AReaderStartsBeforeTheHeaderWithoutAChapter)
{
    const ReportPtr report = StartDelta();

    EXPECT_EQ(report->state_chapter, vtr_code_max);
    EXPECT_EQ(report->state_counter, 0);
}

TEST(ReportData, AnUnknownCodeInsideAChapterVanishesAndTheChapterStaysOpen)
{
    LogCapture log;
    const ReportPtr report = StartDelta();

    for (const char *line : {"VTR: 100 1700000000 42", "CLD", "first row", "xyz", "second row"}) {
        EXPECT_TRUE(ReportData_AddNext(report.get(), line)) << line;
    }

    EXPECT_EQ(report->requested_timestamp, 100);
    EXPECT_EQ(report->response_timestamp, 1700000000);
    EXPECT_EQ(report->string_length, 42);
    EXPECT_EQ(report->state_counter, 5);
    EXPECT_EQ(report->state_chapter, vtr_code_class_diff);
    EXPECT_THAT(Lines(report.get(), vtr_code_class_diff), ElementsAre("first row", "second row"));
    EXPECT_EQ(MapSize(report->map), 1U);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ReportData, EveryCodeOpensItsChapterAndNeverCountsAsData)
{
    const ReportPtr report = StartedDelta();

    for (int i = 0; i < vtr_code_max; ++i) {
        ASSERT_TRUE(ReportData_AddNext(report.get(), VT_CODEBOOK[i]));
        EXPECT_EQ(report->state_chapter, i);
        ASSERT_TRUE(ReportData_AddNext(report.get(), i == vtr_code_execution_status ? "f,1,2" : VT_CODEBOOK[i] + 1));
    }

    for (int i = 0; i < vtr_code_max; ++i) {
        EXPECT_EQ(Lines(report.get(), static_cast<CodeBookIndex>(i)).size(), 1U) << VT_CODEBOOK[i];
    }
}

TEST(ReportData, AChapterThatComesBackGrowsOn)
{
    const ReportPtr report = StartedDelta();

    for (const char *line : {"CLD", "row1", "VAD", "row2", "CLD", "row3"}) {
        EXPECT_TRUE(ReportData_AddNext(report.get(), line));
    }

    EXPECT_THAT(Lines(report.get(), vtr_code_class_diff), ElementsAre("row1", "row3"));
    EXPECT_THAT(Lines(report.get(), vtr_code_variable_diff), ElementsAre("row2"));
}

TEST(ReportData, AnEmptyDataLineIsStored)
{
    const ReportPtr report = StartedDelta();

    EXPECT_TRUE(ReportData_AddNext(report.get(), "CND"));
    EXPECT_TRUE(ReportData_AddNext(report.get(), ""));

    EXPECT_THAT(Lines(report.get(), vtr_code_fdiff), ElementsAre(""));
}

TEST(ReportData, AChapterCodeWithoutLinesMakesNoChapter)
{
    const ReportPtr report = StartedDelta();

    EXPECT_TRUE(ReportData_AddNext(report.get(), "CLD"));

    EXPECT_EQ(ReportData_GetChapter(report.get(), vtr_code_class_diff), nullptr);
}

TEST(ReportData, GoodHeadersGiveTheirThreeNumbers)
{
    struct Good {
        const char *line;
        long first, second, third;
    };
    for (const Good &good : std::vector<Good>{
             {"VTR: 100 1700000000 42", 100, 1700000000, 42},
             {"VTR: -5 0 -1", -5, 0, -1},
             {"VTR:1 2 3", 1, 2, 3},
             {"VTR:   +1\t2   3", 1, 2, 3},
             {"VTR: 1 2 3 and what follows", 1, 2, 3},
             {"VTR: 99999999999999999999 -99999999999999999999 7", LONG_MAX, LONG_MIN, 7},
         }) {
        const ReportPtr report = StartDelta();
        EXPECT_TRUE(ReportData_AddNext(report.get(), good.line)) << good.line;
        EXPECT_EQ(report->requested_timestamp, good.first) << good.line;
        EXPECT_EQ(report->response_timestamp, good.second) << good.line;
        EXPECT_EQ(report->string_length, good.third) << good.line;
        EXPECT_EQ(report->state_counter, 1);
    }
}

TEST(ReportData, ABadHeaderIsRefusedAndTheNextLineIsReadAsTheHeader)
{
    for (const char *bad : {"VTR: 100 1700000000", "VTR: ", "", "VTR", "vtr: 1 2 3", " VTR: 1 2 3", "VTR 1 2 3",
                            "VTR: 1 x 3", "VTR: 1 2 -", "CLD"}) {
        LogCapture log;
        const ReportPtr report = StartDelta();
        EXPECT_FALSE(ReportData_AddNext(report.get(), bad));
        EXPECT_THAT(
            log.lines,
            ElementsAre(Pair(LOG_LEVEL_ERR, std::string("Invalid header format in reporting data: '") + bad + "'")));
        EXPECT_EQ(report->state_counter, 0);
        EXPECT_EQ(report->requested_timestamp, 0) << bad;
        EXPECT_TRUE(ReportData_AddNext(report.get(), "VTR: 1 2 3"));
        EXPECT_EQ(report->requested_timestamp, 1);
    }
}

TEST(ReportData, AnUnknownCodeBeforeAnyChapterIsRefused)
{
    LogCapture log;
    const ReportPtr report = StartedDelta();

    EXPECT_FALSE(ReportData_AddNext(report.get(), "cld"));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Invalid chapter code in reporting data ('cld')")));
    EXPECT_EQ(report->state_chapter, vtr_code_max);
    EXPECT_EQ(report->state_counter, 1);
}

TEST(ReportData, DataBeforeAnyChapterIsRefusedAndReadingGoesOn)
{
    LogCapture log;
    const ReportPtr report = StartedDelta();

    EXPECT_FALSE(ReportData_AddNext(report.get(), "a row"));
    EXPECT_EQ(report->state_counter, 1);
    EXPECT_TRUE(ReportData_AddNext(report.get(), "CLD"));
    EXPECT_TRUE(ReportData_AddNext(report.get(), "another row"));

    EXPECT_THAT(Lines(report.get(), vtr_code_class_diff), ElementsAre("another row"));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Could not determine reporting chapter before line 'a row'")));
}

TEST(ReportData, ALineThatCannotBeStoredIsRefused)
{
    LogCapture log;
    const ReportPtr report = StartedDelta();
    MapInsert(report->map, xstrdup("CLD"), nullptr);  // a chapter that is there and has no lines to add to
    EXPECT_TRUE(ReportData_AddNext(report.get(), "CLD"));

    EXPECT_FALSE(ReportData_AddNext(report.get(), "a row"));

    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_DEBUG, "Could not get chapter after adding it!(ReportData)"),
                            Pair(LOG_LEVEL_ERR, "Failed to add report data to map (chapter='CLD' line='a row')")));
    EXPECT_EQ(report->state_counter, 2);
    EXPECT_FALSE(report->has_diffs);
}

TEST(ReportData, TheExecutionStatusGivesTheTimeOfTheLastRun)
{
    LogCapture log;
    const ReportPtr report = StartedDelta();

    for (const char *line : {"EXS", "x,1,1700000000"}) { EXPECT_TRUE(ReportData_AddNext(report.get(), line)); }

    EXPECT_EQ(report->last_exec_timestamp, 1700000000);
    EXPECT_THAT(Lines(report.get(), vtr_code_execution_status), ElementsAre("x,1,1700000000"));
    EXPECT_THAT(log.lines, IsEmpty());

    EXPECT_TRUE(ReportData_AddNext(report.get(), "t,300,1700000600"));
    EXPECT_EQ(report->last_exec_timestamp, 1700000600);
}

TEST(ReportData, AnExecutionTimeOfZeroOrLessIsUsedWithAWarning)
{
    for (const long timestamp : {0L, -7L}) {
        LogCapture log;
        const ReportPtr report = StartedDelta();
        report->last_exec_timestamp = 5;
        EXPECT_TRUE(ReportData_AddNext(report.get(), "EXS"));
        EXPECT_TRUE(ReportData_AddNext(report.get(), ("x,1," + std::to_string(timestamp)).c_str()));

        EXPECT_EQ(report->last_exec_timestamp, timestamp);
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING, "Unexpected timestamp in reporting data (ts=" +
                                                                       std::to_string(timestamp) + " host='SHA=00')")));
    }
}

TEST(ReportData, AMalformedExecutionStatusIsRefusedButKept)
{
    for (const char *bad : {"no commas", "", "x", "x,", "x,1,", "xy,1,2", "x,a,2", "x,1,b", "x,1 ,2", ",1,2"}) {
        LogCapture log;
        const ReportPtr report = StartedDelta();
        EXPECT_TRUE(ReportData_AddNext(report.get(), "EXS"));
        EXPECT_FALSE(ReportData_AddNext(report.get(), bad)) << bad;

        EXPECT_THAT(Lines(report.get(), vtr_code_execution_status), ElementsAre(bad));
        EXPECT_EQ(report->last_exec_timestamp, 0);
        EXPECT_EQ(report->state_counter, 2);
        EXPECT_EQ(report->state_chapter, vtr_code_execution_status);
        EXPECT_THAT(log.lines, ElementsAre(Pair(
                                   LOG_LEVEL_ERR,
                                   std::string("Reporting data for execution status has incorrect formatting (line='") +
                                       bad + "')")));
    }
}

TEST(ReportData, AnExecutionStatusWithBlanksBeforeItsNumbersIsRead)
{
    const ReportPtr report = StartedDelta();

    EXPECT_TRUE(ReportData_AddNext(report.get(), "EXS"));
    EXPECT_TRUE(ReportData_AddNext(report.get(), ",, 1, 99999999999999999999 and more"));

    EXPECT_EQ(report->last_exec_timestamp, LONG_MAX);
}

TEST(ReportData, StoppingARebaseAddsEachMissingDiffChapterEmpty)
{
    const ReportPtr report(ReportData_Start("SHA=00", REPORT_REQUEST_TYPE_REBASE));
    for (const char *line : {"VTR: 1 2 3", "CLD", "a row"}) { EXPECT_TRUE(ReportData_AddNext(report.get(), line)); }

    EXPECT_TRUE(ReportData_Stop(report.get()));

    EXPECT_EQ(MapSize(report->map), 6U);
    MapIterator i = MapIteratorInit(report->map);
    for (const CodeBookIndex chapter : kDiffChapters) {
        const MapKeyValue *entry = MapIteratorNext(&i);
        ASSERT_NE(entry, nullptr);
        EXPECT_STREQ(static_cast<const char *>(entry->key), VT_CODEBOOK[chapter]);
        EXPECT_EQ(SeqLength(static_cast<Seq *>(entry->value)), chapter == vtr_code_class_diff ? 1U : 0U);
    }
}

TEST(ReportData, StoppingAnythingButARebaseAddsNothing)
{
    for (const ReportRequestType type : {REPORT_REQUEST_TYPE_DELTA, REPORT_REQUEST_TYPE_FULL,
                                         REPORT_REQUEST_TYPE_COLLECT_CALL, REPORT_REQUEST_TYPE_ERROR}) {
        const ReportPtr report(ReportData_Start("SHA=00", type));
        EXPECT_TRUE(ReportData_Stop(report.get()));
        EXPECT_EQ(MapSize(report->map), 0U);
    }
}

TEST(ReportData, NothingIsStoppedAndNothingIsDestroyed)
{
    EXPECT_FALSE(ReportData_Stop(nullptr));
    ReportData_Destroy(nullptr);
}

TEST(ReportData, OnlyLinesOfDiffChaptersCountAsDifferences)
{
    for (int chapter = 0; chapter < vtr_code_max; ++chapter) {
        const ReportPtr report(ReportData_New("SHA=00", REPORT_REQUEST_TYPE_DELTA));
        EXPECT_TRUE(ReportData_AddToChapter(report.get(), static_cast<CodeBookIndex>(chapter), "a row"));
        EXPECT_EQ(report->has_diffs,
                  std::find(std::begin(kDiffChapters), std::end(kDiffChapters), chapter) != std::end(kDiffChapters))
            << VT_CODEBOOK[chapter];
    }
}

TEST(ReportData, AnEmptyDiffChapterIsNoDifference)
{
    const ReportPtr report(ReportData_New("SHA=00", REPORT_REQUEST_TYPE_DELTA));

    EXPECT_TRUE(ReportData_AddChapter(report.get(), vtr_code_class_diff));

    EXPECT_FALSE(report->has_diffs);
}

TEST(ReportData, AChapterIsCreatedOnce)
{
    const ReportPtr report(ReportData_New("SHA=00", REPORT_REQUEST_TYPE_DELTA));

    EXPECT_TRUE(ReportData_AddToChapter(report.get(), vtr_code_class_diff, "a row"));
    EXPECT_FALSE(ReportData_AddChapter(report.get(), vtr_code_class_diff));

    EXPECT_THAT(Lines(report.get(), vtr_code_class_diff), ElementsAre("a row"));
}

TEST(ReportData, WhatIsNoChapterHoldsNothing)
{
    for (const int none : {-1, static_cast<int>(vtr_code_max), 1000}) {
        LogCapture log;
        const ReportPtr report(ReportData_New("SHA=00", REPORT_REQUEST_TYPE_DELTA));
        const CodeBookIndex chapter = static_cast<CodeBookIndex>(none);
        EXPECT_EQ(ReportData_GetChapter(report.get(), chapter), nullptr);
        EXPECT_FALSE(ReportData_AddChapter(report.get(), chapter));
        EXPECT_FALSE(ReportData_AddToChapter(report.get(), chapter, "a row"));
        EXPECT_EQ(MapSize(report->map), 0U);
        EXPECT_THAT(log.lines,
                    ElementsAre(Pair(LOG_LEVEL_DEBUG, "Could not get chapter after adding it!(ReportData)")));
    }
}

TEST(ReportData, LinesAreCopied)
{
    const ReportPtr report(ReportData_New("SHA=00", REPORT_REQUEST_TYPE_DELTA));
    std::string line = "before";

    EXPECT_TRUE(ReportData_AddToChapter(report.get(), vtr_code_fdiff, line.c_str()));
    line = "after";

    EXPECT_THAT(Lines(report.get(), vtr_code_fdiff), ElementsAre("before"));
}

TEST(ReportData, MoreLinesThanAChapterStartsWithAreKeptInOrder)
{
    const ReportPtr report = StartedDelta();
    EXPECT_TRUE(ReportData_AddNext(report.get(), "CLD"));
    for (int i = 0; i < 5000; ++i) { EXPECT_TRUE(ReportData_AddNext(report.get(), std::to_string(10000 + i).c_str())); }

    const std::vector<std::string> lines = Lines(report.get(), vtr_code_class_diff);
    ASSERT_EQ(lines.size(), 5000U);
    for (int i = 0; i < 5000; ++i) { EXPECT_EQ(lines[static_cast<size_t>(i)], std::to_string(10000 + i)); }
}

}  // namespace
