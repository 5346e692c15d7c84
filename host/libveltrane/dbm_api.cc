// Small key-value stores: the public operations, each one transaction of the database's environment.
//
// No transaction outlives a call. A cursor is therefore a copy of all entries, made in one transaction: it is frozen,
// holds up nobody, and what it lends is aligned for any record. Its deletions are one transaction at its end.
#include <veltrane/dbm_api.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>
#include <veltrane/known_dirs.h>
#include <veltrane/string_lib.h>

#include "libveltrane/dbm_environment.h"
#include "libveltrane/dbm_long_keys.h"

using veltrane::DbmEnvironment;
using veltrane::DbmStoredKey;

struct DBHandle_ {
    DbmEnvironment *environment;  // counted
};

namespace {

struct Entry {
    std::string key;  // with its zero
    std::string value;
    bool noted = false;  // for deletion
};

struct Database {
    dbid id;
    const char *name;
    bool lazy;  // flushed when a handle is closed, not with every entry
};

constexpr Database kDatabases[] = {
    {dbid_performance, "performance", true},
    {dbid_watched_files, "watched_files", true},
    {dbid_lastseen, "lastseen", true},
    {dbid_scalars, "scalars", false},
    {dbid_cache, "cache", false},
    {dbid_agent_execution, "vesk_agent_execution", false},
    {dbid_packages_installed, "packages_installed", false},
    {dbid_packages_updates, "packages_updates", false},
    {dbid_cookies, "cookies", false},
};

}  // namespace

struct DBCursor_ {
    DbmEnvironment *environment;  // counted
    std::vector<Entry> entries;   // in the byte order of their keys
    size_t next = 0;
    Entry *current = nullptr;  // the one just returned
};

namespace {

const Database &DatabaseOf(dbid id)
{
    for (const Database &database : kDatabases) {
        if (database.id == id) {
            return database;
        }
    }
    ProgrammingError("There is no database with the number %d", static_cast<int>(id));
    abort();  // not reached
}

bool Succeed(int error)
{
    if (error != 0) {
        errno = error;
    }
    return error == 0;
}

std::string PathOf(dbid id, const std::string &suffix)
{
    return std::string(GetStateDir()) + "/" + DatabaseOf(id).name + suffix + ".lmdb";
}

std::string SubDatabaseSuffix(const char *sub_name) { return std::string("_") + CanonifyName(sub_name); }

bool Open(DBHandle **ret_db, dbid id, const std::string &suffix, bool make)
{
    DbmEnvironment *const environment = DbmEnvironment::Acquire(PathOf(id, suffix), make, DatabaseOf(id).lazy);
    if (environment == nullptr) {
        return false;
    }
    *ret_db = new DBHandle{environment};
    return true;
}

MDB_val Lend(std::string_view bytes) { return {bytes.size(), const_cast<char *>(bytes.data())}; }
std::string_view View(const MDB_val &value) { return {static_cast<const char *>(value.mv_data), value.mv_size}; }
std::string_view WithZero(const char *key) { return {key, strlen(key) + 1}; }

// Look a key up; found gets its value within the transaction. 0 or an errno, ENOENT when it is absent.
template <typename Found>
int Look(DBHandle *db, std::string_view key, Found found)
{
    const DbmStoredKey stored(key);
    if (!stored.valid()) {
        return ENOENT;  // it cannot have been written
    }
    return db->environment->Read([&](MDB_txn *transaction, MDB_dbi database) -> int {
        MDB_val stored_key = Lend(stored.bytes());
        MDB_val stored_value;
        const int result = mdb_get(transaction, database, &stored_key, &stored_value);
        std::string_view value;
        if (result == MDB_SUCCESS && !stored.ValueOf(View(stored_value), &value)) {
            return MDB_NOTFOUND;
        }
        if (result == MDB_SUCCESS) {
            found(value);
        }
        return result;
    });
}

int CopyAllEntries(DbmEnvironment *environment, std::vector<Entry> *entries)
{
    return environment->Read([&](MDB_txn *transaction, MDB_dbi database) -> int {
        entries->clear();
        MDB_cursor *cursor = nullptr;
        int result = mdb_cursor_open(transaction, database, &cursor);
        if (result != MDB_SUCCESS) {
            return result;
        }
        MDB_val stored_key, stored_value;
        while ((result = mdb_cursor_get(cursor, &stored_key, &stored_value, MDB_NEXT)) == MDB_SUCCESS) {
            std::string_view key, value;
            if (veltrane::DbmEntryOf(View(stored_key), View(stored_value), &key, &value)) {
                entries->push_back({std::string(key), std::string(value)});
            }
        }
        mdb_cursor_close(cursor);
        return result == MDB_NOTFOUND ? MDB_SUCCESS : result;
    });
}

// Delete an entry unless another value has been written since it was read.
int DeleteUnlessRewritten(MDB_txn *transaction, MDB_dbi database, const Entry &entry)
{
    const DbmStoredKey stored(entry.key);
    MDB_val stored_key = Lend(stored.bytes());
    MDB_val stored_value;
    int result = mdb_get(transaction, database, &stored_key, &stored_value);
    std::string_view value;
    if (result == MDB_SUCCESS && stored.ValueOf(View(stored_value), &value) && value == entry.value) {
        result = mdb_del(transaction, database, &stored_key, nullptr);
    }
    return result == MDB_NOTFOUND ? MDB_SUCCESS : result;
}

int DeleteNotedEntries(DBCursor *cursor)
{
    const auto noted = [](const Entry &entry) { return entry.noted; };
    if (std::none_of(cursor->entries.begin(), cursor->entries.end(), noted)) {
        return 0;
    }
    return cursor->environment->Write([&](MDB_txn *transaction, MDB_dbi database) -> int {
        for (const Entry &entry : cursor->entries) {
            const int result = entry.noted ? DeleteUnlessRewritten(transaction, database, entry) : MDB_SUCCESS;
            if (result != MDB_SUCCESS) {
                return result;
            }
        }
        return MDB_SUCCESS;
    });
}

}  // namespace

bool OpenDB(DBHandle **ret_db, dbid id) { return Open(ret_db, id, "", true); }

bool OpenSubDB(DBHandle **ret_db, dbid id, const char *sub_name)
{
    return Open(ret_db, id, SubDatabaseSuffix(sub_name), false);
}

bool CreateSubDB(DBHandle **ret_db, dbid id, const char *sub_name)
{
    return Open(ret_db, id, SubDatabaseSuffix(sub_name), true);
}

void CloseDB(DBHandle *db)
{
    if (db == nullptr) {
        return;
    }
    DbmEnvironment::Release(db->environment);
    delete db;
}

char *DBIdToPath(dbid id) { return xstrdup(PathOf(id, "").c_str()); }

char *DBIdToSubPath(dbid id, const char *sub_name) { return xstrdup(PathOf(id, SubDatabaseSuffix(sub_name)).c_str()); }

int ValueSizeDB(DBHandle *db, const char *key, int key_size)
{
    int size = -1;
    const std::string_view bytes(key, static_cast<size_t>(std::max(key_size, 0)));
    const int error = Look(db, bytes, [&](std::string_view value) { size = static_cast<int>(value.size()); });
    return Succeed(error) ? size : -1;
}

bool ReadDB(DBHandle *db, const char *key, void *buffer, int size)
{
    const auto room = static_cast<size_t>(std::max(size, 0));
    return Succeed(Look(db, WithZero(key), [&](std::string_view value) {
        if (const size_t copied = std::min(value.size(), room); copied > 0) {
            memcpy(buffer, value.data(), copied);
        }
    }));
}

bool WriteDB(DBHandle *db, const char *key, const void *value, int size)
{
    const DbmStoredKey stored(WithZero(key));
    if (!stored.valid() || size < 0) {
        errno = EINVAL;
        return false;
    }
    std::string room;
    const std::string_view bytes(static_cast<const char *>(value), static_cast<size_t>(size));
    const std::string_view to_store = stored.ValueToStore(bytes, &room);
    return Succeed(db->environment->Write([&](MDB_txn *transaction, MDB_dbi database) {
        MDB_val stored_key = Lend(stored.bytes());
        MDB_val stored_value = Lend(to_store);
        return mdb_put(transaction, database, &stored_key, &stored_value, 0);
    }));
}

bool DeleteDB(DBHandle *db, const char *key)
{
    const DbmStoredKey stored(WithZero(key));
    if (!stored.valid()) {
        errno = ENOENT;
        return false;
    }
    return Succeed(db->environment->Write([&](MDB_txn *transaction, MDB_dbi database) {
        MDB_val stored_key = Lend(stored.bytes());
        return mdb_del(transaction, database, &stored_key, nullptr);
    }));
}

bool NewDBCursor(DBHandle *db, DBCursor **ret_cursor)
{
    auto cursor = std::make_unique<DBCursor>();
    cursor->environment = db->environment;
    if (!Succeed(CopyAllEntries(db->environment, &cursor->entries))) {
        return false;
    }
    // LMDB orders long keys with a common beginning by their digests.
    std::sort(cursor->entries.begin(), cursor->entries.end(),
              [](const Entry &a, const Entry &b) { return a.key < b.key; });
    db->environment->AddUser();
    *ret_cursor = cursor.release();
    return true;
}

bool NextDB(DBCursor *cursor, char **ret_key, int *ret_key_size, void **ret_value, int *ret_value_size)
{
    if (cursor->next == cursor->entries.size()) {
        cursor->current = nullptr;
        return false;
    }
    Entry &entry = cursor->entries[cursor->next++];
    cursor->current = &entry;
    *ret_key = entry.key.data();
    *ret_key_size = static_cast<int>(entry.key.size());
    *ret_value = entry.value.empty() ? nullptr : entry.value.data();
    *ret_value_size = static_cast<int>(entry.value.size());
    return true;
}

bool DBCursorDeleteEntry(DBCursor *cursor)
{
    if (cursor->current == nullptr) {
        return false;
    }
    cursor->current->noted = true;
    return true;
}

bool DeleteDBCursor(DBCursor *cursor)
{
    if (cursor == nullptr) {
        return true;
    }
    const std::unique_ptr<DBCursor> owned(cursor);
    const int error = DeleteNotedEntries(cursor);
    DbmEnvironment::Release(cursor->environment);
    return Succeed(error);
}
