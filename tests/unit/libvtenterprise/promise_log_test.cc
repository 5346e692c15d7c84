#include "libvtenterprise/promise_log.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <veltrane/string_lib.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/record_text.h"
#include "support/texts.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using veltrane::JsonPtr;
using veltrane::SeqPtr;
using veltrane::TextPtr;

namespace fs = std::filesystem;

namespace {

struct Settings {
    const char *type = "files";
    PromiseState outcome = PROMISE_STATE_REPAIRED;
    const char *promiser = "/etc/motd";
    const char *promisees = "[\"ops\"]";
    const char *handle = "motd";
};

HubPromiseExecution *NewPromise(const Settings &s = {})
{
    return HubPromiseExecutionNew("r1", s.outcome, "abc", "default", "main", s.type, s.promiser, "/default/main",
                                  s.handle, s.promisees, "[\"said, \\\"so\\\"\"]", "[\"tag\"]", "/inputs/promises.vt",
                                  12, "00ff");
}

PromiseLogEntryPtr NewEntry(time_t timestamp, const Settings &s = {})
{
    return PromiseLogEntryPtr(PromiseLogEntryNew(timestamp, NewPromise(s)));
}

const char *const kJsonText =
    "{\"timestamp\":1700000000,\"execution\":{\"promise_hash\":\"abc\",\"policy_filename\":\"/inputs/promises.vt\","
    "\"release_id\":\"r1\",\"promise_outcome\":\"REPAIRED\",\"namespace\":\"default\",\"bundle\":\"main\","
    "\"promise_type\":\"files\",\"promiser\":\"/etc/motd\",\"stack_path\":\"/default/main\",\"handle\":\"motd\","
    "\"line_number\":12,\"policy_file_hash\":\"00ff\",\"promisees\":[\"ops\"],"
    "\"log_messages\":[\"said, \\\"so\\\"\"],\"meta_tags\":[\"tag\"]}}";

const char *const kCsvText =
    "1700000000,abc,/inputs/promises.vt,r1,114,default,main,files,/etc/motd,/default/main,motd,\"[\"\"ops\"\"]\","
    "\"[\"\"said, \\\"\"so\\\"\"\"\"]\",12,00ff,\"[\"\"tag\"\"]\"";

PromiseLogEntryPtr FromJsonText(const std::string &text)
{
    JsonElement *json = nullptr;
    EXPECT_EQ(JsonParse(text.c_str(), &json), JSON_PARSE_OK) << text;
    const JsonPtr owned(json);
    return PromiseLogEntryPtr(PromiseLogEntryFromJson(json));
}

std::string Replaced(const std::string &text, const char *from, const char *to)
{
    EXPECT_THAT(text, HasSubstr(from));
    return TextPtr(SearchAndReplace(text.c_str(), from, to)).get();
}

}  // namespace

// --- JSON ---

TEST(PromiseLogEntry, JsonIsTheTimestampThenTheExecution)
{
    EXPECT_EQ(Taken(PromiseLogEntryToJsonString(NewEntry(1700000000).get())), kJsonText);
}

TEST(PromiseLogEntry, ATimestampBeyond32BitsIsWrittenWithItsLowBits)
{
    EXPECT_THAT(Taken(PromiseLogEntryToJsonString(NewEntry(2147483647).get())),
                testing::StartsWith("{\"timestamp\":2147483647,"));
    EXPECT_THAT(Taken(PromiseLogEntryToJsonString(NewEntry(2147483648).get())),
                testing::StartsWith("{\"timestamp\":-2147483648,"));
    EXPECT_THAT(Taken(PromiseLogEntryToJsonString(NewEntry((5LL << 32) + 17).get())),
                testing::StartsWith("{\"timestamp\":17,"));
}

TEST(PromiseLogEntry, APromiseThatCannotBeConvertedGivesNoJson)
{
    const PromiseLogEntryPtr entry = NewEntry(1, {.promisees = "{}"});
    EXPECT_EQ(PromiseLogEntryToJson(entry.get()), nullptr);
    EXPECT_EQ(PromiseLogEntryToJsonString(entry.get()), nullptr);
}

TEST(PromiseLogEntry, JsonReadsBackAndWritesTheSame)
{
    const PromiseLogEntryPtr entry = FromJsonText(kJsonText);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->timestamp, 1700000000);
    EXPECT_STREQ(entry->promise->handle, "motd");
    EXPECT_EQ(entry->promise->promise_outcome, PROMISE_STATE_REPAIRED);
    EXPECT_STREQ(entry->promise->message_list_serialized, "[\"said, \\\"so\\\"\"]");
    EXPECT_EQ(Taken(PromiseLogEntryToJsonString(entry.get())), kJsonText);
}

TEST(PromiseLogEntry, ATimestampOf64BitsIsReadWhole)
{
    const PromiseLogEntryPtr entry = FromJsonText(Replaced(kJsonText, "1700000000", "8589934609"));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->timestamp, 8589934609);
}

TEST(PromiseLogEntry, JsonOfAnotherFormIsNoEntry)
{
    const std::string good = kJsonText;
    LogCapture log;
    for (const std::string &text : {
             Replaced(good, "1700000000", "\"1700000000\""),
             Replaced(good, "1700000000", "1700000000.5"),
             Replaced(good, "1700000000", "null"),
             Replaced(good, "1700000000", "[1700000000]"),
             Replaced(good, "timestamp", "time"),
             Replaced(good, "execution", "promise"),
             Replaced(good, "REPAIRED", "DONE"),
             Replaced(good, "promise_hash", "hash"),
             std::string("{\"timestamp\":1,\"execution\":[]}"),
             std::string("{\"timestamp\":1,\"execution\":\"x\"}"),
             std::string("{\"timestamp\":1,\"execution\":null}"),
             std::string("{\"timestamp\":1,\"execution\":{}}"),
             std::string("[1,{}]"),
             std::string("17"),
             std::string("{}"),
         }) {
        EXPECT_EQ(FromJsonText(text), nullptr) << text;
    }
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(PromiseLogEntry, BytesThatAreNotUtf8AreReplacedInJsonAndKeptInCsv)
{
    const PromiseLogEntryPtr entry = NewEntry(1, {.promiser = "a\xff-\xc3\xa9"});
    EXPECT_THAT(Taken(PromiseLogEntryToJsonString(entry.get())), HasSubstr("\"promiser\":\"a\xef\xbf\xbd-\xc3\xa9\""));
    EXPECT_THAT(Taken(PromiseLogEntryToCSV(entry.get())), HasSubstr(",a\xff-\xc3\xa9,"));
}

// --- CSV ---

TEST(PromiseLogEntry, CsvIsTheTimestampAndTheColumnsOfThePromiseWithoutALineEnd)
{
    EXPECT_EQ(Taken(PromiseLogEntryToCSV(NewEntry(1700000000).get())), kCsvText);
    EXPECT_THAT(Taken(PromiseLogEntryToCSV(NewEntry((5LL << 32) + 17).get())), testing::StartsWith("21474836497,abc,"));
}

TEST(PromiseLogEntry, AbsentTextsAreEmptyInCsv)
{
    const PromiseLogEntryPtr entry = NewEntry(5, {.promisees = nullptr, .handle = nullptr});
    EXPECT_THAT(Taken(PromiseLogEntryToCSV(entry.get())), HasSubstr(",/default/main,,,"));
}

TEST(PromiseLogEntry, CsvReadsBackAndWritesTheSame)
{
    const PromiseLogEntryPtr entry(PromiseLogEntryFromCSV(kCsvText));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->timestamp, 1700000000);
    EXPECT_EQ(entry->promise->line_number, 12u);
    EXPECT_EQ(Taken(PromiseLogEntryToCSV(entry.get())), kCsvText);
}

TEST(PromiseLogEntry, CsvWithALineEndIsRead)
{
    EXPECT_NE(PromiseLogEntryPtr(PromiseLogEntryFromCSV((std::string(kCsvText) + "\r\n").c_str())), nullptr);
}

TEST(PromiseLogEntry, CsvWithTooFewColumnsIsNoEntry)
{
    LogCapture log;
    for (const char *line : {"", "123", "123,x", "123,x,y", "123,h,p,r,99,n,b,t,w,s,i,l"}) {
        EXPECT_EQ(PromiseLogEntryPtr(PromiseLogEntryFromCSV(line)), nullptr) << line;
    }
    EXPECT_NE(PromiseLogEntryPtr(PromiseLogEntryFromCSV("123,h,p,r,99,n,b,t,w,s,i,l,m")), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(PromiseLogEntry, TwoColumnsAreNoEntryWhateverTheFirstSays)
{
    LogCapture log;
    EXPECT_EQ(PromiseLogEntryPtr(PromiseLogEntryFromCSV("x,y")), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(PromiseLogEntry, CsvThatDoesNotSplitIsNoEntry)
{
    EXPECT_EQ(PromiseLogEntryPtr(PromiseLogEntryFromCSV("123,\"h,p,r,99,n,b,t,w,s,i,l,m")), nullptr);
}

TEST(PromiseLogEntry, ACsvTimestampThatIsNoNumberIsAnErrorLine)
{
    LogCapture log;
    EXPECT_EQ(PromiseLogEntryPtr(PromiseLogEntryFromCSV("12x,h,p,r,99,n,b,t,w,s,i,l,m")), nullptr);
    EXPECT_EQ(PromiseLogEntryPtr(PromiseLogEntryFromCSV("99999999999999999999,h,p")), nullptr);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR,
                                 "Conversion of '12x' to a number failed in PromiseLogEntryFromCSV: Invalid argument"),
                            Pair(LOG_LEVEL_ERR,
                                 "Conversion of '99999999999999999999' to a number failed in PromiseLogEntryFromCSV: "
                                 "Numerical result out of range")));
}

TEST(PromiseLogEntry, DeletingNothingIsFine) { PromiseLogEntryDelete(nullptr); }

// --- Which outcomes are kept ---

TEST(PromiseLog, RepairedAndNotKeptPromisesAreAllowed)
{
    const auto allowed = [](const char *type, PromiseState outcome) {
        const PromiseLogEntryPtr entry = NewEntry(1, {.type = type, .outcome = outcome});
        return IsAllowedForPromiseLog(entry->promise);
    };
    for (const char *type : {"files", "commands", "packages", "processes", "users"}) {
        EXPECT_TRUE(allowed(type, PROMISE_STATE_REPAIRED)) << type;
        EXPECT_TRUE(allowed(type, PROMISE_STATE_NOTKEPT)) << type;
        EXPECT_FALSE(allowed(type, PROMISE_STATE_KEPT)) << type;
        EXPECT_FALSE(allowed(type, PROMISE_STATE_ANY)) << type;
    }
}

TEST(PromiseLog, PromiseTypesThatChangeNothingAreNeverAllowed)
{
    for (const char *type :
         {"access", "classes", "defaults", "measurements", "methods", "meta", "reports", "roles", "vars"}) {
        for (const PromiseState outcome : {PROMISE_STATE_REPAIRED, PROMISE_STATE_NOTKEPT, PROMISE_STATE_KEPT}) {
            const PromiseLogEntryPtr entry = NewEntry(1, {.type = type, .outcome = outcome});
            EXPECT_FALSE(IsAllowedForPromiseLog(entry->promise)) << type;
        }
    }
}

TEST(PromiseLog, AnEntryThatNamesNoTypeIsAllowed)
{
    const PromiseLogEntryPtr entry = FromJsonText(Replaced(kJsonText, "\"files\"", "\"\""));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->promise->promise_type, nullptr);
    EXPECT_TRUE(IsAllowedForPromiseLog(entry->promise));
}

// --- Files ---

class PromiseLogFiles : public testing::Test {
  protected:
    Texts Names() const
    {
        Texts names;
        for (const std::string &path : SeqTexts(SeqPtr(GetPromiseLogFileNames(place_.path.c_str())).get())) {
            EXPECT_EQ(fs::path(path).parent_path(), place_.path);
            names.push_back(fs::path(path).filename());
        }
        return names;
    }

    void Make(const Texts &names) const
    {
        for (const std::string &name : names) { WriteFile(place_.path / name, ""); }
    }

    TemporaryDirectory place_;
};

TEST_F(PromiseLogFiles, OnlyTheLogAndItsGenerationsAreListed)
{
    Make({"promise_log.jsonl", "promise_log.jsonl.7", "promise_log.jsonl.old", "promise_log.jsonl.1a",
          "promise_log.jsonl.", "promise_logxjsonl", "old_promise_log.jsonl", "promise_log.json",
          "promise_log.jsonl.new", "promise_execution.log"});
    EXPECT_THAT(Names(), ElementsAre("promise_log.jsonl", "promise_log.jsonl.7"));
}

TEST_F(PromiseLogFiles, TheyComeInByteOrder)
{
    Make({"promise_log.jsonl.2", "promise_log.jsonl.10", "promise_log.jsonl", "promise_log.jsonl.1"});
    EXPECT_THAT(Names(),
                ElementsAre("promise_log.jsonl", "promise_log.jsonl.1", "promise_log.jsonl.10", "promise_log.jsonl.2"));
}

TEST_F(PromiseLogFiles, AnEmptyDirectoryHasNone)
{
    const SeqPtr names(GetPromiseLogFileNames(place_.path.c_str()));
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(SeqLength(names.get()), 0u);
}

TEST_F(PromiseLogFiles, ADirectoryThatCannotBeOpenedGivesNothing)
{
    LogCapture log;
    EXPECT_EQ(GetPromiseLogFileNames((place_.path / "missing").c_str()), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

// Whether a name is a directory is asked of the bare name, so from wherever the process stands.
TEST_F(PromiseLogFiles, ADirectoryInTheWorkingDirectoryHidesAFileOfItsName)
{
    Make({"promise_log.jsonl", "promise_log.jsonl.1"});
    const TemporaryDirectory elsewhere;
    fs::create_directory(elsewhere.path / "promise_log.jsonl");
    InChild([&] {
        ASSERT_EQ(chdir(elsewhere.path.c_str()), 0);
        EXPECT_THAT(Names(), ElementsAre("promise_log.jsonl.1"));
    });
}

TEST_F(PromiseLogFiles, ADirectoryOfSuchANameIsListedFromAnywhereElse)
{
    fs::create_directory(place_.path / "promise_log.jsonl.3");
    EXPECT_THAT(Names(), ElementsAre("promise_log.jsonl.3"));
    InChild([&] {
        ASSERT_EQ(chdir(place_.path.c_str()), 0);
        EXPECT_THAT(Names(), IsEmpty());
    });
}
