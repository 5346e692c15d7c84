#include "libvtenterprise/synthetic_reports.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/owned.h>

#include "libvtenterprise/report_data.h"
#include "tests/support/golden.h"
#include "tests/support/log_capture.h"
#include "tests/support/texts.h"

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using veltrane::SeqPtr;
using ReportPtr = std::unique_ptr<ReportData, veltrane::Destroyer<ReportData_Destroy>>;

std::string StreamOf(const SeqPtr &lines)
{
    std::string stream;
    for (const std::string &line : SeqTexts(lines.get())) { stream += line + '\n'; }
    return stream;
}

// A reply read as a hub reads it.
ReportPtr ReadBack(const SeqPtr &lines, ReportRequestType type)
{
    LogCapture log;
    ReportPtr report(ReportData_Start("SHA=00", type));
    for (const std::string &line : SeqTexts(lines.get())) {
        EXPECT_TRUE(ReportData_AddNext(report.get(), line.c_str())) << line;
    }
    EXPECT_TRUE(ReportData_Stop(report.get()));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());
    return report;
}

void ExpectOneRowInEachChapter(const ReportData *report)
{
    for (const CodeBookIndex chapter :
         {vtr_code_class_diff, vtr_code_variable_diff, vtr_code_last_seen_diff, vtr_code_software_diff,
          vtr_code_execution_log_diff, vtr_code_execution_status}) {
        EXPECT_THAT(SeqTexts(ReportData_GetChapter(report, chapter)), SizeIs(1)) << VT_CODEBOOK[chapter];
    }
}

}  // namespace

TEST(SyntheticReports, TheDeltaIsTheGoldenStream)
{
    ExpectGolden("stream/test-delta.stream", StreamOf(SeqPtr(Reports_PackTestDelta("1513576541"))));
}

TEST(SyntheticReports, TheRebaseIsTheGoldenStream)
{
    ExpectGolden("stream/test-rebase.stream", StreamOf(SeqPtr(Reports_PackTestRebase("1513276541"))));
}

TEST(SyntheticReports, TheTimeTextStandsInTheHeaderAndEveryRowButThatOfTheLastRun)
{
    for (Seq *(*pack)(const char *) noexcept : {Reports_PackTestDelta, Reports_PackTestRebase}) {
        const Texts lines = SeqTexts(SeqPtr(pack("7")).get());
        ASSERT_THAT(lines, SizeIs(13));
        EXPECT_EQ(lines[0].rfind("VTR: 0 7 ", 0), 0U) << lines[0];
        for (size_t row = 2; row < 12; row += 2) { EXPECT_EQ(lines[row].rfind("7,", 0), 0U) << lines[row]; }
        EXPECT_EQ(lines[12].rfind("t,281,", 0), 0U) << lines[12];
    }
}

TEST(SyntheticReports, TheHeaderTellsTheLengthOfAllLinesAfterIt)
{
    for (Seq *(*pack)(const char *) noexcept : {Reports_PackTestDelta, Reports_PackTestRebase}) {
        const Texts lines = SeqTexts(SeqPtr(pack("1513576541")).get());
        size_t length = 0;
        for (size_t i = 1; i < lines.size(); ++i) { length += lines[i].size(); }
        EXPECT_EQ(lines[0], "VTR: 0 1513576541 " + std::to_string(length));
    }
}

TEST(SyntheticReports, TheDeltaReadsBackWithTheTimeOfItsLastRun)
{
    const ReportPtr report = ReadBack(SeqPtr(Reports_PackTestDelta("1513576541")), REPORT_REQUEST_TYPE_DELTA);

    EXPECT_EQ(report->last_exec_timestamp, 1513575478);
    EXPECT_EQ(report->response_timestamp, 1513576541);
    EXPECT_TRUE(report->has_diffs);
    ExpectOneRowInEachChapter(report.get());
}

TEST(SyntheticReports, TheRebaseReadsBackWithTheTimeOfItsLastRun)
{
    const ReportPtr report = ReadBack(SeqPtr(Reports_PackTestRebase("1513276541")), REPORT_REQUEST_TYPE_REBASE);

    EXPECT_EQ(report->last_exec_timestamp, 1513275477);
    EXPECT_EQ(report->response_timestamp, 1513276541);
    ExpectOneRowInEachChapter(report.get());
}
