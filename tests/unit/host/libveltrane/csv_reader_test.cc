// Reading CSV: records out of streams, fields out of records, and what was written read back.
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/owned.h>

using testing::ElementsAre;
using veltrane::FilePtr;
using veltrane::SeqPtr;
using veltrane::TextPtr;

namespace {

using Fields = std::vector<std::string>;

std::optional<Fields> Parsed(const std::string &record)
{
    const SeqPtr seq(SeqParseCsvString(record.c_str()));
    if (seq == nullptr) {
        return std::nullopt;
    }
    Fields fields;
    for (size_t i = 0; i < SeqLength(seq.get()); i++) { fields.push_back(static_cast<char *>(SeqAt(seq.get(), i))); }
    return fields;
}

// A stream over the bytes; room is the size of its buffer, so records are cut by it at every place.
FilePtr Stream(const std::string &bytes, size_t room)
{
    FILE *fp = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), fp);
    rewind(fp);
    setvbuf(fp, nullptr, room == 0 ? _IONBF : _IOFBF, room);
    return FilePtr(fp);
}

std::vector<std::string> Records(FILE *fp)
{
    std::vector<std::string> records;
    while (const TextPtr record{GetCsvLineNext(fp)}) { records.push_back(record.get()); }
    return records;
}

std::vector<std::string> Records(const std::string &bytes, size_t room = BUFSIZ)
{
    return Records(Stream(bytes, room).get());
}

TEST(CsvParse, SplitsWellFormedRecords)
{
    const struct {
        const char *record;
        Fields fields;
    } good[] = {
        {"", {""}},
        {"a", {"a"}},
        {"a,b", {"a", "b"}},
        {",", {"", ""}},
        {",,", {"", "", ""}},
        {"a,", {"a", ""}},
        {",a", {"", "a"}},
        {" a , b ", {" a ", " b "}},
        {"\"a\"", {"a"}},
        {"\"\"", {""}},
        {"\"\",\"\"", {"", ""}},
        {"\"a,b\",c", {"a,b", "c"}},
        {"\"a\"\"b\"", {"a\"b"}},
        {"\"\"\"\"", {"\""}},
        {"\"\"\"\"\"\"", {"\"\""}},
        {"\"\"\"a\"\"\"", {"\"a\""}},
        {"\"a\"\",\"\"b\"", {"a\",\"b"}},
        {"\"a\r\nb\",c", {"a\r\nb", "c"}},
        {"\" a \"", {" a "}},
        {"\xff\xC3,\x01", {"\xff\xC3", "\x01"}},
        // one line end behind the last field is no data
        {"a,b\r\n", {"a", "b"}},
        {"a,b\n", {"a", "b"}},
        {"\r\n", {""}},
        {"\n", {""}},
        {"a,\r\n", {"a", ""}},
        {"\"a\"\r\n", {"a"}},
        {"\"a\n\"\n", {"a\n"}},
        // but only one, and a lone CR is none
        {"a\n\n", {"a\n"}},
        {"a\r\n\r\n", {"a\r\n"}},
        {"a\r", {"a\r"}},
        {"a\r\r\n", {"a\r"}},
        {"a\nb", {"a\nb"}},
    };
    for (const auto &c : good) { EXPECT_EQ(Parsed(c.record), c.fields) << "'" << c.record << "'"; }
}

TEST(CsvParse, RefusesMalformedRecords)
{
    for (const char *bad : {
             "\"",      "a,\"",        "\"a",      "\"a,b",   "a,\"b\n",
             "\"a\"\"", "\"\"\"",  // quotes that do not balance
             "\"a\"b",  "\"a\" ",      "\"a\" ,b", "\"a\"\r", "\"a\"\n\n",
             "\"\"a",   "\"a\"\"b\"c",                                        // bytes behind the closing quote
             "a\"",     "a\"b\"",      " \"a\"",   "a,b\"c",  "a,b \"c\",d",  // a quote inside an unquoted field
         }) {
        EXPECT_EQ(Parsed(bad), std::nullopt) << "'" << bad << "'";
    }
}

TEST(CsvLine, EachRecordComesWithoutItsLineEnd)
{
    EXPECT_THAT(Records("a,b\r\nc\nd"), ElementsAre("a,b", "c", "d"));
    EXPECT_THAT(Records("a\r\n"), ElementsAre("a"));
    EXPECT_THAT(Records("a"), ElementsAre("a"));
    EXPECT_THAT(Records(""), ElementsAre());
}

TEST(CsvLine, AnEmptyLineIsARecord) { EXPECT_THAT(Records("\r\na\r\n\n"), ElementsAre("", "a", "")); }

TEST(CsvLine, OneLineEndGoesAndALoneCrIsData)
{
    EXPECT_THAT(Records("a\r\r\nb\rc\nd\r"), ElementsAre("a\r", "b\rc", "d\r"));
}

TEST(CsvLine, ALineEndInsideQuotesIsData)
{
    EXPECT_THAT(Records("\"a\r\nb\nc\",d\r\ne\r\n"), ElementsAre("\"a\r\nb\nc\",d", "e"));
    EXPECT_THAT(Records("\"a\"\"\nb\"\nc\n"), ElementsAre("\"a\"\"\nb\"", "c"));
}

TEST(CsvLine, EveryQuoteTogglesWhereverItStands)
{
    EXPECT_THAT(Records("a\"b\nc\"d\ne\n"), ElementsAre("a\"b\nc\"d", "e"));
}

TEST(CsvLine, AnUnclosedQuoteRunsToTheEndAndDoesNotParse)
{
    const std::vector<std::string> records = Records("a\r\n\"b\r\nc\r\nd\r\n");

    EXPECT_THAT(records, ElementsAre("a", "\"b\r\nc\r\nd\r\n"));
    EXPECT_EQ(Parsed(records[1]), std::nullopt);
}

TEST(CsvLine, AZeroByteEndsTheTextButNotTheRecord)
{
    EXPECT_THAT(Records(std::string("a\0b\r\nc\r\n", 8)), ElementsAre("a", "c"));
    EXPECT_THAT(Records(std::string("\"a\0\nb\"\nc\n", 9)), ElementsAre("\"a", "c"));
}

TEST(CsvLine, EveryCutGivesTheSameRecords)
{
    const std::string bytes = "one,\"two\r\nthree\",\"say \"\"hi\"\"\"\r\n\r\n\"\n\n\"\nlast,\"\"\r\nopen,\"quote\r\n";
    const std::vector<std::string> expected = {"one,\"two\r\nthree\",\"say \"\"hi\"\"\"", "", "\"\n\n\"", "last,\"\"",
                                               "open,\"quote\r\n"};
    for (size_t room = 0; room <= bytes.size() + 1; room++) { EXPECT_EQ(Records(bytes, room), expected) << room; }
}

// A file that ends anywhere gives whole records up to there, and a torn one that a reader can tell or that is a start.
TEST(CsvLine, EveryTruncationGivesTheRecordsBeforeIt)
{
    const std::string bytes = "a,\"b\r\nc\"\r\nd\r\n\"e\"\"\",f\r\n";
    const std::vector<std::string> whole = Records(bytes);
    ASSERT_EQ(whole.size(), 3u);
    for (size_t length = 0; length <= bytes.size(); length++) {
        const std::vector<std::string> records = Records(bytes.substr(0, length));
        ASSERT_LE(records.size(), whole.size());
        for (size_t i = 0; i + 1 < records.size(); i++) { EXPECT_EQ(records[i], whole[i]) << length; }
        if (!records.empty()) {
            // the last one is what stands in the file, at most without its line end
            EXPECT_NE(bytes.substr(0, length).find(records.back()), std::string::npos) << length;
        }
    }
}

TEST(CsvLine, ALongRecordIsReadWhole)
{
    std::string bytes = "\"";
    for (int i = 0; i < 100'000; i++) { bytes += "line " + std::to_string(i) + "\r\n"; }
    bytes += "\"";

    const std::vector<std::string> records = Records(bytes + "\r\nnext\r\n");

    EXPECT_THAT(records, ElementsAre(bytes, "next"));
}

TEST(CsvRoundTrip, WhateverIsWrittenIsReadBackEqual)
{
    std::mt19937 random(29);
    const std::string alphabet = "ab ,\"\r\n\t\\;'\xC3\xA9\xff";
    std::vector<Fields> records;
    Writer *writer = StringWriter();
    CsvWriter *csv = CsvWriterOpen(writer);
    for (int i = 0; i < 20'000; i++) {
        Fields fields(1 + random() % 6);
        for (std::string &field : fields) {
            for (size_t length = random() % 12; length > 0; length--) { field += alphabet[random() % alphabet.size()]; }
            CsvWriterField(csv, field.c_str());
        }
        CsvWriterNewRecord(csv);
        records.push_back(fields);
    }
    CsvWriterClose(csv);
    const std::string bytes = TextPtr(StringWriterClose(writer)).get();

    const FilePtr stream = Stream(bytes, BUFSIZ);
    for (const Fields &fields : records) {
        const TextPtr record(GetCsvLineNext(stream.get()));
        ASSERT_NE(record, nullptr);
        ASSERT_EQ(Parsed(record.get()), fields) << record.get();
        ASSERT_EQ(Parsed(record.get() + std::string("\r\n")), fields) << record.get();  // as rows for old peers come
    }
    EXPECT_EQ(GetCsvLineNext(stream.get()), nullptr);
}

}  // namespace
