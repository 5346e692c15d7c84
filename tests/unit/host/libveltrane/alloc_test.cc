// Memory: what is asked for is there, or the process ends with a critical line.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

using veltrane::TextPtr;

// Under the address sanitizer a request for too much memory must fail as it does without it.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

// Hidden from the compiler, which refuses sizes that it can see to be impossible.
size_t TooMuch()
{
    volatile size_t size = PTRDIFF_MAX - 4096;
    return size;
}

TEST(Alloc, NoBytesAreStillAnAddress)
{
    const std::unique_ptr<void, veltrane::Destroyer<free>> allocated(xmalloc(0));
    const std::unique_ptr<void, veltrane::Destroyer<free>> zeroed(xcalloc(0, 8));
    const std::unique_ptr<void, veltrane::Destroyer<free>> copied(xmemdup("", 0));

    EXPECT_NE(allocated, nullptr);
    EXPECT_NE(zeroed, nullptr);
    EXPECT_NE(copied, nullptr);
}

TEST(Alloc, CallocGivesZeroedMemory)
{
    const TextPtr memory(static_cast<char *>(xcalloc(16, 4)));

    EXPECT_EQ(std::string(memory.get(), 64), std::string(64, '\0'));
}

TEST(Alloc, ReallocKeepsWhatWasThereAndTakesNothingForAStart)
{
    char *text = static_cast<char *>(xrealloc(nullptr, 4));
    memcpy(text, "abc", 4);
    text = static_cast<char *>(xrealloc(text, 100000));
    EXPECT_STREQ(text, "abc");
    text = static_cast<char *>(xrealloc(text, 0));
    EXPECT_NE(text, nullptr);
    free(text);
}

TEST(Alloc, ATextIsCopiedWholeOrUpToSoManyBytes)
{
    const TextPtr whole(xstrdup("abc"));
    const TextPtr cut(xstrndup("abc", 2));
    const TextPtr shorter(xstrndup("abc", 10));
    const TextPtr none(xstrndup("abc", 0));

    EXPECT_STREQ(whole.get(), "abc");
    EXPECT_STREQ(cut.get(), "ab");
    EXPECT_STREQ(shorter.get(), "abc");
    EXPECT_STREQ(none.get(), "");
}

TEST(Alloc, AFixedNumberOfBytesNeedsNoZeroBehindThem)
{
    const char bytes[] = {'a', 'b', 'c'};

    const TextPtr cut(xstrndup(bytes, sizeof(bytes)));

    EXPECT_STREQ(cut.get(), "abc");
}

TEST(Alloc, BytesAreCopiedWithTheirZeros)
{
    const TextPtr copy(static_cast<char *>(xmemdup("a\0b", 4)));

    EXPECT_EQ(std::string(copy.get(), 4), std::string("a\0b\0", 4));
}

TEST(Alloc, AFormattedTextComesWithItsLength)
{
    char *text = nullptr;

    EXPECT_EQ(xasprintf(&text, "%s-%d", "abc", 42), 6);

    EXPECT_STREQ(text, "abc-42");
    free(text);
}

TEST(AllocDeathTest, RunningOutOfMemoryIsCriticalAndEndsTheProcess)
{
    EXPECT_EXIT(xmalloc(TooMuch()), testing::ExitedWithCode(255), "Out of memory: [0-9]+ bytes are not to be had");
    EXPECT_EXIT(xcalloc(1, TooMuch()), testing::ExitedWithCode(255), "Out of memory: [0-9]+ bytes");
    EXPECT_EXIT(xrealloc(nullptr, TooMuch()), testing::ExitedWithCode(255), "Out of memory: [0-9]+ bytes");
}

TEST(AllocDeathTest, ACountTimesASizeThatOverflowsIsTooMuch)
{
    EXPECT_EXIT(xcalloc(TooMuch(), 16), testing::ExitedWithCode(255),
                "Out of memory: " + std::to_string(SIZE_MAX) + " bytes are not to be had");
}

TEST(AllocDeathTest, ContainersThatRunOutOfMemoryEndTheProcessAlike)
{
    const std::new_handler handler = std::get_new_handler();

    ASSERT_NE(handler, nullptr);
    EXPECT_EXIT(handler(), testing::ExitedWithCode(255), "Out of memory");
}

}  // namespace
