#include "libveltrane/log_limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <string>

#include <veltrane/critical_section.h>

#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::kLogLimit;
using veltrane::LimitLog;
using veltrane::LimitLogs;
using veltrane::RecordForm;
using veltrane::RepairLogTail;
using veltrane::RepairLogTails;
using veltrane::RotateLog;

namespace fs = std::filesystem;

class LogLimits : public testing::Test {
  protected:
    std::string Path(const std::string &name = "some.log") const { return work.State(name).string(); }

    // What is left of a log after its end was repaired.
    std::string Repaired(const std::string &bytes, RecordForm form)
    {
        WriteFile(Path(), bytes);
        EXPECT_TRUE(RepairLogTail(Path(), form)) << bytes;
        return ReadFile(Path());
    }

    // What is left of a log after its limit was held; "(none)" when it is gone.
    std::string Limited(const std::string &bytes, RecordForm form, off_t limit)
    {
        WriteFile(Path(), bytes);
        EXPECT_TRUE(LimitLog(Path(), form, limit)) << bytes;
        EXPECT_FALSE(fs::exists(Path() + ".new"));
        return fs::exists(Path()) ? ReadFile(Path()) : "(none)";
    }

    std::string Dropped(int bytes, int limit) const
    {
        return "Dropped the oldest " + std::to_string(bytes) + " bytes of '" + Path() + "': it may hold " +
               std::to_string(limit);
    }

    // Generations that are there, each with its bytes: "=newest .1=older ..."
    std::string Generations(const std::string &name) const
    {
        std::string all = fs::exists(Path(name)) ? "=" + ReadFile(Path(name)) : "";
        for (int number = 1; number <= 12; number++) {
            const std::string generation = "." + std::to_string(number);
            if (fs::exists(Path(name + generation))) {
                all += (all.empty() ? "" : " ") + generation + "=" + ReadFile(Path(name + generation));
            }
        }
        return all;
    }

    WorkDirectory work;
};

TEST_F(LogLimits, AnUnfinishedRecordIsCutOff)
{
    const struct {
        RecordForm form;
        const char *bytes;
        const char *whole;
    } table[] = {
        {RecordForm::kLine, "one\ntwo\nthr", "one\ntwo\n"},
        {RecordForm::kLine, "thr", ""},
        {RecordForm::kCrLfLine, "{1}\r\n{2", "{1}\r\n"},
        {RecordForm::kCrLfLine, "{1}\r\n{2}\r", "{1}\r\n"},
        {RecordForm::kCrLfLine, "{1}\r\n{2\n}\n", "{1}\r\n"},
        {RecordForm::kCsv, "a,b\r\nc,d", "a,b\r\n"},
        {RecordForm::kCsv, "a,b\r\nc,\"d\r\ne", "a,b\r\n"},
        {RecordForm::kCsv, "a,b\r\nc,\"d\r\n", "a,b\r\n"},
        {RecordForm::kEntry, "CHANGE x\nEND\nCHANGE y\n+,1,END\n", "CHANGE x\nEND\n"},
        {RecordForm::kEntry, "CHANGE x\nEND\nCHANGE y\nEN", "CHANGE x\nEND\n"},
        {RecordForm::kEntry, "CHANGE x\nEND\nEND of it\n", "CHANGE x\nEND\n"},
    };
    for (const auto &row : table) {
        LogCapture log;
        EXPECT_EQ(Repaired(row.bytes, row.form), row.whole) << row.bytes;
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                                "Cut off an unfinished record at the end of '" + Path() + "'")));
    }
}

TEST_F(LogLimits, AWholeFileIsLeftAloneWithoutAWord)
{
    const struct {
        RecordForm form;
        const char *bytes;
    } table[] = {
        {RecordForm::kLine, ""},
        {RecordForm::kLine, "\n"},
        {RecordForm::kLine, "one\ntwo\n"},
        {RecordForm::kCrLfLine, "{1}\r\n{\n}\r\n"},
        {RecordForm::kCsv, "a,\"b\r\n\"\r\nc\r\n"},
        {RecordForm::kCsv, "a,\"b \"\"quoted\"\"\"\n"},
        {RecordForm::kEntry, "END\n"},
        {RecordForm::kEntry, "CHANGE x\n-,1,END\nEND\n"},
    };
    LogCapture log;
    for (const auto &row : table) { EXPECT_EQ(Repaired(row.bytes, row.form), row.bytes); }
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(LogLimits, ARecordEndIsFoundWhereverThePiecesOfAFileMeet)
{
    // Files are read in pieces of 64 KiB: let each byte of a record's end be the first of the second piece.
    for (size_t length = 65530; length <= 65542; length++) {
        const std::string filling(length, 'x');
        EXPECT_EQ(Repaired(filling + "\r\ntorn", RecordForm::kCrLfLine), filling + "\r\n") << length;
        EXPECT_EQ(Repaired("\"" + filling + "\r\n\"\r\ntorn", RecordForm::kCsv), "\"" + filling + "\r\n\"\r\n")
            << length;
        EXPECT_EQ(Repaired(filling + "\nEND\ntorn", RecordForm::kEntry), filling + "\nEND\n") << length;
    }
}

TEST_F(LogLimits, AFileThatIsNotThereNeedsNothing)
{
    LogCapture log;
    EXPECT_TRUE(RepairLogTail(Path(), RecordForm::kLine));
    EXPECT_TRUE(LimitLog(Path(), RecordForm::kLine, 10));
    EXPECT_TRUE(RotateLog(Path(), 10, 9));
    EXPECT_FALSE(fs::exists(Path()));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(LogLimits, AFileOfExactlyTheLimitIsLeftAlone)
{
    LogCapture log;
    EXPECT_EQ(Limited("one\ntwo\n", RecordForm::kLine, 8), "one\ntwo\n");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(LogLimits, AFileOfOneByteMoreLosesItsOldestRecord)
{
    LogCapture log;
    EXPECT_EQ(Limited("one\ntwo\n", RecordForm::kLine, 7), "two\n");
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_INFO, Dropped(4, 7))));
}

TEST_F(LogLimits, WhatStaysIsAsMuchAsTheLimitTakes)
{
    EXPECT_EQ(Limited("one\ntwo\nsix\nten\n", RecordForm::kLine, 12), "two\nsix\nten\n");
    EXPECT_EQ(Limited("one\ntwo\nsix\nten\n", RecordForm::kLine, 11), "six\nten\n");
    EXPECT_EQ(Limited("{1}\r\n{\n}\r\n{3}\r\n", RecordForm::kCrLfLine, 14), "{\n}\r\n{3}\r\n");
    EXPECT_EQ(Limited("CHANGE x\nEND\nCHANGE y\n-,1,END\nEND\n", RecordForm::kEntry, 30), "CHANGE y\n-,1,END\nEND\n");
}

TEST_F(LogLimits, ALineEndInsideQuotesIsNoPlaceToCut)
{
    const std::string quoted = "1,\"two\r\nthree\r\nfour\"\r\n";

    EXPECT_EQ(Limited("0,zero\r\n" + quoted, RecordForm::kCsv, static_cast<off_t>(quoted.size())), quoted);
    EXPECT_EQ(Limited(quoted + "5,five\r\n", RecordForm::kCsv, static_cast<off_t>(quoted.size())), "5,five\r\n");
}

TEST_F(LogLimits, OneGiantRecordIsDroppedAndLeavesNoEmptyFile)
{
    const std::string giant(200'000, 'x');
    LogCapture log;
    EXPECT_EQ(Limited(giant + "\n", RecordForm::kLine, 100'000), "(none)");
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_INFO, Dropped(200'001, 100'000))));
    EXPECT_EQ(Limited(giant + "\nlast\n", RecordForm::kLine, 100'000), "last\n");
    EXPECT_EQ(Limited("first\n" + giant + "\n", RecordForm::kLine, 100'000), "(none)");
    EXPECT_EQ(Limited(giant, RecordForm::kLine, 100'000), "(none)") << "that never ended";
}

TEST_F(LogLimits, ARecordThatIsNotWholeYetCountsAndStays)
{
    EXPECT_EQ(Limited("one\ntwo\nthr", RecordForm::kLine, 8), "two\nthr");
}

TEST_F(LogLimits, AShortenedFileIsPrivate)
{
    Limited("one\ntwo\n", RecordForm::kLine, 4);
    struct stat status {};
    ASSERT_EQ(stat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(LogLimits, WhatARunBeforeLeftBesideTheFileIsOverwritten)
{
    WriteFile(Path() + ".new", std::string(1000, 'x'));
    EXPECT_EQ(Limited("one\ntwo\n", RecordForm::kLine, 4), "two\n");
}

TEST_F(LogLimits, AFullDiskLeavesTheFileAsItWas)
{
    const std::string record(10'000, 'x');
    WriteFile(Path(), record + "\n" + record + "\n");
    bool limited = true;
    int error = 0;
    {
        const FileSizeLimit full(5'000);
        limited = LimitLog(Path(), RecordForm::kLine, 15'000);
        error = errno;
    }
    EXPECT_FALSE(limited);
    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(ReadFile(Path()), record + "\n" + record + "\n");
    EXPECT_FALSE(fs::exists(Path() + ".new"));
}

TEST_F(LogLimits, ADirectoryInTheWayIsAFailure)
{
    fs::create_directories(Path());
    EXPECT_FALSE(RepairLogTail(Path(), RecordForm::kLine));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(LimitLog(Path(), RecordForm::kLine, 1));
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(LogLimits, ALogOfExactlyTheSizeIsNotRotated)
{
    WriteFile(Path("a"), "12345");
    EXPECT_TRUE(RotateLog(Path("a"), 5, 9));
    EXPECT_EQ(Generations("a"), "=12345");
}

TEST_F(LogLimits, RotationMovesEachGenerationOnAndMakesNoEmptyFile)
{
    WriteFile(Path("a"), "newest");
    EXPECT_TRUE(RotateLog(Path("a"), 5, 9));
    EXPECT_EQ(Generations("a"), ".1=newest");
    EXPECT_TRUE(RotateLog(Path("a"), 5, 9));
    EXPECT_EQ(Generations("a"), ".1=newest") << "nothing to rotate";
    WriteFile(Path("a"), "second");
    EXPECT_TRUE(RotateLog(Path("a"), 5, 9));
    EXPECT_EQ(Generations("a"), ".1=second .2=newest");
}

TEST_F(LogLimits, NineGenerationsStayAtMost)
{
    for (char name = 'a'; name <= 'l'; name++) {
        WriteFile(Path("a"), std::string(6, name));
        EXPECT_TRUE(RotateLog(Path("a"), 5, 9));
    }
    EXPECT_EQ(Generations("a"),
              ".1=llllll .2=kkkkkk .3=jjjjjj .4=iiiiii .5=hhhhhh .6=gggggg .7=ffffff .8=eeeeee .9=dddddd");
}

TEST_F(LogLimits, ARotationThatACrashInterruptedLosesNothing)
{
    // The crash came after .3 had become .4: there is no .3, and the others are as they were.
    for (const char *name : {"a.1", "a.2", "a.4"}) { WriteFile(Path(name), name); }
    WriteFile(Path("a"), "newest");
    EXPECT_TRUE(RotateLog(Path("a"), 5, 9));
    EXPECT_EQ(Generations("a"), ".1=newest .2=a.1 .3=a.2 .4=a.4");
}

TEST_F(LogLimits, RotationThatCannotMoveAGenerationLosesNoRecord)
{
    fs::create_directories(Path("a.9/in the way"));
    for (int i = 1; i < 9; i++) { WriteFile(Path("a." + std::to_string(i)), "old"); }
    WriteFile(Path("a"), "newest");
    EXPECT_FALSE(RotateLog(Path("a"), 5, 9));
    EXPECT_EQ(ReadFile(Path("a")), "newest");
    EXPECT_EQ(ReadFile(Path("a.1")), "old");
}

TEST_F(LogLimits, EveryFileOfTheWorkDirectoryIsRepaired)
{
    WriteFile(Path("promise_execution.log"), "a,\"b\r\n\"\r\nc,\"d\r\n");
    WriteFile(Path("promise_log.jsonl"), "{}\r\n{");
    WriteFile(Path("classes.jsonl"), "{}\r\n{");
    WriteFile(Path("file_changes.log"), "1,x\n2");
    WriteFile(Path("vesk_diff.log"), "CHANGE x\nEND\nCHANGE y\n");
    WriteFile(work.path / "log/promise_summary.log", "1,2: Outcome\n3,4: Out");

    RepairLogTails();

    EXPECT_EQ(ReadFile(Path("promise_execution.log")), "a,\"b\r\n\"\r\n");
    EXPECT_EQ(ReadFile(Path("promise_log.jsonl")), "{}\r\n");
    EXPECT_EQ(ReadFile(Path("classes.jsonl")), "{}\r\n");
    EXPECT_EQ(ReadFile(Path("file_changes.log")), "1,x\n");
    EXPECT_EQ(ReadFile(Path("vesk_diff.log")), "CHANGE x\nEND\n");
    EXPECT_EQ(ReadFile(work.path / "log/promise_summary.log"), "1,2: Outcome\n");
}

TEST_F(LogLimits, EveryFileOfTheWorkDirectoryIsHeldToItsLimit)
{
    WriteFile(Path("promise_execution.log"), "a,\"b\r\n\"\r\nc,d\r\n");
    WriteFile(Path("promise_log.jsonl"), "{1}\r\n{2}\r\n");
    WriteFile(Path("classes.jsonl"), "{1}\r\n{2}\r\n");
    WriteFile(Path("file_changes.log"), "1,x\n2,xxx\n");
    WriteFile(Path("vesk_diff.log"), "END\nx\nEND\n");
    WriteFile(work.path / "log/promise_summary.log", "1,2:x\n3,4:y\n");
    WriteFile(Path("diff/classes.diff"), "1,1,a,\r\n2,1,b,\r\n");
    WriteFile(Path("diff/software.diff"), "1,1\r\n");
    WriteFile(Path("diff/notes.txt"), "nobody's business\n");

    LimitLogs(9);

    EXPECT_EQ(ReadFile(Path("promise_execution.log")), "c,d\r\n");
    EXPECT_EQ(ReadFile(Path("promise_log.jsonl")), "{2}\r\n");
    EXPECT_EQ(ReadFile(Path("classes.jsonl")), "{2}\r\n");
    EXPECT_EQ(ReadFile(Path("file_changes.log")), "2,xxx\n");
    EXPECT_EQ(ReadFile(Path("vesk_diff.log")), "x\nEND\n");
    EXPECT_EQ(ReadFile(work.path / "log/promise_summary.log"), "3,4:y\n");
    EXPECT_EQ(ReadFile(Path("diff/classes.diff")), "2,1,b,\r\n");
    EXPECT_EQ(ReadFile(Path("diff/software.diff")), "1,1\r\n");
    EXPECT_EQ(ReadFile(Path("diff/notes.txt")), "nobody's business\n");
}

TEST_F(LogLimits, ThePromiseLogIsRotatedOverOneMebibyte)
{
    std::string bytes;
    for (int i = 0; i < 1024; i++) { bytes += std::string(1022, 'x') + "\r\n"; }
    WriteFile(Path("promise_log.jsonl"), bytes);
    LimitLogs(kLogLimit);
    EXPECT_TRUE(fs::exists(Path("promise_log.jsonl"))) << "of exactly one mebibyte";

    WriteFile(Path("promise_log.jsonl"), "z" + bytes);
    LimitLogs(kLogLimit);
    EXPECT_FALSE(fs::exists(Path("promise_log.jsonl")));
    EXPECT_EQ(ReadFile(Path("promise_log.jsonl.1")), "z" + bytes);
}

TEST_F(LogLimits, AGenerationIsNeverOverTheLimit)
{
    const std::string record = std::string(1022, 'x') + "\r\n";
    std::string bytes;
    for (int i = 0; i < 3000; i++) { bytes += record; }
    WriteFile(Path("promise_log.jsonl"), bytes);

    LimitLogs(2 * 1024 * 1024);

    EXPECT_EQ(ReadFile(Path("promise_log.jsonl.1")), bytes.substr(bytes.size() - 2 * 1024 * 1024));
}

TEST_F(LogLimits, WhatCannotBeDoneIsAWarningAndTheOthersAreDone)
{
    fs::create_directories(Path("promise_execution.log"));
    fs::create_directories(Path("promise_log.jsonl.1/in the way"));
    WriteFile(Path("promise_log.jsonl"), std::string(1024 * 1024, 'x') + "\r\n");
    for (int i = 2; i <= 9; i++) { WriteFile(Path("promise_log.jsonl." + std::to_string(i)), "old"); }
    fs::create_directories(Path("promise_log.jsonl.9.dir"));
    fs::remove(Path("promise_log.jsonl.9"));
    fs::create_directories(Path("promise_log.jsonl.9/in the way"));
    WriteFile(Path("classes.jsonl"), "{}\r\n{");
    LogCapture log;

    RepairLogTails();
    LimitLogs(kLogLimit);

    EXPECT_TRUE(log.Has(LOG_LEVEL_WARNING,
                        "Could not repair the end of '" + Path("promise_execution.log") + "': Is a directory"));
    EXPECT_TRUE(
        log.Has(LOG_LEVEL_WARNING, "Could not shorten '" + Path("promise_execution.log") + "': Is a directory"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_WARNING, "Could not rotate '" + Path("promise_log.jsonl") + "': Is a directory"));
    EXPECT_EQ(ReadFile(Path("classes.jsonl")), "{}\r\n");
}

TEST_F(LogLimits, ADifferenceFileIsShortenedInsideItsSection)
{
    WriteFile(Path("diff/classes.diff"), "1,1,a,\r\n2,1,b,\r\n");
    ASSERT_TRUE(WaitForCriticalSection("DIFF_CRITICAL_SECTION"));
    std::promise<void> started;
    const auto shortened = std::async(std::launch::async, [&] {
        started.set_value();
        LimitLogs(9);
    });
    started.get_future().wait();
    EXPECT_EQ(shortened.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout) << "somebody is inside";
    EXPECT_EQ(ReadFile(Path("diff/classes.diff")), "1,1,a,\r\n2,1,b,\r\n");

    ReleaseCriticalSection("DIFF_CRITICAL_SECTION");
    shortened.wait();
    EXPECT_EQ(ReadFile(Path("diff/classes.diff")), "2,1,b,\r\n");
}

TEST_F(LogLimits, ASmallDifferenceFileIsNotWaitedFor)
{
    WriteFile(Path("diff/classes.diff"), "1,1,a,\r\n");
    ASSERT_TRUE(WaitForCriticalSection("DIFF_CRITICAL_SECTION"));
    std::async(std::launch::async, [] { LimitLogs(9); }).wait();  // it would wait for ever
    ReleaseCriticalSection("DIFF_CRITICAL_SECTION");
    EXPECT_EQ(ReadFile(Path("diff/classes.diff")), "1,1,a,\r\n");
}

}  // namespace
