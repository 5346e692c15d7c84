#include "libvtenterprise/datapack_file_changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <veltrane/errors.h>
#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/texts.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using veltrane::SeqPtr;

namespace {

constexpr time_t kFrom = 1700000000;
constexpr size_t kPiece = 4023;  // bytes of a line that are read at once

class DatapackFileChanges : public testing::Test {
  protected:
    void WriteLog(const std::string &bytes) const { WriteFile(work_.State("file_changes.log"), bytes); }

    static Texts Pack(time_t from = kFrom)
    {
        const SeqPtr reply(SeqNew(10, free));
        PackFileChanges(reply.get(), from);
        return SeqTexts(reply.get());
    }

    const WorkDirectory work_;
};

TEST_F(DatapackFileChanges, ChangesLaterThanTheStartAreSentNewestFirst)
{
    LogCapture log;
    WriteLog("1699999999,/a,M,before\n1700000000,/b,M,at the start\n1700000001,/c,A,first\n1700000005,/d,D,second\n");

    EXPECT_THAT(Pack(), ElementsAre("CNG", "1700000005,/d,D,second", "1700000001,/c,A,first"));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing file change data")));
}

TEST_F(DatapackFileChanges, WithoutALaterChangeThereIsNoChapter)
{
    WriteLog("1700000000,/b,M,at the start\n");
    EXPECT_THAT(Pack(), IsEmpty());

    WriteLog("");
    EXPECT_THAT(Pack(), IsEmpty());
}

TEST_F(DatapackFileChanges, WithoutALogThereIsNoChapter)
{
    LogCapture log;

    EXPECT_THAT(Pack(), IsEmpty());

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing file change data"),
                                       Pair(LOG_LEVEL_INFO, "Cannot open the source log '" +
                                                                work_.State("file_changes.log").string() +
                                                                "'. (fopen: No such file or directory)")));
}

TEST_F(DatapackFileChanges, ALogThatIsALinkIsReadWhenItIsOurs)
{
    WriteFile(work_.State("elsewhere"), "1700000001,/c,A,x\n");
    std::filesystem::create_symlink("elsewhere", work_.State("file_changes.log"));

    EXPECT_THAT(Pack(), ElementsAre("CNG", "1700000001,/c,A,x"));
}

TEST_F(DatapackFileChanges, ALinkOfAnotherUserIsNotFollowed)
{
    if (geteuid() == 0) {  // nobody else can make such a link
        LogCapture log;
        WriteFile(work_.State("elsewhere"), "1700000001,/c,A,x\n");
        const std::filesystem::path link = work_.State("file_changes.log");
        std::filesystem::create_symlink("elsewhere", link);
        ASSERT_EQ(lchown(link.c_str(), 65534, 65534), 0);

        EXPECT_THAT(Pack(), IsEmpty());

        errno = ENOLINK;
        EXPECT_TRUE(log.Has(LOG_LEVEL_INFO,
                            "Cannot open the source log '" + link.string() + "'. (fopen: " + GetErrorStr() + ")"));
    }
}

TEST_F(DatapackFileChanges, ADirectoryInItsPlaceHoldsNoChanges)
{
    std::filesystem::create_directory(work_.State("file_changes.log"));

    EXPECT_THAT(Pack(), IsEmpty());
}

TEST_F(DatapackFileChanges, ALineWithoutATimeIsNotSent)
{
    WriteLog("/etc/motd,M,x\n,1700000001,/c\n\n\r\nx1700000001,/c,A,x\n-1700000001,/c,A,x\n");

    EXPECT_THAT(Pack(), IsEmpty());
    EXPECT_THAT(Pack(0), IsEmpty());
}

TEST_F(DatapackFileChanges, ATimeMayHaveBlanksBeforeItAndBeAnyNumber)
{
    WriteLog("  1700000001,/c,A,x\n99999999999999999999999,/d,A,x\n");

    EXPECT_THAT(Pack(), ElementsAre("CNG", "99999999999999999999999,/d,A,x", "  1700000001,/c,A,x"));
}

TEST_F(DatapackFileChanges, EmptyLinesAreLeftOutEvenWhenTheirTimeWouldDo)
{
    WriteLog("\n1,/a,A,x\n\n");

    EXPECT_THAT(Pack(-1), ElementsAre("CNG", "1,/a,A,x"));
}

TEST_F(DatapackFileChanges, ALastLineWithoutItsEndIsSent)
{
    WriteLog("1700000001,/c,A,x\n1700000002,/d,A,y");

    EXPECT_THAT(Pack(), ElementsAre("CNG", "1700000002,/d,A,y", "1700000001,/c,A,x"));
}

TEST_F(DatapackFileChanges, AWeekOfChangesAndOneMoreAreSentAndNoOlderOnes)
{
    std::string log;
    for (int i = 1; i <= 3000; ++i) { log += std::to_string(kFrom + i) + ",/a,M,x\n"; }
    WriteLog(log);

    const Texts lines = Pack();

    ASSERT_THAT(lines, SizeIs(1 + 2017));
    EXPECT_EQ(lines[1], std::to_string(kFrom + 3000) + ",/a,M,x");
    EXPECT_EQ(lines[2017], std::to_string(kFrom + 984) + ",/a,M,x");
}

TEST_F(DatapackFileChanges, EmptyLinesDoNotCountAgainstTheMost)
{
    std::string log;
    for (int i = 1; i <= 2017; ++i) { log += std::to_string(i) + ",/a,M,x\n\n"; }
    WriteLog(log);

    EXPECT_THAT(Pack(-1), SizeIs(1 + 2017));
}

TEST_F(DatapackFileChanges, ALongLineArrivesInPiecesOfWhichOnlyThoseWithATimeAreSent)
{
    const std::string first = "1700000001,/c,A," + std::string(kPiece - 16, 'x');
    ASSERT_EQ(first.size(), kPiece);
    WriteLog(first + "rest without a time\n1700000002,/d,A,y\n" + first + "1700000003 looks like a change\n");

    EXPECT_THAT(Pack(), ElementsAre("CNG", "1700000003 looks like a change", first, "1700000002,/d,A,y", first));
}

TEST_F(DatapackFileChanges, ALineThatJustFitsIsWhole)
{
    const std::string line = "1700000001,/c,A," + std::string(kPiece - 17, 'x');
    WriteLog(line + "\n1700000002,/d,A,y\n");

    EXPECT_THAT(Pack(), ElementsAre("CNG", "1700000002,/d,A,y", line));
}

TEST_F(DatapackFileChanges, AZeroByteEndsTheTextOfItsLine)
{
    WriteLog(std::string("1700000001,/c,A,x\0y\n", 20) + "1700000002,/d,A,y\n");

    EXPECT_THAT(Pack(), ElementsAre("CNG", "1700000002,/d,A,y", "1700000001,/c,A,x"));
}

}  // namespace
