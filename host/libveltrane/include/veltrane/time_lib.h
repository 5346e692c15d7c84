// Times as texts.
//
// Neither function ever fails: a peer can send any number, so a time whose year has no four digits gives
// "??? ??? ?? ??:??:?? ????\n", which fits the 26 bytes.
#ifndef VELTRANE_TIME_LIB_H
#define VELTRANE_TIME_LIB_H

#include <time.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// "Thu Jan  1 01:00:00 1970\n" in local time; thread storage
char *rpl_ctime(const time_t *t);

// the same text into buffer, which it returns
char *vt_strtimestamp_local(time_t t, char buffer[26]);

VT_END_DECLS

#endif
