// Writing CSV: when a field is quoted, and where records end.
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <veltrane/owned.h>

using veltrane::TextPtr;

namespace {

std::string Written(bool terminate, const std::function<void(CsvWriter *)> &write)
{
    Writer *writer = StringWriter();
    CsvWriter *csv = CsvWriterOpenSpecifyTerminate(writer, terminate);
    write(csv);
    CsvWriterClose(csv);
    return TextPtr(StringWriterClose(writer)).get();
}

std::string WrittenField(const char *text)
{
    return Written(false, [text](CsvWriter *csv) { CsvWriterField(csv, text); });
}

TEST(CsvWriter, QuotesAFieldExactlyWhenItMust)
{
    const struct {
        const char *field;
        const char *written;
    } cases[] = {
        {"", ""},
        {nullptr, ""},
        {"plain", "plain"},
        {"a b", "a b"},
        {"a\tb", "a\tb"},
        {"\ta\t", "\ta\t"},  // a tab is no blank
        {"'a';b|c", "'a';b|c"},
        {"\xC3\xA9\xff", "\xC3\xA9\xff"},
        {"a,b", "\"a,b\""},
        {",", "\",\""},
        {"a\rb", "\"a\rb\""},
        {"a\nb", "\"a\nb\""},
        {"a\r\n", "\"a\r\n\""},
        {" a", "\" a\""},
        {"a ", "\"a \""},
        {" ", "\" \""},
        {"\"", "\"\"\"\""},
        {"\"a\"", "\"\"\"a\"\"\""},
        {"say \"hi\", you", "\"say \"\"hi\"\", you\""},
        {"a\"\"b", "\"a\"\"\"\"b\""},
    };
    for (const auto &c : cases) { EXPECT_EQ(WrittenField(c.field), c.written); }
}

TEST(CsvWriter, AFieldMayHaveAnyLength)
{
    const std::string plain(1'000'000, 'x');
    const std::string comma = plain + "," + plain;

    EXPECT_EQ(WrittenField(plain.c_str()), plain);
    EXPECT_EQ(WrittenField(comma.c_str()), "\"" + comma + "\"");
}

TEST(CsvWriter, FindsAByteThatAsksForQuotesAtAnyPlaceOfAFieldOfAnyLength)
{
    for (const size_t length : {1, 2, 15, 16, 17, 31, 32, 33, 48, 49, 250, 251, 252, 253, 254, 300}) {
        const std::string plain(length, 'x');
        ASSERT_EQ(WrittenField(plain.c_str()), plain);
        for (size_t i = 0; i < length; i++) {
            std::string field = plain;
            for (const char c : {',', '\r', '\n'}) {
                field[i] = c;
                ASSERT_EQ(WrittenField(field.c_str()), '"' + field + '"') << length << " " << i;
            }
            field[i] = '"';
            const std::string doubled = std::string(field).insert(i, "\"");
            ASSERT_EQ(WrittenField(field.c_str()), '"' + doubled + '"') << length << " " << i;
        }
    }
}

TEST(CsvWriter, AFormattedFieldIsQuotedAsNeeded)
{
    const std::string text(3000, ',');
    const auto formatted = [](const char *value) {
        return Written(false, [value](CsvWriter *csv) { CsvWriterFieldF(csv, "%s", value); });
    };
    EXPECT_EQ(formatted("a,b"), "\"a,b\"");
    EXPECT_EQ(formatted(""), "");
    EXPECT_EQ(formatted(text.c_str()), "\"" + text + "\"");
    for (size_t length = 500; length < 530; length++) {
        EXPECT_EQ(formatted(std::string(length, 'x').c_str()), std::string(length, 'x'));
    }
}

TEST(CsvWriter, FieldsArePartedByCommasAndEmptyOnesCount)
{
    EXPECT_EQ(Written(false,
                      [](CsvWriter *csv) {
                          for (const char *field : {"", "a", "", ""}) { CsvWriterField(csv, field); }
                      }),
              ",a,,");
}

TEST(CsvWriter, EndsEachRecordWithCrLf)
{
    const auto two_records = [](CsvWriter *csv) {
        CsvWriterField(csv, "a");
        CsvWriterNewRecord(csv);
        CsvWriterField(csv, "b");
        CsvWriterField(csv, "c");
    };
    EXPECT_EQ(Written(true, two_records), "a\r\nb,c\r\n");
    EXPECT_EQ(Written(false, two_records), "a\r\nb,c");
}

TEST(CsvWriter, ClosingAddsNoEmptyRecord)
{
    const auto ended = [](CsvWriter *csv) {
        CsvWriterField(csv, "a");
        CsvWriterNewRecord(csv);
    };
    const auto nothing = [](CsvWriter *) {};
    EXPECT_EQ(Written(true, ended), "a\r\n");
    EXPECT_EQ(Written(false, ended), "a\r\n");
    EXPECT_EQ(Written(true, nothing), "");
    EXPECT_EQ(Written(false, nothing), "");
}

TEST(CsvWriter, ARecordOfOneEmptyFieldIsARecord)
{
    const auto one_empty_field = [](CsvWriter *csv) { CsvWriterField(csv, ""); };
    const auto no_field = [](CsvWriter *csv) { CsvWriterNewRecord(csv); };
    EXPECT_EQ(Written(true, one_empty_field), "\r\n");
    EXPECT_EQ(Written(false, one_empty_field), "");
    EXPECT_EQ(Written(true, no_field), "\r\n");
    EXPECT_EQ(Written(false, no_field), "\r\n");
}

TEST(CsvWriter, TheWriterBelowStaysOpen)
{
    Writer *writer = StringWriter();
    for (int i = 0; i < 2; i++) {
        CsvWriter *csv = CsvWriterOpen(writer);
        CsvWriterField(csv, "a");
        CsvWriterClose(csv);
    }
    WriterWrite(writer, "end");

    EXPECT_STREQ(TextPtr(StringWriterClose(writer)).get(), "a\r\na\r\nend");
}

TEST(CsvWriter, WithoutAWriterThereIsNone)
{
    EXPECT_EQ(CsvWriterOpen(nullptr), nullptr);
    EXPECT_EQ(CsvWriterOpenSpecifyTerminate(nullptr, false), nullptr);
    CsvWriterClose(nullptr);
}

}  // namespace
