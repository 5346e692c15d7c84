#include "libvtenterprise/datapack_promise_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/promise_log_lines.h"
#include "support/report_filters.h"
#include "support/texts.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::SeqPtr;

namespace {

constexpr time_t kFrom = 1700000000;
constexpr const char *kNewest = "promise_log.jsonl";
constexpr const char *kOlder = "promise_log.jsonl.1";

std::string Text(long timestamp, const std::string &handle = "motd")
{
    return PromiseLogText({.timestamp = timestamp, .handle = handle});
}

class DatapackPromiseLog : public testing::Test {
  protected:
    void Write(const std::string &name, const std::string &bytes) const { WriteFile(work_.State(name), bytes); }

    static Texts Pack(const ReportFilter *filter = nullptr)
    {
        const SeqPtr reply(SeqNew(10, free));
        PackPromiseLog(reply.get(), kFrom, filter);
        return SeqTexts(reply.get());
    }

    std::string Path(const std::string &name) const { return work_.State(name).string(); }

    const WorkDirectory work_;
};

TEST_F(DatapackPromiseLog, EntriesLaterThanTheStartAreRowsInTheOrderOfTheFile)
{
    LogCapture log;
    Write(kNewest, Text(kFrom + 1) + Text(kFrom, "at_the_start") + Text(kFrom + 3) + Text(kFrom + 2));

    EXPECT_THAT(Pack(),
                ElementsAre("PLG", PromiseLogRow(kFrom + 1), PromiseLogRow(kFrom + 3), PromiseLogRow(kFrom + 2)));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing promise logs")));
}

TEST_F(DatapackPromiseLog, WithoutALogThatIsAnErrorAndNoChapter)
{
    LogCapture log;

    EXPECT_THAT(Pack(), IsEmpty());

    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing promise logs"),
                            Pair(LOG_LEVEL_ERR, "Could not find promise log files while preparing reports")));
}

TEST_F(DatapackPromiseLog, AStateDirectoryThatCannotBeReadIsTheSame)
{
    LogCapture log;
    std::filesystem::remove_all(work_.path / "state");

    EXPECT_THAT(Pack(), IsEmpty());

    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Could not find promise log files while preparing reports"));
}

TEST_F(DatapackPromiseLog, AnOlderFileIsReadWhileTheNewerOneBeginsInThePeriod)
{
    Write(kNewest, Text(kFrom + 9));
    Write(kOlder, Text(kFrom - 5, "older") + Text(kFrom + 5));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 9), PromiseLogRow(kFrom + 5)));
}

TEST_F(DatapackPromiseLog, AFileWhoseFirstEntryIsOlderEndsTheReading)
{
    LogCapture log;
    Write(kNewest, Text(kFrom) + Text(kFrom + 9));
    Write(kOlder, "no entry at all\r\n");

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 9)));

    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());  // the older file was not opened
}

TEST_F(DatapackPromiseLog, AnEmptyNewestFileEndsTheReading)
{
    Write(kNewest, "");
    Write(kOlder, Text(kFrom + 5));

    EXPECT_THAT(Pack(), IsEmpty());
}

TEST_F(DatapackPromiseLog, AFirstEntryThatIsNotSentCountsAllTheSame)
{
    Write(kNewest, PromiseLogText({.timestamp = kFrom + 1, .type = "methods"}));
    Write(kOlder, Text(kFrom + 5));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 5)));
}

TEST_F(DatapackPromiseLog, ALineThatIsNoEntryDoesNotCountAsTheFirst)
{
    Write(kNewest, "rubbish\r\n{}\r\n" + Text(kFrom + 9));
    Write(kOlder, Text(kFrom + 5));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 9), PromiseLogRow(kFrom + 5)));
}

TEST_F(DatapackPromiseLog, FilesAreReadInTheOrderOfTheirBytes)
{
    Write("promise_log.jsonl.2", Text(kFrom + 2));
    Write("promise_log.jsonl.10", Text(kFrom + 10));
    Write("promise_log.jsonl.old", "not ours\r\n");

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 10), PromiseLogRow(kFrom + 2)));
}

TEST_F(DatapackPromiseLog, AFileThatDoesNotOpenIsPassedOver)
{
    LogCapture log;
    std::filesystem::create_symlink("gone", work_.State(kNewest));
    Write(kOlder, Text(kFrom + 5));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 5)));

    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Could not open promise log file: '" + Path(kNewest) + "'"));
}

TEST_F(DatapackPromiseLog, ALineThatDoesNotParseIsLeftOutWithAWarning)
{
    LogCapture log;
    Write(kNewest, "{\"timestamp\":\r\n" + Text(kFrom + 9));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 9)));

    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING),
                ElementsAre(Pair(LOG_LEVEL_WARNING,
                                 "Failed to parse entry in file " + Path(kNewest) + " with error: 'Malformed JSON'")));
}

TEST_F(DatapackPromiseLog, ALineWithOtherMembersIsLeftOutWithAWarningThatShowsIt)
{
    LogCapture log;
    Write(kNewest, "{\"timestamp\":\"1700000009\"}\r\n" + Text(kFrom + 9));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 9)));

    EXPECT_THAT(
        log.UpTo(LOG_LEVEL_WARNING),
        ElementsAre(Pair(LOG_LEVEL_WARNING, "Invalid json entry (mismatching fields) in file '" + Path(kNewest) +
                                                "' line '{\"timestamp\":\"1700000009\"}\r\n'")));
}

TEST_F(DatapackPromiseLog, AnEntryCutAnywhereLosesNothingButItself)
{
    const std::string torn = Text(kFrom + 9, "torn");
    for (size_t length = 1; length + 2 < torn.size(); length += 7) {
        LogCapture log;
        Write(kNewest, Text(kFrom + 1) + torn.substr(0, length));

        EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 1)));

        EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), testing::SizeIs(1)) << length;
    }
}

TEST_F(DatapackPromiseLog, AnEntryJoinedToATornOneIsLostWithIt)
{
    LogCapture log;
    Write(kNewest, Text(kFrom + 1) + "{\"timestamp\":17" + Text(kFrom + 2) + Text(kFrom + 3));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 1), PromiseLogRow(kFrom + 3)));
}

TEST_F(DatapackPromiseLog, TheLastEntryMayLackItsLineEnd)
{
    const std::string whole = Text(kFrom + 1);
    Write(kNewest, whole.substr(0, whole.size() - 2));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 1)));
}

TEST_F(DatapackPromiseLog, OnlyWhatThePromiseLogIsForIsSent)
{
    LogCapture log;
    Write(kNewest, PromiseLogText({.timestamp = kFrom + 1, .outcome = "KEPT"}) +
                       PromiseLogText({.timestamp = kFrom + 1, .type = "vars"}) + Text(kFrom + 2));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 2)));

    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());
}

TEST_F(DatapackPromiseLog, AFilterAdmitsEntriesByTheirHandles)
{
    Write(kNewest, Text(kFrom + 1, "secret_1") + Text(kFrom + 2, "open") + Text(kFrom + 3, ""));

    EXPECT_THAT(Pack(Filter("promise_handles", {}, {"secret_.*"}).get()),
                ElementsAre("PLG", PromiseLogRow(kFrom + 2, "open"), PromiseLogRow(kFrom + 3, "")));
    EXPECT_THAT(Pack(Filter("promise_handles", {"open"}).get()), ElementsAre("PLG", PromiseLogRow(kFrom + 2, "open")));
    EXPECT_THAT(Pack(Filter("promise_handles", {"^$"}).get()), ElementsAre("PLG", PromiseLogRow(kFrom + 3, "")));
    EXPECT_THAT(Pack(Filter("promise_handles", {"other"}).get()), IsEmpty());
}

TEST_F(DatapackPromiseLog, AnEntryThatCannotTravelIsLeftOutWithAWarning)
{
    LogCapture log;
    const std::string messages = "[\"" + std::string(5000, 'x') + "\"]";
    Write(kNewest, PromiseLogText({.timestamp = kFrom + 1, .messages = messages}) + Text(kFrom + 2));

    EXPECT_THAT(Pack(), ElementsAre("PLG", PromiseLogRow(kFrom + 2)));

    const size_t size = PromiseLogRow(kFrom + 1).size() - std::string("Created '/etc/motd'").size() + 5000;
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING),
                ElementsAre(Pair(LOG_LEVEL_WARNING,
                                 "promise log report entry exceeds network limit and will be skipped from reporting to "
                                 "hub (size: " +
                                     std::to_string(size) + ")")));
}

}  // namespace
