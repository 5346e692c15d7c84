// Texts: comparing, copying, numbers, changing.
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <support/log_capture.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

using testing::ElementsAre;
using testing::Pair;
using veltrane::TextPtr;

namespace {

TEST(StringLib, EqualityIsExactAndKnowsNothing)
{
    EXPECT_TRUE(StringEqual("a", "a"));
    EXPECT_TRUE(StringEqual("", ""));
    EXPECT_TRUE(StringEqual(nullptr, nullptr));
    EXPECT_FALSE(StringEqual("a", "A"));
    EXPECT_FALSE(StringEqual("a", "ab"));
    EXPECT_FALSE(StringEqual(nullptr, ""));
    EXPECT_FALSE(StringEqual("", nullptr));
}

TEST(StringLib, ComparingGoesByUnsignedBytesWithNothingFirst)
{
    const struct {
        const char *a;
        const char *b;
        int order;
    } cases[] = {
        {"a", "a", 0},  {"a", "b", -1},       {"b", "a", 1},     {"a", "ab", -1},  {"ab", "a", 1},        {"", "a", -1},
        {"z", "é", -1}, {"\x7f", "\x80", -1}, {nullptr, "", -1}, {"", nullptr, 1}, {nullptr, nullptr, 0},
    };
    for (const auto &c : cases) { EXPECT_EQ(StringSafeCompare(c.a, c.b), c.order) << (c.a != nullptr ? c.a : "NULL"); }
}

TEST(StringLib, ACopyOfNothingIsNothing)
{
    EXPECT_EQ(SafeStringDuplicate(nullptr), nullptr);
    EXPECT_EQ(SafeStringNDuplicate(nullptr, 5), nullptr);
    EXPECT_STREQ(TextPtr(SafeStringDuplicate("abc")).get(), "abc");
    EXPECT_STREQ(TextPtr(SafeStringNDuplicate("abc", 2)).get(), "ab");
    EXPECT_STREQ(TextPtr(SafeStringNDuplicate("abc", 3)).get(), "abc");
    EXPECT_STREQ(TextPtr(SafeStringNDuplicate("abc", 9)).get(), "abc");
    EXPECT_STREQ(TextPtr(SafeStringNDuplicate("abc", 0)).get(), "");
}

TEST(StringLib, TheLengthOfNothingIsZero)
{
    EXPECT_EQ(SafeStringLength(nullptr), 0u);
    EXPECT_EQ(SafeStringLength(""), 0u);
    EXPECT_EQ(SafeStringLength("abc"), 3u);
}

TEST(StringLib, WhiteSpaceAloneIsEmpty)
{
    for (const char *empty : {static_cast<const char *>(nullptr), "", " ", " \t\n\v\f\r "}) {
        EXPECT_TRUE(EmptyString(empty));
    }
    for (const char *text : {"a", " a", "\xA0", "\x1f"}) { EXPECT_FALSE(EmptyString(text)); }
}

TEST(StringLib, TheHashDependsOnEveryByteTheLengthAndTheSeed)
{
    for (size_t length = 1; length <= 70; length++) {
        const std::string text(length, 'a');
        EXPECT_EQ(StringHash(text.c_str(), 1), StringHash(std::string(text).c_str(), 1));
        EXPECT_NE(StringHash(text.c_str(), 1), StringHash(text.c_str(), 2));
        EXPECT_NE(StringHash(text.c_str(), 1), StringHash((text + "a").c_str(), 1));
        for (size_t i = 0; i < length; i++) {
            std::string other = text;
            other[i] = 'b';
            EXPECT_NE(StringHash(text.c_str(), 1), StringHash(other.c_str(), 1)) << length << " " << i;
        }
    }
}

TEST(StringLib, TheHashSpreadsTextsThatDifferLittle)
{
    constexpr size_t kTexts = 100'000;
    std::set<unsigned> hashes;
    std::vector<size_t> low_bits(256);
    std::vector<size_t> high_bits(256);
    for (size_t i = 0; i < kTexts; i++) {
        const unsigned hash = StringHash(("class_" + std::to_string(i)).c_str(), 0);
        hashes.insert(hash);
        low_bits[hash & 255]++;
        high_bits[hash >> 24]++;
    }
    EXPECT_GT(hashes.size(), kTexts - 20);  // chance alone gives one or two collisions
    for (const std::vector<size_t> &counts : {low_bits, high_bits}) {
        EXPECT_GT(*std::min_element(counts.begin(), counts.end()), kTexts / 256 / 2);
        EXPECT_LT(*std::max_element(counts.begin(), counts.end()), kTexts / 256 * 2);
    }
}

TEST(StringLib, AStartIsEveryPrefixAndTheTextItself)
{
    for (const char *prefix : {"", "a", "abc"}) { EXPECT_TRUE(StringStartsWith("abc", prefix)); }
    for (const char *other : {"b", "abcd", "A"}) { EXPECT_FALSE(StringStartsWith("abc", other)); }
}

TEST(StringLib, ACopyNeverExceedsItsRoomAndSaysWhatItWanted)
{
    char to[8] = "xxxxxxx";
    EXPECT_EQ(StringCopy("abc", to, sizeof(to)), 3u);
    EXPECT_STREQ(to, "abc");
    EXPECT_EQ(StringCopy("abcdefg", to, sizeof(to)), 7u);
    EXPECT_STREQ(to, "abcdefg");
    EXPECT_EQ(StringCopy("abcdefgh", to, sizeof(to)), 8u);  // was cut
    EXPECT_STREQ(to, "abcdefg");
    EXPECT_EQ(StringCopy("abc", to, 1), 3u);
    EXPECT_STREQ(to, "");
    memcpy(to, "before", 7);
    EXPECT_EQ(StringCopy("abc", to, 0), 3u);
    EXPECT_STREQ(to, "before");
}

TEST(StringLib, AFormattedTextHasAnyLength)
{
    const std::string text(100'000, 'x');

    EXPECT_EQ(TextPtr(StringFormat("<%s:%d>", text.c_str(), 7)).get(), "<" + text + ":7>");
}

TEST(StringLib, NumericIsDigitsAndNothingElse)
{
    for (const char *numeric : {"0", "007", "123456789012345678901234567890"}) {
        EXPECT_TRUE(StringIsNumeric(numeric));
    }
    for (const char *other : {"", "-1", "+1", " 1", "1 ", "1.0", "0x1", "a", "1a", "\xD9\xA1"}) {
        EXPECT_FALSE(StringIsNumeric(other)) << other;
    }
    EXPECT_FALSE(StringIsNumeric(nullptr));
}

TEST(StringLib, ALongIsTheWholeText)
{
    const struct {
        const char *text;
        long value;
    } good[] = {
        {"0", 0},
        {"-0", 0},
        {"+0", 0},
        {"42", 42},
        {"+42", 42},
        {"-42", -42},
        {"0042", 42},
        {"9223372036854775807", LONG_MAX},
        {"-9223372036854775808", LONG_MIN},
        {"+9223372036854775807", LONG_MAX},
        {"000000000000000000000000000001", 1},
    };
    for (const auto &c : good) {
        long value = 77;
        EXPECT_EQ(StringToLong(c.text, &value), 0) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
        EXPECT_EQ(StringToLongDefaultOnError(c.text, 5), c.value) << c.text;
    }
}

TEST(StringLib, WhatIsNoLongLeavesTheValueUntouched)
{
    const struct {
        const char *text;
        int error;
    } bad[] = {
        {nullptr, EINVAL},
        {"", EINVAL},
        {"+", EINVAL},
        {"-", EINVAL},
        {"--1", EINVAL},
        {"+-1", EINVAL},
        {" 1", EINVAL},
        {"1 ", EINVAL},
        {"1\n", EINVAL},
        {"\t1", EINVAL},
        {"1.0", EINVAL},
        {"1e3", EINVAL},
        {"0x10", EINVAL},
        {"abc", EINVAL},
        {"12abc", EINVAL},
        {"9223372036854775808", ERANGE},
        {"+9223372036854775808", ERANGE},
        {"-9223372036854775809", ERANGE},
        {"99999999999999999999999999", ERANGE},
        {"99999999999999999999999999x", EINVAL},
    };
    for (const auto &c : bad) {
        long value = 77;
        EXPECT_EQ(StringToLong(c.text, &value), c.error) << (c.text != nullptr ? c.text : "NULL");
        EXPECT_EQ(value, 77);
        EXPECT_EQ(StringToLongDefaultOnError(c.text, 5), 5);
    }
}

TEST(StringLib, AFailedConversionIsLoggedWithTextPlaceAndReason)
{
    LogCapture log;

    LogStringToLongError("12abc", "TheCaller", EINVAL);
    LogStringToLongError("99999999999999999999", "TheCaller", ERANGE);

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "Conversion of '12abc' to a number failed in TheCaller: Invalid argument"),
                                       Pair(LOG_LEVEL_ERR,
                                            "Conversion of '99999999999999999999' to a number failed in TheCaller: "
                                            "Numerical result out of range")));
}

TEST(StringLib, AnUnsafeLongIsTheLongestNumberAtTheStart)
{
    const struct {
        const char *text;
        long value;
    } cases[] = {
        {nullptr, 0},
        {"", 0},
        {"abc", 0},
        {"-", 0},
        {"- 1", 0},
        {"+-1", 0},
        {"42", 42},
        {" \t\n\v\f\r-42xyz", -42},
        {"+7 8", 7},
        {"12.9", 12},
        {"0x10", 0},
        {"9223372036854775807", LONG_MAX},
        {"9223372036854775808", LONG_MAX},
        {"-9223372036854775808", LONG_MIN},
        {"-9223372036854775809", LONG_MIN},
        {"99999999999999999999999999 and more", LONG_MAX},
    };
    for (const auto &c : cases) { EXPECT_EQ(StringToLongUnsafe(c.text), c.value) << (c.text != nullptr ? c.text : ""); }
}

TEST(StringLib, ADoubleIsTheWholeText)
{
    const struct {
        const char *text;
        double value;
    } good[] = {
        {"0", 0},
        {"1", 1},
        {"-1.5", -1.5},
        {"+2.25", 2.25},
        {".5", 0.5},
        {"-.5", -0.5},
        {"5.", 5},
        {"1e3", 1000},
        {"1.5E-2", 0.015},
        {"0.1", 0.1},
        {"+.5", 0.5},
        {"007.50", 7.5},
        {"1.7976931348623157e308", std::numeric_limits<double>::max()},
    };
    for (const auto &c : good) {
        double value = 77;
        EXPECT_TRUE(StringToDouble(c.text, &value)) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
    }
    for (const char *bad : {static_cast<const char *>(nullptr), "", " 1", "1 ", "1,5", "1.5x", ".", "-", "+-1", "--1",
                            "e5", "1e", "0x10", "inf", "-inf", "nan", "infinity", "1e999", "1.2.3"}) {
        double value = 77;
        EXPECT_FALSE(StringToDouble(bad, &value)) << (bad != nullptr ? bad : "NULL");
        EXPECT_EQ(value, 77);
    }
}

TEST(StringLib, ReplacingGoesFromTheLeftAndNeverIntoTheReplacement)
{
    const struct {
        const char *text;
        const char *pattern;
        const char *replacement;
        const char *result;
    } cases[] = {
        {"", "a", "b", ""},
        {"abc", "x", "y", "abc"},
        {"abc", "b", "", "ac"},
        {"aaa", "aa", "b", "ba"},
        {"aaa", "a", "aa", "aaaaaa"},
        {"abab", "ab", "ba", "baba"},
        {"a.b.c", ".", "::", "a::b::c"},
        {"abc", "", "x", "abc"},
        {"\t\t", "\t", "(TAB)", "(TAB)(TAB)"},
        {"abc", "abc", "x", "x"},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(TextPtr(SearchAndReplace(c.text, c.pattern, c.replacement)).get(), c.result) << c.text;
        char buffer[64];
        StringCopy(c.text, buffer, sizeof(buffer));
        EXPECT_EQ(StringReplace(buffer, sizeof(buffer), c.pattern, c.replacement),
                  static_cast<ssize_t>(strlen(c.result)));
        EXPECT_STREQ(buffer, c.result);
    }
}

TEST(StringLib, ReplacingInPlaceWritesNothingWhenTheResultDoesNotFit)
{
    char buffer[] = "a\tb";  // 4 bytes

    EXPECT_EQ(StringReplace(buffer, sizeof(buffer), "\t", "--"), -1);
    EXPECT_STREQ(buffer, "a\tb");
    EXPECT_EQ(StringReplace(buffer, sizeof(buffer), "\t", "-"), 3);  // exactly full with its zero
    EXPECT_STREQ(buffer, "a-b");
}

TEST(StringLib, ChoppingRemovesAllTrailingNewlinesAndStrippingOne)
{
    const struct {
        const char *text;
        const char *chopped;
        const char *stripped;
    } cases[] = {
        {"", "", ""},
        {"a", "a", "a"},
        {"a\n", "a", "a"},
        {"a\n\n\n", "a", "a\n\n"},
        {"\n\n", "", "\n"},
        {"a\r\n", "a\r", "a\r"},
        {"a \n", "a ", "a "},
        {"a\n ", "a\n ", "a\n "},
        {"a\nb\n", "a\nb", "a\nb"},
    };
    for (const auto &c : cases) {
        std::string chopped(c.text);
        std::string stripped(c.text);
        EXPECT_EQ(Chop(chopped.data(), 100), 0);
        EXPECT_EQ(StripTrailingNewline(stripped.data(), 100), 0);
        EXPECT_STREQ(chopped.c_str(), c.chopped);
        EXPECT_STREQ(stripped.c_str(), c.stripped);
    }
}

TEST(StringLib, ATextThatDoesNotEndWithinItsLimitIsNotChopped)
{
    char text[] = "abc\n";

    EXPECT_EQ(Chop(text, 3), -1);
    EXPECT_EQ(StripTrailingNewline(text, 3), -1);
    EXPECT_STREQ(text, "abc\n");
    EXPECT_EQ(StripTrailingNewline(text, 4), 0);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(Chop(text, SIZE_MAX), 0);

    const char unended[] = {'a', '\n'};
    char bytes[2];
    memcpy(bytes, unended, 2);
    EXPECT_EQ(Chop(bytes, 1), -1);  // nothing beyond the limit is looked at
}

TEST(StringLib, TheLastByteIsReplacedOnlyWhenItIsTheOneSought)
{
    char text[] = "a/b/";
    EXPECT_FALSE(ReplaceTrailingChar(text, 'x', 'y'));
    EXPECT_TRUE(ReplaceTrailingChar(text, '/', '+'));
    EXPECT_STREQ(text, "a/b+");
    EXPECT_TRUE(ReplaceTrailingChar(text, '+', '\0'));
    EXPECT_STREQ(text, "a/b");
    char empty[] = "";
    EXPECT_FALSE(ReplaceTrailingChar(empty, '/', '+'));
    EXPECT_FALSE(ReplaceTrailingChar(empty, '\0', '+'));
}

TEST(StringLib, CanonifyingKeepsLettersDigitsAndUnderscores)
{
    EXPECT_STREQ(CanonifyName("aZ09_"), "aZ09_");
    EXPECT_STREQ(CanonifyName("a.b-c d/e"), "a_b_c_d_e");
    EXPECT_STREQ(CanonifyName("9lives"), "9lives");  // nothing is put before a digit
    EXPECT_STREQ(CanonifyName("\xC3\xA9\x7f\x01"), "____");
    EXPECT_STREQ(CanonifyName(""), "");
    char text[] = "a:b";
    CanonifyNameInPlace(text);
    EXPECT_STREQ(text, "a_b");
}

TEST(StringLib, ALongCanonicalNameIsCut)
{
    EXPECT_EQ(CanonifyName(std::string(4095, '-').c_str()), std::string(4095, '_'));
    EXPECT_EQ(CanonifyName(std::string(4096, '-').c_str()), std::string(4095, '_'));
}

TEST(StringLib, EachThreadHasItsOwnCanonicalName)
{
    const char *mine = CanonifyName("a.b");
    std::thread([] { EXPECT_STREQ(CanonifyName("c.d"), "c_d"); }).join();

    EXPECT_STREQ(mine, "a_b");
}

TEST(StringLib, TheLastNodeIsWhatFollowsTheLastSlash)
{
    EXPECT_STREQ(ReadLastNode("/a/b.c"), "b.c");
    EXPECT_STREQ(ReadLastNode("b"), "b");
    EXPECT_STREQ(ReadLastNode("/a/b/"), "");
    EXPECT_STREQ(ReadLastNode("/"), "");
    EXPECT_STREQ(ReadLastNode(""), "");
}

TEST(StringLib, BytesBecomeLowerCaseHexWhereTheyFit)
{
    const unsigned char bytes[] = {0x00, 0x9f, 0xAB, 0xff};
    char to[9] = "before";

    EXPECT_EQ(StringBytesToHex(to, 8, bytes, 4), 0u);
    EXPECT_STREQ(to, "before");
    EXPECT_EQ(StringBytesToHex(to, 9, bytes, 4), 8u);
    EXPECT_STREQ(to, "009fabff");
    EXPECT_EQ(StringBytesToHex(to, 1, bytes, 0), 0u);
    EXPECT_STREQ(to, "");
    EXPECT_EQ(StringBytesToHex(to, 0, bytes, 0), 0u);
    EXPECT_EQ(StringBytesToHex(to, 9, bytes, SIZE_MAX), 0u);  // twice that does not overflow into a yes
}

}  // namespace
