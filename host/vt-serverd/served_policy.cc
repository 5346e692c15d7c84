#include "vt-serverd/served_policy.h"

#include <utility>

#include <veltrane/entry_points.h>
#include <veltrane/logging.h>
#include <veltrane/string_lib.h>

#include "libveltrane/evaluator.h"
#include "libveltrane/policy_control.h"
#include "libveltrane/promise_attributes.h"
#include "libveltrane/query_border.h"

namespace vtserverd {

namespace {

bool ControlIsTrue(const Policy *policy, const char *attribute, bool otherwise)
{
    const char *text = veltrane::PolicyControlScalar(policy, "server", attribute);
    return text != nullptr ? StringEqual(text, "true") : otherwise;
}

// Within its range, as was checked when the policy was read.
long ControlNumber(const Policy *policy, const char *attribute, long otherwise)
{
    const char *text = veltrane::PolicyControlScalar(policy, "server", attribute);
    return text != nullptr ? StringToLongDefaultOnError(text, otherwise) : otherwise;
}

ServerSettings SettingsOf(const Policy *policy)
{
    ServerSettings settings;
    settings.listen = ControlIsTrue(policy, "listen", settings.listen);
    settings.dump_reports = ControlIsTrue(policy, "dump_reports", settings.dump_reports);
    settings.max_connections =
        static_cast<size_t>(ControlNumber(policy, "max_connections", static_cast<long>(settings.max_connections)));
    settings.call_collect_interval =
        static_cast<int>(ControlNumber(policy, "call_collect_interval", settings.call_collect_interval));
    if (const char *path = veltrane::PolicyControlScalar(policy, "server", "service_announcement")) {
        settings.service_announcement = path;
    }
    return settings;
}

// Admit whom the promise names, and publish what it promises when that is a value.
PromiseResult KeepAccessPromise(veltrane::AccessRules *rules, EvalContext *ctx, const Promise *expanded)
{
    if (StringEqual(veltrane::AttributeText(expanded, "resource"), "literal")) {
        const char *handle = PromiseGetHandle(expanded);
        if (handle == nullptr || !veltrane::IsHandle(handle)) {
            RecordFailure(ctx, expanded, nullptr,
                          "'%s' is not published: a handle has 1 to %zu bytes and no control "
                          "characters",
                          expanded->promiser, veltrane::kLongestHandle);
            return PROMISE_RESULT_FAIL;
        }
        RegisterLiteralServerData(ctx, handle, expanded);
    }
    rules->Add(expanded);
    RecordNoChange(ctx, expanded, nullptr, "Access to '%s' is set", expanded->promiser);
    return PROMISE_RESULT_NOOP;
}

veltrane::AccessRules Evaluate(EvalContext *ctx, const Policy *policy)
{
    veltrane::AccessRules rules;
    veltrane::Evaluation evaluation;
    evaluation.actuators["access"] = [&rules](EvalContext *at, const Promise *expanded) {
        return KeepAccessPromise(&rules, at, expanded);
    };
    (void)veltrane::EvaluateBundles(ctx, policy, "server", evaluation);  // fails for agents alone
    return rules;
}

}  // namespace

bool ServedPolicy::Load(const std::string &path)
{
    veltrane::PolicyPtr policy = veltrane::ReadPolicy(path);
    if (policy == nullptr) {
        return false;
    }
    veltrane::EvalContextPtr context(EvalContextNew());
    if (context_ == nullptr) {
        Vesk_Initialize(context.get());  // once a process
    }
    veltrane::SetUpContext(context.get(), policy.get());
    veltrane::AccessRules rules = Evaluate(context.get(), policy.get());
    rules.WarnOfHalfFilters();
    const ServerSettings settings = SettingsOf(policy.get());

    // What was in force before is dropped after the lock, rules first: their promises point into the policy.
    const std::lock_guard turnstile(turnstile_);
    {
        const std::lock_guard lock(mutex_);
        rules.ApplyReportFilters();
        std::swap(policy_, policy);
        std::swap(context_, context);
        std::swap(rules_, rules);
        settings_ = settings;
    }
    return true;
}

ServedPolicy::ReadLock ServedPolicy::Lock() const
{
    {
        const std::lock_guard turnstile(turnstile_);
    }
    return ReadLock(mutex_);
}

}  // namespace vtserverd
