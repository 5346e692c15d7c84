#include "libvtenterprise/state_text.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/libvtenterprise/diff_test_support.h"

using veltrane::SeqPtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

std::string Written(const Writer *writer) { return {StringWriterData(writer), StringWriterLength(writer)}; }

TEST(StateText, IsOneRecordAnItemInTheOrderOfTheState)
{
    const SeqPtr state = ClassState({{"b", "x,y"}, {"a", nullptr}});
    const WriterPtr file(StringWriter());
    StateText(state.get(), HubClassToCSV, file.get()).Finish();
    EXPECT_EQ(Written(file.get()), "b,\"x,y\"\r\na,\r\n");
}

TEST(StateText, ARecordCanBeLookedAtAgainUntilTheNextOneIsMade)
{
    const SeqPtr state = ClassState({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    const WriterPtr file(StringWriter());
    StateText text(state.get(), HubClassToCSV, file.get());

    EXPECT_EQ(text.Record(0), "a,1\r\n");
    EXPECT_EQ(text.Record(0), "a,1\r\n");
    EXPECT_EQ(text.Record(2), "c,3\r\n");
    text.Finish();

    EXPECT_EQ(Written(file.get()), "a,1\r\nb,2\r\nc,3\r\n");
}

TEST(StateText, EmptySlotsArePassedOver)
{
    const SeqPtr state = ClassState({{"a", "1"}});
    SeqAppend(state.get(), nullptr);
    const WriterPtr file(StringWriter());
    StateText(state.get(), HubClassToCSV, file.get()).Finish();
    EXPECT_EQ(Written(file.get()), "a,1\r\n");
}

TEST(StateText, NothingIsWrittenWithoutAWriter)
{
    const SeqPtr state = ClassState({{"a", "1"}, {"b", "2"}});
    StateText text(state.get(), HubClassToCSV, nullptr);
    EXPECT_EQ(text.Record(1), "b,2\r\n");
    text.Finish();
}

TEST(StateText, BatchesJoinWithoutASeam)
{
    ClassTexts classes;
    std::string expected;
    for (int i = 0; i < 5000; i++) {
        classes.emplace_back("class_" + std::to_string(i), "a_rather_long_list_of_tags");
        expected += "class_" + std::to_string(i) + ",a_rather_long_list_of_tags\r\n";
    }
    const SeqPtr state = ClassState(classes);
    const WriterPtr file(StringWriter());
    StateText text(state.get(), HubClassToCSV, file.get());
    for (size_t i = 0; i < 5000; i += 7) {
        ASSERT_EQ(text.Record(i), "class_" + std::to_string(i) + ",a_rather_long_list_of_tags\r\n");
    }
    text.Finish();
    EXPECT_EQ(Written(file.get()), expected);
}

TEST(MayHoldEmptyField, TellsEveryPlaceWhereAFieldMayBeEmpty)
{
    for (const char *record : {"", "\r\n", ",a\r\n", "a,\r\n", "a,,b\r\n", ",\r\n"}) {
        EXPECT_TRUE(MayHoldEmptyField(record)) << record;
    }
    for (const char *record : {"a\r\n", "a,b\r\n", "\"a,b\",c\r\n", "a b,c,d"}) {
        EXPECT_FALSE(MayHoldEmptyField(record)) << record;
    }
}

TEST(MayHoldEmptyField, FindsAnEmptyFieldInRecordsOfAnyLength)
{
    for (size_t length = 2; length < 80; length++) {
        const std::string plain(length, 'x');
        ASSERT_FALSE(MayHoldEmptyField(plain + "\r\n")) << length;
        for (size_t i = 1; i + 2 < length; i++) {
            std::string record = plain;
            record.replace(i, 2, ",,");
            ASSERT_TRUE(MayHoldEmptyField(record + "\r\n")) << record;
            record[i + 1] = 'x';
            ASSERT_FALSE(MayHoldEmptyField(record + "\r\n")) << record;
        }
    }
}

}  // namespace
