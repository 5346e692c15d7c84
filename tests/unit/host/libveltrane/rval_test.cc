// Values: copying, ending and writing them by their type.
#include <string>

#include <gtest/gtest.h>

#include <veltrane/owned.h>
#include <veltrane/rval.h>

#include "support/texts.h"

using veltrane::JsonPtr;
using veltrane::RlistPtr;
using veltrane::TextPtr;

namespace {

std::string Written(Rval rval)
{
    Writer *writer = StringWriter();
    RvalWriteRaw(writer, rval);
    return TextPtr(StringWriterClose(writer)).get();
}

TEST(Rval, EachDataTypeHasItsRvalType)
{
    for (DataType type : {VT_DATA_TYPE_STRING, VT_DATA_TYPE_INT, VT_DATA_TYPE_REAL}) {
        EXPECT_EQ(DataTypeToRvalType(type), RVAL_TYPE_SCALAR);
    }
    for (DataType type : {VT_DATA_TYPE_STRING_LIST, VT_DATA_TYPE_INT_LIST, VT_DATA_TYPE_REAL_LIST}) {
        EXPECT_EQ(DataTypeToRvalType(type), RVAL_TYPE_LIST);
    }
    EXPECT_EQ(DataTypeToRvalType(VT_DATA_TYPE_CONTAINER), RVAL_TYPE_CONTAINER);
    EXPECT_EQ(DataTypeToRvalType(VT_DATA_TYPE_NONE), RVAL_TYPE_NONE);
    EXPECT_EQ(DataTypeToRvalType(static_cast<DataType>(9)), RVAL_TYPE_NONE);
}

TEST(Rval, AScalarIsCopiedAndWrittenAsItIs)
{
    char text[] = "a \"b\" \\ {}\n";
    const Rval rval = RvalNew(text, RVAL_TYPE_SCALAR);
    text[0] = 'x';

    EXPECT_EQ(Written(rval), "a \"b\" \\ {}\n");
    EXPECT_STREQ(RvalScalarValue(rval), "a \"b\" \\ {}\n");
    EXPECT_EQ(RvalRlistValue(rval), nullptr);
    RvalDestroy(rval);
}

TEST(Rval, AListIsWrittenInBracesWithQuotesAndBackslashesEscaped)
{
    const Rval rval = ListRval({"a", "", "say \"b\"", "c:\\d", "\\\"", "e\nf"});

    EXPECT_EQ(Written(rval), "{\"a\",\"\",\"say \\\"b\\\"\",\"c:\\\\d\",\"\\\\\\\"\",\"e\nf\"}");
    EXPECT_EQ(RvalScalarValue(rval), nullptr);
    EXPECT_NE(RvalRlistValue(rval), nullptr);
    RvalDestroy(rval);
}

TEST(Rval, AContainerIsWrittenAsCompactJson)
{
    JsonElement *json = nullptr;
    ASSERT_EQ(JsonParse("{ \"b\" : [ 1, 2.5, \"x\" ], \"a\" : null }", &json), JSON_PARSE_OK);
    const Rval rval = {json, RVAL_TYPE_CONTAINER};

    EXPECT_EQ(Written(rval), "{\"b\":[1,2.5,\"x\"],\"a\":null}");
    RvalDestroy(rval);
}

TEST(Rval, NothingIsWrittenForNone)
{
    EXPECT_EQ(Written({}), "");
    EXPECT_EQ(Written({nullptr, RVAL_TYPE_SCALAR}), "");
    EXPECT_EQ(Written({nullptr, RVAL_TYPE_LIST}), "");
    EXPECT_EQ(Written({nullptr, RVAL_TYPE_CONTAINER}), "");
}

TEST(Rval, ACopyOutlivesItsOriginal)
{
    JsonElement *json = nullptr;
    ASSERT_EQ(JsonParse("{\"a\":[1]}", &json), JSON_PARSE_OK);
    for (const Rval rval :
         {RvalNew("scalar", RVAL_TYPE_SCALAR), ListRval({"a", "b"}), Rval{json, RVAL_TYPE_CONTAINER}}) {
        const std::string written = Written(rval);
        const Rval copy = RvalCopy(rval);
        EXPECT_NE(copy.item, rval.item);

        RvalDestroy(rval);

        EXPECT_EQ(Written(copy), written);
        EXPECT_EQ(copy.type, rval.type);
        RvalDestroy(copy);
    }
}

TEST(Rval, TheEmptyListIsCopiedToTheEmptyList)
{
    const Rval copy = RvalCopy({nullptr, RVAL_TYPE_LIST});

    EXPECT_EQ(copy.item, nullptr);
    EXPECT_EQ(copy.type, RVAL_TYPE_LIST);
}

TEST(Rval, WhatItDoesNotOwnIsLeftAlone)
{
    int record = 7;

    RvalDestroy({&record, RVAL_TYPE_NONE});

    EXPECT_EQ(RvalCopy({&record, RVAL_TYPE_NONE}).item, &record);
    EXPECT_EQ(record, 7);
}

}  // namespace
