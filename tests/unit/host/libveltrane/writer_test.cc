// Writers: the same bytes to memory and to a file, and failures that are not forgotten.
#include <cerrno>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <support/work_dir.h>
#include <veltrane/owned.h>

using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

// Every way to write, in one go; the bytes it writes.
std::string WriteSomeOfEverything(Writer *writer)
{
    const std::string long_text(5000, 'x');
    EXPECT_EQ(WriterWrite(writer, "abc"), 3u);
    EXPECT_EQ(WriterWrite(writer, ""), 0u);
    EXPECT_EQ(WriterWriteLen(writer, "d\0e", 3), 3u);
    EXPECT_EQ(WriterWriteLen(writer, nullptr, 0), 0u);
    EXPECT_EQ(WriterWriteChar(writer, '\0'), 1u);
    EXPECT_EQ(WriterWriteChar(writer, '\xff'), 1u);
    EXPECT_EQ(WriterWriteF(writer, "%s=%d;", "n", 42), 5u);
    EXPECT_EQ(WriterWriteF(writer, "%s", ""), 0u);
    EXPECT_EQ(WriterWriteF(writer, "<%s>", long_text.c_str()), 5002u);
    return std::string("abcd\0e\0\xffn=42;<", 14) + long_text + ">";
}

TEST(StringWriter, CollectsEveryKindOfWriting)
{
    const WriterPtr writer(StringWriter());

    const std::string expected = WriteSomeOfEverything(writer.get());

    EXPECT_EQ(StringWriterLength(writer.get()), expected.size());
    EXPECT_EQ(std::string(StringWriterData(writer.get()), expected.size() + 1), expected + '\0');
}

TEST(StringWriter, IsTheEmptyTextAtFirst)
{
    const WriterPtr writer(StringWriter());

    EXPECT_EQ(StringWriterLength(writer.get()), 0u);
    EXPECT_STREQ(StringWriterData(writer.get()), "");
}

TEST(StringWriter, ClosingItHandsOverItsText)
{
    Writer *writer = StringWriter();
    WriterWrite(writer, "abc");
    EXPECT_STREQ(TextPtr(StringWriterClose(writer)).get(), "abc");

    EXPECT_STREQ(TextPtr(StringWriterClose(StringWriter())).get(), "");
    EXPECT_EQ(StringWriterClose(nullptr), nullptr);
}

TEST(StringWriter, FormatsTextsOfEveryLength)
{
    const WriterPtr writer(StringWriter());
    std::string expected;
    for (int length = 0; length < 300; length++) {
        ASSERT_EQ(WriterWriteF(writer.get(), "%*s", length, ""), static_cast<size_t>(length));
        expected += std::string(length, ' ');
        ASSERT_EQ(StringWriterData(writer.get()), expected);
    }
}

TEST(StringWriter, ClosedAsAnyWriterDropsItsText)
{
    Writer *writer = StringWriter();
    WriterWrite(writer, "abc");

    EXPECT_TRUE(WriterClose(writer));
    EXPECT_TRUE(WriterClose(nullptr));
}

TEST(FileWriter, WritesTheSameBytesAsAStringWriter)
{
    const TemporaryDirectory directory;
    Writer *writer = FileWriter(fopen((directory.path / "file").c_str(), "w"));

    const std::string expected = WriteSomeOfEverything(writer);

    EXPECT_TRUE(WriterClose(writer));
    EXPECT_EQ(ReadFile(directory.path / "file"), expected);
}

TEST(FileWriter, AFullDiskSpeaksAtTheClose)
{
    Writer *writer = FileWriter(fopen("/dev/full", "w"));
    EXPECT_EQ(WriterWrite(writer, "abc"), 3u);  // into the stream's buffer
    errno = 0;

    EXPECT_FALSE(WriterClose(writer));

    EXPECT_EQ(errno, ENOSPC);
}

TEST(FileWriter, AFailedWriteIsRememberedUntilTheClose)
{
    for (int way = 0; way < 4; way++) {
        FILE *fp = fopen("/dev/full", "w");
        setvbuf(fp, nullptr, _IONBF, 0);
        Writer *writer = FileWriter(fp);
        switch (way) {
            case 0:
                EXPECT_EQ(WriterWrite(writer, "abc"), 0u);
                break;
            case 1:
                EXPECT_EQ(WriterWriteLen(writer, "abc", 3), 0u);
                break;
            case 2:
                EXPECT_EQ(WriterWriteChar(writer, 'a'), 0u);
                break;
            case 3:
                EXPECT_EQ(WriterWriteF(writer, "%d", 1), 0u);
                break;
        }
        clearerr(fp);  // whatever the stream forgets, the writer does not
        errno = 0;

        EXPECT_FALSE(WriterClose(writer)) << way;

        EXPECT_EQ(errno, ENOSPC) << way;
    }
}

TEST(FileWriter, AStreamForReadingFails)
{
    Writer *writer = FileWriter(fopen("/dev/null", "r"));

    EXPECT_EQ(WriterWrite(writer, "abc"), 0u);
    EXPECT_FALSE(WriterClose(writer));
    EXPECT_EQ(errno, EBADF);
}

TEST(FileWriterDeathTest, HasNoTextToGive)
{
    const WriterPtr writer(FileWriter(fopen("/dev/null", "w")));

    EXPECT_DEATH(StringWriterLength(writer.get()), "programming error: A file writer keeps no text");
    EXPECT_DEATH(StringWriterData(writer.get()), "programming error: A file writer keeps no text");
    EXPECT_DEATH(StringWriterClose(writer.get()), "programming error: A file writer keeps no text");
    EXPECT_DEATH(FileWriter(nullptr), "programming error: A file writer needs a stream");
}

}  // namespace
