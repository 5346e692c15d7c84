// Lists of texts, and name tables.
#ifndef VELTRANE_ITEM_LIB_H
#define VELTRANE_ITEM_LIB_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// name owned by the node; the empty list is NULL
struct Item_ {
    char *name;
    Item *next;
};

// copies name into a new first node (lent)
Item *PrependItem(Item **list, const char *name);
int ListLen(const Item *list);

// nodes and names
void DeleteItemList(Item *list);

// exact match with one of the texts of a table that NULL ends
bool IsStrIn(const char *text, const char *const table[]);

// "January" ... "December", NULL
extern const char *const MONTH_TEXT[];

// "Monday" ... "Sunday", NULL
extern const char *const DAY_TEXT[];

// "Night", "Morning", "Afternoon", "Evening", NULL: the quarters of a day from midnight
extern const char *const SHIFT_TEXT[];

VT_END_DECLS

#endif
