// The settings that a program starts with.
#include <ctime>

#include <gtest/gtest.h>

#include <veltrane/globals.h>

TEST(Globals, TheVersionsAreTheProducts)
{
    EXPECT_STREQ(Version(), "3.27.0");
    EXPECT_STREQ(NameVersion(), "Veltrane Core 3.27.0");
}

TEST(Globals, SettingsStartAsDocumented)
{
    EXPECT_FALSE(FIPS_MODE);
    EXPECT_EQ(LASTSEENEXPIREAFTER, 604800);
    EXPECT_EQ(CONNTIMEOUT, 30);
    EXPECT_STREQ(VELTRANE_PORT_STR, "6127");
}

TEST(Globals, CountersStartAtNothing)
{
    EXPECT_EQ(PR_KEPT, 0);
    EXPECT_EQ(PR_REPAIRED, 0);
    EXPECT_EQ(PR_NOTKEPT, 0);
}

TEST(Globals, TheStartTimeIsThatOfThisProcess)
{
    EXPECT_GT(VTSTARTTIME, 0);
    EXPECT_LE(VTSTARTTIME, time(nullptr));
}
