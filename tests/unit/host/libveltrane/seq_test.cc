// Sequences: ownership, slots, sorting under any comparator, look-ups and views.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "support/texts.h"

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::FilePtr;
using veltrane::SeqPtr;
using veltrane::SeqViewPtr;
using veltrane::TextPtr;

namespace {

SeqPtr SeqOf(const std::vector<const char *> &texts)
{
    SeqPtr seq(SeqNew(0, free));
    for (const char *text : texts) { SeqAppend(seq.get(), text != nullptr ? xstrdup(text) : nullptr); }
    return seq;
}

int CompareTexts(const void *a, const void *b, void *)
{
    return strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

struct Item {
    int key;
    int place;  // where it stood before
};

int CompareItems(const void *a, const void *b, void *count)
{
    if (count != nullptr) {
        ++*static_cast<size_t *>(count);
    }
    const int x = static_cast<const Item *>(a)->key;
    const int y = static_cast<const Item *>(b)->key;
    return (x > y) - (x < y);
}

std::vector<Item> Items(const std::vector<int> &keys)
{
    std::vector<Item> items;
    for (int key : keys) { items.push_back({key, static_cast<int>(items.size())}); }
    return items;
}

SeqPtr Lend(std::vector<Item> *items)
{
    SeqPtr seq(SeqNew(items->size(), nullptr));
    for (Item &item : *items) { SeqAppend(seq.get(), &item); }
    return seq;
}

// Whether the sequence is in the order that the standard library's stable sort gives.
void ExpectStablySorted(const Seq *seq, std::vector<Item> items)
{
    std::stable_sort(items.begin(), items.end(), [](const Item &a, const Item &b) { return a.key < b.key; });
    ASSERT_EQ(SeqLength(seq), items.size());
    for (size_t i = 0; i < items.size(); i++) {
        const Item *item = static_cast<const Item *>(SeqAt(seq, i));
        ASSERT_EQ(item->key, items[i].key) << "at " << i;
        ASSERT_EQ(item->place, items[i].place) << "at " << i;
    }
}

int destroyed = 0;
void CountDestroyed(void *) { destroyed++; }

TEST(Seq, IsEmptyAtFirstWhateverItsCapacity)
{
    const SeqPtr none(SeqNew(0, free));
    const SeqPtr some(SeqNew(100, free));

    EXPECT_EQ(SeqLength(none.get()), 0u);
    EXPECT_EQ(SeqLength(some.get()), 0u);
}

TEST(Seq, GrowsBeyondTheCapacityItWasGiven)
{
    const SeqPtr seq(SeqNew(1, free));
    for (int i = 0; i < 1000; i++) { SeqAppend(seq.get(), xstrdup(std::to_string(i).c_str())); }

    EXPECT_EQ(SeqLength(seq.get()), 1000u);
    EXPECT_STREQ(static_cast<char *>(SeqAt(seq.get(), 999)), "999");
}

TEST(Seq, EmptySlotsCountAndAreNotDestroyed)
{
    destroyed = 0;
    int item = 0;
    Seq *seq = SeqNew(0, CountDestroyed);
    SeqAppend(seq, nullptr);
    SeqAppend(seq, &item);
    SeqAppend(seq, nullptr);
    EXPECT_EQ(SeqLength(seq), 3u);
    EXPECT_EQ(SeqAt(seq, 0), nullptr);

    SeqDestroy(seq);

    EXPECT_EQ(destroyed, 1);
}

TEST(Seq, ASoftDestroyLeavesTheItemsAlive)
{
    destroyed = 0;
    int item = 0;
    Seq *seq = SeqNew(0, CountDestroyed);
    SeqAppend(seq, &item);

    SeqSoftDestroy(seq);

    EXPECT_EQ(destroyed, 0);
}

TEST(Seq, DestroyingNothingIsAllowed)
{
    SeqDestroy(nullptr);
    SeqSoftDestroy(nullptr);
    SUCCEED();
}

TEST(Seq, SettingASlotDestroysTheOldItem)
{
    destroyed = 0;
    int items[2] = {};
    const SeqPtr seq(SeqNew(0, CountDestroyed));
    SeqAppend(seq.get(), &items[0]);

    SeqSet(seq.get(), 0, &items[1]);

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(SeqAt(seq.get(), 0), &items[1]);
}

TEST(Seq, SettingTheSamePointerDestroysNothing)
{
    destroyed = 0;
    int item = 0;
    const SeqPtr seq(SeqNew(0, CountDestroyed));
    SeqAppend(seq.get(), &item);

    SeqSet(seq.get(), 0, &item);

    EXPECT_EQ(destroyed, 0);
}

TEST(Seq, SettingNothingEmptiesTheSlot)
{
    const SeqPtr seq = SeqOf({"a"});

    SeqSet(seq.get(), 0, nullptr);

    EXPECT_THAT(SeqTexts(seq.get()), ElementsAre("(empty)"));
}

TEST(SeqDeathTest, APositionBeyondTheEndIsAProgrammingError)
{
    const SeqPtr seq = SeqOf({"a"});

    EXPECT_DEATH(SeqAt(seq.get(), 1), "programming error: Position 1 of a sequence of 1");
    EXPECT_DEATH(SeqSet(seq.get(), 7, nullptr), "programming error: Position 7 of a sequence of 1");
}

TEST(Seq, AppendingASequenceHandsOverItsPointers)
{
    const SeqPtr seq = SeqOf({"a"});
    SeqPtr more = SeqOf({"b", nullptr, "c"});

    SeqAppendSeq(seq.get(), more.get());
    SeqSoftDestroy(more.release());

    EXPECT_THAT(SeqTexts(seq.get()), ElementsAre("a", "b", "(empty)", "c"));
}

TEST(Seq, AppendingAnEmptySequenceChangesNothing)
{
    const SeqPtr seq = SeqOf({});
    const SeqPtr nothing = SeqOf({});

    SeqAppendSeq(seq.get(), nothing.get());

    EXPECT_EQ(SeqLength(seq.get()), 0u);
}

TEST(Seq, SortsSmallSequences)
{
    const SeqPtr none = SeqOf({});
    const SeqPtr one = SeqOf({"a"});
    const SeqPtr three = SeqOf({"b", "c", "a"});

    for (Seq *seq : {none.get(), one.get(), three.get()}) { SeqSort(seq, CompareTexts, nullptr); }

    EXPECT_THAT(SeqTexts(none.get()), IsEmpty());
    EXPECT_THAT(SeqTexts(one.get()), ElementsAre("a"));
    EXPECT_THAT(SeqTexts(three.get()), ElementsAre("a", "b", "c"));
}

TEST(Seq, SortsStablyAtEveryLengthAndKeyRange)
{
    std::mt19937 random(7);
    for (size_t length = 0; length < 400; length += 1 + length / 40) {
        for (int range : {1, 3, 50, 1000000}) {
            std::vector<int> keys(length);
            for (int &key : keys) { key = static_cast<int>(random() % range); }
            std::vector<Item> items = Items(keys);
            const SeqPtr seq = Lend(&items);

            SeqSort(seq.get(), CompareItems, nullptr);

            ExpectStablySorted(seq.get(), items);
        }
    }
}

TEST(Seq, SortsStablyWhateverRunsAreThere)
{
    std::mt19937 random(11);
    for (int round = 0; round < 60; round++) {
        std::vector<int> keys;
        while (keys.size() < 5000) {  // runs that rise, fall and stay, of any length
            const int step = static_cast<int>(random() % 3) - 1;
            int key = static_cast<int>(random() % 2000);
            for (size_t left = random() % (round % 2 == 0 ? 40 : 900); left > 0; left--, key += step) {
                keys.push_back(key);
            }
        }
        std::vector<Item> items = Items(keys);
        const SeqPtr seq = Lend(&items);

        SeqSort(seq.get(), CompareItems, nullptr);

        ExpectStablySorted(seq.get(), items);
    }
}

TEST(Seq, SortsAMillionItemsWithNoMoreComparisonsThanMergingNeeds)
{
    constexpr size_t kLength = 1'000'000;
    std::mt19937 random(13);
    std::vector<int> keys(kLength);
    for (int &key : keys) { key = static_cast<int>(random()); }
    std::vector<Item> items = Items(keys);
    const SeqPtr seq = Lend(&items);
    size_t comparisons = 0;

    SeqSort(seq.get(), CompareItems, &comparisons);

    ExpectStablySorted(seq.get(), items);
    EXPECT_LT(comparisons, kLength * 20);  // log2 of the length
}

TEST(Seq, OneComparisonAnItemIsEnoughForWhatIsInOrder)
{
    std::vector<int> keys(100'000);
    for (size_t i = 0; i < keys.size(); i++) { keys[i] = static_cast<int>(i / 2); }
    std::vector<Item> items = Items(keys);
    const SeqPtr rising = Lend(&items);
    size_t comparisons = 0;
    SeqSort(rising.get(), CompareItems, &comparisons);
    EXPECT_LE(comparisons, keys.size());
    ExpectStablySorted(rising.get(), items);

    for (size_t i = 0; i < keys.size(); i++) { keys[i] = -static_cast<int>(i); }
    items = Items(keys);
    const SeqPtr falling = Lend(&items);
    comparisons = 0;
    SeqSort(falling.get(), CompareItems, &comparisons);
    EXPECT_LE(comparisons, keys.size());
    ExpectStablySorted(falling.get(), items);
}

TEST(Seq, SortedItemsWithAFewAppendedAreNearlyAsCheapAsSortedOnes)
{
    std::vector<int> keys(100'000);
    for (size_t i = 0; i < keys.size(); i++) { keys[i] = static_cast<int>(i) * 2; }
    for (int late : {77777, 5, 123457, 5}) { keys.push_back(late); }
    std::vector<Item> items = Items(keys);
    const SeqPtr seq = Lend(&items);
    size_t comparisons = 0;

    SeqSort(seq.get(), CompareItems, &comparisons);

    ExpectStablySorted(seq.get(), items);
    EXPECT_LT(comparisons, keys.size() * 2 + 1000);
}

// A thousand sorts under comparators that answer at random or against themselves, with slots empty here and there.
TEST(Seq, ASelfContradictingComparatorNeverStrays)
{
    const SeqItemComparator comparators[] = {
        [](const void *, const void *, void *random) {
            return static_cast<int>((*static_cast<std::mt19937 *>(random))() % 3) - 1;
        },
        [](const void *, const void *, void *) { return -1; },
        [](const void *, const void *, void *) { return 1; },
        [](const void *, const void *, void *) { return 0; },
        // an empty slot before everything, and everything before an empty slot
        [](const void *a, const void *b, void *) {
            return a == nullptr || b == nullptr ? -1 : CompareItems(a, b, nullptr);
        },
        // scissors, paper, stone
        [](const void *a, const void *b, void *) {
            const auto key = [](const void *p) { return p != nullptr ? static_cast<const Item *>(p)->key % 3 : 0; };
            return (4 + key(a) - key(b)) % 3 - 1;
        },
    };
    std::mt19937 random(17);
    for (int round = 0; round < 1000; round++) {
        std::vector<int> keys(random() % 700);
        for (int &key : keys) { key = static_cast<int>(random() % 100); }
        std::vector<Item> items = Items(keys);
        const SeqPtr seq = Lend(&items);
        for (size_t i = 0; i < items.size(); i += 1 + random() % 9) { SeqSet(seq.get(), i, nullptr); }
        std::vector<void *> before;
        for (size_t i = 0; i < items.size(); i++) { before.push_back(SeqAt(seq.get(), i)); }

        SeqSort(seq.get(), comparators[round % std::size(comparators)], &random);

        std::vector<void *> after;
        for (size_t i = 0; i < items.size(); i++) { after.push_back(SeqAt(seq.get(), i)); }
        std::sort(before.begin(), before.end());
        std::sort(after.begin(), after.end());
        ASSERT_EQ(after, before);  // nothing lost, nothing doubled
    }
}

TEST(Seq, EmptySlotsAreHandedToTheComparator)
{
    const SeqPtr seq = SeqOf({"b", nullptr, "a"});

    SeqSort(
        seq.get(),
        [](const void *a, const void *b, void *) {
            if (a == nullptr || b == nullptr) {
                return (a != nullptr) - (b != nullptr);
            }
            return CompareTexts(a, b, nullptr);
        },
        nullptr);

    EXPECT_THAT(SeqTexts(seq.get()), ElementsAre("(empty)", "a", "b"));
}

TEST(Seq, ASoftSortIsAViewAndTheSequenceKeepsItsOrder)
{
    const SeqPtr seq = SeqOf({"b", "c", "a"});

    const SeqPtr sorted(SeqSoftSort(seq.get(), CompareTexts, nullptr));  // ends without the items

    EXPECT_THAT(SeqTexts(sorted.get()), ElementsAre("a", "b", "c"));
    EXPECT_THAT(SeqTexts(seq.get()), ElementsAre("b", "c", "a"));
}

TEST(Seq, ALookUpFindsTheFirstEqualItem)
{
    const SeqPtr seq = SeqOf({"b", "a", "b"});

    EXPECT_EQ(SeqLookup(seq.get(), "b", CompareTexts), SeqAt(seq.get(), 0));
    EXPECT_EQ(SeqLookup(seq.get(), "c", CompareTexts), nullptr);
}

TEST(Seq, ALookUpGivesTheComparatorTheKeyFirstAndNoUserData)
{
    const SeqPtr seq = SeqOf({"prefix.a"});
    const SeqItemComparator starts_with = [](const void *key, const void *item, void *user_data) {
        EXPECT_EQ(user_data, nullptr);
        return strncmp(static_cast<const char *>(item), static_cast<const char *>(key),
                       strlen(static_cast<const char *>(key)));
    };

    EXPECT_EQ(SeqLookup(seq.get(), "prefix", starts_with), SeqAt(seq.get(), 0));
}

TEST(Seq, ABinaryLookUpFindsTheFirstOfEqualItems)
{
    const SeqPtr seq = SeqOf({"a", "b", "b", "b", "d"});

    EXPECT_EQ(SeqBinaryLookup(seq.get(), "a", CompareTexts), SeqAt(seq.get(), 0));
    EXPECT_EQ(SeqBinaryLookup(seq.get(), "b", CompareTexts), SeqAt(seq.get(), 1));
    EXPECT_EQ(SeqBinaryLookup(seq.get(), "d", CompareTexts), SeqAt(seq.get(), 4));
    for (const char *absent : {"", "aa", "c", "e"}) {
        EXPECT_EQ(SeqBinaryLookup(seq.get(), absent, CompareTexts), nullptr) << absent;
    }
    EXPECT_EQ(SeqBinaryLookup(SeqOf({}).get(), "a", CompareTexts), nullptr);
}

TEST(Seq, ARangeIsAViewOfBothItsEnds)
{
    const SeqPtr seq = SeqOf({"a", "b", "c", "d"});

    const SeqPtr middle(SeqGetRange(seq.get(), 1, 2));
    const SeqViewPtr last(SeqGetRange(seq.get(), 3, 3));

    EXPECT_THAT(SeqTexts(middle.get()), ElementsAre("b", "c"));
    EXPECT_THAT(SeqTexts(last.get()), ElementsAre("d"));
    EXPECT_THAT(SeqTexts(seq.get()), ElementsAre("a", "b", "c", "d"));
}

TEST(Seq, ARangeThatIsNotInsideIsNone)
{
    const SeqPtr seq = SeqOf({"a", "b"});

    EXPECT_EQ(SeqGetRange(seq.get(), 1, 0), nullptr);
    EXPECT_EQ(SeqGetRange(seq.get(), 0, 2), nullptr);
    EXPECT_EQ(SeqGetRange(seq.get(), 2, 2), nullptr);
    EXPECT_EQ(SeqGetRange(SeqOf({}).get(), 0, 0), nullptr);
}

TEST(Seq, TheLengthOfTextsLeavesOutEmptySlotsAndLineEnds)
{
    const SeqPtr seq = SeqOf({"ab", nullptr, "", "cde"});

    EXPECT_EQ(SeqStringLength(seq.get()), 5);
    EXPECT_EQ(SeqStringLength(SeqOf({}).get()), 0);
}

TEST(Seq, TheLengthOfTextsStopsAtTheLargestInt)
{
    const std::string text(1 << 20, 'x');
    const SeqPtr seq(SeqNew(0, nullptr));
    for (int i = 0; i < 2048; i++) { SeqAppend(seq.get(), const_cast<char *>(text.c_str())); }  // 2 GiB in all

    EXPECT_EQ(SeqStringLength(seq.get()), INT_MAX);
}

TEST(Seq, ATextIsSplitWithoutAPieceAfterItsLastSeparator)
{
    const struct {
        const char *text;
        std::vector<std::string> pieces;
    } cases[] = {
        {"", {}},     {"a", {"a"}},       {"a\nb", {"a", "b"}}, {"a\nb\n", {"a", "b"}}, {"a\n\nb", {"a", "", "b"}},
        {"\n", {""}}, {"\na", {"", "a"}}, {"a\n\n", {"a", ""}}, {" a \r\n", {" a \r"}},
    };
    for (const auto &c : cases) {
        const SeqPtr pieces(SeqStringFromString(c.text, '\n'));
        EXPECT_EQ(SeqTexts(pieces.get()), c.pieces) << "'" << c.text << "'";
    }
    EXPECT_EQ(SeqStringFromString(nullptr, '\n'), nullptr);
}

TEST(Seq, TextsAreWrittenALineEachWithoutTheEmptySlots)
{
    const SeqPtr seq = SeqOf({"a", nullptr, "", "b"});
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);

    EXPECT_TRUE(SeqStringWriteFileStream(seq.get(), fp));

    fclose(fp);
    const TextPtr owner(text);
    EXPECT_STREQ(text, "a\n\nb\n");
}

TEST(Seq, WritingTextsToAFullDiskFailsWithItsErrno)
{
    const FilePtr full(fopen("/dev/full", "w"));
    ASSERT_NE(full, nullptr);
    setvbuf(full.get(), nullptr, _IONBF, 0);
    errno = 0;

    EXPECT_FALSE(SeqStringWriteFileStream(SeqOf({"a"}).get(), full.get()));

    EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
