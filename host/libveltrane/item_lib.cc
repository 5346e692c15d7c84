// Lists of texts, and name tables.
#include <veltrane/item_lib.h>

#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>

const char *const MONTH_TEXT[] = {"January", "February",  "March",   "April",    "May",      "June", "July",
                                  "August",  "September", "October", "November", "December", nullptr};

const char *const DAY_TEXT[] = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday", nullptr};

const char *const SHIFT_TEXT[] = {"Night", "Morning", "Afternoon", "Evening", nullptr};

Item *PrependItem(Item **list, const char *name)
{
    Item *item = static_cast<Item *>(xmalloc(sizeof(Item)));
    item->name = xstrdup(name);
    item->next = *list;
    *list = item;
    return item;
}

int ListLen(const Item *list)
{
    int length = 0;
    for (; list != nullptr; list = list->next) { length++; }
    return length;
}

void DeleteItemList(Item *list)
{
    while (list != nullptr) {
        Item *next = list->next;
        free(list->name);
        free(list);
        list = next;
    }
}

bool IsStrIn(const char *text, const char *const table[])
{
    for (size_t i = 0; table[i] != nullptr; i++) {
        if (strcmp(text, table[i]) == 0) {
            return true;
        }
    }
    return false;
}
