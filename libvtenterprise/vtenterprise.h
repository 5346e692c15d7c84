// Who this plug-in is: its version, edition and product name. The framed entry points of the same room are declared in
// entry_points_real.h.
//
// Texts are static. Nothing keeps state.
#ifndef LIBVTENTERPRISE_VTENTERPRISE_H
#define LIBVTENTERPRISE_VTENTERPRISE_H

#include "libvtenterprise/export.h"

// "3.27.0": the same text as GetExtensionLibraryVersion
VT_EXPORT const char *Vesk_Version();

// "Veltrane Enterprise 3.27.0"
VT_EXPORT const char *Vesk_NameVersion();

// 'c' "Compliant", 'r' "Repaired", else "Not Compliant"
VT_EXPORT const char *Vesk_LongState(char c);

// Nothing; a symbol that host programs look for.
VT_EXPORT void EnterpriseModuleTrick();

#endif
