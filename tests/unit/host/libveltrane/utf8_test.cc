// Judging and cleaning UTF-8.
#include <string>

#include <gtest/gtest.h>

#include <libveltrane/utf8.h>

namespace {

#define BAD "\xEF\xBF\xBD"

bool Valid(const std::string &text) { return veltrane::ValidUtf8Length(text.data(), text.size()) == text.size(); }

std::string Clean(const std::string &text) { return veltrane::CleanUtf8(text.data(), text.size()); }

TEST(Utf8, WellFormedTextsStayAsTheyAre)
{
    for (const std::string &text :
         {std::string(), std::string("plain"), std::string("a\0b", 3), std::string("\x7f"), std::string("\xC2\x80"),
          std::string("\xDF\xBF"), std::string("\xE0\xA0\x80"), std::string("\xED\x9F\xBF"),
          std::string("\xEE\x80\x80"), std::string("\xEF\xBF\xBF"), std::string("\xF0\x90\x80\x80"),
          std::string("\xF4\x8F\xBF\xBF"),
          std::string("sixteen letters.") + "\xC3\xA9" + std::string(100, 'x') + "\xE2\x82\xAC"}) {
        EXPECT_TRUE(Valid(text)) << text;
        EXPECT_EQ(Clean(text), text);
    }
}

TEST(Utf8, EachByteOfNoCharacterIsReplaced)
{
    const struct {
        std::string text;
        std::string clean;
    } cases[] = {
        {"\x80", BAD},                          // a continuation without a start
        {"\xff\xfe", BAD BAD},                  // never in UTF-8
        {"a\xC3", "a" BAD},                     // cut short
        {"\xC3(", BAD "("},                     // a start without its continuation
        {"\xE2\x82", BAD BAD},                  //
        {"\xE2\x82z", BAD BAD "z"},             //
        {"\xF0\x9F\x98", BAD BAD BAD},          //
        {"\xC0\x80", BAD BAD},                  // overlong
        {"\xC1\xBF", BAD BAD},                  //
        {"\xE0\x9F\xBF", BAD BAD BAD},          //
        {"\xF0\x8F\xBF\xBF", BAD BAD BAD BAD},  //
        {"\xED\xA0\x80", BAD BAD BAD},          // a surrogate
        {"\xF4\x90\x80\x80", BAD BAD BAD BAD},  // beyond U+10FFFF
        {"\xF5\x80\x80\x80", BAD BAD BAD BAD},  //
        {"\xE2\xC3\xA9", BAD "\xC3\xA9"},       // the next character is whole
        {"ok \xC3\xA9 \xA9 ok", "ok \xC3\xA9 " BAD " ok"},
        {std::string("a\0\x80", 3), std::string("a\0" BAD, 5)},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(Valid(c.text));
        EXPECT_EQ(Clean(c.text), c.clean);
        EXPECT_TRUE(Valid(c.clean));
    }
}

TEST(Utf8, ABadByteIsFoundAtEveryPlace)
{
    for (size_t length = 1; length < 40; length++) {
        for (size_t place = 0; place < length; place++) {
            std::string text(length, 'x');
            text[place] = '\x80';
            EXPECT_EQ(veltrane::ValidUtf8Length(text.data(), text.size()), place);
        }
    }
}

}  // namespace
