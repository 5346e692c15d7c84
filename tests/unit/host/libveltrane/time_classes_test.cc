// Tests of the classes that tell the time.
#include "libveltrane/time_classes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include <veltrane/class.h>
#include <veltrane/eval_context.h>
#include <veltrane/owned.h>

using testing::Contains;
using testing::ElementsAre;
using veltrane::TimeClassNames;

namespace {

struct tm At(int year, int month, int day, int hour, int minute)
{
    struct tm time {};
    time.tm_year = year - 1900;
    time.tm_mon = month - 1;
    time.tm_mday = day;
    time.tm_hour = hour;
    time.tm_min = minute;
    time.tm_isdst = -1;
    timegm(&time);  // sets the weekday
    return time;
}

// Local time is what TZ says while this lives.
class TimeZone {
  public:
    explicit TimeZone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone()
    {
        unsetenv("TZ");
        tzset();
    }
};

std::vector<std::string> ClassesOf(time_t now)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    veltrane::PutTimeClasses(ctx.get(), now);
    std::vector<std::string> names;
    const veltrane::ClassTableIteratorPtr all(EvalContextClassTableIteratorNewGlobal(ctx.get(), nullptr, true, false));
    while (const Class *one = ClassTableIteratorNext(all.get())) { names.emplace_back(one->name); }
    return names;
}

}  // namespace

TEST(TimeClasses, NameEveryPartOfATime)
{
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 12, 7)),
                ElementsAre("Hr12", "Min07", "Min05_10", "Q1", "Hr12_Q1", "Day6", "January", "Yr2025", "Lcycle_0",
                            "Monday", "Afternoon"));
}

TEST(TimeClasses, TheLastFiveMinutesOfAnHourEndAtZero)
{
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 0, 59)),
                testing::AllOf(Contains("Min59"), Contains("Min55_00"), Contains("Q4"), Contains("Hr00_Q4")));
}

TEST(TimeClasses, MinutesAndHoursHaveTwoDigitsAndDaysHaveNone)
{
    EXPECT_THAT(TimeClassNames(At(2024, 12, 1, 3, 0)),
                testing::AllOf(Contains("Hr03"), Contains("Min00"), Contains("Min00_05"), Contains("Day1")));
}

TEST(TimeClasses, QuartersBeginAtEveryFifteenthMinute)
{
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 9, 14)), Contains("Q1"));
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 9, 15)), Contains("Q2"));
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 9, 30)), Contains("Q3"));
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 9, 45)), Contains("Q4"));
}

TEST(TimeClasses, ShiftsAreTheQuartersOfADay)
{
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 5, 59)), Contains("Night"));
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 6, 0)), Contains("Morning"));
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 17, 59)), Contains("Afternoon"));
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 18, 0)), Contains("Evening"));
}

TEST(TimeClasses, TheLifeCycleIsTheYearModuloThree)
{
    EXPECT_THAT(TimeClassNames(At(2025, 1, 6, 0, 0)), Contains("Lcycle_0"));
    EXPECT_THAT(TimeClassNames(At(2026, 1, 6, 0, 0)), Contains("Lcycle_1"));
    EXPECT_THAT(TimeClassNames(At(2027, 1, 6, 0, 0)), Contains("Lcycle_2"));
}

TEST(TimeClasses, SundayIsTheLastDayOfTheWeek)
{
    EXPECT_THAT(TimeClassNames(At(2025, 1, 5, 0, 0)), Contains("Sunday"));
    EXPECT_THAT(TimeClassNames(At(2025, 1, 11, 0, 0)), Contains("Saturday"));
}

TEST(TimeClasses, HoldInLocalTimeAndWithAPrefixInUtc)
{
    const TimeZone three_hours_ahead("XYZ-3");

    const std::vector<std::string> names = ClassesOf(1736164800);  // 2025-01-06 12:00 UTC

    EXPECT_THAT(names, Contains("Hr15"));
    EXPECT_THAT(names, Contains("GMT_Hr12"));
    EXPECT_THAT(names, Contains("GMT_Monday"));
    EXPECT_THAT(names, testing::Not(Contains("Hr12")));
    EXPECT_THAT(names, testing::Not(Contains("GMT_Hr15")));
    EXPECT_EQ(names.size(), 22u);
}

TEST(TimeClasses, AreHardAndTaggedSoThatTheyCanBeTold)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    veltrane::PutTimeClasses(ctx.get(), 1736164800);
    const veltrane::ClassTableIteratorPtr all(EvalContextClassTableIteratorNewGlobal(ctx.get(), nullptr, true, true));
    size_t seen = 0;
    while (const Class *one = ClassTableIteratorNext(all.get())) {
        EXPECT_FALSE(one->is_soft) << one->name;
        EXPECT_TRUE(StringSetContains(one->tags, "time_based")) << one->name;
        EXPECT_TRUE(StringSetContains(one->tags, "source=agent")) << one->name;
        ++seen;
    }
    EXPECT_GE(seen, 11u);
}
