// Memory: what is asked for is there, or the process ends with a critical line.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string>

#include <sys/resource.h>

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libveltrane/out_of_memory.h"

using veltrane::TextPtr;

// Under a sanitizer a request for too much memory must fail as it does without it, and much is less there: the address
// space of such a process cannot be limited.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1:max_allocation_size_mb=256"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1:max_allocation_size_mb=256"; }

namespace {

// Hidden from the compiler, which refuses sizes that it can see to be impossible.
size_t TooMuch()
{
    volatile size_t size = PTRDIFF_MAX - 4096;
    return size;
}

// From here on there is less than a gigabyte for this process; a sanitizer, which maps terabytes, has its own limit.
void LimitMemory()
{
    size_t mapped_pages = 0;
    std::ifstream("/proc/self/statm") >> mapped_pages;
    const rlim_t gigabyte = rlim_t{1} << 30;
    if (mapped_pages < gigabyte / 4096) {
        const struct rlimit limit = {gigabyte, gigabyte};
        setrlimit(RLIMIT_AS, &limit);
    }
}

// A stream of this byte without an end.
FILE *EndlessLine()
{
    cookie_io_functions_t functions = {};
    functions.read = [](void *, char *to, size_t size) -> ssize_t {
        memset(to, 'x', size);
        return static_cast<ssize_t>(size);
    };
    return fopencookie(nullptr, "r", functions);
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

TEST(Alloc, LinesComeUpToTheEndOfTheFile)
{
    const veltrane::FilePtr file(tmpfile());
    fputs("one\ntwo", file.get());
    rewind(file.get());
    char *line = nullptr;
    size_t room = 0;

    EXPECT_EQ(veltrane::xgetline(&line, &room, file.get()), 4);
    EXPECT_STREQ(line, "one\n");
    EXPECT_EQ(veltrane::xgetline(&line, &room, file.get()), 3);
    EXPECT_STREQ(line, "two");
    EXPECT_EQ(veltrane::xgetline(&line, &room, file.get()), -1);
    free(line);
}

TEST(AllocDeathTest, ALineTooLongForTheMemoryIsNotTakenForTheEndOfTheFile)
{
    const auto read_it = [] {
        LimitMemory();
        char *line = nullptr;
        size_t room = 0;
        (void)veltrane::xgetline(&line, &room, EndlessLine());
        exit(0);
    };
    EXPECT_EXIT(read_it(), testing::ExitedWithCode(255), "Out of memory");
}

TEST(AllocDeathTest, OpenSslThatRunsOutOfMemoryEndsTheProcessAlike)
{
    EXPECT_EXIT(OPENSSL_malloc(TooMuch()), testing::ExitedWithCode(255), "Out of memory: [0-9]+ bytes");
    EXPECT_EXIT(OPENSSL_realloc(nullptr, TooMuch()), testing::ExitedWithCode(255), "Out of memory: [0-9]+ bytes");
}

TEST(Alloc, OpenSslFreesByAskingForNothing)
{
    void *memory = OPENSSL_malloc(8);

    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(OPENSSL_realloc(memory, 0), nullptr);
}

TEST(AllocDeathTest, ContainersThatRunOutOfMemoryEndTheProcessAlike)
{
    const std::new_handler handler = std::get_new_handler();

    ASSERT_NE(handler, nullptr);
    EXPECT_EXIT(handler(), testing::ExitedWithCode(255), "Out of memory");
}

}  // namespace
