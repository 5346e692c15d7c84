#include "libvtenterprise/csv_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <veltrane/csv.h>

#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::FilePtr;
using veltrane::SeqPtr;
using veltrane::TextPtr;

namespace {

struct Record {
    std::string text;
    std::optional<std::vector<std::string>> fields;  // none: it does not split

    bool operator==(const Record &) const = default;
};

void PrintTo(const Record &record, std::ostream *out)
{
    *out << testing::PrintToString(record.text) << " -> "
         << (record.fields ? testing::PrintToString(*record.fields) : "(does not split)");
}

std::optional<std::vector<std::string>> TextsOf(const Seq *fields)
{
    if (fields == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> texts;
    for (size_t i = 0; i < SeqLength(fields); i++) { texts.emplace_back(static_cast<const char *>(SeqAt(fields, i))); }
    return texts;
}

// A stream over bytes, which must outlive it.
FilePtr Open(std::string &bytes)
{
    return FilePtr(bytes.empty() ? fopen("/dev/null", "r") : fmemopen(bytes.data(), bytes.size(), "r"));
}

std::vector<Record> Records(std::string bytes, size_t room = 1 << 16)
{
    const FilePtr file = Open(bytes);
    CsvRecords records(file.get(), room);
    std::vector<Record> all;
    while (records.Next()) { all.push_back({records.text(), TextsOf(records.fields())}); }
    EXPECT_EQ(ferror(file.get()), 0);
    return all;
}

// What the host's own reader makes of them.
std::vector<Record> HostRecords(std::string bytes)
{
    const FilePtr file = Open(bytes);
    std::vector<Record> all;
    for (TextPtr text(GetCsvLineNext(file.get())); text != nullptr; text.reset(GetCsvLineNext(file.get()))) {
        const SeqPtr fields(SeqParseCsvString(text.get()));
        all.push_back({text.get(), TextsOf(fields.get())});
    }
    return all;
}

TEST(CsvRecords, AnEmptyFileHasNoRecords) { EXPECT_THAT(Records(""), IsEmpty()); }

TEST(CsvRecords, FieldsComeWithoutTheirQuotesAndTextsWithoutTheirLineEnds)
{
    EXPECT_THAT(Records("linux,\"a,b\"\r\ndebian,\n\"\",x,\r\n\r\nlast"),
                ElementsAre(Record{"linux,\"a,b\"", {{"linux", "a,b"}}}, Record{"debian,", {{"debian", ""}}},
                            Record{"\"\",x,", {{"", "x", ""}}}, Record{"", {{""}}}, Record{"last", {{"last"}}}));
}

TEST(CsvRecords, DoubledQuotesAndQuotedLineEndsAreTheHostsToTakeApart)
{
    EXPECT_THAT(Records("a,\"say \"\"no\"\"\"\r\nb,\"two\r\nlines\"\r\nc,d\r\n"),
                ElementsAre(Record{"a,\"say \"\"no\"\"\"", {{"a", "say \"no\""}}},
                            Record{"b,\"two\r\nlines\"", {{"b", "two\r\nlines"}}}, Record{"c,d", {{"c", "d"}}}));
}

TEST(CsvRecords, AMalformedRecordHasNoFieldsAndTheNextOneIsWhole)
{
    EXPECT_THAT(Records("a\"b\",c\r\n\"a\"b,c\r\nd,e\r\n"),
                ElementsAre(Record{"a\"b\",c", {}}, Record{"\"a\"b,c", {}}, Record{"d,e", {{"d", "e"}}}));
}

TEST(CsvRecords, AQuoteThatIsNeverClosedTakesTheRestOfTheFile)
{
    EXPECT_THAT(Records("a,b\r\nc,\"d\r\ne,f\r\n"),
                ElementsAre(Record{"a,b", {{"a", "b"}}}, Record{"c,\"d\r\ne,f\r\n", {}}));
}

TEST(CsvRecords, ATextEndsAtAZeroAsTheHostsDoes)
{
    const std::string bytes("a,b\0c,d\r\ne,f\r\n", 14);
    EXPECT_THAT(Records(bytes), ElementsAre(Record{"a,b", {{"a", "b"}}}, Record{"e,f", {{"e", "f"}}}));
}

TEST(CsvRecords, RecordsMayBeLongerThanWhatIsReadAtOnce)
{
    const std::string field(1000, 'x');
    EXPECT_THAT(Records(field + ",\"" + field + ",\"\r\n" + field + ",y", 7),
                ElementsAre(Record{field + ",\"" + field + ",\"", {{field, field + ","}}},
                            Record{field + ",y", {{field, "y"}}}));
}

TEST(CsvRecords, RecordsOfDifferentLengthsFollowEachOther)
{
    EXPECT_THAT(Records("a\r\nb,c,d\r\ne\r\n"),
                ElementsAre(Record{"a", {{"a"}}}, Record{"b,c,d", {{"b", "c", "d"}}}, Record{"e", {{"e"}}}));
}

TEST(CsvRecords, AFileThatCannotBeReadShowsItsError)
{
    const TemporaryDirectory directory;
    const FilePtr file(fopen(directory.path.c_str(), "r"));  // reading a directory fails
    ASSERT_NE(file, nullptr);
    CsvRecords records(file.get());
    EXPECT_FALSE(records.Next());
    EXPECT_NE(ferror(file.get()), 0);
}

TEST(CsvRecords, StepsOverARecordOnlyWhenItIsTheNextOneToTheByte)
{
    for (const size_t room : {1, 4, 64}) {
        std::string bytes = "a,1\r\n\"b,c\",2\r\nd,3\n";
        const FilePtr file = Open(bytes);
        CsvRecords records(file.get(), room);

        EXPECT_FALSE(records.StepOver("b,1\r\n"));
        EXPECT_TRUE(records.StepOver("a,1\r\n"));
        EXPECT_FALSE(records.StepOver("a,1\r\n"));
        ASSERT_TRUE(records.Next());
        EXPECT_STREQ(records.text(), "\"b,c\",2");
        EXPECT_FALSE(records.StepOver("d,3\r\n"));
        ASSERT_TRUE(records.Next());
        EXPECT_STREQ(records.text(), "d,3");
        EXPECT_FALSE(records.StepOver("d,3\r\n"));
        EXPECT_FALSE(records.Next());
    }
}

// Whatever the bytes are and wherever they are cut, the records are the host's.
TEST(CsvRecords, AnyBytesGiveTheRecordsOfTheHost)
{
    static constexpr char kBytes[] = {'a', 'b', ',', ',', '"', '"', '\r', '\n', '\n', '\0'};
    std::mt19937 random(20);
    for (int round = 0; round < 2000; round++) {
        const bool with_zeros = round % 4 == 0;
        std::string bytes(random() % 40, ' ');
        for (char &byte : bytes) { byte = kBytes[random() % (sizeof(kBytes) - (with_zeros ? 0 : 1))]; }
        const std::vector<Record> expected = HostRecords(bytes);
        for (const size_t room : {1, 2, 3, 5, 8, 64}) {
            ASSERT_EQ(Records(bytes, room), expected) << testing::PrintToString(bytes) << " read by " << room;
        }
    }
}

}  // namespace
