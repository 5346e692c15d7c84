// The hub-only functions, which live in a second extension library that only hubs have: veltrane-report-collect.so.
//
// Each dispatcher opens the library, calls its Name__wrapper in the frame that hosts use with this plug-in
// (call_frame.h), this plug-in being the caller, and hands back its result. Without the library, without the
// function, or when the function refuses the frame, the stub of the same name answers (stubs.h). Any thread may call
// any of them; ownership of arguments and results is the library's matter.
//
// The library is opened at the first call and stays open to the end of the process; when it cannot be opened then, that
// is not tried again. While the environment has VELTRANE_TEST_OVERRIDE_EXTENSION_LIBRARY_DO_CLOSE, with any value, each
// call opens and closes it instead, so that a test can put another in its place. A function that was found once is kept
// either way: a library that is closed must stay in memory (linked with -z nodelete).
#ifndef LIBVTENTERPRISE_REPORT_COLLECT_EXTENSION_H
#define LIBVTENTERPRISE_REPORT_COLLECT_EXTENSION_H

#include <veltrane/types.h>

#include "libvtenterprise/export.h"

// The library's handle for report_collect_library_close; NULL when it is not installed or is refused, and, with an
// error line, when opening it once could not be arranged.
VT_EXPORT void *report_collect_library_open() noexcept;
VT_EXPORT void report_collect_library_close(void *handle) noexcept;

// The hub's side of a collect call: take over the connection of a host that asks to be called back. true when it was
// accepted.
VT_EXPORT bool Vesk_AcceptCollectCall(ServerConnectionState *conn) noexcept;

// Hand an open descriptor, and a message with it, to the process that listens at a path. Called by hosts only.
VT_EXPORT bool share_connection(const char *path, const int descriptor, const char *message) noexcept;

// The descriptor that share_connection sent to the listening socket interface, and its message; -1 when there is none.
// Called by hosts only.
VT_EXPORT int take_connection(const int interface, char **message) noexcept;

// The hosts that reported a field with this value.
VT_EXPORT bool VTDB_HostsWithField(EvalContext *ctx, Rlist **return_list, char *field_value, char *return_format,
                                   int function_type) noexcept;

// High availability: find this hub's role and tell the context.
VT_EXPORT void Vesk_CheckAndSetHAState(const char *workdir, EvalContext *ctx) noexcept;
VT_EXPORT void Vesk_ReloadHAConfig() noexcept;

// How many processes the hub may run; 0 = it does not say.
VT_EXPORT size_t VeskGetMaxVtHubProcesses() noexcept;

#endif
