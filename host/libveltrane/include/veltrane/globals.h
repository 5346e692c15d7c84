// Process-wide settings and counters.
#ifndef VELTRANE_GLOBALS_H
#define VELTRANE_GLOBALS_H

#include <time.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// set by --fips, before the plug-in is first called
extern bool FIPS_MODE;

// start of the program
extern time_t VTSTARTTIME;

// promise iterations of this run by final result; counted by the evaluator, one thread
extern int PR_KEPT, PR_REPAIRED, PR_NOTKEPT;

// seconds; 604800 (one week) unless policy says otherwise
extern int LASTSEENEXPIREAFTER;

// seconds; 30
extern int CONNTIMEOUT;

// "6127" unless --port says otherwise
extern char VELTRANE_PORT_STR[16];

// static "3.27.0"
const char *Version(void);

// static "Veltrane Core 3.27.0"
const char *NameVersion(void);

VT_END_DECLS

#endif
