// The plug-in's side of the framed entry points: Name__wrapper, which a host calls, and Name__real, which does the
// work.
//
// Both are declared from the one table, so a definition of Name__real that drifted from it does not compile. All are
// noexcept: nothing unwinds into a host. The host's own header of plain names (<veltrane/entry_points.h>) is never
// included in the plug-in, for a plain name is the host's.
#ifndef LIBVTENTERPRISE_ENTRY_POINTS_REAL_H
#define LIBVTENTERPRISE_ENTRY_POINTS_REAL_H

#include <openssl/evp.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <veltrane/attributes.h>
#include <veltrane/crypto.h>
#include <veltrane/diagnostics.h>
#include <veltrane/net.h>
#include <veltrane/outcome.h>
#include <veltrane/types.h>

#include "libvtenterprise/call_frame.h"

#define VT_ENTRY(R, returns, Name, parameters, arguments) \
    VT_EXPORT R Name##__real parameters noexcept;         \
    VT_DECLARE_WRAPPER(R, Name, parameters);
#include <veltrane/entry_points.def>

#endif
