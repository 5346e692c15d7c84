// Sequence of pointers.
#ifndef VELTRANE_SEQ_H
#define VELTRANE_SEQ_H

#include <stdio.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef int (*SeqItemComparator)(const void *a, const void *b, void *user_data);

// new; capacity is only a hint; destroy NULL = items are not owned
Seq *SeqNew(size_t capacity, void (*destroy)(void *item));

// destroys every item that is not NULL, then the sequence
void SeqDestroy(Seq *seq);

// the sequence alone: its items live on
void SeqSoftDestroy(Seq *seq);

// empty (NULL) slots count
size_t SeqLength(const Seq *seq);

// borrowed, may be NULL; i >= length is a programming error
void *SeqAt(const Seq *seq, size_t i);

// destroys the old item unless it is the same pointer; takes over item, NULL empties the slot
void SeqSet(Seq *seq, size_t i, void *item);

// takes over item; NULL makes an empty slot
void SeqAppend(Seq *seq, void *item);

// appends the item pointers themselves; the caller then soft-destroys items
void SeqAppendSeq(Seq *seq, const Seq *items);

// stable merge sort; NULL slots are passed to compare; a comparator that contradicts itself gives some order, never
// a stray access (so no quicksort)
void SeqSort(Seq *seq, SeqItemComparator compare, void *user_data);

// new sorted view (below); seq keeps its order
Seq *SeqSoftSort(const Seq *seq, SeqItemComparator compare, void *user_data);

// first item with compare(key, item, NULL) == 0; NULL: none. borrowed
void *SeqLookup(const Seq *seq, const void *key, SeqItemComparator compare);

// the same in a sequence sorted by compare, O(log n)
void *SeqBinaryLookup(const Seq *seq, const void *key, SeqItemComparator compare);

// new view of items first..last, both included; NULL unless first <= last < length A view has no item destructor:
// SeqDestroy and SeqSoftDestroy of it are the same
Seq *SeqGetRange(const Seq *seq, size_t first, size_t last);

// sum of strlen of all items, NULL counts 0; stops at INT_MAX
int SeqStringLength(const Seq *texts);

// new, owning its pieces; inner empty pieces stay, a separator at the very end gives no further piece, "" gives an
// empty sequence; text NULL: NULL
Seq *SeqStringFromString(const char *text, char separator);

// each text that is not NULL and "\n"; false on a write error, errno
bool SeqStringWriteFileStream(const Seq *texts, FILE *fp);

VT_END_DECLS

#endif
