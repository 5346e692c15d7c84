#include "libvtenterprise/stubs.h"

#include <veltrane/logging.h>

namespace {

void LogThatCollectCallsNeedAHub() { Log(LOG_LEVEL_ERR, "Call Collect is only supported on Enterprise Hub"); }

}  // namespace

bool Vesk_AcceptCollectCall__stub(ServerConnectionState *) noexcept
{
    LogThatCollectCallsNeedAHub();
    return false;
}

bool share_connection__stub(const char *, const int, const char *) noexcept
{
    LogThatCollectCallsNeedAHub();
    return true;
}

int take_connection__stub(const int, char **) noexcept
{
    LogThatCollectCallsNeedAHub();
    return -1;
}

bool VTDB_HostsWithField__stub(EvalContext *, Rlist **, char *, char *, int) noexcept
{
    Log(LOG_LEVEL_ERR,
        "!! Listing hosts with a class is only available locally on Enterprise hubs (no binary support)");
    return false;
}

void Vesk_CheckAndSetHAState__stub(const char *, EvalContext *) noexcept
{
    Log(LOG_LEVEL_VERBOSE,
        "This is an Enterprise client, but HA is only supported on Enterprise Hub -- skipping HA features");
}

void Vesk_ReloadHAConfig__stub() noexcept {}

size_t VeskGetMaxVtHubProcesses__stub() noexcept { return 0; }
