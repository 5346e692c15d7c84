// Counting outcomes, and the summary of a run.
#include "libvtenterprise/enterprise_promises.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/entry_points_real.h"

using veltrane::FilePtr;

int PR_KEPT_USER = 0;
int PR_REPAIRED_USER = 0;
int PR_NOTKEPT_USER = 0;
int PR_KEPT_INTERNAL = 0;
int PR_REPAIRED_INTERNAL = 0;
int PR_NOTKEPT_INTERNAL = 0;

namespace {

constexpr const char *kInternalHandles = "vte_internal_.*";

// One kind of promises in percent of their outcomes.
struct Compliance {
    Compliance(int kept_count, int repaired_count, int notkept_count)
        : count(kept_count + repaired_count + notkept_count)
    {
        const double divisor = count == 0 ? 1.0 : count / 100.0;
        kept = kept_count / divisor;
        repaired = repaired_count / divisor;
        notkept = notkept_count / divisor;
    }

    int count;
    double kept;
    double repaired;
    double notkept;
};

bool IsInternal(const Promise *pp)
{
    const char *handle = PromiseGetHandle(pp);
    return handle != nullptr && StringMatch(kInternalHandles, handle, nullptr, nullptr);
}

void Count(const Promise *pp, int *of_user, int *of_product) { ++*(IsInternal(pp) ? of_product : of_user); }

// Whether the whole line is in the file; errno else.
bool AppendLine(FilePtr file, const char *message)
{
    const bool written = fprintf(file.get(), "%jd,%jd: %s\n", static_cast<intmax_t>(VTSTARTTIME),
                                 static_cast<intmax_t>(time(nullptr)), message) >= 0;
    return fclose(file.release()) == 0 && written;
}

}  // namespace

void TrackTotalCompliance__real(PromiseResult status, const Promise *pp) noexcept
{
    switch (status) {
        case PROMISE_RESULT_CHANGE:
            EnterpriseTrackTotalCompliance(pp, PROMISE_STATE_REPAIRED);
            return;
        case PROMISE_RESULT_NOOP:
            EnterpriseTrackTotalCompliance(pp, PROMISE_STATE_KEPT);
            return;
        case PROMISE_RESULT_DENIED:
        case PROMISE_RESULT_FAIL:
        case PROMISE_RESULT_INTERRUPTED:
        case PROMISE_RESULT_TIMEOUT:
        case PROMISE_RESULT_WARN:
            EnterpriseTrackTotalCompliance(pp, PROMISE_STATE_NOTKEPT);
            return;
        case PROMISE_RESULT_SKIPPED:
            break;
    }
    __ProgrammingError("enterprise_promises", __LINE__,
                       "Unexpected status '%c' has been passed to TrackTotalCompliance", static_cast<int>(status));
}

void EnterpriseTrackTotalCompliance(const Promise *pp, PromiseState state) noexcept
{
    switch (state) {
        case PROMISE_STATE_KEPT:
            Count(pp, &PR_KEPT_USER, &PR_KEPT_INTERNAL);
            break;
        case PROMISE_STATE_REPAIRED:
            Count(pp, &PR_REPAIRED_USER, &PR_REPAIRED_INTERNAL);
            break;
        case PROMISE_STATE_NOTKEPT:
            Count(pp, &PR_NOTKEPT_USER, &PR_NOTKEPT_INTERNAL);
            break;
        case PROMISE_STATE_ANY:
            break;
    }
}

void LogTotalCompliance__real(const char *version, int background_tasks) noexcept
{
    const Compliance total(PR_KEPT, PR_REPAIRED, PR_NOTKEPT);
    const Compliance user(PR_KEPT_USER, PR_REPAIRED_USER, PR_NOTKEPT_USER);
    const Compliance internal(PR_KEPT_INTERNAL, PR_REPAIRED_INTERNAL, PR_NOTKEPT_INTERNAL);
    char message[4096];
    (void)snprintf(message, sizeof(message),
                   "Outcome of version %s (agent-%d): Promises observed - Total promise compliance: %.0f%% kept, "
                   "%.0f%% repaired, %.0f%% not kept (out of %d events). User promise compliance: %.0f%% kept, "
                   "%.0f%% repaired, %.0f%% not kept (out of %d events). Veltrane system compliance: %.0f%% kept, "
                   "%.0f%% repaired, %.0f%% not kept (out of %d events).",
                   version, background_tasks, total.kept, total.repaired, total.notkept, total.count, user.kept,
                   user.repaired, user.notkept, user.count, internal.kept, internal.repaired, internal.notkept,
                   internal.count);
    Log(LOG_LEVEL_VERBOSE, "%s", message);

    char path[4096];
    (void)snprintf(path, sizeof(path), "%s/promise_summary.log", GetLogDir());
    (void)MapName(path);
    FilePtr file(safe_fopen(path, "a"));
    if (file == nullptr) {
        Log(LOG_LEVEL_ERR, "Could not open '%s'. (fopen: %s)", path, GetErrorStr());
        return;
    }
    if (!AppendLine(std::move(file), message)) {
        Log(LOG_LEVEL_ERR, "Could not write to log file '%s' (write: %s)", path, GetErrorStr());
    }
}
