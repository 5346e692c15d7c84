// Set of texts in the order of insertion: a map whose every key is its own value.
#include <veltrane/set.h>

#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>
#include <veltrane/buffer.h>
#include <veltrane/json.h>

struct StringSet_ {
    Map *members;  // key and value are one pointer, owned as the key
};

StringSet *StringSetNew(void)
{
    StringSet *set = static_cast<StringSet *>(xmalloc(sizeof(StringSet)));
    set->members = MapNew(StringHashUntyped, StringEqualUntyped, free, nullptr);
    return set;
}

void StringSetAdd(StringSet *set, char *text)
{
    const void *member = MapGet(set->members, text);
    if (member == nullptr) {
        MapInsert(set->members, text, text);
    } else if (member != text) {
        free(text);
    }
}

bool StringSetContains(const StringSet *set, const char *text) { return MapHasKey(set->members, text); }

size_t StringSetSize(const StringSet *set) { return MapSize(set->members); }

void StringSetDestroy(StringSet *set)
{
    if (set != nullptr) {
        MapDestroy(set->members);
        free(set);
    }
}

StringSet *StringSetFromString(const char *text, char separator)
{
    StringSet *set = StringSetNew();
    while (*text != '\0') {
        const char *end = strchrnul(text, separator);
        if (end > text) {
            StringSetAdd(set, xstrndup(text, end - text));
        }
        text = *end == '\0' ? end : end + 1;
    }
    return set;
}

Buffer *StringSetToBuffer(const StringSet *set, char separator)
{
    Buffer *joined = BufferNew();
    StringSetIterator i = StringSetIteratorInit(set);
    size_t separator_length = 0;
    while (const char *member = StringSetIteratorNext(&i)) {
        BufferAppend(joined, &separator, separator_length);
        BufferAppend(joined, member, strlen(member));
        separator_length = 1;
    }
    return joined;
}

JsonElement *StringSetToJson(const StringSet *set)
{
    JsonElement *array = JsonArrayCreate(StringSetSize(set));
    StringSetIterator i = StringSetIteratorInit(set);
    while (const char *member = StringSetIteratorNext(&i)) { JsonArrayAppendString(array, member); }
    return array;
}

StringSetIterator StringSetIteratorInit(const StringSet *set) { return MapIteratorInit(set->members); }

const char *StringSetIteratorNext(StringSetIterator *i)
{
    const MapKeyValue *member = MapIteratorNext(i);
    return member != nullptr ? static_cast<const char *>(member->key) : nullptr;
}
