// The wrappers of the hub-only functions; call_frame.h tells what a wrapper does.
#include "report-collect/hub_functions.h"

#define VT_ENTRY VT_DEFINE_WRAPPER  // not with its parameters: the arguments are printed as the table has them
#include "report-collect/hub_functions.def"

const char *GetExtensionLibraryVersion() { return VT_VERSION; }
