// Values of policy variables and attributes.
#ifndef VELTRANE_RVAL_H
#define VELTRANE_RVAL_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum {
    VT_DATA_TYPE_STRING = 0,       // const char *
    VT_DATA_TYPE_INT = 1,          // const char *, a whole number as text
    VT_DATA_TYPE_REAL = 2,         // const char *, a decimal number as text
    VT_DATA_TYPE_STRING_LIST = 3,  // Rlist * of scalars
    VT_DATA_TYPE_INT_LIST = 4,
    VT_DATA_TYPE_REAL_LIST = 5,
    VT_DATA_TYPE_CONTAINER = 6,  // JsonElement *
    VT_DATA_TYPE_NONE = 15       // "no such variable"; never stored
} DataType;                      // written into difference files: never renumber, never reach 16

typedef enum {
    RVAL_TYPE_NONE = 0,        // what a zeroed Rval is
    RVAL_TYPE_SCALAR = 's',    // item is char *
    RVAL_TYPE_LIST = 'l',      // item is Rlist *
    RVAL_TYPE_CONTAINER = 'c'  // item is JsonElement *
} RvalType;

struct Rval_ {
    void *item;  // owned by whoever owns the Rval
    RvalType type;
};

// 0..2 -> 's', 3..5 -> 'l', 6 -> 'c', anything else -> RVAL_TYPE_NONE
RvalType DataTypeToRvalType(DataType type);

// new deep copy of item
Rval RvalNew(const void *item, RvalType type);

// new
Rval RvalCopy(Rval rval);

// frees the item by its type; RVAL_TYPE_NONE is left alone
void RvalDestroy(Rval rval);

// borrowed text; NULL when the value is not a scalar
const char *RvalScalarValue(Rval rval);

// borrowed list; NULL when the value is not a list (an empty list is NULL as well)
Rlist *RvalRlistValue(Rval rval);

// scalar: its bytes as they are; list: {"a","b"} with " and \ escaped by \; container: compact JSON; none or a NULL
// item: nothing
void RvalWriteRaw(Writer *writer, Rval rval);

// A node of Rlist (rlist.h) is { Rval val; Rlist *next; }; lists of other records (hosts of a report) keep the
// record in val.item.

VT_END_DECLS

#endif
