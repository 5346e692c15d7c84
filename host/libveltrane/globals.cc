// Process-wide settings and counters, and the version. Settings are written while a program starts, before it makes
// threads; counters belong to the thread that evaluates.
#include <veltrane/globals.h>

bool FIPS_MODE = false;
time_t VTSTARTTIME = time(nullptr);  // the library is loaded when the program starts
int PR_KEPT = 0;
int PR_REPAIRED = 0;
int PR_NOTKEPT = 0;
int LASTSEENEXPIREAFTER = 7 * 24 * 60 * 60;
int CONNTIMEOUT = 30;
char VELTRANE_PORT_STR[16] = "6127";

#define VT_VERSION "3.27.0"

const char *Version(void) { return VT_VERSION; }
const char *NameVersion(void) { return "Veltrane Core " VT_VERSION; }
