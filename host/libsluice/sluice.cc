#include <sluice/sluice.h>

const char *SLC_Version(void) { return "1.4.0"; }
