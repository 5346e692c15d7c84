// Set of texts.
//
// Iteration and joining follow the order of first insertion: tags joined today and tomorrow give the same text, and
// no difference row arises from order.
#ifndef VELTRANE_SET_H
#define VELTRANE_SET_H

#include <veltrane/map.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef MapIterator StringSetIterator;

// new, empty
StringSet *StringSetNew(void);

// takes over text; a duplicate is freed and changes nothing
void StringSetAdd(StringSet *set, char *text);
bool StringSetContains(const StringSet *set, const char *text);
size_t StringSetSize(const StringSet *set);
void StringSetDestroy(StringSet *set);

// new; blanks stay, empty pieces are left out: "" and "," give the empty set
StringSet *StringSetFromString(const char *text, char separator);

// new; members joined by separator, "" for the empty set
Buffer *StringSetToBuffer(const StringSet *set, char separator);

// new array of strings
JsonElement *StringSetToJson(const StringSet *set);
StringSetIterator StringSetIteratorInit(const StringSet *set);

// borrowed, NULL at the end; the set may not change while walking
const char *StringSetIteratorNext(StringSetIterator *i);

VT_END_DECLS

#endif
