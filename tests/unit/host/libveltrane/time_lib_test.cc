// Times as texts: every number has one, and it always fits.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <veltrane/time_lib.h>

namespace {

constexpr char kNoTime[] = "??? ??? ?? ??:??:?? ????\n";

class TimeLib : public testing::Test {
  protected:
    TimeLib() { SetZone("UTC0"); }
    static void SetZone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
    static std::string Text(time_t t)
    {
        char buffer[26];
        EXPECT_EQ(vt_strtimestamp_local(t, buffer), buffer);
        return buffer;
    }
};

}  // namespace

TEST_F(TimeLib, ATimeIsToldAsCtimeDoes)
{
    EXPECT_EQ(Text(0), "Thu Jan  1 00:00:00 1970\n");
    EXPECT_EQ(Text(1700000000), "Tue Nov 14 22:13:20 2023\n");
    EXPECT_EQ(Text(-1), "Wed Dec 31 23:59:59 1969\n");
}

TEST_F(TimeLib, TheLocalTimeIsTold)
{
    SetZone("CET-1");
    EXPECT_EQ(Text(0), "Thu Jan  1 01:00:00 1970\n");
}

TEST_F(TimeLib, TheFirstAndTheLastYearOfFourDigitsAreTold)
{
    EXPECT_EQ(Text(253402300799), "Fri Dec 31 23:59:59 9999\n");
    EXPECT_EQ(Text(-30610224000), "Wed Jan  1 00:00:00 1000\n");
}

TEST_F(TimeLib, AYearWithoutFourDigitsIsQuestionMarks)
{
    EXPECT_EQ(Text(253402300800), kNoTime);
    EXPECT_EQ(Text(-30610224001), kNoTime);
    EXPECT_EQ(Text(-70000000000), kNoTime);
    EXPECT_EQ(Text(LONG_MAX), kNoTime);
    EXPECT_EQ(Text(LONG_MIN), kNoTime);
}

TEST_F(TimeLib, RplCtimeTellsTheSameInThreadStorage)
{
    const time_t zero = 0, far = LONG_MAX;
    const char *const here = rpl_ctime(&zero);
    EXPECT_STREQ(here, "Thu Jan  1 00:00:00 1970\n");

    std::thread([far, here] {
        EXPECT_STREQ(rpl_ctime(&far), kNoTime);
        EXPECT_NE(rpl_ctime(&far), here);
    }).join();

    EXPECT_STREQ(here, "Thu Jan  1 00:00:00 1970\n");
}
