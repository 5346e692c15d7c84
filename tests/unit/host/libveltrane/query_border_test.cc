#include "libveltrane/query_border.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using veltrane::ParseReportQuery;
using veltrane::ReportQuery;

constexpr time_t kNow = 1'700'000'000;
const std::string kMalformed = "it needs a type and two times in seconds, with single blanks between";
const std::string kWrongType = "its type is none of delta, rebase and full";

std::string WhyNot(std::string_view menu)
{
    std::string why;
    EXPECT_FALSE(ParseReportQuery(menu, kNow, &why).has_value()) << menu;
    return why;
}

TEST(QueryBorder, DeltaRebaseAndFullPass)
{
    for (const std::string type : {"delta", "rebase", "full"}) {
        std::string why;
        const auto query = ParseReportQuery(type + " 1699990000 1699999999", kNow, &why);
        ASSERT_TRUE(query.has_value()) << why;
        EXPECT_EQ(query->type, type);
        EXPECT_EQ(query->from, 1699990000);
        EXPECT_EQ(query->peer_time, 1699999999);
        EXPECT_EQ(why, "");
    }
}

TEST(QueryBorder, NoOtherTypePasses)
{
    // "collect_call" would end the process and "error" is how the plug-in names what it does not know.
    for (const std::string type : {"collect_call", "error", "weekly", "Delta", "delta\n", "del", "deltas", "%s", ""}) {
        EXPECT_EQ(WhyNot(type + " 0 0"), kWrongType) << type;
    }
}

TEST(QueryBorder, AllThreeFieldsMustBeThereAndNoMore)
{
    EXPECT_EQ(WhyNot(""), kWrongType);
    EXPECT_EQ(WhyNot("delta"), kMalformed);
    EXPECT_EQ(WhyNot("delta "), kMalformed);
    EXPECT_EQ(WhyNot("delta 0"), kMalformed);
    EXPECT_EQ(WhyNot("delta 0 "), kMalformed);
    EXPECT_EQ(WhyNot("delta 0 0 0"), kMalformed);
    EXPECT_EQ(WhyNot("delta 0 0 "), kMalformed);
    EXPECT_EQ(WhyNot(" delta 0 0"), kWrongType);
    EXPECT_EQ(WhyNot("delta  0 0"), kMalformed);
    EXPECT_EQ(WhyNot("delta 0  0"), kMalformed);
    EXPECT_EQ(WhyNot("delta\t0 0"), kWrongType);
}

TEST(QueryBorder, BothTimesAreWholeNumbersInRange)
{
    for (const std::string number :
         {"-1", "+1", "1.0", "1e9", "0x10", "", "one", "9223372036854775808", "99999999999999999999999999", "1\n"}) {
        EXPECT_EQ(WhyNot("delta " + number + " 0"), kMalformed) << number;
        EXPECT_EQ(WhyNot("delta 0 " + number), kMalformed) << number;
    }
    std::string why;
    EXPECT_TRUE(ParseReportQuery("delta 0 9223372036854775807", kNow, &why).has_value());
    EXPECT_EQ(WhyNot(std::string_view("delta 0 0\0", 10)), kMalformed) << "a zero byte is no digit";
}

TEST(QueryBorder, TheWindowMayBeginAnHourAheadAndNoMore)
{
    std::string why;
    EXPECT_TRUE(ParseReportQuery("delta " + std::to_string(kNow + 3600) + " 0", kNow, &why).has_value());
    EXPECT_EQ(WhyNot("delta " + std::to_string(kNow + 3601) + " 0"),
              "its window begins more than an hour ahead of this host's clock");
    EXPECT_EQ(WhyNot("delta 9223372036854775807 0"), "its window begins more than an hour ahead of this host's clock");
}

TEST(QueryBorder, TheHubsClockMayBeAnything)
{
    std::string why;
    EXPECT_TRUE(ParseReportQuery("rebase 0 0", kNow, &why).has_value());
    EXPECT_TRUE(ParseReportQuery("rebase 0 " + std::to_string(kNow + 86'400), kNow, &why).has_value());
}

TEST(QueryBorder, AHandleHasOneTo1024BytesAndNoControlCharacters)
{
    for (const std::string &handle :
         {std::string("h"), std::string("site network.[2]:\xc3\xa4"), std::string(1024, 'h')}) {
        EXPECT_TRUE(veltrane::IsHandle(handle)) << handle;
    }
    for (const std::string &handle : {std::string(), std::string(1025, 'h'), std::string("a\0b", 3), std::string("a\n"),
                                      std::string("\tb"), std::string("a\x7f"), std::string("\x1b[2J")}) {
        EXPECT_FALSE(veltrane::IsHandle(handle)) << handle;
    }
}

}  // namespace
