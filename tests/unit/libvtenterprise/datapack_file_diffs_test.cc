// The chapter of file differences: what of the change log becomes a row, how it is cut, and what is skipped.
#include "libvtenterprise/datapack_file_diffs.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/record_text.h"
#include "support/texts.h"
#include "support/work_dir.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::SeqPtr;
using FileDiffPtr = std::unique_ptr<HubFileDiffSerialized, veltrane::Destroyer<HubFileDiffSerializedDelete>>;

constexpr char kPacking[] = "Packing file diff data";
const std::string kBell = "\a";

class FileDiffs : public testing::Test {
  protected:
    // What the log leads to for everything after `from`.
    Texts Pack(const std::string &log_bytes, time_t from = 0)
    {
        WriteFile(Path(), log_bytes);
        const SeqPtr reply(SeqNew(1, free));
        Vesk_PackDiffs(reply.get(), from);
        return SeqTexts(reply.get());
    }

    // The difference text of the one row that the log leads to.
    std::string Difference(const std::string &log_bytes)
    {
        const Texts lines = Pack(log_bytes);
        EXPECT_EQ(lines.size(), 2u);
        const FileDiffPtr row(lines.size() == 2 ? HubFileDiffSerializedFromCSV(lines[1].c_str()) : nullptr);
        return row != nullptr ? Lent(row->diff) : "(no row)";
    }

    std::string Path() const { return work_.State("vesk_diff.log"); }

    WorkDirectory work_;
    LogCapture log_;
};

// A change at a time with these lines.
std::string Entry(long t, const std::string &lines, const std::string &file = "/etc/motd")
{
    return "CHANGE " + file + "\n" + std::to_string(t) +
           ";File changed size from 1 to 2, first difference at byte position 1/1 of old\n" + lines + "END\n";
}

std::string OneLine(const std::string &text) { return Entry(5, "+,1," + text + "\n"); }

}  // namespace

// --- Which changes are sent ------------------------------------------------------------------------------------------

TEST_F(FileDiffs, TheGoldenLogIsTheGoldenChapter)
{
    const std::string log = GoldenBytes("state/vesk_diff.log");
    ASSERT_FALSE(log.empty());
    std::string chapter;
    for (const std::string &line : Pack(log)) { chapter += line + "\n"; }
    ExpectGolden("stream/file-differences.chapter", chapter);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, kPacking)));
}

TEST_F(FileDiffs, AChangeIsOneTerminatedRecordForEveryPeer)
{
    EXPECT_THAT(Pack("CHANGE /etc/motd\npromise handle: watch\n1700000000;File changed\n-,1,old\n+,1,new\nEND\n"),
                ElementsAre("CND", "1700000000,/etc/motd,watch,\"-,1,old\a+,1,new\"\r\n"));
}

TEST_F(FileDiffs, AChangeWithoutAHandleHasAnEmptyOne)
{
    EXPECT_THAT(Pack(OneLine("x")), ElementsAre("CND", "5,/etc/motd,,\"+,1,x\"\r\n"));
}

TEST_F(FileDiffs, AChangeAtTheVeryTimeIsNotSent)
{
    const std::string log = Entry(100, "+,1,a\n") + Entry(101, "+,1,b\n");
    EXPECT_THAT(Pack(log, 100), ElementsAre("CND", "101,/etc/motd,,\"+,1,b\"\r\n"));
    EXPECT_THAT(Pack(log, 101), IsEmpty());
}

TEST_F(FileDiffs, TheLastOfTheLogComesFirst)
{
    EXPECT_THAT(Pack(Entry(7, "+,1,a\n", "/a") + Entry(6, "+,1,b\n", "/b") + Entry(8, "+,1,c\n", "/c")),
                ElementsAre("CND", "8,/c,,\"+,1,c\"\r\n", "6,/b,,\"+,1,b\"\r\n", "7,/a,,\"+,1,a\"\r\n"));
}

TEST_F(FileDiffs, AChangeWithoutLinesIsNoRow)
{
    EXPECT_THAT(Pack(Entry(5, "")), IsEmpty());
    EXPECT_THAT(Pack(Entry(5, "") + Entry(6, "+,1,a\n")), ElementsAre("CND", "6,/etc/motd,,\"+,1,a\"\r\n"));
}

TEST_F(FileDiffs, LinesOutsideOfAChangeAreIgnored)
{
    EXPECT_THAT(Pack("+,1,stray\nEND\nrubbish\n" + OneLine("x") + "+,9,behind\n"),
                ElementsAre("CND", "5,/etc/motd,,\"+,1,x\"\r\n"));
}

TEST_F(FileDiffs, ALogThatIsMissingLeavesTheChapterOut)
{
    const SeqPtr reply(SeqNew(1, free));
    Vesk_PackDiffs(reply.get(), 0);
    EXPECT_EQ(SeqLength(reply.get()), 0u);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, kPacking),
                                        Pair(LOG_LEVEL_INFO, "Cannot open the source log '" + Path() +
                                                                 "'. (fopen: No such file or directory)")));
}

TEST_F(FileDiffs, ALogThatCannotBeReadLeavesTheChapterOut)
{
    std::filesystem::create_directory(Path());
    const SeqPtr reply(SeqNew(1, free));
    Vesk_PackDiffs(reply.get(), 0);
    EXPECT_EQ(SeqLength(reply.get()), 0u);
}

TEST_F(FileDiffs, AnEmptyLogLeavesTheChapterOut) { EXPECT_THAT(Pack(""), IsEmpty()); }

TEST_F(FileDiffs, WhatStandsInTheReplyAlreadyStays)
{
    WriteFile(Path(), OneLine("x"));
    const SeqPtr reply(SeqNew(1, free));
    SeqAppend(reply.get(), xstrdup("before"));
    Vesk_PackDiffs(reply.get(), 0);
    EXPECT_THAT(SeqTexts(reply.get()), ElementsAre("before", "CND", "5,/etc/motd,,\"+,1,x\"\r\n"));
}

// --- Damaged heads ---------------------------------------------------------------------------------------------------

TEST_F(FileDiffs, ATimeThatCannotBeReadCountsAsZero)
{
    EXPECT_THAT(Pack("CHANGE /a\nyesterday;x\n+,1,a\nEND\n" + OneLine("x")),
                ElementsAre("CND", "5,/etc/motd,,\"+,1,x\"\r\n"));
}

TEST_F(FileDiffs, AnEndInThePlaceOfTheTimeIsAChangeOfNothing)
{
    // As the writer leaves it when it could not read the old file.
    EXPECT_THAT(Pack("CHANGE /a\nEND\n" + OneLine("x")), ElementsAre("CND", "5,/etc/motd,,\"+,1,x\"\r\n"));
    EXPECT_THAT(Pack("CHANGE /a\npromise handle: h\nEND\n" + OneLine("x"), -1),
                ElementsAre("CND", "5,/etc/motd,,\"+,1,x\"\r\n"));
}

TEST_F(FileDiffs, AChangeWithoutAFileNameHasAnEmptyOne)
{
    EXPECT_THAT(Pack("CHANGE\n5;x\n+,1,a\nEND\n"), ElementsAre("CND", "5,,,\"+,1,a\"\r\n"));
    EXPECT_THAT(Pack("CHANGE /a\npromise handle:\n5;x\n+,1,a\nEND\n"), ElementsAre("CND", "5,/a,,\"+,1,a\"\r\n"));
}

TEST_F(FileDiffs, ATimeBeyondTheRangeIsTheLatestThereIs)
{
    EXPECT_THAT(Pack("CHANGE /a\n99999999999999999999;x\n+,1,a\nEND\n"),
                ElementsAre("CND", "9223372036854775807,/a,,\"+,1,a\"\r\n"));
}

TEST_F(FileDiffs, ALogCutAnywhereGivesWhatIsThere)
{
    const std::string log = "CHANGE /a\npromise handle: h\n5;x\n-,1,one\n+,1,two\nEND\n";
    const size_t first_line = log.find("-,1,");
    for (size_t length = 0; length <= log.size(); length++) {
        const Texts lines = Pack(log.substr(0, length));
        SCOPED_TRACE(length);
        if (length <= first_line) {
            EXPECT_THAT(lines, IsEmpty());
            continue;
        }
        ASSERT_EQ(lines.size(), 2u);
        const FileDiffPtr row(HubFileDiffSerializedFromCSV(lines[1].c_str()));
        ASSERT_NE(row, nullptr);
        EXPECT_EQ(row->t, 5);
        EXPECT_STREQ(row->filename, "/a");
        EXPECT_STREQ(row->hanlde, "h");
        const size_t end = log.size() - std::string("END\n").size();
        if (length == end || length >= end + 3) {
            EXPECT_STREQ(row->diff, "-,1,one\a+,1,two");
        }
    }
}

// --- The difference text ---------------------------------------------------------------------------------------------

TEST_F(FileDiffs, LinesAreSeparatedByABell)
{
    EXPECT_EQ(Difference(Entry(5, "-,1,a\n-,2,b\n+,1,c\n")), "-,1,a" + kBell + "-,2,b" + kBell + "+,1,c");
}

TEST_F(FileDiffs, ATabIsWrittenOut) { EXPECT_EQ(Difference(OneLine("a\tb\t")), "+,1,a(TAB)b(TAB)"); }

TEST_F(FileDiffs, CommasAndQuotesAreTextOfTheLine) { EXPECT_EQ(Difference(OneLine("a,\"b\",c")), "+,1,a,\"b\",c"); }

TEST_F(FileDiffs, ACarriageReturnTravels) { EXPECT_EQ(Difference(OneLine("a\r")), "+,1,a\r"); }

TEST_F(FileDiffs, FieldsThatAreNotThereAreEmpty)
{
    EXPECT_EQ(Difference(Entry(5, "+\n")), "+,,");
    EXPECT_EQ(Difference(Entry(5, "+,\n")), "+,\n,") << "what is no line number is taken for one";
    EXPECT_EQ(Difference(Entry(5, "+,1,\n")), "+,1,");
    EXPECT_EQ(Difference(Entry(5, "rubbish\n")), "r,,");
}

TEST_F(FileDiffs, ANumberOfMoreThan64CharactersTakesTheTextWithIt)
{
    const std::string number(64, '7');
    EXPECT_EQ(Difference(Entry(5, "+," + number + ",a\n")), "+," + number + ",a");
    EXPECT_EQ(Difference(Entry(5, "+," + number + "7,a\n")), "+," + number + ",");
}

TEST_F(FileDiffs, ATextIsCutAfter1024Characters)
{
    const std::string text(1024, 'x');
    EXPECT_EQ(Difference(OneLine(text)), "+,1," + text);
    EXPECT_EQ(Difference(OneLine(text + "y")), "+,1," + text);
}

TEST_F(FileDiffs, ALineThatBeginsWithAZeroByteIsSkippedWithAnError)
{
    std::string lines = "+,1,a\n?\n+,2,b\n";
    lines[lines.find('?')] = '\0';
    errno = 0;
    EXPECT_EQ(Difference(Entry(5, lines)), "+,1,a" + kBell + "+,2,b");
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_ERR),
                ElementsAre(Pair(LOG_LEVEL_ERR, testing::StartsWith("Failed to scan line (sscanf: "))));
}

TEST_F(FileDiffs, ALineLongerThanTheBufferIsReadInPieces)
{
    // The buffer takes 4094 bytes of a line: what follows is read like the next line, and finds no room.
    const std::string text(4090, 'x');
    EXPECT_EQ(Difference(OneLine(text + "yz")), "+,1," + text.substr(0, 1024) + kBell + "y,,(TRUNCATED)");
}

TEST_F(FileDiffs, OnlyTabsToTheLimitButOneAreWrittenOut)
{
    std::string written_out;
    for (int i = 0; i < 1023; i++) { written_out += "(TAB)"; }
    WriteFile(Path(), OneLine(std::string(1023, '\t')));
    const SeqPtr reply(SeqNew(1, free));
    Vesk_PackDiffs(reply.get(), 0);
    EXPECT_THAT(SeqTexts(reply.get()), ElementsAre("CND")) << "and then the row cannot travel";
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_WARNING),
                ElementsAre(Pair(
                    LOG_LEVEL_WARNING,
                    "file difference report entry exceeds network limit and will be skipped from "
                    "reporting to hub (size: " +
                        std::to_string(std::string("5,/etc/motd,,\"+,1,\"\r\n").size() + written_out.size()) + ")")));
}

using FileDiffsDeathTest = FileDiffs;

TEST_F(FileDiffsDeathTest, ALineOf1024TabsIsAnInternalError)
{
    WriteFile(Path(), OneLine(std::string(1024, '\t')));
    const SeqPtr reply(SeqNew(1, free));
    EXPECT_DEATH(Vesk_PackDiffs(reply.get(), 0),
                 "programming error: Buffer overflow with StringReplace at line 3 in file .*/vesk_diff.log\\.");
}

// --- The limit -------------------------------------------------------------------------------------------------------

TEST_F(FileDiffs, ADifferenceIsTakenUpToItsLimitAndThenSaysThatItIsCut)
{
    // File name, first line and separator fill 1023 characters: one more line is taken, and no further one.
    const std::string file = "/etc/motd";
    const std::string fills(1023 - file.size() - std::string("+,1,").size() - kBell.size(), 'x');
    EXPECT_EQ(Difference(Entry(5, "+,1," + fills + "\n+,2,b\n", file)), "+,1," + fills + kBell + "+,2,b");
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_INFO), IsEmpty());

    EXPECT_EQ(Difference(Entry(5, "+,1," + fills + "x\n-,2,b\n+,3,c\n", file)),
              "+,1," + fills + "x" + kBell + "-,2,(TRUNCATED)");
    EXPECT_THAT(
        log_.UpTo(LOG_LEVEL_INFO),
        ElementsAre(Pair(LOG_LEVEL_INFO, "!! Diff of file \"/etc/motd\" is too large be transmitted - truncating")));
}

TEST_F(FileDiffs, AFileNameThatFillsTheLimitLeavesNoRoomForALine)
{
    const std::string file = "/" + std::string(1023, 'n');
    EXPECT_EQ(Difference(Entry(5, "+,1,a\n+,2,b\n", file)), "+,1,(TRUNCATED)");
    EXPECT_EQ(Difference(Entry(5, "+,1,a\n+,2,b\n", file.substr(0, 1023))), "+,1,a" + kBell + "+,2,(TRUNCATED)");
}

TEST_F(FileDiffs, WhatFollowsACutDifferenceIsReadOn)
{
    const std::string text(1024, 'x');
    const Texts lines = Pack(Entry(5, "+,1," + text + "\n+,2,b\n+,3,c\n+,4,d\n") + Entry(6, "+,1,a\n", "/b"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "6,/b,,\"+,1,a\"\r\n");
    EXPECT_EQ(lines[2], "5,/etc/motd,,\"+,1," + text + "\a+,2,(TRUNCATED)\"\r\n");
}

TEST_F(FileDiffs, ARowThatCannotTravelIsLeftOutAndTheOthersStay)
{
    const std::string file(4000, 'n');
    EXPECT_THAT(Pack(Entry(5, "+,1," + std::string(100, 'x') + "\n+,2,b\n", file) + Entry(6, "+,1,a\n")),
                ElementsAre("CND", "6,/etc/motd,,\"+,1,a\"\r\n", "5," + file + ",,\"+,1,(TRUNCATED)\"\r\n"));
    EXPECT_THAT(Pack(Entry(5, "+,1,a\n", std::string(4080, 'n')) + Entry(6, "+,1,a\n")),
                ElementsAre("CND", "6,/etc/motd,,\"+,1,a\"\r\n"));
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_WARNING),
                ElementsAre(Pair(LOG_LEVEL_WARNING,
                                 "file difference report entry exceeds network limit and will be skipped from "
                                 "reporting to hub (size: 4103)")));
}
