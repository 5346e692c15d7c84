// The framed entry points of the enterprise plug-in as the host's programs call them.
//
// Each function has the plain signature of its line in entry_points.def. It looks up Name__wrapper in the plug-in,
// calls it between two canary words with a success flag, and answers with the host's own default when there is no
// plug-in, no such symbol, or the flag stays 0. docs/architecture.md tells the frame in full.
#ifndef VELTRANE_ENTRY_POINTS_H
#define VELTRANE_ENTRY_POINTS_H

#include <openssl/evp.h>
#include <stdio.h>
#include <time.h>

#include <veltrane/attributes.h>
#include <veltrane/crypto.h>
#include <veltrane/diagnostics.h>
#include <veltrane/net.h>
#include <veltrane/outcome.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

// The word before and after the arguments of every framed call.
#define VT_FRAME_CANARY 0x10203040

#define VT_ENTRY(R, returns, Name, parameters, arguments) R Name parameters;
#include <veltrane/entry_points.def>

VT_END_DECLS

#endif
