// Records of the host's databases that an extension reads byte by byte; host byte order, sizes asserted at compile
// time.
#ifndef VELTRANE_RECORDS_H
#define VELTRANE_RECORDS_H

#include <time.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// last value, average, variance, last change: 32 bytes
struct QPoint_ {
    double q, expect, var, dq;
};

// dbid_performance: when last measured, seconds: 40 bytes
struct Event_ {
    time_t t;
    QPoint Q;
};

// dbid_lastseen, keys that begin with "q": 48 bytes
struct KeyHostSeen_ {
    bool acknowledged;
    time_t lastseen;
    QPoint Q;
};

// dbid_scalars: 1032 bytes; rval zero-terminated
struct PersistentScalar_ {
    char rval[1024];
    time_t time;
};

// stores value (cut at 1023 bytes) with the present time
bool PersistentScalarPut(const char *handle, const char *value);

VT_END_DECLS

#endif
