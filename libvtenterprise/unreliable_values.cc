// The last value that a caller obtained for a handle, so that policy can fall back to it when the network fails.
//
// The database dbid_cache (docs/formats/remote-values.md) keeps it under "<caller>_<handle>", not escaped: two pairs
// may share a key. Nothing here fails loudly: without a database there is no value before.
#include <array>
#include <cstdio>
#include <cstring>

#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"

namespace {

using veltrane::DBHandlePtr;

constexpr size_t kKeySize = 4095;  // with its zero; a longer key is cut
constexpr int kLongestValue = VT_BUFSIZE - 1;

using Key = std::array<char, kKeySize>;

Key KeyOf(const char *caller, const char *handle)
{
    Key key;
    (void)snprintf(key.data(), key.size(), "%s_%s", caller, handle);
    return key;
}

DBHandlePtr OpenCache()
{
    DBHandle *db = nullptr;
    return DBHandlePtr(OpenDB(&db, dbid_cache) ? db : nullptr);
}

}  // namespace

int RetrieveUnreliableValue__real(char *caller, char *handle, char *buffer) noexcept
{
    const Key key = KeyOf(caller, handle);
    Log(LOG_LEVEL_VERBOSE, "Checking cache for last available value");
    memset(buffer, 0, VT_BUFSIZE);
    const DBHandlePtr db = OpenCache();
    if (db == nullptr) {
        return 0;
    }
    (void)ReadDB(db.get(), key.data(), buffer, kLongestValue);  // absent: the buffer stays empty
    return static_cast<int>(strlen(buffer));
}

void CacheUnreliableValue__real(char *caller, char *handle, char *buffer) noexcept
{
    const Key key = KeyOf(caller, handle);
    Log(LOG_LEVEL_VERBOSE, "Caching value \"%s\" for fault tolerance", buffer);
    const DBHandlePtr db = OpenCache();
    if (db != nullptr) {
        (void)WriteDB(db.get(), key.data(), buffer, static_cast<int>(strlen(buffer) + 1));  // the next one will do
    }
}
