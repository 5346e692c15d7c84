// Sets of texts: each once, in the order of insertion.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::BufferPtr;
using veltrane::JsonPtr;
using veltrane::StringSetPtr;

namespace {

std::vector<std::string> Members(const StringSet *set)
{
    std::vector<std::string> members;
    StringSetIterator i = StringSetIteratorInit(set);
    while (const char *member = StringSetIteratorNext(&i)) { members.push_back(member); }
    return members;
}

TEST(StringSet, IsEmptyAtFirst)
{
    const StringSetPtr set(StringSetNew());

    EXPECT_EQ(StringSetSize(set.get()), 0u);
    EXPECT_FALSE(StringSetContains(set.get(), ""));
    EXPECT_THAT(Members(set.get()), IsEmpty());
}

TEST(StringSet, KeepsEachTextOnceInTheOrderOfInsertion)
{
    const StringSetPtr set(StringSetNew());
    for (const char *text : {"z", "a", "z", "m", "a"}) { StringSetAdd(set.get(), xstrdup(text)); }

    EXPECT_THAT(Members(set.get()), ElementsAre("z", "a", "m"));
    EXPECT_EQ(StringSetSize(set.get()), 3u);
    EXPECT_TRUE(StringSetContains(set.get(), "m"));
    EXPECT_FALSE(StringSetContains(set.get(), "M"));
}

TEST(StringSet, AddingAMemberItselfChangesNothing)
{
    const StringSetPtr set(StringSetNew());
    char *text = xstrdup("a");
    StringSetAdd(set.get(), text);

    StringSetAdd(set.get(), text);

    EXPECT_THAT(Members(set.get()), ElementsAre("a"));
}

TEST(StringSet, FromATextLeavesOutEmptyPiecesAndKeepsBlanks)
{
    const struct {
        const char *text;
        std::vector<std::string> members;
    } cases[] = {
        {"", {}},
        {",", {}},
        {",,,", {}},
        {"a", {"a"}},
        {"a,b", {"a", "b"}},
        {"a,,b,", {"a", "b"}},
        {" a, b ,a", {" a", " b ", "a"}},
        {"b,a,b", {"b", "a"}},
    };
    for (const auto &c : cases) {
        const StringSetPtr set(StringSetFromString(c.text, ','));
        EXPECT_EQ(Members(set.get()), c.members) << "'" << c.text << "'";
    }
}

TEST(StringSet, IsJoinedInTheOrderOfInsertion)
{
    const StringSetPtr set(StringSetFromString("z,a,m", ','));

    const BufferPtr joined(StringSetToBuffer(set.get(), ';'));

    EXPECT_STREQ(BufferData(joined.get()), "z;a;m");
    EXPECT_EQ(BufferSize(joined.get()), 5u);
}

TEST(StringSet, TheEmptySetIsJoinedToTheEmptyText)
{
    const StringSetPtr set(StringSetNew());

    const BufferPtr joined(StringSetToBuffer(set.get(), ','));

    EXPECT_STREQ(BufferData(joined.get()), "");
    EXPECT_EQ(BufferSize(joined.get()), 0u);
}

TEST(StringSet, AnEmptyMemberKeepsItsSeparator)
{
    const StringSetPtr set(StringSetNew());
    for (const char *text : {"", "a"}) { StringSetAdd(set.get(), xstrdup(text)); }

    const BufferPtr joined(StringSetToBuffer(set.get(), ','));

    EXPECT_STREQ(BufferData(joined.get()), ",a");
}

TEST(StringSet, BecomesAJsonArrayOfStrings)
{
    const StringSetPtr set(StringSetFromString("z,a", ','));

    const JsonPtr json(StringSetToJson(set.get()));

    ASSERT_EQ(JsonLength(json.get()), 2u);
    EXPECT_STREQ(JsonPrimitiveGetAsString(JsonArrayGet(json.get(), 0)), "z");
    EXPECT_STREQ(JsonPrimitiveGetAsString(JsonArrayGet(json.get(), 1)), "a");
}

TEST(StringSet, DestroyingNothingIsAllowed)
{
    StringSetDestroy(nullptr);
    SUCCEED();
}

}  // namespace
