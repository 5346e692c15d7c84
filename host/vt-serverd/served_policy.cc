#include "vt-serverd/served_policy.h"

#include <utility>

#include <veltrane/entry_points.h>
#include <veltrane/logging.h>
#include <veltrane/string_lib.h>

#include "libveltrane/evaluator.h"
#include "libveltrane/policy_control.h"

namespace vtserverd {

namespace {

bool ControlIsTrue(const Policy *policy, const char *attribute, bool otherwise)
{
    const char *text = veltrane::PolicyControlScalar(policy, "server", attribute);
    return text != nullptr ? StringEqual(text, "true") : otherwise;
}

ServerSettings SettingsOf(const Policy *policy)
{
    ServerSettings settings;
    settings.listen = ControlIsTrue(policy, "listen", settings.listen);
    settings.dump_reports = ControlIsTrue(policy, "dump_reports", settings.dump_reports);
    if (const char *text = veltrane::PolicyControlScalar(policy, "server", "max_connections")) {
        settings.max_connections =
            static_cast<size_t>(StringToLongDefaultOnError(text, static_cast<long>(settings.max_connections)));
    }
    return settings;
}

veltrane::AccessRules Evaluate(EvalContext *ctx, const Policy *policy)
{
    veltrane::AccessRules rules;
    veltrane::Evaluation evaluation;
    evaluation.actuators["access"] = [&rules](EvalContext *at, const Promise *expanded) {
        rules.Add(expanded);
        RecordNoChange(at, expanded, nullptr, "Access to '%s' is set", expanded->promiser);
        return PROMISE_RESULT_NOOP;
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
