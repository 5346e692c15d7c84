// Hash map that keeps the order of insertion, and the map of texts.
//
// Entries stand in one array in the order in which their keys came; removal leaves a hole there, so a walk is a walk
// over the array. A table of slots with open addressing (linear probing) finds an entry by its hash; each slot carries
// the hash beside the entry's number, so that other keys are passed by without being touched. Invariants: each entry
// that is no hole has exactly one slot, no gap lies between a slot and the place its hash wants, and at most half of
// the slots are in use.
#include <veltrane/map.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/random.h>
#include <unistd.h>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>
#include <veltrane/string_lib.h>

namespace {

struct Entry {
    MapKeyValue pair;
    uint32_t hash;
    bool used;  // false: a hole
};

struct Slot {
    uint32_t hash;
    uint32_t entry;  // its number + 1; 0: the slot is free
};

constexpr size_t kFirstEntries = 8;
constexpr size_t kMostEntries = UINT32_MAX / 2;
constexpr size_t kNoSlot = SIZE_MAX;

}  // namespace

struct Map_ {
    MapHashFn hash;
    MapKeyEqualFn equal;
    MapDestroyDataFn destroy_key;
    MapDestroyDataFn destroy_value;
    Entry *entries;
    size_t entries_end;   // the first entry never used
    size_t entries_room;  // always half of the slots
    size_t size;
    Slot *slots;
    unsigned slot_bits;  // there are 2 ^ slot_bits slots
};

namespace {

// Peers and policies choose the keys, so they must not be able to choose the collisions.
unsigned HashSeed()
{
    static const unsigned seed = [] {
        unsigned random = 0;
        return getrandom(&random, sizeof(random), 0) == sizeof(random) ? random : static_cast<unsigned>(getpid());
    }();
    return seed;
}

size_t Mask(const Map *map) { return (size_t{1} << map->slot_bits) - 1; }

// Multiplying spreads the hashes of hash functions that do not.
size_t WantedSlot(const Map *map, uint32_t hash)
{
    return (hash * UINT64_C(0x9E3779B97F4A7C15)) >> (64 - map->slot_bits);
}

uint32_t HashOf(const Map *map, const void *key) { return map->hash(key, HashSeed()); }

// The slot of the entry whose key equals key, else kNoSlot.
size_t FindSlot(const Map *map, const void *key, uint32_t hash)
{
    if (map->size == 0) {
        return kNoSlot;
    }
    const size_t mask = Mask(map);
    for (size_t i = WantedSlot(map, hash); map->slots[i].entry != 0; i = (i + 1) & mask) {
        if (map->slots[i].hash == hash && map->equal(map->entries[map->slots[i].entry - 1].pair.key, key)) {
            return i;
        }
    }
    return kNoSlot;
}

Entry *FindEntry(const Map *map, const void *key)
{
    const size_t slot = FindSlot(map, key, HashOf(map, key));
    return slot != kNoSlot ? &map->entries[map->slots[slot].entry - 1] : nullptr;
}

void PutSlot(Map *map, uint32_t hash, size_t entry)
{
    const size_t mask = Mask(map);
    size_t i = WantedSlot(map, hash);
    while (map->slots[i].entry != 0) { i = (i + 1) & mask; }
    map->slots[i] = {hash, static_cast<uint32_t>(entry + 1)};
}

void CloseHoles(Map *map)
{
    size_t to = 0;
    for (size_t from = 0; from < map->entries_end; from++) {
        if (map->entries[from].used) {
            map->entries[to++] = map->entries[from];
        }
    }
    map->entries_end = to;
}

// Room for one more entry: holes are closed when they are many, else everything doubles.
void MakeRoom(Map *map)
{
    if (map->entries_end < map->entries_room) {
        return;
    }
    CloseHoles(map);
    size_t room = map->entries_room == 0 ? kFirstEntries : map->entries_room;
    if (map->size > room / 4 * 3) {
        room *= 2;
    }
    if (room > kMostEntries) {
        ProgrammingError("A map of %zu entries", map->size);
    }
    map->entries = static_cast<Entry *>(xrealloc(map->entries, room * sizeof(Entry)));
    map->entries_room = room;
    map->slot_bits = static_cast<unsigned>(__builtin_ctzll(room)) + 1;
    free(map->slots);
    map->slots = static_cast<Slot *>(xcalloc(Mask(map) + 1, sizeof(Slot)));
    for (size_t i = 0; i < map->entries_end; i++) { PutSlot(map, map->entries[i].hash, i); }
}

// Frees the slot and moves those behind it up, so that no gap parts them from where they want to be.
void RemoveSlot(Map *map, size_t gap)
{
    const size_t mask = Mask(map);
    for (size_t i = (gap + 1) & mask; map->slots[i].entry != 0; i = (i + 1) & mask) {
        const size_t wanted = WantedSlot(map, map->slots[i].hash);
        if (((i - wanted) & mask) >= ((i - gap) & mask)) {
            map->slots[gap] = map->slots[i];
            gap = i;
        }
    }
    map->slots[gap] = {0, 0};
}

void Destroy(MapDestroyDataFn destroy, void *data)
{
    if (destroy != nullptr && data != nullptr) {
        destroy(data);
    }
}

void DestroyMap(Map *map, bool with_values)
{
    if (map == nullptr) {
        return;
    }
    for (size_t i = 0; i < map->entries_end; i++) {
        if (map->entries[i].used) {
            Destroy(map->destroy_key, map->entries[i].pair.key);
            if (with_values) {
                Destroy(map->destroy_value, map->entries[i].pair.value);
            }
        }
    }
    free(map->entries);
    free(map->slots);
    free(map);
}

}  // namespace

Map *MapNew(MapHashFn hash, MapKeyEqualFn equal, MapDestroyDataFn destroy_key, MapDestroyDataFn destroy_value)
{
    Map *map = static_cast<Map *>(xcalloc(1, sizeof(Map)));
    map->hash = hash;
    map->equal = equal;
    map->destroy_key = destroy_key;
    map->destroy_value = destroy_value;
    return map;
}

bool MapInsert(Map *map, void *key, void *value)
{
    const uint32_t hash = HashOf(map, key);
    const size_t slot = FindSlot(map, key, hash);
    if (slot == kNoSlot) {
        MakeRoom(map);
        const size_t i = map->entries_end++;
        map->entries[i] = {{key, value}, hash, true};
        PutSlot(map, hash, i);
        map->size++;
        return false;
    }
    MapKeyValue &pair = map->entries[map->slots[slot].entry - 1].pair;
    const MapKeyValue old = pair;
    pair = {key, value};
    if (old.key != key) {
        Destroy(map->destroy_key, old.key);
    }
    if (old.value != value) {
        Destroy(map->destroy_value, old.value);
    }
    return true;
}

void *MapGet(const Map *map, const void *key)
{
    const Entry *entry = FindEntry(map, key);
    return entry != nullptr ? entry->pair.value : nullptr;
}

bool MapHasKey(const Map *map, const void *key) { return FindEntry(map, key) != nullptr; }

bool MapRemove(Map *map, const void *key)
{
    const size_t slot = FindSlot(map, key, HashOf(map, key));
    if (slot == kNoSlot) {
        return false;
    }
    Entry &entry = map->entries[map->slots[slot].entry - 1];
    const MapKeyValue old = entry.pair;
    entry = {};
    RemoveSlot(map, slot);
    map->size--;
    while (map->entries_end > 0 && !map->entries[map->entries_end - 1].used) { map->entries_end--; }
    Destroy(map->destroy_key, old.key);
    Destroy(map->destroy_value, old.value);
    return true;
}

size_t MapSize(const Map *map) { return map->size; }

void MapDestroy(Map *map) { DestroyMap(map, true); }

void MapSoftDestroy(Map *map) { DestroyMap(map, false); }

MapIterator MapIteratorInit(const Map *map) { return {map, 0}; }

MapKeyValue *MapIteratorNext(MapIterator *i)
{
    while (i->next < i->map->entries_end) {
        Entry &entry = i->map->entries[i->next++];
        if (entry.used) {
            return &entry.pair;
        }
    }
    return nullptr;
}

unsigned int StringHashUntyped(const void *key, unsigned int seed)
{
    return StringHash(static_cast<const char *>(key), seed);
}

bool StringEqualUntyped(const void *a, const void *b)
{
    return StringEqual(static_cast<const char *>(a), static_cast<const char *>(b));
}

StringMap *StringMapNew(void) { return MapNew(StringHashUntyped, StringEqualUntyped, free, free); }

bool StringMapInsert(StringMap *map, char *key, char *value) { return MapInsert(map, key, value); }

char *StringMapGet(const StringMap *map, const char *key) { return static_cast<char *>(MapGet(map, key)); }

bool StringMapHasKey(const StringMap *map, const char *key) { return MapHasKey(map, key); }

bool StringMapRemove(StringMap *map, const char *key) { return MapRemove(map, key); }

void StringMapDestroy(StringMap *map) { MapDestroy(map); }
