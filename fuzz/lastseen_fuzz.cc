// Any entries as the last-seen database: each quality entry is an item that is the same when it is cached, and a purge
// leaves what is no quality entry alone.
//
// The database is a map in memory that stands before the host's own. The input is its entries: a byte with the length
// of the key, the key, two bytes with the length of the value, the value.
#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <veltrane/dbm_api.h>
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "fuzz/record_rows.h"
#include "libvtenterprise/diff_lastseen.h"

namespace {

std::map<std::string, std::string> entries;
int handle;  // its address is the only handle

}  // namespace

struct DBCursor_ {
    std::vector<std::pair<std::string, std::string>> frozen;
    size_t next;
};

extern "C" {

bool OpenDB(DBHandle **ret_db, dbid)
{
    *ret_db = reinterpret_cast<DBHandle *>(&handle);
    return true;
}

void CloseDB(DBHandle *) {}

bool ReadDB(DBHandle *, const char *key, void *buffer, int size)
{
    const auto entry = entries.find(key);
    if (entry == entries.end()) {
        return false;
    }
    memcpy(buffer, entry->second.data(), std::min(entry->second.size(), static_cast<size_t>(size)));
    return true;
}

bool NewDBCursor(DBHandle *, DBCursor **ret_cursor)
{
    *ret_cursor = new DBCursor{{entries.begin(), entries.end()}, 0};
    return true;
}

bool NextDB(DBCursor *cursor, char **ret_key, int *ret_key_size, void **ret_value, int *ret_value_size)
{
    if (cursor->next == cursor->frozen.size()) {
        return false;
    }
    auto &[key, value] = cursor->frozen[cursor->next++];
    *ret_key = key.data();
    *ret_key_size = static_cast<int>(key.size() + 1);
    *ret_value = value.empty() ? nullptr : value.data();
    *ret_value_size = static_cast<int>(value.size());
    return true;
}

bool DBCursorDeleteEntry(DBCursor *cursor) { return entries.erase(cursor->frozen[cursor->next - 1].first) == 1; }

bool DeleteDBCursor(DBCursor *cursor)
{
    delete cursor;
    return true;
}
}

namespace {

// The next bytes of the input, as many as there are.
std::string Take(const uint8_t **data, size_t *left, size_t count)
{
    const size_t taken = std::min(count, *left);
    std::string bytes(reinterpret_cast<const char *>(*data), taken);
    *data += taken;
    *left -= taken;
    return bytes;
}

size_t TakeLength(const uint8_t **data, size_t *left, size_t bytes)
{
    size_t length = 0;
    for (const char c : Take(data, left, bytes)) { length = length << 8 | static_cast<unsigned char>(c); }
    return length;
}

size_t CountOthers()
{
    return static_cast<size_t>(
        std::count_if(entries.begin(), entries.end(), [](const auto &entry) { return entry.first[0] != 'q'; }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzWorkDirectory();
    entries.clear();
    while (size > 0) {
        const std::string key = Take(&data, &size, TakeLength(&data, &size, 1)).c_str();  // to its first zero
        entries[key] = Take(&data, &size, TakeLength(&data, &size, 2));
    }
    const size_t others = CountOthers();
    const veltrane::SeqPtr state(GetCurrentHubLastSeenList(nullptr));
    Require(state != nullptr && SeqLength(state.get()) == entries.size() - others);
    (void)RowsOf(report_type_lastseen, state.get());
    Require(PurgeLastSeenAt(1700000000));
    Require(CountOthers() == others);
    return 0;
}
