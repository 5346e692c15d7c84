#include "libvtenterprise/json_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <veltrane/owned.h>

#include "support/texts.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::FilePtr;
using veltrane::JsonPtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

// The records of a file with these bytes, as the reader gives them one after the other.
Texts RecordsOf(const std::string &bytes)
{
    const TemporaryDirectory place;
    WriteFile(place.path / "log", bytes);
    const FilePtr file(fopen((place.path / "log").c_str(), "r"));
    Texts records;
    while (const TextPtr record{JsonLGetLineNext(file.get())}) { records.emplace_back(record.get()); }
    EXPECT_NE(feof(file.get()), 0);
    return records;
}

std::string Written(const char *text)
{
    JsonElement *json = nullptr;
    EXPECT_EQ(JsonParse(text, &json), JSON_PARSE_OK);
    const JsonPtr owned(json);
    const WriterPtr writer(StringWriter());
    JsonLWriteRecord(writer.get(), json);
    return StringWriterData(writer.get());
}

}  // namespace

TEST(JsonLine, ARecordIsItsCompactTextAndCrLf)
{
    EXPECT_EQ(Written("{ \"a\" : [1, 2], \"b\" : \"x\\ny\" }"), "{\"a\":[1,2],\"b\":\"x\\ny\"}\r\n");
    EXPECT_EQ(Written("[]"), "[]\r\n");
}

TEST(JsonLine, RecordsComeBackWithTheirLineEnds)
{
    EXPECT_THAT(RecordsOf("{}\r\n[1]\r\n\"x\"\r\n"), ElementsAre("{}\r\n", "[1]\r\n", "\"x\"\r\n"));
}

TEST(JsonLine, AnEmptyFileHasNoRecord) { EXPECT_THAT(RecordsOf(""), IsEmpty()); }

TEST(JsonLine, ATornLastRecordComesBackAsItIs)
{
    EXPECT_THAT(RecordsOf("{}\r\n{\"time"), ElementsAre("{}\r\n", "{\"time"));
    EXPECT_THAT(RecordsOf("{}\r"), ElementsAre("{}\r"));
}

TEST(JsonLine, ALoneLineFeedEndsNoRecord)
{
    EXPECT_THAT(RecordsOf("a\nb\r\nc\n"), ElementsAre("a\nb\r\n", "c\n"));
    EXPECT_THAT(RecordsOf("\n\r\n"), ElementsAre("\n\r\n"));
}

TEST(JsonLine, ALoneCarriageReturnEndsNoRecord)
{
    EXPECT_THAT(RecordsOf("a\rb\r\r\nc\r \n"), ElementsAre("a\rb\r\r\n", "c\r \n"));
}

TEST(JsonLine, AnEmptyLineIsARecord) { EXPECT_THAT(RecordsOf("\r\n\r\n"), ElementsAre("\r\n", "\r\n")); }

TEST(JsonLine, AZeroByteEndsTheReturnedTextButNotTheRecord)
{
    EXPECT_THAT(RecordsOf(std::string("a\0b\r\nc\r\n", 8)), ElementsAre("a", "c\r\n"));
}

TEST(JsonLine, RecordsOfEveryLengthAroundTheReadersRoomComeBackWhole)
{
    for (size_t length = 505; length <= 1030; length++) {
        const std::string record(length, 'x');
        ASSERT_THAT(RecordsOf(record + "\r\n" + record), ElementsAre(record + "\r\n", record)) << length;
    }
}

TEST(JsonLine, BytesThatAreNotUtf8ComeBackAsTheyAre)
{
    EXPECT_THAT(RecordsOf("\xff\xc3\r\n\xe2\x82"), ElementsAre("\xff\xc3\r\n", "\xe2\x82"));
}

TEST(JsonLine, AFileCutAnywhereGivesItsWholeRecordsAndTheRest)
{
    const std::string bytes = "{\"a\":1}\r\n{\"b\":2}\r\n";
    for (size_t cut = 0; cut <= bytes.size(); cut++) {
        std::string joined;
        for (const std::string &record : RecordsOf(bytes.substr(0, cut))) { joined += record; }
        EXPECT_EQ(joined, bytes.substr(0, cut));
    }
}
