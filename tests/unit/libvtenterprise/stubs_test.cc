// What the hub-only functions answer where there is no hub.
#include "libvtenterprise/stubs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/hub_library.h"
#include "support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Stubs, AcceptingACollectCallIsRefusedWithAnError)
{
    LogCapture log;
    EXPECT_FALSE(Vesk_AcceptCollectCall__stub(nullptr));
    EXPECT_THAT(log.lines, ElementsAre(kCollectCallsNeedAHub));
}

TEST(Stubs, SharingAConnectionFailsWithAnErrorAndAnswersTrueAllTheSame)
{
    LogCapture log;
    EXPECT_TRUE(share_connection__stub("/path", 1, "message"));
    EXPECT_THAT(log.lines, ElementsAre(kCollectCallsNeedAHub));
}

TEST(Stubs, NoConnectionIsTakenAndTheMessageStaysUntouched)
{
    LogCapture log;
    char before[] = "before";
    char *message = before;
    EXPECT_EQ(take_connection__stub(3, &message), -1);
    EXPECT_EQ(message, before);
    EXPECT_THAT(log.lines, ElementsAre(kCollectCallsNeedAHub));
}

TEST(Stubs, NoHostsAreListed)
{
    LogCapture log;
    Rlist *list = nullptr;
    char value[] = "value";
    char format[] = "format";
    EXPECT_FALSE(VTDB_HostsWithField__stub(nullptr, &list, value, format, 1));
    EXPECT_EQ(list, nullptr);
    EXPECT_THAT(log.lines, ElementsAre(kListingNeedsAHub));
}

TEST(Stubs, HighAvailabilityIsSkippedWithAVerboseLine)
{
    LogCapture log;
    Vesk_CheckAndSetHAState__stub("/workdir", nullptr);
    EXPECT_THAT(log.lines, ElementsAre(kHaNeedsAHub));
}

TEST(Stubs, ReloadingAndCountingSayNothing)
{
    LogCapture log;
    Vesk_ReloadHAConfig__stub();
    EXPECT_EQ(VeskGetMaxVtHubProcesses__stub(), 0u);
    EXPECT_THAT(log.lines, IsEmpty());
}
