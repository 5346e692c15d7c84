// Entry points of what only a hub does: high availability, the number of hub processes, hosts by a reported field. Each
// hands its arguments on and its answer back; report_collect_extension.h says who answers.
#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/report_collect_extension.h"

void CheckAndSetHAState__real(const char *workdir, EvalContext *ctx) noexcept { Vesk_CheckAndSetHAState(workdir, ctx); }

void ReloadHAConfig__real() noexcept { Vesk_ReloadHAConfig(); }

size_t EnterpriseGetMaxVtHubProcesses__real() noexcept { return VeskGetMaxVtHubProcesses(); }

bool ListHostsWithField__real(EvalContext *ctx, Rlist **return_list, char *field_value, char *return_format,
                              int function_type) noexcept
{
    return VTDB_HostsWithField(ctx, return_list, field_value, return_format, function_type);
}
