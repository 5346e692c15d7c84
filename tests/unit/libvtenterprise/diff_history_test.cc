#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "libvtenterprise/diff_engine.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/section_probe.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::SeqPtr;

namespace {

constexpr const char *kSection = "DIFF_CRITICAL_SECTION";
constexpr const char *kFourRows = "99,1,a,\r\n100,1,b,\r\n199,2,c,x\r\n200,3,d,\"x,y\"\r\n";

// --- DiffReportGet ---

TEST(DiffReportGet, KeepsTheRowsFromTheFirstTimeToBeforeTheLast)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), kFourRows);
    LogCapture log;

    const SeqPtr rows(DiffReportGet(report_type_classes, 100, 200));

    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("100,1,b,", "199,2,c,x"));
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGet, MinusOneLeavesTheEndOpen)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), kFourRows);
    const SeqPtr rows(DiffReportGet(report_type_classes, 100, -1));
    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("100,1,b,", "199,2,c,x", "200,3,d,\"x,y\""));
}

TEST(DiffReportGet, RowsComeInTheOrderOfTheFileAndWithoutAReportType)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "300,1,z,\r\n100,1,b,\r\n200,4,a,\r\n");

    const SeqPtr rows(DiffReportGet(report_type_classes, 0, -1));

    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("300,1,z,", "100,1,b,", "200,4,a,"));
    EXPECT_EQ(static_cast<DiffRow *>(SeqAt(rows.get(), 0))->type, report_type_max);
}

TEST(DiffReportGet, EachTypeHasItsOwnFile)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work, "software"), "100,1,bash,5.2,amd64\r\n");
    WriteFile(DiffPath(work, "patch"), "100,1,zlib,1.3,amd64,0\r\n");

    const SeqPtr software(DiffReportGet(report_type_software, 0, -1));
    const SeqPtr patches(DiffReportGet(report_type_software_patch, 0, -1));

    ASSERT_NE(software, nullptr);
    ASSERT_NE(patches, nullptr);
    EXPECT_THAT(RowTexts(software.get(), report_type_software), ElementsAre("100,1,bash,5.2,amd64"));
    EXPECT_THAT(RowTexts(patches.get(), report_type_software_patch), ElementsAre("100,1,zlib,1.3,amd64,0"));
}

TEST(DiffReportGet, AMissingFileGivesNoRows)
{
    const WorkDirectory work;
    LogCapture log;

    EXPECT_EQ(DiffReportGet(report_type_lastseen, 0, -1), nullptr);

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                            "Could not read diff: '" + DiffPath(work, "lastseen").string() + "'")));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGet, WhatOpensButCannotBeReadGivesNoRows)
{
    const WorkDirectory work;
    std::filesystem::create_directory(DiffPath(work));
    LogCapture log;

    EXPECT_EQ(DiffReportGet(report_type_classes, 0, -1), nullptr);

    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read diff: '" + DiffPath(work).string() + "'")));
}

TEST(DiffReportGet, AnEmptyFileGivesAnEmptySequence)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "");
    const SeqPtr rows(DiffReportGet(report_type_classes, 0, -1));
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(SeqLength(rows.get()), 0u);
}

TEST(DiffReportGet, ACorruptRowIsReportedOnceAndTheRowsAfterItCount)
{
    const WorkDirectory work;
    const std::string path = DiffPath(work);
    for (const std::string bad :
         {"100,1,b\"ad\",", "100,1", "100,0,kind,", "100,5,kind,", "100,-1,kind,", "12x,1,time,", "100,1,a,b,c", ""}) {
        WriteFile(path, "100,1,a,\r\n" + bad + "\r\n101,1,z,\r\n");
        LogCapture log;

        const SeqPtr rows(DiffReportGet(report_type_classes, 0, -1));

        ASSERT_NE(rows, nullptr);
        EXPECT_THAT(RowTexts(rows.get()), ElementsAre("100,1,a,", "101,1,z,")) << bad;
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                                "Failed to parse csv file entry ('" + path + "'): '" + bad + "'")));
    }
}

TEST(DiffReportGet, ACorruptRowOutsideTheWindowIsReportedToo)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "1,1\r\n100,1,a,\r\n");
    LogCapture log;
    const SeqPtr rows(DiffReportGet(report_type_classes, 100, 101));
    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("100,1,a,"));
    EXPECT_EQ(log.UpTo(LOG_LEVEL_WARNING).size(), 1u);
}

TEST(DiffReportGet, AnOpenQuoteInTheMiddleSwallowsUpToTheNextQuoteOnce)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "100,1,a,\r\n101,1,\"torn,\r\n102,1,lost\"name,\r\n103,1,z,\r\n");
    LogCapture log;

    const SeqPtr rows(DiffReportGet(report_type_classes, 0, -1));

    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("100,1,a,", "103,1,z,"));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING, "Failed to parse csv file entry ('" + DiffPath(work).string() +
                                                        "'): '101,1,\"torn,\r\n102,1,lost\"name,'")));
}

TEST(DiffReportGet, AnOpenQuoteThatNothingPairsSwallowsTheRestOnce)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "100,1,a,\r\n101,1,\"torn,\r\n102,1,lost,\r\n103,1,\"lost,too\",\r\n104,1,z,\r\n");
    LogCapture log;

    const SeqPtr rows(DiffReportGet(report_type_classes, 0, -1));

    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("100,1,a,"));
    EXPECT_EQ(log.UpTo(LOG_LEVEL_WARNING).size(), 1u);
}

TEST(DiffReportGet, TheFileIsReadInsideTheSection)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "corrupt\r\n");
    bool held = false;
    {
        const LogAction action([&held](LogLevel, const std::string &) { held = IsSectionHeld(kSection); });
        const SeqPtr rows(DiffReportGet(report_type_classes, 0, -1));
    }
    EXPECT_TRUE(held);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGetWithSpecifier, ReadsAnyFileWithTheGivenOperations)
{
    const WorkDirectory work;
    const auto path = work.path / "elsewhere";
    WriteFile(path, "100,1,bash,5.2,amd64\r\n200,1,zlib,1.3,amd64\r\n");

    const SeqPtr rows(
        DiffReportGetWithSpecifier(150, 201, path.c_str(), HubSoftwareFromAttributeList, HubSoftwareDelete));

    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get(), report_type_software), ElementsAre("200,1,zlib,1.3,amd64"));
}

TEST(DiffReportGet, APathThatIsTooLongIsCut)
{
    const WorkDirectory work;
    const std::string deep = work.path.string() + "/" + std::string(5000, 'd');
    SetWorkDir(deep.c_str());
    LogCapture log;

    EXPECT_EQ(DiffReportGet(report_type_classes, 0, -1), nullptr);

    const std::string path = (deep + "/state/diff/classes.diff").substr(0, 4095);
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Could not read diff: '" + path + "'"));
}

// --- DiffReportGetBaseState ---

TEST(DiffReportGetBaseState, TheCacheBecomesAdditionsAndTheHistoryEnds)
{
    const WorkDirectory work;
    WriteFile(CachePath(work), "b,x\r\na,\r\n");
    WriteFile(DiffPath(work), kFourRows);
    LogCapture log;

    const SeqPtr rows(DiffReportGetBaseState(report_type_classes, 5000));

    ASSERT_NE(rows, nullptr);
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("5000,1,b,x", "5000,1,a,"));
    EXPECT_EQ(static_cast<DiffRow *>(SeqAt(rows.get(), 0))->type, report_type_classes);
    EXPECT_EQ(static_cast<DiffRow *>(SeqAt(rows.get(), 0))->DataDelete, &HubClassDelete);
    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
    EXPECT_EQ(ReadFile(CachePath(work)), "b,x\r\na,\r\n");
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGetBaseState, AnAbsentHistoryIsOnlyAWarning)
{
    const WorkDirectory work;
    WriteFile(CachePath(work), "a,\r\n");
    std::vector<std::pair<LogLevel, std::string>> lines;
    bool held = false;
    {
        const LogAction action([&](LogLevel level, const std::string &message) {
            lines.emplace_back(level, message);
            held = IsSectionHeld(kSection);
        });
        const SeqPtr rows(DiffReportGetBaseState(report_type_classes, 5000));
        ASSERT_NE(rows, nullptr);
        EXPECT_EQ(SeqLength(rows.get()), 1u);
    }

    EXPECT_THAT(lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                        "Diff history cleanup. File '" + DiffPath(work).string() + "' not found.")));
    EXPECT_TRUE(held);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGetBaseState, AHistoryThatCannotBeDeletedIsAnErrorAndTheRowsCome)
{
    const WorkDirectory work;
    WriteFile(CachePath(work), "a,\r\n");
    std::filesystem::create_directory(DiffPath(work));
    LogCapture log;

    const SeqPtr rows(DiffReportGetBaseState(report_type_classes, 5000));

    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(SeqLength(rows.get()), 1u);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Failed to remove file '" + DiffPath(work).string() +
                                                    "' during diff history cleanup (unlink: Is a directory)")));
}

TEST(DiffReportGetBaseState, WithoutACacheTheHistoryStays)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), kFourRows);
    LogCapture log;

    EXPECT_EQ(DiffReportGetBaseState(report_type_classes, 5000), nullptr);

    EXPECT_EQ(ReadFile(DiffPath(work)), kFourRows);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read cached state: '" + CachePath(work).string() + "'"),
                            Pair(LOG_LEVEL_VERBOSE, "Failed to access current state for report: 'classes'")));
}

TEST(DiffReportGetBaseState, AnEmptyCacheIsAnEmptyBaseState)
{
    const WorkDirectory work;
    WriteFile(CachePath(work), "");
    WriteFile(DiffPath(work), kFourRows);

    const SeqPtr rows(DiffReportGetBaseState(report_type_classes, 5000));

    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(SeqLength(rows.get()), 0u);
    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
}

// --- DiffReportRemoveOldEntries ---

const LogCapture::Line kStartLine(LOG_LEVEL_VERBOSE, "Remove old diff data for classes report (remove older than 199)");

TEST(DiffReportRemoveOldEntries, KeepsTheRowsFromTheThresholdOnInFileOrder)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "250,1,z,\r\n" + std::string(kFourRows));
    LogCapture log;

    DiffReportRemoveOldEntries(report_type_classes, 199);

    EXPECT_EQ(ReadFile(DiffPath(work)), "250,1,z,\r\n199,2,c,x\r\n200,3,d,\"x,y\"\r\n");
    EXPECT_THAT(log.lines, ElementsAre(kStartLine));
    struct stat st = {};
    ASSERT_EQ(stat(DiffPath(work).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportRemoveOldEntries, AFileOfOldRowsAloneIsDeleted)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "99,1,a,\r\n");
    LogCapture log;

    DiffReportRemoveOldEntries(report_type_classes, 199);

    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
    EXPECT_THAT(log.lines, ElementsAre(kStartLine));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportRemoveOldEntries, WithoutAFileNothingHappens)
{
    const WorkDirectory work;
    LogCapture log;

    DiffReportRemoveOldEntries(report_type_classes, 199);

    EXPECT_THAT(log.lines, ElementsAre(kStartLine, Pair(LOG_LEVEL_VERBOSE,
                                                        "Could not read diff: '" + DiffPath(work).string() + "'")));
    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
}

TEST(DiffReportRemoveOldEntries, AFileThatCannotBeRewrittenIsRemovedForSafety)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), kFourRows);
    std::filesystem::create_directory(DiffPath(work).string() + ".new");
    LogCapture log;

    DiffReportRemoveOldEntries(report_type_classes, 199);

    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
    EXPECT_THAT(log.lines,
                ElementsAre(kStartLine,
                            Pair(LOG_LEVEL_ERR, "Could not overwrite diff in the file: '" + DiffPath(work).string() +
                                                    "' during cleanup. Removing file for safety.")));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportRemoveOldEntries, AFullDiskNeverLeavesHalfAFile)
{
    const std::string kept = "199,2,c,x\r\n200,3,d,\"x,y\"\r\n";
    for (size_t bytes = 0; bytes <= kept.size(); bytes++) {
        const WorkDirectory work;
        WriteFile(DiffPath(work), kFourRows);
        LogCapture log;
        {
            const FileSizeLimit limit(bytes);
            DiffReportRemoveOldEntries(report_type_classes, 199);
        }

        const bool enough = bytes == kept.size();
        EXPECT_EQ(std::filesystem::exists(DiffPath(work)), enough) << bytes;
        EXPECT_EQ(ReadFile(DiffPath(work)), enough ? kept : "") << bytes;
        EXPECT_FALSE(std::filesystem::exists(DiffPath(work).string() + ".new")) << bytes;
        EXPECT_EQ(log.UpTo(LOG_LEVEL_ERR).size(), enough ? 0u : 1u) << bytes;
    }
}

TEST(DiffReportRemoveOldEntries, AFileThatCannotBeDeletedIsAnError)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), kFourRows);
    std::filesystem::create_directory(DiffPath(work).string() + ".new");
    std::vector<std::pair<LogLevel, std::string>> lines;
    bool held = false;
    {
        const LogAction action([&](LogLevel level, const std::string &message) {
            lines.emplace_back(level, message);
            if (lines.size() == 2) {  // somebody puts a directory in the file's place just now
                held = IsSectionHeld(kSection);
                std::filesystem::remove(DiffPath(work));
                std::filesystem::create_directory(DiffPath(work));
            }
        });
        DiffReportRemoveOldEntries(report_type_classes, 199);
    }

    EXPECT_THAT(
        lines, ElementsAre(
                   kStartLine,
                   Pair(LOG_LEVEL_ERR, "Could not overwrite diff in the file: '" + DiffPath(work).string() +
                                           "' during cleanup. Removing file for safety."),
                   Pair(LOG_LEVEL_ERR, "Failed to remove file '" + DiffPath(work).string() + "' during diff cleanup")));
    EXPECT_TRUE(held);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportRemoveOldEntries, ACorruptRowIsDroppedWithAWarning)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "corrupt\r\n200,1,a,\r\n");
    LogCapture log;

    DiffReportRemoveOldEntries(report_type_classes, 199);

    EXPECT_EQ(ReadFile(DiffPath(work)), "200,1,a,\r\n");
    EXPECT_TRUE(
        log.Has(LOG_LEVEL_WARNING, "Failed to parse csv file entry ('" + DiffPath(work).string() + "'): 'corrupt'"));
}

}  // namespace
