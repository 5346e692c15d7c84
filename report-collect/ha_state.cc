// What this process knows of the hub's configuration: read when it is asked for the first time and whenever the host
// says so, and kept as it was when the file has become unreadable.
#include <mutex>
#include <string>

#include <veltrane/eval_context.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>

#include "report-collect/hub_config.h"
#include "report-collect/hub_functions.h"

using report_collect::HaRole;
using report_collect::HubConfig;

namespace {

constexpr char kTags[] = "inventory,attribute_name=none,source=agent";

std::mutex config_mutex;    // guards the two below
HubConfig current_config;   // the last one that was in order
bool config_asked = false;  // whether it was ever read

HubConfig Read(const std::string &workdir)
{
    std::string error;
    const std::optional<HubConfig> config = report_collect::ReadHubConfig(workdir, &error);
    if (!config) {
        Log(LOG_LEVEL_ERR, "The hub's configuration %s", error.c_str());
    }
    const std::lock_guard lock(config_mutex);
    config_asked = true;
    if (config) {
        current_config = *config;
    }
    return current_config;
}

void SetClass(EvalContext *ctx, const char *name, bool holds)
{
    if (holds) {
        EvalContextClassPutHard(ctx, name, kTags);
    } else {
        (void)EvalContextClassRemove(ctx, name);  // of an earlier role, or not there at all
    }
}

}  // namespace

void Vesk_CheckAndSetHAState__real(const char *workdir, EvalContext *ctx) noexcept
{
    const HubConfig config = Read(workdir);
    SetClass(ctx, "ha_enabled", config.role != HaRole::none);
    SetClass(ctx, "ha_active", config.role == HaRole::active);
    SetClass(ctx, "ha_passive", config.role == HaRole::passive);
}

void Vesk_ReloadHAConfig__real() noexcept { (void)Read(GetWorkDir()); }

size_t VeskGetMaxVtHubProcesses__real() noexcept
{
    {
        const std::lock_guard lock(config_mutex);
        if (config_asked) {
            return current_config.max_hub_processes;
        }
    }
    return Read(GetWorkDir()).max_hub_processes;
}
