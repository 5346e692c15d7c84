// Maps: order, replacing, removing, and whose memory is freed when.
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::MapPtr;
using veltrane::StringMapPtr;

namespace {

std::vector<std::pair<std::string, std::string>> Pairs(const Map *map)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    MapIterator i = MapIteratorInit(map);
    while (const MapKeyValue *pair = MapIteratorNext(&i)) {
        pairs.emplace_back(static_cast<const char *>(pair->key), static_cast<const char *>(pair->value));
    }
    return pairs;
}

bool Insert(StringMap *map, const std::string &key, const std::string &value)
{
    return StringMapInsert(map, xstrdup(key.c_str()), xstrdup(value.c_str()));
}

TEST(Map, IsEmptyAtFirst)
{
    const StringMapPtr map(StringMapNew());

    EXPECT_EQ(MapSize(map.get()), 0u);
    EXPECT_THAT(Pairs(map.get()), IsEmpty());
    EXPECT_EQ(StringMapGet(map.get(), "a"), nullptr);
    EXPECT_FALSE(StringMapHasKey(map.get(), "a"));
    EXPECT_FALSE(StringMapRemove(map.get(), "a"));
}

TEST(Map, IsWalkedInTheOrderOfInsertion)
{
    const StringMapPtr map(StringMapNew());
    for (const char *key : {"z", "a", "m"}) { EXPECT_FALSE(Insert(map.get(), key, "1")); }

    EXPECT_THAT(Pairs(map.get()), ElementsAre(Pair("z", "1"), Pair("a", "1"), Pair("m", "1")));
    EXPECT_EQ(MapSize(map.get()), 3u);
}

TEST(Map, AReplacedEntryKeepsItsPlace)
{
    const StringMapPtr map(StringMapNew());
    Insert(map.get(), "z", "1");
    Insert(map.get(), "a", "2");

    EXPECT_TRUE(Insert(map.get(), "z", "3"));

    EXPECT_THAT(Pairs(map.get()), ElementsAre(Pair("z", "3"), Pair("a", "2")));
    EXPECT_EQ(MapSize(map.get()), 2u);
}

TEST(Map, ReplacingDestroysTheOldKeyAndValue)
{
    static std::multiset<const void *> destroyed;
    destroyed.clear();
    char old_key[] = "k";
    char new_key[] = "k";
    int values[2] = {};
    const auto note = [](void *data) { destroyed.insert(data); };
    MapPtr map(MapNew(StringHashUntyped, StringEqualUntyped, note, note));
    MapInsert(map.get(), old_key, &values[0]);

    EXPECT_TRUE(MapInsert(map.get(), new_key, &values[1]));
    EXPECT_THAT(destroyed, testing::UnorderedElementsAre(old_key, &values[0]));

    destroyed.clear();
    EXPECT_TRUE(MapInsert(map.get(), new_key, &values[0]));  // the same key again
    EXPECT_THAT(destroyed, ElementsAre(&values[1]));

    destroyed.clear();
    EXPECT_TRUE(MapInsert(map.get(), old_key, &values[0]));  // the same value again
    EXPECT_THAT(destroyed, ElementsAre(new_key));

    destroyed.clear();
    EXPECT_TRUE(MapInsert(map.get(), old_key, &values[0]));
    EXPECT_THAT(destroyed, IsEmpty());

    map.reset();
    EXPECT_THAT(destroyed, testing::UnorderedElementsAre(old_key, &values[0]));
}

TEST(Map, AValueMayBeStoredAsNothing)
{
    const MapPtr map(MapNew(StringHashUntyped, StringEqualUntyped, free, free));

    MapInsert(map.get(), xstrdup("a"), nullptr);

    EXPECT_EQ(MapGet(map.get(), "a"), nullptr);
    EXPECT_TRUE(MapHasKey(map.get(), "a"));
}

TEST(Map, RemovingKeepsTheOrderOfTheOthers)
{
    const StringMapPtr map(StringMapNew());
    for (const char *key : {"a", "b", "c", "d"}) { Insert(map.get(), key, "1"); }

    EXPECT_TRUE(StringMapRemove(map.get(), "b"));
    EXPECT_FALSE(StringMapRemove(map.get(), "b"));
    Insert(map.get(), "b", "2");

    EXPECT_THAT(Pairs(map.get()), ElementsAre(Pair("a", "1"), Pair("c", "1"), Pair("d", "1"), Pair("b", "2")));
}

TEST(Map, RemovingEveryEntryLeavesAnEmptyMapThatCanBeFilledAgain)
{
    const StringMapPtr map(StringMapNew());
    for (int i = 0; i < 100; i++) { Insert(map.get(), std::to_string(i), "1"); }
    for (int i = 0; i < 100; i++) { EXPECT_TRUE(StringMapRemove(map.get(), std::to_string(i).c_str())); }
    EXPECT_EQ(MapSize(map.get()), 0u);
    EXPECT_THAT(Pairs(map.get()), IsEmpty());

    Insert(map.get(), "7", "2");

    EXPECT_THAT(Pairs(map.get()), ElementsAre(Pair("7", "2")));
}

TEST(Map, ASoftDestroyLeavesTheValuesAlive)
{
    char *value = xstrdup("v");
    Map *map = MapNew(StringHashUntyped, StringEqualUntyped, free, free);
    MapInsert(map, xstrdup("k"), value);

    MapSoftDestroy(map);

    EXPECT_STREQ(value, "v");
    free(value);
}

TEST(Map, DestroyersMayBeAbsent)
{
    int key = 1;
    int value = 2;
    const MapPtr map(MapNew(
        [](const void *k, unsigned) { return static_cast<unsigned>(*static_cast<const int *>(k)); },
        [](const void *a, const void *b) { return *static_cast<const int *>(a) == *static_cast<const int *>(b); },
        nullptr, nullptr));

    MapInsert(map.get(), &key, &value);
    EXPECT_EQ(MapGet(map.get(), &key), &value);
    EXPECT_TRUE(MapRemove(map.get(), &key));
}

TEST(Map, DestroyingNothingIsAllowed)
{
    MapDestroy(nullptr);
    MapSoftDestroy(nullptr);
    StringMapDestroy(nullptr);
    SUCCEED();
}

TEST(Map, AHashThatIsTheSameForEveryKeyCostsTimeOnly)
{
    const StringMapPtr map(MapNew([](const void *, unsigned) { return 7u; }, StringEqualUntyped, free, free));
    for (int i = 0; i < 300; i++) { Insert(map.get(), std::to_string(i), std::to_string(-i)); }
    for (int i = 0; i < 300; i += 3) { EXPECT_TRUE(StringMapRemove(map.get(), std::to_string(i).c_str())); }

    for (int i = 0; i < 300; i++) {
        const char *value = StringMapGet(map.get(), std::to_string(i).c_str());
        EXPECT_EQ(value != nullptr ? value : "", i % 3 == 0 ? "" : std::to_string(-i));
    }
}

// A hundred thousand steps, each checked against a plain model with the order written beside it.
TEST(Map, AgreesWithAModelThroughInsertingReplacingAndRemoving)
{
    std::mt19937 random(23);
    const StringMapPtr map(StringMapNew());
    std::map<std::string, std::pair<size_t, std::string>> model;  // key -> when it came, its value
    for (size_t step = 0; step < 100'000; step++) {
        const std::string key = "key" + std::to_string(random() % 2000);
        const auto known = model.find(key);
        if (random() % 2 == 0) {
            const std::string value = std::to_string(step);
            ASSERT_EQ(Insert(map.get(), key, value), known != model.end());
            model[key] = {known != model.end() ? known->second.first : step, value};
        } else {
            ASSERT_EQ(StringMapRemove(map.get(), key.c_str()), known != model.end());
            model.erase(key);
        }
        ASSERT_EQ(MapSize(map.get()), model.size());
    }
    std::map<size_t, std::pair<std::string, std::string>> in_order;
    for (const auto &[key, entry] : model) { in_order[entry.first] = {key, entry.second}; }
    std::vector<std::pair<std::string, std::string>> expected;
    for (const auto &[when, pair] : in_order) { expected.push_back(pair); }
    EXPECT_EQ(Pairs(map.get()), expected);
    for (const auto &[key, entry] : model) { EXPECT_STREQ(StringMapGet(map.get(), key.c_str()), entry.second.c_str()); }
}

TEST(Map, HoldsAMillionTexts)
{
    const StringMapPtr map(StringMapNew());
    for (int i = 0; i < 1'000'000; i++) { Insert(map.get(), "class_" + std::to_string(i), "1"); }

    EXPECT_EQ(MapSize(map.get()), 1'000'000u);
    EXPECT_TRUE(StringMapHasKey(map.get(), "class_999999"));
    EXPECT_FALSE(StringMapHasKey(map.get(), "class_1000000"));
}

TEST(Map, TheUntypedHashAndEqualityAreThoseOfTexts)
{
    EXPECT_EQ(StringHashUntyped("abc", 5), StringHash("abc", 5));
    EXPECT_TRUE(StringEqualUntyped("a", "a"));
    EXPECT_FALSE(StringEqualUntyped("a", "b"));
    EXPECT_FALSE(StringEqualUntyped("a", nullptr));
}

}  // namespace
