// Hash map, and the map of texts.
//
// Iteration gives entries in the order of first insertion (a replaced entry keeps its place), so files written from
// a map are the same on every run.
#ifndef VELTRANE_MAP_H
#define VELTRANE_MAP_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef unsigned int (*MapHashFn)(const void *key, unsigned int seed);
typedef bool (*MapKeyEqualFn)(const void *a, const void *b);
typedef void (*MapDestroyDataFn)(void *data);
struct MapKeyValue_ {
    void *key;
    void *value;
};
struct MapIterator_ {
    const Map *map;
    size_t next;
};

// new; destroyers may be NULL
Map *MapNew(MapHashFn hash, MapKeyEqualFn equal, MapDestroyDataFn destroy_key, MapDestroyDataFn destroy_value);

// takes over both; with an equal key present the old key and value are destroyed (not a pointer that is inserted
// again) and true is returned; false: the key was not there
bool MapInsert(Map *map, void *key, void *value);

// borrowed value, NULL when absent (or stored as NULL)
void *MapGet(const Map *map, const void *key);
bool MapHasKey(const Map *map, const void *key);

// destroys key and value; false when absent
bool MapRemove(Map *map, const void *key);
size_t MapSize(const Map *map);

// keys, values, map
void MapDestroy(Map *map);

// keys and map; the values live on
void MapSoftDestroy(Map *map);

// by value, nothing to free
MapIterator MapIteratorInit(const Map *map);

// borrowed, NULL at the end; nothing may be inserted or removed while walking
MapKeyValue *MapIteratorNext(MapIterator *i);

// StringHash and StringEqual of string_lib.h in the shapes that MapNew takes;
unsigned int StringHashUntyped(const void *key, unsigned int seed);

// calling through a cast pointer would be undefined
bool StringEqualUntyped(const void *a, const void *b);

// owned text -> owned text; every Map function works on it
typedef Map StringMap;

// new
StringMap *StringMapNew(void);

// takes over both, replaces as MapInsert
bool StringMapInsert(StringMap *map, char *key, char *value);

// borrowed, NULL when absent
char *StringMapGet(const StringMap *map, const char *key);
bool StringMapHasKey(const StringMap *map, const char *key);
bool StringMapRemove(StringMap *map, const char *key);
void StringMapDestroy(StringMap *map);

VT_END_DECLS

#endif
