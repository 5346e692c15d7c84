// JSON trees: what is read, what is refused, and the exact bytes that are written.
#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libveltrane/json_private.h"

using veltrane::JsonArrayAppend;
using veltrane::JsonArrayExtend;
using veltrane::JsonMember;
using veltrane::JsonMembers;
using veltrane::JsonObjectPut;
using veltrane::JsonPlainText;
using veltrane::JsonPtr;
using veltrane::JsonString;
using veltrane::TextPtr;

namespace {

JsonPtr Parsed(const std::string &text)
{
    JsonElement *json = nullptr;
    EXPECT_EQ(JsonParse(text.c_str(), &json), JSON_PARSE_OK) << text;
    return JsonPtr(json);
}

std::string Written(const JsonElement *json)
{
    Writer *writer = StringWriter();
    JsonWriteCompact(writer, json);
    return TextPtr(StringWriterClose(writer)).get();
}

std::string Nested(size_t levels)
{
    std::string text;
    for (size_t i = 0; i < levels; i++) { text += i % 2 == 0 ? "[" : "{\"a\":"; }
    if (levels % 2 == 0) {
        text += "1";
    }
    for (size_t i = levels; i > 0; i--) { text += i % 2 == 1 ? "]" : "}"; }
    return text;
}

TEST(JsonParse, WhatIsReadIsWrittenCompact)
{
    const struct {
        const char *text;
        const char *written;
    } good[] = {
        {"{}", "{}"},
        {"[]", "[]"},
        {" [ 1 , 2 ] \r\n", "[1,2]"},
        {"{\"z\":1,\"a\":2}", "{\"z\":1,\"a\":2}"},  // in the order of the text
        {"{ \"a\" : { \"b\" : [ ] } }", "{\"a\":{\"b\":[]}}"},
        {"{\"a\":1,\"b\":2,\"a\":3}", "{\"a\":3,\"b\":2}"},  // the last value of a key, in its first place
        {"\"text\"", "\"text\""},
        {"true", "true"},
        {"false", "false"},
        {"null", "null"},
        {"0", "0"},
        {"-7", "-7"},
        {"9223372036854775807", "9223372036854775807"},
        {"-9223372036854775808", "-9223372036854775808"},
        {"0.1", "0.1"},
        {"1.0", "1.0"},
        {"-2.50", "-2.5"},
        {"1e3", "1000.0"},
        {"1E-7", "1e-7"},
        {"1e-999", "0.0"},  // too small is no harm
        {"1e+2", "100.0"},
        {"0.30000000000000004", "0.30000000000000004"},
        {"123456789.12345678", "123456789.12345678"},
        {"\"\\u0041\\u00e9\\u20ac\\ud83d\\ude00\"", "\"A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\""},
        {"\"\\b\\f\\n\\r\\t\\\"\\\\\\/\"", "\"\\b\\f\\n\\r\\t\\\"\\\\/\""},
        {"\"\\u001f\\u0001\"", "\"\\u001f\\u0001\""},
        {"\"\x7f\xC3\xA9\"", "\"\x7f\xC3\xA9\""},
        {"[\"[\",\"{\"]", "[\"[\",\"{\"]"},
    };
    for (const auto &c : good) { EXPECT_EQ(Written(Parsed(c.text).get()), c.written) << c.text; }
}

TEST(JsonParse, RefusesBadTextsWithTheirReasonAndLeavesTheResult)
{
    const struct {
        const char *text;
        JsonParseError error;
    } bad[] = {
        {nullptr, JSON_PARSE_ERROR_NO_DATA},
        {"", JSON_PARSE_ERROR_NO_DATA},
        {" \t\r\n", JSON_PARSE_ERROR_NO_DATA},
        {"{", JSON_PARSE_ERROR_SYNTAX},
        {"[1", JSON_PARSE_ERROR_SYNTAX},
        {"[1,]", JSON_PARSE_ERROR_SYNTAX},
        {"{\"a\"}", JSON_PARSE_ERROR_SYNTAX},
        {"{a:1}", JSON_PARSE_ERROR_SYNTAX},
        {"{\"a\":1,}", JSON_PARSE_ERROR_SYNTAX},
        {"\"abc", JSON_PARSE_ERROR_SYNTAX},
        {"'a'", JSON_PARSE_ERROR_SYNTAX},
        {"nul", JSON_PARSE_ERROR_SYNTAX},
        {"True", JSON_PARSE_ERROR_SYNTAX},
        {"01", JSON_PARSE_ERROR_SYNTAX},
        {"-01", JSON_PARSE_ERROR_SYNTAX},
        {"1.", JSON_PARSE_ERROR_SYNTAX},
        {"1.e2", JSON_PARSE_ERROR_SYNTAX},
        {"1e", JSON_PARSE_ERROR_SYNTAX},
        {"1e+", JSON_PARSE_ERROR_SYNTAX},
        {"0x10", JSON_PARSE_ERROR_TRAILING},
        {"[1 2]", JSON_PARSE_ERROR_SYNTAX},
        {"[,1]", JSON_PARSE_ERROR_SYNTAX},
        {"[1]]", JSON_PARSE_ERROR_TRAILING},
        {"]", JSON_PARSE_ERROR_SYNTAX},
        {"[}", JSON_PARSE_ERROR_SYNTAX},
        {"{,}", JSON_PARSE_ERROR_SYNTAX},
        {"{\"a\":}", JSON_PARSE_ERROR_SYNTAX},
        {"{\"a\":1 \"b\":2}", JSON_PARSE_ERROR_SYNTAX},
        {"{\"a\" 1}", JSON_PARSE_ERROR_SYNTAX},
        {"{1:2}", JSON_PARSE_ERROR_SYNTAX},
        {"nulll", JSON_PARSE_ERROR_SYNTAX},
        {"\f1", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\u00\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\u00g0\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\u-001\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\udc00\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\ud800\\u0041\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\ud800x\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\", JSON_PARSE_ERROR_SYNTAX},
        {"+1", JSON_PARSE_ERROR_SYNTAX},
        {".5", JSON_PARSE_ERROR_SYNTAX},
        {"-", JSON_PARSE_ERROR_SYNTAX},
        {"NaN", JSON_PARSE_ERROR_SYNTAX},
        {"\"a\nb\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\x\"", JSON_PARSE_ERROR_SYNTAX},
        {"\"\\ud800\"", JSON_PARSE_ERROR_SYNTAX},
        {"// a", JSON_PARSE_ERROR_SYNTAX},
        {"9223372036854775808", JSON_PARSE_ERROR_SYNTAX},
        {"[-9223372036854775809]", JSON_PARSE_ERROR_SYNTAX},
        {"1e999", JSON_PARSE_ERROR_SYNTAX},
        {"{} x", JSON_PARSE_ERROR_TRAILING},
        {"{}{}", JSON_PARSE_ERROR_TRAILING},
        {"1 2", JSON_PARSE_ERROR_TRAILING},
        {"[],", JSON_PARSE_ERROR_TRAILING},
        {"\"\\u0000\"", JSON_PARSE_ERROR_ZERO_BYTE},
        {"[\"a\\u0000b\"]", JSON_PARSE_ERROR_ZERO_BYTE},
        {"{\"\\u0000\":1}", JSON_PARSE_ERROR_ZERO_BYTE},
        {"\"\xff\"", JSON_PARSE_ERROR_UTF8},
        {"[\"\xC3\"]", JSON_PARSE_ERROR_UTF8},
        {"\"\xC0\x80\"", JSON_PARSE_ERROR_UTF8},
        {"\"\xED\xA0\x80\"", JSON_PARSE_ERROR_UTF8},
        {"{\"\x80\":1}", JSON_PARSE_ERROR_UTF8},
    };
    for (const auto &c : bad) {
        JsonElement *const untouched = reinterpret_cast<JsonElement *>(8);
        JsonElement *json = untouched;
        EXPECT_EQ(JsonParse(c.text, &json), c.error) << (c.text != nullptr ? c.text : "NULL");
        EXPECT_EQ(json, untouched);
    }
}

TEST(JsonParse, ReadsFiveHundredAndTwelveLevelsAndNoMore)
{
    EXPECT_EQ(Written(Parsed(Nested(512)).get()), Nested(512));
    for (size_t levels : {513, 2000, 2048, 2049, 100'000}) {
        JsonElement *json = nullptr;
        EXPECT_EQ(JsonParse(Nested(levels).c_str(), &json), JSON_PARSE_ERROR_DEPTH) << levels;
        EXPECT_EQ(json, nullptr);
    }
}

TEST(JsonParse, ManyBracketsBesideEachOtherOrInTextsAreNoLevels)
{
    std::string text = "[";
    for (int i = 0; i < 5000; i++) { text += "[],{},\"[{[{\","; }
    text += "1]";

    EXPECT_EQ(Written(Parsed(text).get()), text);
}

TEST(JsonParse, EveryTruncationOfAnObjectIsRefused)
{
    const std::string text = "{\"a\":[1,2.5,\"x\\n\",true,null],\"b\":{}}";
    for (size_t length = 0; length < text.size(); length++) {
        JsonElement *json = nullptr;
        EXPECT_NE(JsonParse(text.substr(0, length).c_str(), &json), JSON_PARSE_OK) << length;
    }
}

TEST(JsonParse, EveryErrorHasItsOwnText)
{
    std::vector<std::string> texts;
    for (int error = JSON_PARSE_OK; error <= JSON_PARSE_ERROR_UTF8 + 1; error++) {
        texts.push_back(JsonParseErrorToString(static_cast<JsonParseError>(error)));
    }
    EXPECT_THAT(
        texts, testing::ElementsAre("Success", "No JSON data", "Malformed JSON", "Data after the end of the JSON value",
                                    "JSON nested too deeply", "Zero byte in a JSON string", "JSON that is not UTF-8",
                                    "Unknown JSON parse error"));
}

TEST(Json, EachElementKnowsItsKind)
{
    const struct {
        const char *text;
        JsonElementType element;
        JsonContainerType container;
        JsonPrimitiveType primitive;
    } cases[] = {
        {"{}", JSON_ELEMENT_TYPE_CONTAINER, JSON_CONTAINER_TYPE_OBJECT, JSON_PRIMITIVE_TYPE_NONE},
        {"[]", JSON_ELEMENT_TYPE_CONTAINER, JSON_CONTAINER_TYPE_ARRAY, JSON_PRIMITIVE_TYPE_NONE},
        {"\"a\"", JSON_ELEMENT_TYPE_PRIMITIVE, JSON_CONTAINER_TYPE_NONE, JSON_PRIMITIVE_TYPE_STRING},
        {"1", JSON_ELEMENT_TYPE_PRIMITIVE, JSON_CONTAINER_TYPE_NONE, JSON_PRIMITIVE_TYPE_INTEGER},
        {"1.0", JSON_ELEMENT_TYPE_PRIMITIVE, JSON_CONTAINER_TYPE_NONE, JSON_PRIMITIVE_TYPE_REAL},
        {"1e2", JSON_ELEMENT_TYPE_PRIMITIVE, JSON_CONTAINER_TYPE_NONE, JSON_PRIMITIVE_TYPE_REAL},
        {"true", JSON_ELEMENT_TYPE_PRIMITIVE, JSON_CONTAINER_TYPE_NONE, JSON_PRIMITIVE_TYPE_BOOL},
        {"false", JSON_ELEMENT_TYPE_PRIMITIVE, JSON_CONTAINER_TYPE_NONE, JSON_PRIMITIVE_TYPE_BOOL},
        {"null", JSON_ELEMENT_TYPE_PRIMITIVE, JSON_CONTAINER_TYPE_NONE, JSON_PRIMITIVE_TYPE_NULL},
    };
    for (const auto &c : cases) {
        const JsonPtr json = Parsed(c.text);
        EXPECT_EQ(JsonGetElementType(json.get()), c.element) << c.text;
        EXPECT_EQ(JsonGetContainerType(json.get()), c.container) << c.text;
        EXPECT_EQ(JsonGetPrimitiveType(json.get()), c.primitive) << c.text;
    }
}

TEST(Json, MembersAreFoundByKeyAndKind)
{
    const JsonPtr json = Parsed("{\"s\":\"text\",\"i\":-42,\"a\":[1],\"o\":{\"x\":1},\"n\":null}");

    EXPECT_EQ(JsonLength(json.get()), 5u);
    EXPECT_STREQ(JsonObjectGetAsString(json.get(), "s"), "text");
    EXPECT_EQ(JsonPrimitiveGetAsInteger(JsonObjectGet(json.get(), "i")), -42);
    EXPECT_EQ(JsonLength(JsonObjectGetAsArray(json.get(), "a")), 1u);
    EXPECT_EQ(JsonLength(JsonObjectGetAsObject(json.get(), "o")), 1u);
    EXPECT_NE(JsonObjectGet(json.get(), "n"), nullptr);
    for (const char *key : {"absent", "i", "a", "n"}) { EXPECT_EQ(JsonObjectGetAsString(json.get(), key), nullptr); }
    for (const char *key : {"absent", "s", "o"}) { EXPECT_EQ(JsonObjectGetAsArray(json.get(), key), nullptr); }
    for (const char *key : {"absent", "s", "a"}) { EXPECT_EQ(JsonObjectGetAsObject(json.get(), key), nullptr); }
    EXPECT_EQ(JsonObjectGet(json.get(), "absent"), nullptr);
}

TEST(Json, WhatIsNoObjectHasNoMembers)
{
    for (const char *text : {"[]", "\"a\"", "1", "null"}) {
        const JsonPtr json = Parsed(text);
        EXPECT_EQ(JsonObjectGet(json.get(), "a"), nullptr) << text;
        EXPECT_EQ(JsonObjectGetAsString(json.get(), "a"), nullptr) << text;
    }
}

TEST(Json, ItemsAreFoundByTheirPlace)
{
    const JsonPtr json = Parsed("[\"a\",7]");

    EXPECT_STREQ(JsonPrimitiveGetAsString(JsonArrayGet(json.get(), 0)), "a");
    EXPECT_EQ(JsonPrimitiveGetAsInteger(JsonArrayGet(json.get(), 1)), 7);
    EXPECT_EQ(JsonArrayGet(json.get(), 2), nullptr);
    EXPECT_EQ(JsonArrayGet(json.get(), SIZE_MAX), nullptr);
}

TEST(Json, APrimitiveOfAnotherKindGivesNoValue)
{
    for (const char *text : {"1.5", "\"7\"", "true", "null"}) {
        EXPECT_EQ(JsonPrimitiveGetAsInteger(Parsed(text).get()), 0) << text;
    }
    for (const char *text : {"1.5", "7", "true", "null"}) {
        EXPECT_EQ(JsonPrimitiveGetAsString(Parsed(text).get()), nullptr) << text;
    }
    EXPECT_EQ(JsonPrimitiveGetAsInteger(Parsed("9223372036854775807").get()), LONG_MAX);
}

TEST(Json, ABuiltTreeIsWrittenInTheOrderOfAppending)
{
    const JsonPtr json(JsonObjectCreate(15));
    JsonElement *array = JsonArrayCreate(2);
    JsonArrayAppendString(array, "x");
    JsonArrayAppendString(array, nullptr);
    JsonElement *object = JsonObjectCreate(0);
    JsonObjectAppendInteger(object, "n", INT_MIN);
    JsonObjectAppendString(json.get(), "z", "text");
    JsonObjectAppendString(json.get(), "none", nullptr);
    JsonObjectAppendArray(json.get(), "a", array);
    JsonObjectAppendObject(json.get(), "o", object);
    JsonObjectAppendInteger(json.get(), "i", INT_MAX);

    EXPECT_EQ(Written(json.get()),
              "{\"z\":\"text\",\"none\":null,\"a\":[\"x\",null],\"o\":{\"n\":-2147483648},\"i\":2147483647}");
}

TEST(Json, AnElementThatWasTakenOverCanStillGrow)
{
    const JsonPtr json(JsonObjectCreate(1));
    JsonElement *array = JsonArrayCreate(0);
    JsonObjectAppendArray(json.get(), "a", array);

    for (int i = 0; i < 100; i++) { JsonObjectAppendInteger(json.get(), std::to_string(i).c_str(), i); }
    JsonArrayAppendString(array, "late");

    EXPECT_EQ(JsonObjectGetAsArray(json.get(), "a"), array);
    EXPECT_EQ(JsonLength(array), 1u);
}

TEST(Json, AKeyAlreadyThereGetsTheNewValueInItsOldPlace)
{
    const JsonPtr json(JsonObjectCreate(0));
    JsonObjectAppendString(json.get(), "a", "1");
    JsonObjectAppendString(json.get(), "b", "2");

    JsonObjectAppendInteger(json.get(), "a", 3);

    EXPECT_EQ(Written(json.get()), "{\"a\":3,\"b\":\"2\"}");
}

TEST(Json, OnlyTheLowThirtyTwoBitsOfAnIntegerAreKept)
{
    const JsonPtr json(JsonObjectCreate(0));

    JsonObjectAppendInteger(json.get(), "t", static_cast<int>(INT64_C(0x100000007)));

    EXPECT_EQ(Written(json.get()), "{\"t\":7}");
}

TEST(Json, BytesThatAreNotUtf8AreReplacedOnTheWayIn)
{
    const JsonPtr json(JsonObjectCreate(0));
    JsonElement *array = JsonArrayCreate(0);
    JsonArrayAppendString(array, "\xff");
    JsonObjectAppendString(json.get(), "a", "x\xC3\xA9\xC3y\x80\x80");
    JsonObjectAppendString(json.get(), "\xffkey", "v");
    JsonObjectAppendArray(json.get(), "l", array);

    const std::string written = Written(json.get());

    EXPECT_EQ(written,
              "{\"a\":\"x\xC3\xA9\xEF\xBF\xBDy\xEF\xBF\xBD\xEF\xBF\xBD\",\"\xEF\xBF\xBDkey\":\"v\","
              "\"l\":[\"\xEF\xBF\xBD\"]}");
    EXPECT_STREQ(JsonObjectGetAsString(json.get(), "\xffkey"), "v");  // found by the name it was given
    EXPECT_EQ(Written(Parsed(written).get()), written);
}

TEST(Json, EveryControlByteIsEscapedAndNothingElse)
{
    std::string text;
    for (int c = 1; c < 0x80; c++) { text += static_cast<char>(c); }
    const JsonPtr json(JsonArrayCreate(1));
    JsonArrayAppendString(json.get(), text.c_str());

    const std::string written = Written(json.get());

    EXPECT_EQ(
        written,
        "[\"\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\\b\\t\\n\\u000b\\f\\r\\u000e\\u000f"
        "\\u0010\\u0011\\u0012\\u0013\\u0014\\u0015\\u0016\\u0017\\u0018\\u0019\\u001a\\u001b\\u001c\\u001d\\u001e"
        "\\u001f !\\\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\\\]^_`abcdefghijklmnopqrstuvwxyz"
        "{|}~\x7f\"]");
    EXPECT_EQ(JsonPrimitiveGetAsString(JsonArrayGet(Parsed(written).get(), 0)), text);
}

TEST(Json, IsWrittenBehindWhatTheWriterHolds)
{
    Writer *writer = StringWriter();
    WriterWrite(writer, "before ");
    JsonWriteCompact(writer, Parsed("[1]").get());
    JsonWriteCompact(writer, Parsed("null").get());

    EXPECT_STREQ(TextPtr(StringWriterClose(writer)).get(), "before [1]null");
}

TEST(Json, AnObjectOfManyMembersKeepsThemAll)
{
    const JsonPtr json(JsonObjectCreate(0));
    for (int i = 0; i < 40'000; i++) { JsonObjectAppendInteger(json.get(), ("key" + std::to_string(i)).c_str(), i); }

    const JsonPtr again = Parsed(Written(json.get()));

    EXPECT_EQ(JsonLength(again.get()), 40'000u);
    EXPECT_EQ(JsonPrimitiveGetAsInteger(JsonObjectGet(again.get(), "key39999")), 39'999);
}

TEST(Json, DestroyingNothingIsAllowed)
{
    JsonDestroy(nullptr);
    SUCCEED();
}

TEST(Json, MembersAreWalkedInTheOrderOfAppending)
{
    const JsonPtr json = Parsed(R"({"z":1,"a":"two","m":[3]})");

    std::vector<std::string> walked;
    for (const JsonMember &member : JsonMembers(json.get())) {
        walked.push_back(std::string(member.key) + "=" + JsonPlainText(member.value));
    }

    EXPECT_THAT(walked, testing::ElementsAre("z=1", "a=two", "m=[3]"));
}

TEST(Json, OnlyAnObjectHasMembers)
{
    for (const char *text : {"[1,2]", "\"text\"", "null", "{}"}) {
        EXPECT_TRUE(JsonMembers(Parsed(text).get()).empty()) << text;
    }
    EXPECT_TRUE(JsonMembers(nullptr).empty());
}

TEST(Json, WhatIsPutOrAppendedMayBeOfAnyKindAndIsTakenOver)
{
    const JsonPtr object(JsonObjectCreate(0));
    JsonObjectPut(object.get(), "real", Parsed("1.5").release());
    JsonElement *const array = JsonArrayCreate(0);
    JsonObjectPut(object.get(), "array", array);
    JsonArrayAppend(array, Parsed("true").release());
    JsonArrayAppend(array, JsonString("caf\xE9"));
    JsonArrayExtend(array, Parsed(R"([null,{"k":[]}])").release());
    JsonArrayExtend(array, JsonArrayCreate(0));

    EXPECT_EQ(Written(object.get()), "{\"real\":1.5,\"array\":[true,\"caf\xEF\xBF\xBD\",null,{\"k\":[]}]}");
}

TEST(JsonDeathTest, PuttingIntoAnElementThatCannotHoldItIsAProgrammingError)
{
    const JsonPtr array(JsonArrayCreate(0));
    const JsonPtr object(JsonObjectCreate(0));

    EXPECT_DEATH(JsonObjectAppendInteger(array.get(), "k", 1),
                 "programming error: Member 'k' put into a JSON element that is no object");
    EXPECT_DEATH(JsonArrayAppendString(object.get(), "v"),
                 "programming error: A value appended to a JSON element that is no array");
    EXPECT_DEATH(JsonArrayExtend(array.get(), JsonObjectCreate(0)),
                 "programming error: A JSON array extended by what is none, or the other way round");
}

}  // namespace
