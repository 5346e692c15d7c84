// Texts of errno, and the two reports of what cannot happen.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/errors.h>

#include "support/log_capture.h"

using testing::ElementsAre;
using testing::KilledBySignal;
using testing::Pair;

TEST(GetErrorStr, GivesTheTextOfErrnoAndKeepsIt)
{
    errno = ENOENT;
    EXPECT_STREQ(GetErrorStr(), "No such file or directory");
    EXPECT_EQ(errno, ENOENT);
}

TEST(GetErrorStr, AnUnknownNumberHasATextToo)
{
    errno = 123456;
    EXPECT_STREQ(GetErrorStr(), "Unknown error 123456");
    EXPECT_EQ(errno, 123456);
}

TEST(GetErrorStr, EachThreadHasItsOwnStorage)
{
    errno = ENOENT;
    const char *const here = GetErrorStr();

    std::thread([here] {
        errno = EACCES;
        EXPECT_STREQ(GetErrorStr(), "Permission denied");
        EXPECT_NE(GetErrorStr(), here);
    }).join();

    EXPECT_STREQ(here, "No such file or directory");
}

TEST(ProgrammingErrorDeathTest, LogsACriticalLineAndAborts)
{
    EXPECT_EXIT(__ProgrammingError("room.cc", 12, "item %d of %s", 3, "none"), KilledBySignal(SIGABRT),
                "critical: room\\.cc:12: programming error: item 3 of none\n");
}

TEST(ProgrammingErrorDeathTest, TheMacroNamesItsPlace)
{
    EXPECT_EXIT(ProgrammingError("here"), KilledBySignal(SIGABRT),
                "critical: .*errors_test\\.cc:[0-9]+: programming error: here\n");
}

TEST(UnexpectedError, LogsAnErrorLineAndReturns)
{
    LogCapture log;
    errno = EPIPE;

    __UnexpectedError("room.cc", 12, "item %d of %s", 3, "none");

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "room.cc:12: unexpected error: item 3 of none")));
    EXPECT_EQ(errno, EPIPE);
}

TEST(UnexpectedError, AMessageMayHaveAnyLength)
{
    LogCapture log;
    const std::string text(100000, 'x');

    UnexpectedError("%s", text.c_str());
    const int line = __LINE__ - 1;

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, std::string(__FILE__) + ":" + std::to_string(line) +
                                                               ": unexpected error: " + text)));
}
