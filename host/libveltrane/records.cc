// Records of the host's databases: their layout is on disk and in every extension, so it is held here at compile time.
#include <veltrane/records.h>

#include <cstddef>

#include <veltrane/dbm_api.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

static_assert(sizeof(QPoint) == 32);
static_assert(sizeof(Event) == 40 && offsetof(Event, Q) == 8);
static_assert(sizeof(KeyHostSeen) == 48 && offsetof(KeyHostSeen, lastseen) == 8 && offsetof(KeyHostSeen, Q) == 16);
static_assert(sizeof(PersistentScalar) == 1032 && offsetof(PersistentScalar, time) == 1024);

bool PersistentScalarPut(const char *handle, const char *value)
{
    PersistentScalar scalar = {};
    StringCopy(value, scalar.rval, sizeof(scalar.rval));
    scalar.time = time(nullptr);
    DBHandle *opened = nullptr;
    if (!OpenDB(&opened, dbid_scalars)) {
        return false;
    }
    const veltrane::DBHandlePtr db(opened);
    return WriteDB(db.get(), handle, &scalar, sizeof(scalar));
}
