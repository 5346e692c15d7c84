// Growing bytes.
#include <string>

#include <gtest/gtest.h>

#include <veltrane/owned.h>

using veltrane::BufferPtr;

namespace {

TEST(Buffer, IsAnEmptyTextAtFirst)
{
    const BufferPtr buffer(BufferNew());

    EXPECT_STREQ(BufferData(buffer.get()), "");
    EXPECT_EQ(BufferSize(buffer.get()), 0u);
}

TEST(Buffer, KeepsZerosAndEndsInOneMore)
{
    const BufferPtr buffer(BufferNew());

    BufferAppend(buffer.get(), "a\0b", 3);

    EXPECT_EQ(BufferSize(buffer.get()), 3u);
    EXPECT_EQ(std::string(BufferData(buffer.get()), 4), std::string("a\0b\0", 4));
}

TEST(Buffer, AppendingNothingChangesNothing)
{
    const BufferPtr buffer(BufferNew());

    BufferAppend(buffer.get(), "a", 1);
    BufferAppend(buffer.get(), nullptr, 0);

    EXPECT_STREQ(BufferData(buffer.get()), "a");
}

TEST(Buffer, EndsInAZeroAtEverySize)
{
    const BufferPtr buffer(BufferNew());
    std::string expected;
    for (int i = 0; i < 5000; i++) {
        const char c = static_cast<char>('a' + i % 26);
        BufferAppend(buffer.get(), &c, 1);
        expected += c;
        ASSERT_STREQ(BufferData(buffer.get()), expected.c_str());
    }
    BufferAppend(buffer.get(), expected.data(), expected.size());
    EXPECT_EQ(BufferData(buffer.get()), expected + expected);
}

TEST(Buffer, DestroyingNothingIsAllowed)
{
    BufferDestroy(nullptr);
    SUCCEED();
}

}  // namespace
