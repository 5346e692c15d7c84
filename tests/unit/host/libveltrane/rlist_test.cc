// Policy lists.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/owned.h>

using testing::ElementsAre;
using veltrane::RlistPtr;

namespace {

std::vector<std::string> Scalars(const Rlist *list)
{
    std::vector<std::string> scalars;
    for (; list != nullptr; list = list->next) { scalars.push_back(RlistScalarValue(list)); }
    return scalars;
}

TEST(Rlist, ATextIsSplitAtEverySeparator)
{
    const struct {
        const char *text;
        std::vector<std::string> pieces;
    } cases[] = {
        {"a", {"a"}},
        {"a:b", {"a", "b"}},
        {"ns:", {"ns", ""}},
        {":a", {"", "a"}},
        {":", {"", ""}},
        {"a::b", {"a", "", "b"}},
        {" a : b ", {" a ", " b "}},
        {"a\\:b:c", {"a:b", "c"}},
        {"a\\b:c\\", {"a\\b", "c\\"}},
        {"\\\\:x", {"\\:x"}},
        {"\\:", {":"}},
    };
    for (const auto &c : cases) {
        const RlistPtr list(RlistFromSplitString(c.text, ':'));
        EXPECT_EQ(Scalars(list.get()), c.pieces) << c.text;
    }
}

TEST(Rlist, NothingSplitIsTheEmptyList)
{
    EXPECT_EQ(RlistFromSplitString("", ','), nullptr);
    EXPECT_EQ(RlistFromSplitString(nullptr, ','), nullptr);
}

TEST(Rlist, AppendingStartsAListAndPutsEachScalarLast)
{
    Rlist *list = nullptr;
    char scalar[] = "a";
    EXPECT_EQ(RlistAppendScalar(&list, scalar), list);
    scalar[0] = 'x';  // it was copied
    Rlist *last = RlistAppendScalar(&list, "b");
    const RlistPtr owner(list);

    EXPECT_THAT(Scalars(list), ElementsAre("a", "b"));
    EXPECT_EQ(list->next, last);
    EXPECT_EQ(RlistLen(list), 2u);
    EXPECT_EQ(list->val.type, RVAL_TYPE_SCALAR);
}

TEST(Rlist, TheEmptyListHasNoNodes)
{
    EXPECT_EQ(RlistLen(nullptr), 0u);
    RlistDestroy(nullptr);
}

TEST(RlistDeathTest, ANodeWithoutAScalarReadAsOneIsAProgrammingError)
{
    const Rlist node = {{nullptr, RVAL_TYPE_LIST}, nullptr};

    EXPECT_DEATH(RlistScalarValue(&node), "programming error: A list node of type 108 read as a scalar");
}

TEST(Rlist, RecordsInNodesAreNotTheLists)
{
    int record = 7;
    Rlist *list = nullptr;
    Rlist *node = RlistAppendScalar(&list, "");
    RvalDestroy(node->val);
    node->val = {&record, RVAL_TYPE_NONE};

    RlistDestroy(list);

    EXPECT_EQ(record, 7);
}

}  // namespace
