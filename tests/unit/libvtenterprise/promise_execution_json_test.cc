#include "libvtenterprise/promise_execution_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "support/log_capture.h"
#include "support/record_text.h"

using testing::IsEmpty;
using veltrane::JsonPtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

struct RecordDeleter {
    void operator()(HubPromiseExecution *record) const { HubPromiseExecutionDelete(record); }
};
using RecordPtr = std::unique_ptr<HubPromiseExecution, RecordDeleter>;

RecordPtr FullRecord()
{
    return RecordPtr(HubPromiseExecutionNew("rel", PROMISE_STATE_REPAIRED, "hash", "ns", "bundle", "files", "/etc/motd",
                                            "/path", "handle", "[\"p\",\"q\"]", "[\"m\"]", "[\"t\"]", "file.vt", 42,
                                            "fhash"));
}

RecordPtr EmptyRecord()
{
    return RecordPtr(HubPromiseExecutionNew(nullptr, PROMISE_STATE_KEPT, nullptr, nullptr, nullptr, nullptr, nullptr,
                                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr));
}

std::string Compact(const JsonElement *json)
{
    if (json == nullptr) {
        return "(none)";
    }
    WriterPtr text(StringWriter());
    JsonWriteCompact(text.get(), json);
    return TextPtr(StringWriterClose(text.release())).get();
}

std::string ToText(const RecordPtr &record) { return Compact(JsonPtr(HubPromiseExecutionToJson(record.get())).get()); }

JsonPtr Parsed(const std::string &text)
{
    JsonElement *json = nullptr;
    EXPECT_EQ(JsonParse(text.c_str(), &json), JSON_PARSE_OK) << text;
    return JsonPtr(json);
}

RecordPtr FromText(const std::string &text)
{
    LogCapture log;
    RecordPtr record(HubPromiseExecutionFromJson(Parsed(text).get()));
    EXPECT_THAT(log.lines, IsEmpty());  // a JSON form that is rejected is no line
    return record;
}

const std::string kFullText =
    "{\"promise_hash\":\"hash\",\"policy_filename\":\"file.vt\",\"release_id\":\"rel\",\"promise_outcome\":"
    "\"REPAIRED\","
    "\"namespace\":\"ns\",\"bundle\":\"bundle\",\"promise_type\":\"files\",\"promiser\":\"/etc/motd\","
    "\"stack_path\":\"/path\",\"handle\":\"handle\",\"line_number\":42,\"policy_file_hash\":\"fhash\","
    "\"promisees\":[\"p\",\"q\"],\"log_messages\":[\"m\"],\"meta_tags\":[\"t\"]}";

// The full form with one member's text, from its key on, put in place of another.
std::string With(const std::string &member, const std::string &replacement)
{
    std::string text = kFullText;
    const size_t at = text.find(member);
    EXPECT_NE(at, std::string::npos) << member;
    return text.replace(at, member.size(), replacement);
}

std::string Columns(const RecordPtr &record)
{
    return record != nullptr ? CsvOf<void>(HubPromiseExecutionToCSV, record.get()) : "(none)";
}

// --- HubPromiseExecutionToJson ---

TEST(HubPromiseExecutionToJson, HasItsMembersInTheirOrder) { EXPECT_EQ(ToText(FullRecord()), kFullText); }

TEST(HubPromiseExecutionToJson, AbsentTextsAreEmptyAndAbsentListsEmptyArrays)
{
    EXPECT_EQ(ToText(EmptyRecord()),
              "{\"promise_hash\":\"\",\"policy_filename\":\"\",\"release_id\":\"\",\"promise_outcome\":\"KEPT\","
              "\"namespace\":\"\",\"bundle\":\"\",\"promise_type\":\"\",\"promiser\":\"\",\"stack_path\":\"\","
              "\"handle\":\"\",\"line_number\":0,\"policy_file_hash\":\"\",\"promisees\":[],\"log_messages\":[],"
              "\"meta_tags\":[]}");
}

TEST(HubPromiseExecutionToJson, AListTextThatIsNoJsonArrayIsNoObject)
{
    for (char *HubPromiseExecution::*list :
         {&HubPromiseExecution::promisee_list_serialized, &HubPromiseExecution::message_list_serialized,
          &HubPromiseExecution::meta_serialized}) {
        for (const char *text : {"", "p", "{}", "\"p\"", "[\"p\"", "[\"p\"] x", "[\"\xFF\"]"}) {
            const RecordPtr record = FullRecord();
            free(record.get()->*list);
            record.get()->*list = xstrdup(text);
            LogCapture log;
            EXPECT_EQ(ToText(record), "(none)") << text;
            EXPECT_THAT(log.lines, IsEmpty());
        }
    }
}

TEST(HubPromiseExecutionToJson, AnOutcomeThatIsNoneIsUnknown)
{
    const RecordPtr record = EmptyRecord();
    for (const auto &[state, text] : {std::pair{PROMISE_STATE_KEPT, "\"KEPT\""},
                                      {PROMISE_STATE_REPAIRED, "\"REPAIRED\""},
                                      {PROMISE_STATE_NOTKEPT, "\"NOTKEPT\""},
                                      {PROMISE_STATE_ANY, "\"UNKNOWN\""},
                                      {static_cast<PromiseState>(-7), "\"UNKNOWN\""}}) {
        record->promise_outcome = state;
        const JsonPtr json(HubPromiseExecutionToJson(record.get()));
        EXPECT_EQ(Compact(JsonObjectGet(json.get(), "promise_outcome")), text);
    }
}

TEST(HubPromiseExecutionToJson, TheLineIsWrittenAsThirtyTwoBits)
{
    const RecordPtr record = EmptyRecord();
    for (const auto &[line, text] : {std::pair<size_t, const char *>{2147483647, "2147483647"},
                                     {2147483648, "-2147483648"},
                                     {4294967296, "0"},
                                     {4294967297, "1"}}) {
        record->line_number = line;
        const JsonPtr json(HubPromiseExecutionToJson(record.get()));
        EXPECT_EQ(Compact(JsonObjectGet(json.get(), "line_number")), text);
    }
}

TEST(HubPromiseExecutionToJson, BytesThatAreNoUtf8AreReplacedAndOthersEscaped)
{
    const RecordPtr record = EmptyRecord();
    record->promiser = xstrdup("a\xFF\"\n\xC3\xA9");
    const JsonPtr json(HubPromiseExecutionToJson(record.get()));
    EXPECT_EQ(Compact(JsonObjectGet(json.get(), "promiser")), "\"a\xEF\xBF\xBD\\\"\\n\xC3\xA9\"");
}

// --- HubPromiseExecutionFromJson ---

TEST(HubPromiseExecutionFromJson, ARoundTripKeepsEveryField)
{
    EXPECT_EQ(Columns(FromText(kFullText)), Columns(FullRecord()));
    EXPECT_EQ(ToText(FromText(kFullText)), kFullText);
}

TEST(HubPromiseExecutionFromJson, BlanksAndOrderDoNotMatterAndListsBecomeCompact)
{
    const RecordPtr record = FromText(
        " { \"meta_tags\" : [ ], \"log_messages\": [ \"m\" , 1 ], \"promisees\": [ [ ] ], \"handle\": \"h\", "
        "\"stack_path\": \"s\", \"promiser\": \"q\", \"promise_type\": \"t\", \"bundle\": \"b\", \"namespace\": \"n\", "
        "\"promise_outcome\": \"KEPT\", \"release_id\": \"r\", \"policy_filename\": \"f\", \"promise_hash\": \"x\", "
        "\"another\": {} } ");
    EXPECT_EQ(Columns(record), "x,f,r,99,n,b,t,q,s,h,[[]],\"[\"\"m\"\",1]\",0,,[]\r\n");
}

TEST(HubPromiseExecutionFromJson, EmptyTextsBecomeAbsent)
{
    const RecordPtr record = FromText(ToText(EmptyRecord()));
    ASSERT_NE(record, nullptr);
    for (const char *text :
         {record->release_id, record->promise_hash, record->ns, record->bundle, record->promise_type, record->promiser,
          record->stack_path, record->handle, record->policy_file, record->policy_file_hash}) {
        EXPECT_EQ(text, nullptr);
    }
    EXPECT_STREQ(record->promisee_list_serialized, "[]");
    EXPECT_STREQ(record->message_list_serialized, "[]");
    EXPECT_STREQ(record->meta_serialized, "[]");
}

TEST(HubPromiseExecutionFromJson, EachRequiredTextMustBeThereAndAString)
{
    for (const char *member : {"\"promise_hash\":\"hash\"", "\"policy_filename\":\"file.vt\"", "\"release_id\":\"rel\"",
                               "\"promise_outcome\":\"REPAIRED\"", "\"namespace\":\"ns\"", "\"bundle\":\"bundle\"",
                               "\"promise_type\":\"files\"", "\"promiser\":\"/etc/motd\"", "\"stack_path\":\"/path\"",
                               "\"handle\":\"handle\""}) {
        const std::string text = member;
        const std::string key = text.substr(0, text.find(':'));
        EXPECT_EQ(FromText(With(text, "\"other\":1")), nullptr) << member;
        for (const char *value : {"null", "1", "true", "[]", "{}"}) {
            EXPECT_EQ(FromText(With(text, key + ":" + value)), nullptr) << member << value;
        }
    }
}

TEST(HubPromiseExecutionFromJson, OnlyTheThreeOutcomesAreTaken)
{
    for (const char *outcome : {"UNKNOWN", "", "kept", "KEPT ", "ANY"}) {
        EXPECT_EQ(FromText(With("\"REPAIRED\"", "\"" + std::string(outcome) + "\"")), nullptr) << outcome;
    }
    for (const auto &[outcome, state] : {std::pair{"KEPT", PROMISE_STATE_KEPT}, {"NOTKEPT", PROMISE_STATE_NOTKEPT}}) {
        const RecordPtr record = FromText(With("\"REPAIRED\"", "\"" + std::string(outcome) + "\""));
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->promise_outcome, state);
    }
}

TEST(HubPromiseExecutionFromJson, ALineThatIsNoIntegerIsZero)
{
    for (const char *line : {"\"12\"", "12.0", "1e3", "null", "true", "[]", "{}"}) {
        const RecordPtr record = FromText(With("\"line_number\":42", "\"line_number\":" + std::string(line)));
        ASSERT_NE(record, nullptr) << line;
        EXPECT_EQ(record->line_number, 0u) << line;
    }
    EXPECT_EQ(FromText(With("\"line_number\":42,", ""))->line_number, 0u);
    EXPECT_EQ(FromText(With(":42,", ":9223372036854775807,"))->line_number, 9223372036854775807u);
}

TEST(HubPromiseExecutionFromJson, ANegativeLineIsNone) { EXPECT_EQ(FromText(With(":42,", ":-1,"))->line_number, 0u); }

TEST(HubPromiseExecutionFromJson, ThePolicyFilesHashMayBeMissing)
{
    for (const char *member :
         {"", "\"policy_file_hash\":\"\",", "\"policy_file_hash\":1,", "\"policy_file_hash\":null,"}) {
        const RecordPtr record = FromText(With("\"policy_file_hash\":\"fhash\",", member));
        ASSERT_NE(record, nullptr) << member;
        EXPECT_EQ(record->policy_file_hash, nullptr) << member;
    }
}

TEST(HubPromiseExecutionFromJson, PromiseesAndMessagesMustBeThereAndArrays)
{
    for (const char *member : {"\"promisees\":[\"p\",\"q\"]", "\"log_messages\":[\"m\"]"}) {
        const std::string text = member;
        const std::string key = text.substr(0, text.find(':'));
        EXPECT_EQ(FromText(With(text, "\"other\":[]")), nullptr) << member;
        for (const char *value : {"null", "\"[]\"", "{}"}) {
            EXPECT_EQ(FromText(With(text, key + ":" + value)), nullptr) << member << value;
        }
    }
}

TEST(HubPromiseExecutionFromJson, WithoutTagsTheTagsAreAbsent)
{
    for (const char *member : {"", ",\"meta_tags\":\"[]\"", ",\"meta_tags\":{}", ",\"meta_tags\":null"}) {
        const RecordPtr record = FromText(With(",\"meta_tags\":[\"t\"]", member));
        ASSERT_NE(record, nullptr) << member;
        EXPECT_EQ(record->meta_serialized, nullptr) << member;
    }
}

TEST(HubPromiseExecutionFromJson, WhatIsNoObjectIsNoRecord)
{
    for (const char *text : {"[]", "\"x\"", "1", "null", "{}"}) { EXPECT_EQ(FromText(text), nullptr) << text; }
}

// --- The small accessors ---

TEST(JsonArrayOfStringsFromJsonString, TakesAnyArrayAndNothingElse)
{
    for (const char *text : {"[]", "[\"a\",\"b\"]", " [ 1, {} ] "}) {
        EXPECT_NE(JsonPtr(JsonArrayOfStringsFromJsonString(text)), nullptr) << text;
    }
    LogCapture log;
    for (const char *text : {"", " ", "{}", "\"a\"", "1", "null", "[", "[]]", "[\"\xFF\"]", "[\"\\u0000\"]"}) {
        EXPECT_EQ(JsonArrayOfStringsFromJsonString(text), nullptr) << text;
    }
    EXPECT_EQ(JsonArrayOfStringsFromJsonString(nullptr), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(JsonObjectGetString, LendsATextAndNothingElse)
{
    const JsonPtr json = Parsed("{\"s\":\"text\",\"e\":\"\",\"i\":1,\"n\":null,\"a\":[],\"o\":{}}");
    EXPECT_STREQ(JsonObjectGetString(json.get(), "s"), "text");
    EXPECT_STREQ(JsonObjectGetString(json.get(), "e"), "");
    for (const char *key : {"i", "n", "a", "o", "missing"}) {
        EXPECT_EQ(JsonObjectGetString(json.get(), key), nullptr) << key;
    }
    EXPECT_EQ(JsonObjectGetString(Parsed("[]").get(), "s"), nullptr);
}

TEST(JsonObjectGetArray, LendsAnArrayAndNothingElse)
{
    const JsonPtr json = Parsed("{\"a\":[1],\"s\":\"[]\",\"i\":1,\"n\":null,\"o\":{}}");
    EXPECT_EQ(Compact(JsonObjectGetArray(json.get(), "a")), "[1]");
    for (const char *key : {"s", "i", "n", "o", "missing"}) {
        EXPECT_EQ(JsonObjectGetArray(json.get(), key), nullptr) << key;
    }
    EXPECT_EQ(JsonObjectGetArray(Parsed("[]").get(), "a"), nullptr);
}

}  // namespace
