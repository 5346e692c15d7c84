// From the last-seen database to the records of the last-seen report.
#include "libvtenterprise/diff_lastseen.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <veltrane/dbm_api.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "libvtenterprise/record.h"

using veltrane::DBCursorPtr;
using veltrane::DBHandlePtr;
using veltrane::SeqPtr;

namespace {

constexpr size_t kTextRoom = 4096;

bool IsQualityKey(const char *key) { return key[0] == 'q'; }

DBHandlePtr OpenLastSeen()
{
    DBHandle *opened = nullptr;
    return DBHandlePtr(OpenDB(&opened, dbid_lastseen) ? opened : nullptr);
}

// NULL, with its error line, when the database cannot be walked.
DBCursorPtr Walk(DBHandle *db)
{
    DBCursor *cursor = nullptr;
    if (!NewDBCursor(db, &cursor)) {
        Log(LOG_LEVEL_ERR, "Unable to scan lastseen db");
        return nullptr;
    }
    return DBCursorPtr(cursor);
}

// The peer that a quality key is about. A key that names none (nobody writes such) has an empty text.
std::string KeyHashOf(const std::string &key) { return key.size() > 2 ? key.substr(2, kTextRoom - 1) : ""; }

// New; NULL when the entry has gone meanwhile.
HubLastSeen *ItemOf(DBHandle *db, const std::string &key)
{
    KeyHostSeen seen{};
    if (!ReadDB(db, key.c_str(), &seen, sizeof(seen))) {
        return nullptr;
    }
    const std::string key_hash = KeyHashOf(key);
    char address[kTextRoom] = "";
    (void)ReadDB(db, ("k" + key_hash).c_str(), address, sizeof(address) - 1);  // a peer without one is an item, too
    const LastSeenDirection direction =
        key.size() > 1 && key[1] == 'i' ? LAST_SEEN_DIRECTION_INCOMING : LAST_SEEN_DIRECTION_OUTGOING;
    // What is stored must read back from the cache as it was: an empty key hash is absent there, and a damaged record's
    // interval that is no number is 0.
    return HubLastSeenNew(nullptr, direction, AbsentIfEmpty(key_hash.c_str()), nullptr, address,
                          std::isfinite(seen.Q.expect) ? seen.Q.expect : 0, seen.lastseen);
}

// Seconds since the peer of an entry was seen; as a double, for a damaged record can hold any time.
double AgeOf(const void *value, int value_size, time_t now)
{
    KeyHostSeen seen{};
    if (value != nullptr) {
        memcpy(&seen, value, std::min(static_cast<size_t>(value_size), sizeof(seen)));
    }
    return static_cast<double>(now) - static_cast<double>(seen.lastseen);
}

}  // namespace

Seq *GetCurrentHubLastSeenList(const EvalContext *) noexcept
{
    const DBHandlePtr db = OpenLastSeen();
    if (db == nullptr) {
        return nullptr;
    }
    DBCursorPtr cursor = Walk(db.get());
    if (cursor == nullptr) {
        return nullptr;
    }
    std::vector<std::string> keys;
    char *key = nullptr;
    void *value = nullptr;
    int key_size = 0;
    int value_size = 0;
    while (NextDB(cursor.get(), &key, &key_size, &value, &value_size)) {
        if (IsQualityKey(key)) {
            keys.emplace_back(key);
        }
    }
    cursor.reset();
    SeqPtr peers(SeqNew(keys.size(), HubLastSeenDelete));
    for (const std::string &quality_key : keys) {
        HubLastSeen *item = ItemOf(db.get(), quality_key);
        if (item != nullptr) {
            SeqAppend(peers.get(), item);
        }
    }
    return peers.release();
}

bool PurgeCurrentLastSeen(time_t) noexcept { return PurgeLastSeenAt(time(nullptr)); }

bool PurgeLastSeenAt(time_t now) noexcept
{
    const DBHandlePtr db = OpenLastSeen();
    if (db == nullptr) {
        return false;
    }
    const DBCursorPtr cursor = Walk(db.get());  // ends before db; what it could not delete waits for the next pass
    if (cursor == nullptr) {
        return false;
    }
    char *key = nullptr;
    void *value = nullptr;
    int key_size = 0;
    int value_size = 0;
    while (NextDB(cursor.get(), &key, &key_size, &value, &value_size)) {
        if (!IsQualityKey(key)) {
            continue;
        }
        if (value_size > static_cast<int>(sizeof(KeyHostSeen))) {
            Log(LOG_LEVEL_ERR, "Invalid entry in lastseen database.");
        } else if (AgeOf(value, value_size, now) > LASTSEENEXPIREAFTER && DBCursorDeleteEntry(cursor.get())) {
            Log(LOG_LEVEL_DEBUG, "Deleting expired entry for %s", key);
        }
    }
    return true;
}
