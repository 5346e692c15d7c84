// Lists of texts, and name tables.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/item_lib.h>

using testing::ElementsAre;

namespace {

std::vector<std::string> Table(const char *const table[])
{
    std::vector<std::string> names;
    for (; *table != nullptr; table++) { names.push_back(*table); }
    return names;
}

TEST(ItemList, EachNameIsCopiedToTheFront)
{
    Item *list = nullptr;
    char name[] = "a";
    EXPECT_EQ(PrependItem(&list, name), list);
    name[0] = 'x';
    PrependItem(&list, "b");

    EXPECT_STREQ(list->name, "b");
    EXPECT_STREQ(list->next->name, "a");
    EXPECT_EQ(list->next->next, nullptr);
    EXPECT_EQ(ListLen(list), 2);
    DeleteItemList(list);
}

TEST(ItemList, TheEmptyListIsNothing)
{
    EXPECT_EQ(ListLen(nullptr), 0);
    DeleteItemList(nullptr);
}

TEST(ItemList, AListOfAMillionEndsWithoutRecursion)
{
    Item *list = nullptr;
    for (int i = 0; i < 1'000'000; i++) { PrependItem(&list, "x"); }

    EXPECT_EQ(ListLen(list), 1'000'000);
    DeleteItemList(list);
}

TEST(IsStrIn, MatchesWholeTextsOnly)
{
    const char *const table[] = {"add", "del", nullptr};
    const char *const none[] = {nullptr};

    EXPECT_TRUE(IsStrIn("add", table));
    EXPECT_TRUE(IsStrIn("del", table));
    for (const char *other : {"", "ad", "adds", "ADD"}) { EXPECT_FALSE(IsStrIn(other, table)) << other; }
    EXPECT_FALSE(IsStrIn("add", none));
}

TEST(NameTables, AreInTheOrderOfTheCalendar)
{
    EXPECT_THAT(Table(MONTH_TEXT), ElementsAre("January", "February", "March", "April", "May", "June", "July", "August",
                                               "September", "October", "November", "December"));
    EXPECT_THAT(Table(DAY_TEXT),
                ElementsAre("Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"));
    EXPECT_THAT(Table(SHIFT_TEXT), ElementsAre("Night", "Morning", "Afternoon", "Evening"));
}

}  // namespace
