// The policy evaluator: bundles, passes, iterations.
//
// One PolicyRun evaluates one policy. It keeps no state of its own between bundles but the depth of calls: what a
// bundle has judged is remembered while that bundle runs, everything else is in the context.
#include "libveltrane/evaluator.h"

#include <set>

#include <veltrane/entry_points.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/discovery.h"
#include "libveltrane/eval_context_internal.h"
#include "libveltrane/expansion.h"
#include "libveltrane/hub_address.h"
#include "libveltrane/policy_control.h"
#include "libveltrane/policy_internal.h"
#include "libveltrane/promise_attributes.h"
#include "libveltrane/promise_vars_classes.h"

namespace veltrane {

namespace {

constexpr int kPasses = 3;
constexpr int kSecondsPerWeek = 7 * 24 * 60 * 60;
constexpr int kDeepestCalls = 32;            // bundles that call bundles
constexpr size_t kMostIterations = 100'000;  // of one promise: lists multiply

void Count(PromiseResult result)
{
    switch (result) {
        case PROMISE_RESULT_SKIPPED:
            break;
        case PROMISE_RESULT_NOOP:
            PR_KEPT++;
            break;
        case PROMISE_RESULT_CHANGE:
            PR_REPAIRED++;
            break;
        default:
            PR_NOTKEPT++;
    }
}

// What one bundle has done so far, in all its passes.
struct BundleState {
    // By promise the iterations that are judged, each told by what its lists were bound to.
    std::map<const Promise *, std::set<std::string>> judged;
    PromiseResult worst = PROMISE_RESULT_SKIPPED;
    bool last_pass = false;
    bool pending = false;  // something was neither judged nor skipped for good in this pass
};

std::string KeyOf(const Bindings &bindings)
{
    std::string key;
    for (const auto &[name, value] : bindings) { key += name + '\0' + value + '\0'; }
    return key;
}

std::vector<std::string> ReferencesOf(const Promise *pp)
{
    std::vector<std::string> texts;
    CollectReferences(Rval{pp->promiser, RVAL_TYPE_SCALAR}, &texts);
    CollectReferences(pp->promisee, &texts);
    for (size_t i = 0; i < SeqLength(pp->conlist); ++i) {
        CollectReferences(static_cast<const Constraint *>(SeqAt(pp->conlist, i))->rval, &texts);
    }
    return texts;
}

bool IsGuard(const char *attribute) { return StringEqual(attribute, "if") || StringEqual(attribute, "unless"); }

const char *TypeOf(const Promise *pp) { return pp->parent_section->promise_type; }

class PolicyRun {
  public:
    PolicyRun(EvalContext *ctx, const Policy *policy, std::string_view kind, const Evaluation &evaluation)
        : ctx_(ctx), policy_(policy), actuators_(evaluation.actuators), outcome_(evaluation.outcome)
    {
        actuators_["vars"] = KeepVarsPromise;
        actuators_["classes"] = KeepClassesPromise;
        if (kind == "agent") {
            actuators_["methods"] = [this](EvalContext *, const Promise *expanded) { return KeepMethods(expanded); };
        }
    }

    // All bundles of one type, in the order of the files.
    void RunAll(std::string_view type)
    {
        for (size_t i = 0; i < SeqLength(policy_->bundles); ++i) {
            const Bundle *bundle = static_cast<const Bundle *>(SeqAt(policy_->bundles, i));
            if (type == bundle->type) {
                RunBundle(bundle);
            }
        }
    }

    const Bundle *FindAgentBundle(std::string_view ns, std::string_view name) const
    {
        for (size_t i = 0; i < SeqLength(policy_->bundles); ++i) {
            const Bundle *bundle = static_cast<const Bundle *>(SeqAt(policy_->bundles, i));
            if (StringEqual(bundle->type, "agent") && ns == bundle->ns && name == bundle->name) {
                return bundle;
            }
        }
        return nullptr;
    }

    // Result: the worst of all iterations, skipped when none was judged.
    PromiseResult RunBundle(const Bundle *bundle)
    {
        Log(LOG_LEVEL_VERBOSE, "Bundle '%s'", bundle->name);
        BundleState state;
        EvalContextStackPushBundle(ctx_, bundle);
        for (int pass = 1; pass <= kPasses; ++pass) {
            state.last_pass = pass == kPasses;
            state.pending = false;
            RunPass(bundle, &state);
            if (!state.pending) {
                break;
            }
        }
        EvalContextStackPop(ctx_);
        return state.worst;
    }

  private:
    void RunPass(const Bundle *bundle, BundleState *state)
    {
        for (size_t i = 0; i < SeqLength(bundle->sections); ++i) {
            const auto *section = static_cast<const BundleSection *>(SeqAt(bundle->sections, i));
            const auto actuator = actuators_.find(section->promise_type);
            if (actuator == actuators_.end()) {
                continue;  // the business of another program
            }
            EvalContextStackPushSection(ctx_, section);
            for (size_t j = 0; j < SeqLength(section->promises); ++j) {
                const auto *pp = static_cast<const Promise *>(SeqAt(section->promises, j));
                EvalContextStackPushPromise(ctx_, pp);
                RunPromise(pp, actuator->second, state);
                EvalContextStackPop(ctx_);
            }
            EvalContextStackPop(ctx_);
        }
    }

    void RunPromise(const Promise *pp, const Actuator &actuator, BundleState *state)
    {
        const std::vector<std::string> references = ReferencesOf(pp);
        size_t iterations = 0;
        Scope scope{ctx_, pp, {}};
        Iterate(&scope, references, actuator, &iterations, state);
        if (iterations > kMostIterations) {
            Log(LOG_LEVEL_ERR, "The lists of promise '%s' give more than %zu iterations: the others are left out",
                PromiseID(pp), kMostIterations);
        }
    }

    // One iteration for each item of each list that the promise refers to, the first list changing slowest.
    void Iterate(Scope *scope, const std::vector<std::string> &references, const Actuator &actuator, size_t *iterations,
                 BundleState *state)
    {
        const std::optional<IteratedList> list = FirstUnboundList(*scope, references);
        if (!list.has_value()) {
            if ((*iterations)++ < kMostIterations) {
                RunIteration(*scope, actuator, *iterations - 1, state);
            }
            return;
        }
        if (list->items.empty()) {
            state->pending = true;  // the list may get items from a later promise
        }
        for (const std::string &item : list->items) {
            if (*iterations > kMostIterations) {
                break;
            }
            scope->bindings[list->name] = item;
            Iterate(scope, references, actuator, iterations, state);
        }
        scope->bindings.erase(list->name);
    }

    void RunIteration(const Scope &scope, const Actuator &actuator, size_t index, BundleState *state)
    {
        std::set<std::string> &judged = state->judged[scope.promise];
        const std::string key = KeyOf(scope.bindings);
        if (judged.count(key) != 0) {
            return;
        }
        Shortfall shortfall;
        std::string why;
        PromisePtr expanded;
        switch (CheckGuards(scope, &shortfall, &why)) {
            case Guards::kHold:
                expanded = Expand(scope, &shortfall);
                break;
            case Guards::kMalformed:
                judged.insert(key);
                return;
            case Guards::kDoNotHold:
                break;
        }
        if (shortfall.function_failed) {
            judged.insert(key);  // skipped, and the reason is in the log
            return;
        }
        if (expanded == nullptr) {
            Postpone(scope.promise, why.empty() ? "variable '" + shortfall.missing + "' has no value" : why, state);
            return;
        }
        const PromiseResult result = Keep(expanded.get(), actuator, index);
        if (result == PROMISE_RESULT_SKIPPED && StringEqual(TypeOf(expanded.get()), "classes")) {
            Postpone(scope.promise, "its expression does not hold", state);
            return;
        }
        judged.insert(key);
        state->worst = PromiseResultUpdate(state->worst, result);
    }

    // Left for the next pass; skipped in the last.
    static void Postpone(const Promise *pp, const std::string &why, BundleState *state)
    {
        state->pending = true;
        if (state->last_pass) {
            Log(LOG_LEVEL_VERBOSE, "Skipping promise '%s' of type '%s': %s", pp->promiser, TypeOf(pp), why.c_str());
        }
    }

    enum class Guards { kHold, kDoNotHold, kMalformed };

    // The class expressions of the attributes "if" and "unless", looked at before anything else of the promise is.
    Guards CheckGuards(const Scope &scope, Shortfall *shortfall, std::string *ret_why)
    {
        for (const char *attribute : {"if", "unless"}) {
            const Constraint *guard = PromiseGetConstraint(scope.promise, attribute);
            if (guard == nullptr) {
                continue;
            }
            const std::optional<OwnedRval> value = ExpandRval(scope, guard->rval, shortfall);
            if (!value.has_value()) {
                return Guards::kDoNotHold;
            }
            const char *text = RvalScalarValue(value->Get());
            const ExpressionValue holds = text != nullptr ? CheckClassExpression(ctx_, text) : EXPRESSION_VALUE_ERROR;
            if (holds == EXPRESSION_VALUE_ERROR) {
                Log(LOG_LEVEL_ERR, "Promise '%s' is skipped: its '%s' is no class expression: '%s'",
                    PromiseID(scope.promise), attribute, text != nullptr ? text : "");
                return Guards::kMalformed;
            }
            if ((holds == EXPRESSION_VALUE_TRUE) == StringEqual(attribute, "unless")) {
                *ret_why = std::string("'") + attribute + ": " + text + "' stands against it";
                return Guards::kDoNotHold;
            }
        }
        return Guards::kHold;
    }

    // The promise with all its variables and functions replaced; guards have done their work and stay as they are.
    static PromisePtr Expand(Scope scope, Shortfall *shortfall)
    {
        const Promise *pp = scope.promise;
        const std::optional<std::string> promiser = ExpandText(scope, pp->promiser, shortfall);
        std::optional<OwnedRval> promisee =
            promiser.has_value() ? ExpandRval(scope, pp->promisee, shortfall) : std::nullopt;
        if (!promisee.has_value()) {
            return nullptr;
        }
        PromisePtr expanded(PromiseNewDetached(pp->parent_section, promiser->c_str(), promisee->Release(), pp->offset));
        scope.bindings["this.promiser"] = *promiser;
        std::vector<std::string> *tags = &expanded->internal->value_tags;
        for (size_t i = 0; i < SeqLength(pp->conlist); ++i) {
            const auto *constraint = static_cast<const Constraint *>(SeqAt(pp->conlist, i));
            std::optional<OwnedRval> value = IsGuard(constraint->lval)
                                                 ? OwnedRval(RvalCopy(constraint->rval))
                                                 : ExpandRval(scope, constraint->rval, shortfall, tags);
            if (!value.has_value()) {
                return nullptr;
            }
            PromiseAppendConstraint(expanded.get(), constraint->lval, value->Release())->offset = constraint->offset;
        }
        return expanded;
    }

    PromiseResult Keep(const Promise *expanded, const Actuator &actuator, size_t index)
    {
        EvalContextStackPushIteration(ctx_, expanded, index);
        PromiseResult result = actuator(ctx_, expanded);
        result = PromiseResultUpdate(result, EvalContextIterationResult(ctx_));
        Count(result);
        if (result != PROMISE_RESULT_SKIPPED && outcome_) {
            outcome_(ctx_, expanded, result);
        }
        EvalContextStackPop(ctx_);
        return result;
    }

    // Run the agent bundle that the promiser names, "name" or "ns:name". Its list "args" holds the promise's arguments.
    PromiseResult KeepMethods(const Promise *expanded)
    {
        const Attributes attr = CommonAttributes(expanded);
        const std::string_view promiser = expanded->promiser;
        const size_t colon = promiser.find(':');
        const Bundle *bundle = colon == std::string_view::npos
                                   ? FindAgentBundle(PromiseGetNamespace(expanded), promiser)
                                   : FindAgentBundle(promiser.substr(0, colon), promiser.substr(colon + 1));
        if (bundle == nullptr) {
            RecordFailure(ctx_, expanded, &attr, "There is no agent bundle '%s'", expanded->promiser);
            return PROMISE_RESULT_FAIL;
        }
        if (depth_ == kDeepestCalls) {
            RecordFailure(ctx_, expanded, &attr, "Bundle '%s' is called too deep inside other bundles",
                          expanded->promiser);
            return PROMISE_RESULT_FAIL;
        }
        PutArguments(bundle, expanded);
        ++depth_;
        const PromiseResult result = RunBundle(bundle);
        --depth_;
        return ReportMethods(expanded, attr, result);
    }

    void PutArguments(const Bundle *bundle, const Promise *expanded)
    {
        const VarRefPtr ref(VarRefParseFromBundle("args", bundle));
        if (PromiseGetConstraint(expanded, "args") == nullptr) {
            EvalContextVariableRemove(ctx_, ref.get());  // of a call before
            return;
        }
        Rlist *list = nullptr;
        for (const std::string &item : AttributeTexts(expanded, "args")) { RlistAppendScalar(&list, item.c_str()); }
        const RlistPtr owner(list);
        EvalContextVariablePut(ctx_, ref.get(), list, VT_DATA_TYPE_STRING_LIST, "source=promise");
    }

    PromiseResult ReportMethods(const Promise *expanded, const Attributes &attr, PromiseResult result)
    {
        switch (result) {
            case PROMISE_RESULT_SKIPPED:
            case PROMISE_RESULT_NOOP:
                RecordNoChange(ctx_, expanded, &attr, "Bundle '%s' is kept", expanded->promiser);
                return PROMISE_RESULT_NOOP;
            case PROMISE_RESULT_CHANGE:
                RecordChange(ctx_, expanded, &attr, "Bundle '%s' made repairs", expanded->promiser);
                break;
            case PROMISE_RESULT_WARN:
                RecordWarning(ctx_, expanded, &attr, "Bundle '%s' is not kept", expanded->promiser);
                break;
            default:
                RecordFailure(ctx_, expanded, &attr, "Bundle '%s' is not kept", expanded->promiser);
        }
        return result;
    }

    EvalContext *ctx_;
    const Policy *policy_;
    std::map<std::string, Actuator> actuators_;
    std::function<void(EvalContext *, const Promise *, PromiseResult)> outcome_;
    int depth_ = 0;
};

}  // namespace

PolicyPtr ReadPolicy(const std::string &path)
{
    char *error = nullptr;
    PolicyPtr policy(PolicyParseFile(path.c_str(), &error));
    const TextPtr owned(error);
    if (policy == nullptr) {
        Log(LOG_LEVEL_ERR, "%s", error);
    }
    return policy;
}

void SetUpContext(EvalContext *ctx, const Policy *policy)
{
    DiscoverInto(ctx, time(nullptr));
    PutHubClasses(ctx);
    PolicyControlCommonIntoContext(policy, ctx);
    const char *expiry = EvalContextVariableControlCommonGet(ctx, COMMON_CONTROL_LASTSEEN_EXPIRE_AFTER);
    LASTSEENEXPIREAFTER = static_cast<int>(StringToLongDefaultOnError(expiry, kSecondsPerWeek));
    GenericAgentAddEditionClasses(ctx);
    EnterpriseContext(ctx);
    CheckAndSetHAState(GetWorkDir(), ctx);
}

bool EvaluateBundles(EvalContext *ctx, const Policy *policy, std::string_view kind, const Evaluation &evaluation)
{
    PolicyRun run(ctx, policy, kind, evaluation);
    const Bundle *main = run.FindAgentBundle("default", "main");
    if (kind == "agent" && main == nullptr) {
        Log(LOG_LEVEL_ERR, "The policy has no agent bundle 'main'");
        return false;
    }
    if (kind != "common") {
        EvalContextClassPutHard(ctx, std::string(kind).c_str(), "source=agent");
    }
    run.RunAll("common");
    if (kind == "agent") {
        run.RunBundle(main);
    } else if (kind == "server") {
        run.RunAll("server");
    }
    return true;
}

}  // namespace veltrane
