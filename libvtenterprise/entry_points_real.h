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
#include <veltrane/outcome.h>
#include <veltrane/types.h>

#include "libvtenterprise/export.h"

// The word before and after the arguments of every framed call.
inline constexpr int32_t kFrameCanary = 0x10203040;

// A parameter list without its parentheses, and a comma after it unless it is empty.
#define VT_THEN_COMMA(...) __VA_ARGS__ __VA_OPT__(, )

#define VT_ENTRY(R, returns, Name, parameters, arguments)              \
    VT_EXPORT R Name##__real parameters noexcept;                      \
    VT_EXPORT R Name##__wrapper(int32_t start_canary, int *successful, \
                                VT_THEN_COMMA parameters int32_t end_canary) noexcept;
#include <veltrane/entry_points.def>

#endif
