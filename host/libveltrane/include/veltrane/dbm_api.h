// Small key-value stores.
#ifndef VELTRANE_DBM_API_H
#define VELTRANE_DBM_API_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum               // never renumber; the numbers between are the library's own stores
{ dbid_performance = 2,    // "performance"         event name -> Event (measure.h)
  dbid_watched_files = 5,  // "watched_files"       path -> what the agent last saw there; the host's own
  dbid_lastseen = 8,  // "lastseen"            "q" + direction + key hash -> KeyHostSeen; "k" + key hash -> address text
  dbid_scalars = 14,  // "scalars"             handle -> PersistentScalar
  dbid_cache = 16,    // "cache"               caller_handle -> text and its zero
  dbid_agent_execution = 19,  // "vesk_agent_execution" "last_exec" -> time_t; "delta_gavr" -> double
  dbid_packages_installed =
      21,  // "packages_installed"  one sub-database a package module: "<inventory>" -> CSV text and its zero
  dbid_packages_updates = 22,  // "packages_updates"    the same for updates on offer
  dbid_cookies = 23,           // "cookies"             host name -> cookie text and its zero
  dbid_max = 24 } dbid;

// new, made 0600 when missing (state/ must exist); false with errno, EUCLEAN for a file that is no database or was cut
// off. A second OpenDB in a process shares it
bool OpenDB(DBHandle **ret_db, dbid id);

// new; false with ENOENT when nobody has made it: readers must tell "never filled" from "empty". Other failures as
// OpenDB
bool OpenSubDB(DBHandle **ret_db, dbid id, const char *sub_name);

// the same, made when missing: for the module runner, and for tests
bool CreateSubDB(DBHandle **ret_db, dbid id, const char *sub_name);
void CloseDB(DBHandle *db);

// new: <state directory>/<name>.lmdb (absolute when that is), also when there is no such file
char *DBIdToPath(dbid id);

// new: state/<name>_<canonified sub_name>.lmdb
char *DBIdToSubPath(dbid id, const char *sub_name);

// bytes of the value; -1 when absent. key_size counts the key's zero
int ValueSizeDB(DBHandle *db, const char *key, int key_size);

// copies the first size bytes of the value, or all of a shorter one, and leaves the rest of buffer alone; true when
// the key exists
bool ReadDB(DBHandle *db, const char *key, void *buffer, int size);

// adds or replaces; false with errno. Durable on return, except lastseen, performance and watched_files, which are
// flushed when the handle is closed
bool WriteDB(DBHandle *db, const char *key, const void *value, int size);

// false when absent or on failure
bool DeleteDB(DBHandle *db, const char *key);

// new: a frozen view of all entries, a copy in memory; holds up no reader and no writer and may outlive db
bool NewDBCursor(DBHandle *db, DBCursor **ret_cursor);

// false at the end. Lent until the next call; key_size counts the zero; an empty value is NULL and 0. Byte order of
// the keys
bool NextDB(DBCursor *cursor, char **ret_key, int *ret_key_size, void **ret_value, int *ret_value_size);

// notes the entry just returned for deletion
bool DBCursorDeleteEntry(DBCursor *cursor);

// deletes the noted entries in one transaction (one that was rewritten since, with another value, stays), frees the
// cursor; false when that failed, errno
bool DeleteDBCursor(DBCursor *cursor);

// LMDB, one environment a database, and the manners that it demands: an environment is opened once a process and
// counted, with thread-local readers off, so ReadDB, WriteDB and other handles work beside an open cursor; dead
// readers are cleared at OpenDB; nothing is used across fork. Keys are stored with their zero, up to 4096 bytes.
// LMDB itself takes 511: a longer key is stored as its first 440 bytes and its digest, with the whole key in front
// of the value, and callers never see the difference. A handle belongs to one thread; any number of handles,
// threads and processes may use a database. All of this logs nothing.

VT_END_DECLS

#endif
