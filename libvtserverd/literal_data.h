// What this host publishes to others under a handle: literal texts of policy, and persistent scalars.
//
// A literal is the variable <handle> in the scope "remote_access" of the daemon's context, put there by
// RegisterLiteralServerData when policy is loaded. A persistent scalar lies in the database dbid_scalars
// (docs/formats/remote-values.md), holds for 15 minutes and goes before a literal of the same handle. Whether a peer
// may ask at all has been decided before ReturnLiteralData is called; both entry points are declared in
// libvtenterprise/entry_points_real.h.
#ifndef LIBVTSERVERD_LITERAL_DATA_H
#define LIBVTSERVERD_LITERAL_DATA_H

#include "libvtenterprise/export.h"

// Write the persistent scalar of a handle into buffer, which holds 4096 bytes.
//
// Result  false, with one verbose line and buffer "", when there is none or it is too old; one that is too old is
//         deleted.
VT_EXPORT bool Vesk_GetPersistentScalar(const char *handle, char *buffer) noexcept;

#endif
