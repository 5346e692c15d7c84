#include "libvtserverd/report_dump.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>

#include "tests/support/log_capture.h"
#include "tests/support/work_dir.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::StartsWith;

// The query delta, from 10 to 20, at 30, asked at 25.
const ReportDumpSubject kSubject = {"delta", 30, 10, 20, 25};

class ReportDumps : public ::testing::Test {
  protected:
    WorkDirectory work_;
};

TEST_F(ReportDumps, ArePrivateInDirectoriesMadeForThem)
{
    std::filesystem::remove_all(work_.path / "diagnostics");
    LogCapture log;

    EXPECT_TRUE(ReportDump(kSubject).IsOpen());

    const std::filesystem::path directory = work_.path / "diagnostics" / "report_dumps";
    struct stat sb;
    ASSERT_EQ(stat((directory / "30_20_10_delta").c_str(), &sb), 0);
    EXPECT_EQ(sb.st_mode & 07777, 0600U);
    for (const std::filesystem::path &made : {directory, directory.parent_path()}) {
        ASSERT_EQ(stat(made.c_str(), &sb), 0);
        EXPECT_EQ(sb.st_mode & 07777, 0700U);
    }
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Will dump report to file: '" +
                                                                   (directory / "30_20_10_delta").string() + "'")));
}

TEST_F(ReportDumps, ThatCannotBeOpenedAreAnErrorAndNoDump)
{
    std::filesystem::remove_all(work_.path / "diagnostics");
    WriteFile(work_.path / "diagnostics", "in the way");
    LogCapture log;

    ReportDump dump(kSubject);

    EXPECT_FALSE(dump.IsOpen());
    EXPECT_THAT(
        log.lines,
        ElementsAre(Pair(LOG_LEVEL_ERR, "Couldn't open report dump file: '" +
                                            (work_.path / "diagnostics/report_dumps/30_20_10_delta").string() + "'")));
    dump.WriteFailedLine(0, "goes nowhere");
    dump.WriteComplete();
}

TEST_F(ReportDumps, AreNotMadeForAQueryWordWithASlash)
{
    LogCapture log;
    std::filesystem::create_directories(work_.path / "diagnostics" / "report_dumps" / "30_20_10_..");

    EXPECT_FALSE(ReportDump({"../../../inputs/x", 30, 10, 20, 25}).IsOpen());
    EXPECT_FALSE(ReportDump({"../x", 30, 10, 20, 25}).IsOpen());

    EXPECT_EQ(log.lines.size(), 2U);
    EXPECT_THAT(log.lines, Each(Pair(LOG_LEVEL_ERR, StartsWith("Couldn't open report dump file: '"))));
    EXPECT_FALSE(std::filesystem::exists(work_.path / "diagnostics" / "report_dumps" / "x"));
}

TEST_F(ReportDumps, HoldEverythingThatBecameOfAReply)
{
    const veltrane::SeqPtr lines(SeqNew(3, free));
    for (const char *line : {"VTR: 1 2 3", "CLD", "a row"}) { SeqAppend(lines.get(), xstrdup(line)); }
    SeqAppend(lines.get(), nullptr);
    {
        ReportDump dump(kSubject);
        dump.WriteLines(lines.get());
        dump.WriteFailedLine(2, "a row");
        dump.WriteComplete();
        errno = EPIPE;
        dump.WriteCompleteFailure();
    }

    EXPECT_EQ(ReadFile(work_.path / "diagnostics" / "report_dumps" / "30_20_10_delta"),
              "# delta from 10 to 25 at 30\nVTR: 1 2 3\nCLD\na row\n# Failed send on report line 2:\n# a row\n"
              "# send QUERY complete successful\n# send QUERY complete failure: Broken pipe\n");
}

}  // namespace
