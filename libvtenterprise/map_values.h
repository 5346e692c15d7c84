// From a map that was filled to tell records apart to the sequence of those records.
#ifndef LIBVTENTERPRISE_MAP_VALUES_H
#define LIBVTENTERPRISE_MAP_VALUES_H

#include <veltrane/map.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>

// The values of a map, without the absent ones, in the order of the map: a new Seq that will end them with destroy. It
// owns them from when the map has gone without its values.
inline Seq *ValuesOf(const Map *map, void (*destroy)(void *value))
{
    Seq *values = SeqNew(MapSize(map), destroy);
    MapIterator iterator = MapIteratorInit(map);
    while (const MapKeyValue *entry = MapIteratorNext(&iterator)) {
        if (entry->value != nullptr) {
            SeqAppend(values, entry->value);
        }
    }
    return values;
}

// The same, and the map goes.
inline Seq *TakeValues(veltrane::MapPtr map, void (*destroy)(void *value))
{
    Seq *values = ValuesOf(map.get(), destroy);
    MapSoftDestroy(map.release());
    return values;
}

#endif
