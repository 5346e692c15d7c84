// The frame around every entry point: host and plug-in are built separately, so each call carries a known word before
// and after its arguments, and the work is done only when both arrive intact. A host built for another argument list
// thus gets a message and its own default instead of a function that runs on shifted arguments.
//
// The wrappers come from the one table; call_frame.h tells what a wrapper does.
#include "libvtenterprise/entry_points_real.h"

#define VT_ENTRY VT_DEFINE_WRAPPER  // not with its parameters: the arguments are printed as the table has them
#include <veltrane/entry_points.def>
