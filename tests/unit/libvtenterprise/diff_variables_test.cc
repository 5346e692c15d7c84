#include "libvtenterprise/diff_variables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/json.h>
#include <veltrane/scope.h>

#include "libvtenterprise/diff_engine.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/section_probe.h"
#include "support/texts.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::EvalContextPtr;
using veltrane::JsonPtr;
using veltrane::MapPtr;
using veltrane::RlistPtr;
using veltrane::SeqPtr;
using veltrane::VariableTableIteratorPtr;
using veltrane::VarRefPtr;

namespace {

constexpr const char *kSection = "variable_tmp_lock";

struct RecordDeleter {
    void operator()(HubVariableSerialized *record) const { HubVariableSerializedDelete(record); }
};
using RecordPtr = std::unique_ptr<HubVariableSerialized, RecordDeleter>;

// name  as VarRefParse takes it: "ns:scope.name[index]"
void Put(EvalContext *ctx, const char *name, const void *value, DataType type, const char *tags = nullptr)
{
    const VarRefPtr ref(VarRefParse(name));
    ASSERT_TRUE(EvalContextVariablePut(ctx, ref.get(), value, type, tags)) << name;
}

void PutText(EvalContext *ctx, const char *name, const char *value, const char *tags = nullptr)
{
    Put(ctx, name, value, VT_DATA_TYPE_STRING, tags);
}

EvalContextPtr ContextWithText(const char *name, const char *value, const char *tags = nullptr)
{
    EvalContextPtr ctx(EvalContextNew());
    PutText(ctx.get(), name, value, tags);
    return ctx;
}

// The record of the only variable of a context.
RecordPtr OnlyRecord(const EvalContextPtr &ctx)
{
    const VariableTableIteratorPtr iterator(EvalContextVariableTableIteratorNew(ctx.get(), nullptr, nullptr, nullptr));
    const Variable *variable = VariableTableIteratorNext(iterator.get());
    EXPECT_EQ(VariableTableIteratorNext(iterator.get()), nullptr);
    return RecordPtr(HubVariableSerializedFromVariable(variable));
}

std::vector<std::string> Variables(const Seq *state) { return StateTexts(state, report_type_variables); }

std::filesystem::path TemporaryCache(const WorkDirectory &work) { return work.State("variable.cache.tmp"); }

std::string CutLine(const std::string &name, const std::string &what)
{
    return "Variable '" + name + "' " + what +
           " too large for transmission to reporting hub (larger than 1024 bytes) -- will be truncated in reports";
}

// --- HubVariableSerializedFromVariable ---

TEST(HubVariableSerializedFromVariable, HasNamespaceScopeNameTypeValueAndJoinedTags)
{
    const RecordPtr record = OnlyRecord(ContextWithText("web:main.port", "8080", "inventory,report"));
    EXPECT_STREQ(record->ns, "web");
    EXPECT_STREQ(record->scope, "main");
    EXPECT_STREQ(record->name, "port");
    EXPECT_EQ(record->type, VT_DATA_TYPE_STRING);
    EXPECT_STREQ(record->value_serialized, "8080");
    EXPECT_STREQ(record->meta_serialized, "inventory,report");
}

TEST(HubVariableSerializedFromVariable, AVariableWithoutNamespaceIsInTheDefaultOneSoItsKeyHasThreeParts)
{
    const RecordPtr record = OnlyRecord(ContextWithText("main.port", "8080"));
    EXPECT_STREQ(record->ns, "default");
    EXPECT_EQ(Taken(HubVariableSerializedGetMainKey(record.get())), "default.main.port");
}

TEST(HubVariableSerializedFromVariable, AConstantIsNone)
{
    const EvalContextPtr ctx(EvalContextNew());
    ASSERT_TRUE(EvalContextVariablePutSpecial(ctx.get(), SPECIAL_SCOPE_CONST, "n", "\n", VT_DATA_TYPE_STRING, nullptr));
    EXPECT_EQ(OnlyRecord(ctx), nullptr);
}

TEST(HubVariableSerializedFromVariable, OnlyTheScopeConstItselfHoldsConstants)
{
    for (const char *name : {"constants.n", "Const.n", "con.st"}) {
        EXPECT_NE(OnlyRecord(ContextWithText(name, "x")), nullptr) << name;
    }
}

TEST(HubVariableSerializedFromVariable, EachIndexFollowsTheNameInBrackets)
{
    EXPECT_STREQ(OnlyRecord(ContextWithText("main.limits[cpu][mem]", "1"))->name, "limits[cpu][mem]");
    EXPECT_STREQ(OnlyRecord(ContextWithText("main.limits[cpu]", "1"))->name, "limits[cpu]");
}

TEST(HubVariableSerializedFromVariable, AnEmptyValueIsAbsent)
{
    const RecordPtr record = OnlyRecord(ContextWithText("main.x", ""));
    EXPECT_EQ(record->value_serialized, nullptr);
    EXPECT_EQ(CsvOf<void>(HubVariableSerializedToCSV, record.get()), "default,main,x,0,,\r\n");
}

TEST(HubVariableSerializedFromVariable, WithoutTagsTheTagTextIsAbsent)
{
    EXPECT_EQ(OnlyRecord(ContextWithText("main.x", "1"))->meta_serialized, nullptr);
    EXPECT_EQ(OnlyRecord(ContextWithText("main.x", "1", ""))->meta_serialized, nullptr);
}

TEST(HubVariableSerializedFromVariable, AListIsItsRawText)
{
    const EvalContextPtr ctx(EvalContextNew());
    Put(ctx.get(), "main.users", RlistOf({"a", "b \"c\""}).get(), VT_DATA_TYPE_STRING_LIST);
    const RecordPtr record = OnlyRecord(ctx);
    EXPECT_EQ(record->type, VT_DATA_TYPE_STRING_LIST);
    EXPECT_STREQ(record->value_serialized, "{\"a\",\"b \\\"c\\\"\"}");
}

TEST(HubVariableSerializedFromVariable, AContainerIsItsCompactJson)
{
    JsonElement *json = nullptr;
    ASSERT_EQ(JsonParse("{ \"a\": [1, 2] }", &json), JSON_PARSE_OK);
    const JsonPtr owned(json);
    const EvalContextPtr ctx(EvalContextNew());
    Put(ctx.get(), "main.data", json, VT_DATA_TYPE_CONTAINER);
    const RecordPtr record = OnlyRecord(ctx);
    EXPECT_EQ(record->type, VT_DATA_TYPE_CONTAINER);
    EXPECT_STREQ(record->value_serialized, "{\"a\":[1,2]}");
}

// A list with one item, whose raw text has so many bytes.
EvalContextPtr ContextWithList(size_t bytes, std::string *ret_raw)
{
    const std::string item(bytes - strlen("{\"\"}"), 'x');
    *ret_raw = "{\"" + item + "\"}";
    EvalContextPtr ctx(EvalContextNew());
    Put(ctx.get(), "web:main.users[x]", RlistOf({item}).get(), VT_DATA_TYPE_STRING_LIST);
    return ctx;
}

TEST(HubVariableSerializedFromVariable, AValueOfExactlyTheLimitIsKeptWhole)
{
    std::string raw;
    const EvalContextPtr ctx = ContextWithList(1024, &raw);
    LogCapture log;
    EXPECT_EQ(OnlyRecord(ctx)->value_serialized, raw);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(HubVariableSerializedFromVariable, ALongerValueIsCutToOneByteLessThanTheLimit)
{
    for (const size_t bytes : {1025, 5000}) {
        std::string raw;
        const EvalContextPtr ctx = ContextWithList(bytes, &raw);
        LogCapture log;
        EXPECT_EQ(OnlyRecord(ctx)->value_serialized, raw.substr(0, 1023));
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, CutLine("users[x]", "(value) is"))));
    }
}

TEST(HubVariableSerializedFromVariable, TagsHaveALimitOfTheirOwn)
{
    const std::string whole = std::string(1000, 'a') + "," + std::string(23, 'b');
    const std::string long_tags = whole + "b";
    const std::string value(1025, 'v');
    LogCapture log;

    EXPECT_EQ(OnlyRecord(ContextWithText("main.x", "1", whole.c_str()))->meta_serialized, whole);
    EXPECT_THAT(log.lines, IsEmpty());
    const RecordPtr record = OnlyRecord(ContextWithText("main.x", value.c_str(), long_tags.c_str()));

    EXPECT_EQ(record->meta_serialized, long_tags.substr(0, 1023));
    EXPECT_EQ(record->value_serialized, value.substr(0, 1023));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, CutLine("x", "(value) is")),
                                       Pair(LOG_LEVEL_VERBOSE, CutLine("x", "(meta tags) are"))));
}

TEST(HubVariableSerializedFromVariable, BytesThatAreNoUtf8AreKept)
{
    EXPECT_STREQ(OnlyRecord(ContextWithText("main.x", "caf\xE9\xFF"))->value_serialized, "caf\xE9\xFF");
}

// --- GetCurrentVariablesFromEvalContext ---

TEST(GetCurrentVariablesFromEvalContext, AllButConstantsComeInTheOrderOfTheContext)
{
    const EvalContextPtr ctx(EvalContextNew());
    PutText(ctx.get(), "web:main.b", "1");
    PutText(ctx.get(), "const.n", "\n");
    PutText(ctx.get(), "main.z", "2", "report");
    PutText(ctx.get(), "main.a[2]", "3");
    PutText(ctx.get(), "main.a[1]", "4");

    const SeqPtr variables(GetCurrentVariablesFromEvalContext(ctx.get()));

    EXPECT_THAT(Variables(variables.get()), ElementsAre("default,main,a[1],0,4,", "default,main,a[2],0,3,",
                                                        "default,main,z,0,2,report", "web,main,b,0,1,"));
}

// --- StoreVariables ---

TEST(StoreVariables, EachRunAppendsItsVariablesWithTheirGoldenBytes)
{
    const WorkDirectory work;
    const EvalContextPtr first(EvalContextNew());
    PutText(first.get(), "main.a", "1,2", "report,inventory");
    PutText(first.get(), "const.n", "\n");
    Put(first.get(), "main.users", RlistOf({"a", "b"}).get(), VT_DATA_TYPE_STRING_LIST);
    const EvalContextPtr second(EvalContextNew());
    PutText(second.get(), "web:main.limits[cpu][mem]", "");
    PutText(second.get(), "main.a", " a \"quoted\"\r\ntext");
    LogCapture log;

    StoreVariables(first.get());
    StoreVariables(second.get());

    ExpectGolden("state/variable.cache.tmp", ReadFile(TemporaryCache(work)));
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(StoreVariables, WithoutReportableVariablesThereIsNoFile)
{
    const WorkDirectory work;
    StoreVariables(ContextWithText("const.n", "\n").get());
    EXPECT_FALSE(std::filesystem::exists(TemporaryCache(work)));
}

TEST(StoreVariables, AFileThatCannotBeOpenedIsAnError)
{
    const WorkDirectory work;
    std::filesystem::create_directory(TemporaryCache(work));
    const EvalContextPtr ctx = ContextWithText("main.x", "1");
    LogCapture log;

    StoreVariables(ctx.get());

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "Could not write to the file: '" + TemporaryCache(work).string() + "'")));
}

TEST(StoreVariables, AppendsInsideTheSection)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "default,main,torn");
    bool held = false;
    {
        const LogAction action([&held](LogLevel, const std::string &) { held = IsSectionHeld(kSection); });
        StoreVariables(ContextWithText("main.x", "1").get());
    }
    EXPECT_EQ(ReadFile(TemporaryCache(work)), "default,main,x,0,1,\r\n");
    EXPECT_TRUE(held);
}

// --- GetCurrentCachedHubVariablesSerialized ---

TEST(GetCurrentCachedHubVariablesSerialized, AMissingFileIsNoMap)
{
    const WorkDirectory work;
    LogCapture log;
    EXPECT_EQ(GetCurrentCachedHubVariablesSerialized(), nullptr);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read: '" + TemporaryCache(work).string() + "'")));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(GetCurrentCachedHubVariablesSerialized, ALaterRecordReplacesAnEarlierOneOfTheSameKey)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "default,main,x,0,old,\r\ndefault,main,y,0,,\r\ndefault,main,x,1,2,tag\r\n");

    const MapPtr variables(GetCurrentCachedHubVariablesSerialized());

    ASSERT_NE(variables, nullptr);
    ASSERT_EQ(MapSize(variables.get()), 2u);
    const auto *x = static_cast<const HubVariableSerialized *>(MapGet(variables.get(), "default.main.x"));
    ASSERT_NE(x, nullptr);
    EXPECT_EQ(x->type, VT_DATA_TYPE_INT);
    EXPECT_STREQ(x->value_serialized, "2");
    EXPECT_STREQ(x->meta_serialized, "tag");
}

TEST(GetCurrentCachedHubVariablesSerialized, EachBadRecordIsAWarningAndATypeOutOfRangeAnErrorAsWell)
{
    const WorkDirectory work;
    WriteFile(
        TemporaryCache(work),
        "default,main,x,15,1,\r\nb\"a\"d\r\ndefault,main,y,16,1,\r\ndefault,main,y,-1,1,\r\ndefault,main,y,,1,\r\n"
        "default,main,y,0,1\r\ndefault,main,y,0,1,,\r\ndefault,main,,0,1,\r\ndefault,,y,0,1,\r\n,main,z,0,,\r\n");
    const std::string entry = "csv file entry ('" + TemporaryCache(work).string() + "'): ";
    const auto type_error = Pair(LOG_LEVEL_ERR, "Received variable with invalid type in reporting data");
    const auto invalid = [&](const std::string &record) {
        return Pair(LOG_LEVEL_WARNING, "Invalid " + entry + "'" + record + "'");
    };
    LogCapture log;

    const MapPtr variables(GetCurrentCachedHubVariablesSerialized());

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING, "Failed to parse " + entry + "'b\"a\"d'"), type_error,
                                       invalid("default,main,y,16,1,"), type_error, invalid("default,main,y,-1,1,"),
                                       type_error, invalid("default,main,y,,1,"), invalid("default,main,y,0,1"),
                                       invalid("default,main,y,0,1,,"), invalid("default,main,,0,1,"),
                                       invalid("default,,y,0,1,")));
    ASSERT_NE(variables, nullptr);
    EXPECT_EQ(MapSize(variables.get()), 2u);
    EXPECT_TRUE(MapHasKey(variables.get(), "default.main.x"));
    EXPECT_TRUE(MapHasKey(variables.get(), "main.z"));  // no namespace: two parts
}

// --- GetCurrentHubVariableSerializedList ---

TEST(GetCurrentHubVariableSerializedList, AVariableOfThisRunReplacesTheCachedOneInItsPlace)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "default,main,z,0,kept,\r\ndefault,main,a,0,old,tag\r\n");
    const EvalContextPtr ctx(EvalContextNew());
    PutText(ctx.get(), "main.a", "new");
    PutText(ctx.get(), "main.b", "added");

    const SeqPtr variables(GetCurrentHubVariableSerializedList(ctx.get()));

    EXPECT_THAT(Variables(variables.get()),
                ElementsAre("default,main,z,0,kept,", "default,main,a,0,new,", "default,main,b,0,added,"));
}

TEST(GetCurrentHubVariableSerializedList, WithoutATemporaryCacheItIsTheContextAlone)
{
    const WorkDirectory work;
    const SeqPtr variables(GetCurrentHubVariableSerializedList(ContextWithText("main.a", "1").get()));
    EXPECT_THAT(Variables(variables.get()), ElementsAre("default,main,a,0,1,"));
}

// --- PurgeCurrentVariables ---

TEST(PurgeCurrentVariables, DeletesTheTemporaryCacheAndNoneIsNoFailure)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "default,main,x,0,1,\r\n");
    LogCapture log;
    EXPECT_TRUE(PurgeCurrentVariables(0));
    EXPECT_FALSE(std::filesystem::exists(TemporaryCache(work)));
    EXPECT_TRUE(PurgeCurrentVariables(0));
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(PurgeCurrentVariables, WhatCannotBeDeletedIsAFailureInsideTheSection)
{
    const WorkDirectory work;
    std::filesystem::create_directory(TemporaryCache(work));  // opens, but no unlink removes it
    std::vector<std::pair<LogLevel, std::string>> lines;
    bool held = false;
    {
        const LogAction action([&](LogLevel level, const std::string &message) {
            lines.emplace_back(level, message);
            held = IsSectionHeld(kSection);
        });
        EXPECT_FALSE(PurgeCurrentVariables(0));
    }
    EXPECT_THAT(lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Failed to remove file '" + TemporaryCache(work).string() +
                                                               "' during cleanup")));
    EXPECT_TRUE(held);
}

// --- Through the engine ---

TEST(VariableReport, TheVariablesOfAnEarlierRunAreReportedOnceAndTheirCacheGoes)
{
    const WorkDirectory work;
    const EvalContextPtr update(EvalContextNew());
    PutText(update.get(), "update.version", "7");
    PutText(update.get(), "main.x", "of the update run");
    const EvalContextPtr main_run = ContextWithText("main.x", "1");
    StoreVariables(update.get());

    EXPECT_TRUE(DiffReportGenerate(report_type_variables, 1000, main_run.get()));
    EXPECT_FALSE(std::filesystem::exists(TemporaryCache(work)));
    EXPECT_TRUE(DiffReportGenerate(report_type_variables, 2000, main_run.get()));

    EXPECT_EQ(ReadFile(DiffPath(work, "variables")),
              "1000,1,default,main,x,0,1,\r\n1000,1,default,update,version,0,7,\r\n"
              "2000,2,default,update,version,0,7,\r\n");
}

TEST(VariableReport, AnEmptyValueDoesNotLookChangedAfterEachRun)
{
    const WorkDirectory work;
    const EvalContextPtr ctx = ContextWithText("main.x", "");
    EXPECT_TRUE(DiffReportGenerate(report_type_variables, 1000, ctx.get()));
    EXPECT_TRUE(DiffReportGenerate(report_type_variables, 2000, ctx.get()));
    EXPECT_EQ(ReadFile(DiffPath(work, "variables")), "1000,1,default,main,x,0,,\r\n");
}

TEST(VariableReport, CacheAndDifferenceFileHaveTheirGoldenBytes)
{
    const WorkDirectory work;
    const EvalContextPtr first(EvalContextNew());
    PutText(first.get(), "main.kept", "a, b", "report");
    PutText(first.get(), "main.gone", "x");
    PutText(first.get(), "web:main.port", "80", "inventory,report");
    const EvalContextPtr second(EvalContextNew());
    PutText(second.get(), "main.kept", "a, b", "report");
    PutText(second.get(), "web:main.port", "443", "inventory,report");
    Put(second.get(), "main.load[1m]", "0.5", VT_DATA_TYPE_REAL);
    Put(second.get(), "main.users", RlistOf({"root", "a \"b\""}).get(), VT_DATA_TYPE_STRING_LIST);

    EXPECT_TRUE(DiffReportGenerate(report_type_variables, 1000, first.get()));
    EXPECT_TRUE(DiffReportGenerate(report_type_variables, 2000, second.get()));

    ExpectGolden("state/variables.cache", ReadFile(CachePath(work, "variables")));
    ExpectGolden("state/variables.diff", ReadFile(DiffPath(work, "variables")));
}

}  // namespace
