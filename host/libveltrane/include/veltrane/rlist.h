// Policy lists.
#ifndef VELTRANE_RLIST_H
#define VELTRANE_RLIST_H

#include <veltrane/rval.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

// Rval of rval.h (second half). The empty list is NULL; a list of records keeps each in val.item
struct Rlist_ {
    Rval val;
    Rlist *next;
};

// new scalars; "\" before a separator makes it part of the piece; inner and trailing empty pieces stay ("ns:" is
// "ns" and ""); NULL for "" and for NULL
Rlist *RlistFromSplitString(const char *text, char separator);

// copies scalar into a new last node (lent); *list NULL starts a list
Rlist *RlistAppendScalar(Rlist **list, const char *scalar);

// lent; a node that holds no scalar is a programming error
char *RlistScalarValue(const Rlist *node);
size_t RlistLen(const Rlist *list);

// all nodes and their values
void RlistDestroy(Rlist *list);

VT_END_DECLS

#endif
