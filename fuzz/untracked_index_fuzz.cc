// Any bytes as an untracked index: what is read is written and read again as the same entries.
//
// One line feed at the very end of a row may go: a record's end is no data. A row that we wrote never ends in a bare
// one.
#include <string>

#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/untracked_index.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = InputAsFile(data, size);
    const veltrane::StringMapPtr index(UntrackedIndexGet(path.c_str()));
    Require(index != nullptr);
    Require(UntrackedIndexPush(path.c_str(), index.get()));
    const veltrane::StringMapPtr again(UntrackedIndexGet(path.c_str()));
    Require(MapSize(again.get()) == MapSize(index.get()));
    MapIterator iterator = MapIteratorInit(index.get());
    while (const MapKeyValue *entry = MapIteratorNext(&iterator)) {
        const char *value = StringMapGet(again.get(), static_cast<const char *>(entry->key));
        const std::string row = static_cast<const char *>(entry->value);
        Require(value != nullptr && (row == value || row == std::string(value) + "\n"));
    }
    return 0;
}
