// Regular expressions: searching, matching whole, and what happens to bad ones.
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <support/log_capture.h>
#include <veltrane/string_lib.h>

#include "libveltrane/regex_check.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

namespace {

// Expressions are compiled to machine code after some uses: what holds at the first must hold later.
constexpr int kUses = 8;

TEST(Regex, EachMetaCharacterIsOne)
{
    for (const char c : std::string("\\^$.|?*+()[]{}")) {
        EXPECT_TRUE(HasRegexMetaChars((std::string("a") + c + "b").c_str())) << c;
    }
    for (const char *plain : {"", "plain", "a_b-c:d/e,f;g!h#i~j&k%l=m<n>o'p\"q`r@s t\n"}) {
        EXPECT_FALSE(HasRegexMetaChars(plain)) << plain;
    }
}

TEST(Regex, ASearchFindsAnywhereAndSaysWhere)
{
    for (int i = 0; i < kUses; i++) {
        size_t start = 77;
        size_t end = 77;
        EXPECT_TRUE(StringMatch("b+", "aabbbcc", &start, &end));
        EXPECT_EQ(start, 2u);
        EXPECT_EQ(end, 5u);
        EXPECT_TRUE(StringMatch("vte_internal_.*", "my_vte_internal_x", nullptr, nullptr));
        EXPECT_TRUE(StringMatch("b+", "b", nullptr, &end));
        EXPECT_EQ(end, 1u);
        EXPECT_TRUE(StringMatch("b*", "aab", &start, nullptr));  // the empty match comes first
        EXPECT_EQ(start, 0u);
    }
}

TEST(Regex, ASearchThatFindsNothingLeavesThePositions)
{
    size_t start = 77;
    size_t end = 77;

    EXPECT_FALSE(StringMatch("x", "abc", &start, &end));

    EXPECT_EQ(start, 77u);
    EXPECT_EQ(end, 77u);
}

TEST(Regex, AFullMatchTakesTheWholeText)
{
    const struct {
        const char *regex;
        const char *text;
        bool matches;
    } cases[] = {
        {"abc", "abc", true},
        {"abc", "abcd", false},
        {"abc", "xabc", false},
        {"a|ab", "ab", true},  // not only the first way to match counts
        {"a|b", "ab", false},
        {"^a$", "a", true},
        {"a$", "a\n", false},        // the line end belongs to the text
        {"a.*", "a\nb\r\nc", true},  // a dot is any byte
        {".", "\n", true},
        {"..", "\xC3\xA9", true},  // bytes, not characters
        {".", "\xC3\xA9", false},
        {"[\x80-\xff]+", "\xff\x80", true},
        {"", "", true},
        {"", "a", false},
        {".*", "", true},
        {"(?i)ABC", "abc", true},
        {"ABC", "abc", false},
        {"(a)(b)(c)(d)\\4\\3", "abcddc", true},
        {"a\\.b", "axb", false},
        {"\\d{2,3}", "1234", false},
    };
    for (int i = 0; i < kUses; i++) {
        for (const auto &c : cases) {
            EXPECT_EQ(StringMatchFull(c.regex, c.text), c.matches) << c.regex << " " << c.text << " use " << i;
        }
    }
}

TEST(Regex, SearchingAndMatchingWholeDoNotDisturbEachOther)
{
    for (int i = 0; i < kUses; i++) {
        EXPECT_TRUE(StringMatch("b", "abc", nullptr, nullptr));
        EXPECT_FALSE(StringMatchFull("b", "abc"));
    }
}

TEST(Regex, OneThatDoesNotCompileMatchesNothingAndIsLogged)
{
    LogCapture log;

    EXPECT_FALSE(StringMatch("a(b", "a(b", nullptr, nullptr));
    EXPECT_FALSE(StringMatchFull("[z-a]", "z"));
    EXPECT_FALSE(StringMatchFull("[z-a]", "z"));  // and again

    EXPECT_THAT(
        log.lines,
        ElementsAre(
            Pair(LOG_LEVEL_ERR, "Regular expression 'a(b' does not compile: missing closing parenthesis (at byte 3)"),
            Pair(LOG_LEVEL_ERR,
                 "Regular expression '[z-a]' does not compile: range out of order in character class (at byte 3)"),
            Pair(LOG_LEVEL_ERR,
                 "Regular expression '[z-a]' does not compile: range out of order in character class (at byte 3)")));
}

TEST(Regex, OneThatRunsIntoTheMatchLimitMatchesNothingAndIsLogged)
{
    const std::string text = std::string(40, 'a') + "b";
    for (int i = 0; i < kUses; i++) {
        LogCapture log;
        EXPECT_FALSE(StringMatchFull("(a+)+", text.c_str()));
        EXPECT_THAT(
            log.lines,
            ElementsAre(Pair(LOG_LEVEL_ERR, "Regular expression '(a+)+' was given up on a text: match limit exceeded")))
            << "use " << i;
        EXPECT_TRUE(StringMatchFull("(a+)+", "aaa"));  // another text is no worse for it
    }
}

// Long enough to use up the stack that machine code has, where the plain matcher goes on.
TEST(Regex, ALongTextIsNoReasonToGiveUp)
{
    const std::string text(20'000, 'a');
    for (int i = 0; i < kUses; i++) {
        LogCapture log;
        EXPECT_TRUE(StringMatchFull("(a|b)+", text.c_str()));
        EXPECT_TRUE(StringMatchFull("[ab]*", text.c_str()));
        EXPECT_FALSE(StringMatch("c", text.c_str(), nullptr, nullptr));
        EXPECT_THAT(log.lines, IsEmpty()) << "use " << i;
    }
}

TEST(Regex, MoreExpressionsThanAreKeptStillMatch)
{
    for (int round = 0; round < 2; round++) {
        for (int i = 0; i < 1000; i++) {
            const std::string text = "text" + std::to_string(i);
            EXPECT_TRUE(StringMatchFull((text + "(x?)").c_str(), text.c_str()));
            EXPECT_TRUE(StringMatchFull("always", "always"));
        }
    }
}

TEST(Regex, CanBeJudgedWithoutALine)
{
    LogCapture log;
    EXPECT_EQ(veltrane::WhyNoRegex("a.*(b|c)"), "");
    EXPECT_EQ(veltrane::WhyNoRegex(""), "");
    EXPECT_EQ(veltrane::WhyNoRegex("a)"), "unmatched closing parenthesis (at byte 1)");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(Regex, EachThreadMatchesForItself)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < 1000; i++) {
                EXPECT_TRUE(StringMatchFull("(a|b)+c", "ababc"));
                EXPECT_FALSE(StringMatchFull("(a|b)+c", "abab"));
            }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
}

}  // namespace
