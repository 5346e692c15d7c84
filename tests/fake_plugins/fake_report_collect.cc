// A library of the hub-only functions, for the tests of how the plug-in finds and calls one.
//
// It is built in several kinds: FAKE_CANARY is the word that it wants around its arguments; FAKE_WITHOUT_COLLECT_CALL
// leaves the functions of collect calls away. What it answers tells that the arguments came as they were given.
#include <cstdint>
#include <cstring>

#include <veltrane/logging.h>
#include <veltrane/rlist.h>
#include <veltrane/string_lib.h>

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// Whether the frame is as this library wants it; then, and only then, the caller is told so.
bool Enter(int32_t before, int *successful, int32_t after)
{
    if (before != FAKE_CANARY || after != FAKE_CANARY) {
        return false;
    }
    *successful = 1;
    return true;
}

}  // namespace

#ifndef FAKE_WITHOUT_COLLECT_CALL

FAKE_EXPORT bool Vesk_AcceptCollectCall__wrapper(int32_t before, int *successful, ServerConnectionState *conn,
                                                 int32_t after)
{
    if (!Enter(before, successful, after)) {
        return false;
    }
    Log(LOG_LEVEL_INFO, "Accept(%p)", static_cast<void *>(conn));
    return conn != nullptr;
}

FAKE_EXPORT bool share_connection__wrapper(int32_t before, int *successful, const char *path, int descriptor,
                                           const char *message, int32_t after)
{
    if (!Enter(before, successful, after)) {
        return true;
    }
    Log(LOG_LEVEL_INFO, "Share(%s, %d, %s)", path, descriptor, message);
    return descriptor > 0;
}

FAKE_EXPORT int take_connection__wrapper(int32_t before, int *successful, int listener, char **message, int32_t after)
{
    if (!Enter(before, successful, after)) {
        return 0;
    }
    *message = SafeStringDuplicate("from the library");
    return listener + 1000;
}

#endif

FAKE_EXPORT bool VTDB_HostsWithField__wrapper(int32_t before, int *successful, EvalContext *ctx, Rlist **return_list,
                                              char *field_value, char *return_format, int function_type, int32_t after)
{
    if (!Enter(before, successful, after)) {
        return false;
    }
    Log(LOG_LEVEL_INFO, "Hosts(%s, %s, %s, %d)", ctx != nullptr ? "context" : "none", field_value, return_format,
        function_type);
    (void)RlistAppendScalar(return_list, "SHA=host");
    return true;
}

FAKE_EXPORT void Vesk_CheckAndSetHAState__wrapper(int32_t before, int *successful, const char *workdir,
                                                  EvalContext *ctx, int32_t after)
{
    if (Enter(before, successful, after)) {
        Log(LOG_LEVEL_INFO, "HAState(%s, %s)", workdir, ctx != nullptr ? "context" : "none");
    }
}

FAKE_EXPORT void Vesk_ReloadHAConfig__wrapper(int32_t before, int *successful, int32_t after)
{
    if (Enter(before, successful, after)) {
        Log(LOG_LEVEL_INFO, "ReloadHA()");
    }
}

FAKE_EXPORT size_t VeskGetMaxVtHubProcesses__wrapper(int32_t before, int *successful, int32_t after)
{
    return Enter(before, successful, after) ? SIZE_MAX : 1;
}
