// What the hub-only functions answer on a host that is no hub: a fixed answer, and for most a line that says why.
//
// Each is the last resort of the dispatcher of the same name without the suffix (report_collect_extension.h), and takes
// the same arguments. Arguments are not looked at; what is handed back through them stays untouched.
#ifndef LIBVTENTERPRISE_STUBS_H
#define LIBVTENTERPRISE_STUBS_H

#include <veltrane/types.h>

#include "libvtenterprise/export.h"

// error line; false
VT_EXPORT bool Vesk_AcceptCollectCall__stub(ServerConnectionState *conn) noexcept;

// The same error line; true all the same, which hosts rely on.
VT_EXPORT bool share_connection__stub(const char *path, const int descriptor, const char *message) noexcept;

// The same error line; -1
VT_EXPORT int take_connection__stub(const int interface, char **message) noexcept;

// error line; false
VT_EXPORT bool VTDB_HostsWithField__stub(EvalContext *ctx, Rlist **return_list, char *field_value, char *return_format,
                                         int function_type) noexcept;

// verbose line
VT_EXPORT void Vesk_CheckAndSetHAState__stub(const char *workdir, EvalContext *ctx) noexcept;

// nothing, not even a line
VT_EXPORT void Vesk_ReloadHAConfig__stub() noexcept;

// 0, without a line
VT_EXPORT size_t VeskGetMaxVtHubProcesses__stub() noexcept;

#endif
