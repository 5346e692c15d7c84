#include "libvtenterprise/reported_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::StringSetPtr;
using veltrane::TextPtr;

namespace {

constexpr ReportedItem kItem = {"Context", "linux"};

TEST(ReportedText, AnEmptyTextIsAbsent) { EXPECT_EQ(ReportedText("", kItem, "(value) is"), nullptr); }

TEST(ReportedText, ATextOfTheLimitIsKeptWhole)
{
    const std::string text(1024, 'x');
    LogCapture log;
    EXPECT_EQ(ReportedText(text, kItem, "(value) is").get(), text);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ReportedText, ALongerTextIsCutToOneByteLessWhateverTheByte)
{
    std::string text;
    while (text.size() < 1026) { text += "\xC3\xA9"; }  // the cut goes through the 512th of these letters
    LogCapture log;

    const TextPtr reported = ReportedText(text, kItem, "(value) is");

    EXPECT_EQ(reported.get(), text.substr(0, 1023));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                            "Context 'linux' (value) is too large for transmission to reporting hub "
                                            "(larger than 1024 bytes) -- will be truncated in reports")));
}

TEST(ReportedTags, AreJoinedInTheirOrderAndAbsentWhenThereAreNone)
{
    const StringSetPtr tags(StringSetFromString("b,a", ','));
    const StringSetPtr none(StringSetNew());
    EXPECT_STREQ(ReportedTags(tags.get(), kItem).get(), "b,a");
    EXPECT_EQ(ReportedTags(none.get(), kItem), nullptr);
}

TEST(ReportedTags, ALongListIsCutAndSaidToBeTags)
{
    const std::string text = std::string(1000, 'a') + "," + std::string(24, 'b');
    const StringSetPtr tags(StringSetFromString(text.c_str(), ','));
    LogCapture log;
    EXPECT_EQ(ReportedTags(tags.get(), kItem).get(), text.substr(0, 1023));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                            "Context 'linux' (meta tags) are too large for transmission to reporting "
                                            "hub (larger than 1024 bytes) -- will be truncated in reports")));
}

}  // namespace
