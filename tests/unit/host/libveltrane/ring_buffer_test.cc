// The last n items.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>
#include <veltrane/ring_buffer.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RingBufferPtr = std::unique_ptr<RingBuffer, veltrane::Destroyer<RingBufferDestroy>>;
using IteratorPtr = std::unique_ptr<RingBufferIterator, veltrane::Destroyer<RingBufferIteratorDestroy>>;

void *CopyText(const void *text) { return xstrdup(static_cast<const char *>(text)); }

std::vector<std::string> Texts(const RingBuffer *ring)
{
    std::vector<std::string> texts;
    const IteratorPtr i(RingBufferIteratorNew(ring));
    while (const void *text = RingBufferIteratorNext(i.get())) { texts.push_back(static_cast<const char *>(text)); }
    EXPECT_EQ(RingBufferIteratorNext(i.get()), nullptr);  // and stays at the end
    return texts;
}

TEST(RingBuffer, IsWalkedFromTheOldestToTheNewest)
{
    const RingBufferPtr ring(RingBufferNew(3, nullptr, free));
    EXPECT_THAT(Texts(ring.get()), IsEmpty());

    RingBufferAppend(ring.get(), xstrdup("a"));
    RingBufferAppend(ring.get(), xstrdup("b"));

    EXPECT_THAT(Texts(ring.get()), ElementsAre("a", "b"));
    EXPECT_EQ(RingBufferLength(ring.get()), 2u);
}

TEST(RingBuffer, TheOldestFallsOutWhenItIsFull)
{
    const RingBufferPtr ring(RingBufferNew(3, nullptr, free));
    for (const char *text : {"a", "b", "c", "d", "e"}) { RingBufferAppend(ring.get(), xstrdup(text)); }

    EXPECT_THAT(Texts(ring.get()), ElementsAre("c", "d", "e"));
    EXPECT_EQ(RingBufferLength(ring.get()), 3u);
}

TEST(RingBuffer, TheOldestIsDestroyedBeforeTheNewOneIsCopied)
{
    static std::vector<std::string> events;
    events.clear();
    char a[] = "a";
    char b[] = "b";
    {
        const RingBufferPtr ring(RingBufferNew(
            1,
            [](const void *item) {
                events.push_back(std::string("copy ") + static_cast<const char *>(item));
                return CopyText(item);
            },
            [](void *item) {
                events.push_back(std::string("destroy ") + static_cast<char *>(item));
                free(item);
            }));
        RingBufferAppend(ring.get(), a);
        RingBufferAppend(ring.get(), b);
    }
    EXPECT_THAT(events, ElementsAre("copy a", "destroy a", "copy b", "destroy b"));
}

TEST(RingBuffer, WithACopyFunctionTheCallersItemStaysTheCallers)
{
    char text[] = "a";
    const RingBufferPtr ring(RingBufferNew(2, CopyText, free));

    RingBufferAppend(ring.get(), text);
    text[0] = 'x';

    EXPECT_THAT(Texts(ring.get()), ElementsAre("a"));
}

TEST(RingBuffer, WithoutRoomNothingIsKept)
{
    const RingBufferPtr taking(RingBufferNew(0, nullptr, free));
    const RingBufferPtr copying(RingBufferNew(0, CopyText, free));
    char text[] = "a";

    RingBufferAppend(taking.get(), xstrdup("a"));
    RingBufferAppend(copying.get(), text);

    EXPECT_THAT(Texts(taking.get()), IsEmpty());
    EXPECT_THAT(Texts(copying.get()), IsEmpty());
}

TEST(RingBuffer, DestroyingNothingIsAllowed)
{
    RingBufferDestroy(nullptr);
    RingBufferIteratorDestroy(nullptr);
    SUCCEED();
}

}  // namespace
