#include "libveltrane/send_pace.h"

#include <gtest/gtest.h>

#include "support/sockets.h"

namespace {

using namespace std::chrono_literals;
using veltrane::kSlowestBytesPerSecond;
using veltrane::SendPace;

TEST(SendPace, AMessageHasOneTimeOutAndASecondForEachPortion)
{
    const SendPace pace;
    EXPECT_EQ(pace.TimeFor(0, 30s), 30s);
    EXPECT_EQ(pace.TimeFor(kSlowestBytesPerSecond, 30s), 31s);
    EXPECT_EQ(pace.TimeFor(kSlowestBytesPerSecond / 2, 30s), 30s + 500ms);
}

TEST(SendPace, AReaderAtThePaceIsWaitedForWithoutEnd)
{
    SendPace pace;
    for (int i = 0; i < 100'000; ++i) {
        ASSERT_EQ(pace.TimeFor(kSlowestBytesPerSecond, 30s), 31s);
        pace.Sent(kSlowestBytesPerSecond, 1s);
    }
}

TEST(SendPace, ASlowerReaderUsesItsTimeUp)
{
    SendPace pace;
    int portions = 0;
    while (pace.TimeFor(kSlowestBytesPerSecond, 30s) >= 2s) {
        pace.Sent(kSlowestBytesPerSecond, 2s);
        ++portions;
    }
    EXPECT_EQ(portions, 30);
}

TEST(SendPace, TimeIsNeverLessThanNone)
{
    SendPace pace;
    pace.Sent(1, 1h);
    EXPECT_EQ(pace.TimeFor(1, 30s), 0s);
}

TEST(SendPace, TheNextMessageBeginsAnew)
{
    SendPace pace;
    pace.Sent(1, 1h);
    pace.Restart();
    EXPECT_EQ(pace.TimeFor(0, 30s), 30s);
}

TEST(SendPace, AConnectionEndsWhenItsMessageHasNoTimeLeft)
{
    TlsPair pair;
    ConnectionInfo *info = pair.server.get();
    info->internal->pace.Sent(0, 1h);
    const std::string line(4096, 'x');
    int sent = 0;
    while (sent < 100 && SendTransaction(info, line.data(), 4096, 'm') == 0) { ++sent; }
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(sent, 100) << "well before each write's own time-out";
    EXPECT_EQ(SendTransaction(info, "x", 1, 't'), -1);
}

TEST(SendPace, AWholeMessageGivesTheTimeBack)
{
    TlsPair pair;
    ConnectionInfo *info = pair.server.get();
    info->internal->pace.Sent(0, 29s);
    ASSERT_EQ(SendTransaction(info, "x", 1, 't'), 0);
    EXPECT_GE(info->internal->pace.TimeFor(0, 30s), 30s);
}

}  // namespace
