// The evaluation context: which classes are defined, what the variables hold, and what policy sets for every program.
//
// Names are settled here, once: "default" and no namespace are the same, the scopes that the host fills belong to no
// namespace, and a name that says nothing belongs to the bundle under evaluation.
#include <veltrane/eval_context.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/entry_points.h>
#include <veltrane/json.h>
#include <veltrane/policy.h>
#include <veltrane/string_lib.h>

#include "libveltrane/eval_context_internal.h"

using veltrane::ClassName;
using veltrane::NamespaceKey;

namespace {

// The shared set for a text of tags; NULL counts as "".
StringSet *SharedTags(EvalContext *ctx, const char *tags)
{
    const std::string text = tags != nullptr ? tags : "";
    veltrane::StringSetPtr &set = ctx->tag_sets[text];
    if (set == nullptr) {
        set.reset(StringSetFromString(text.c_str(), ','));
    }
    return set.get();
}

void ClassHistoryAddAll(const EvalContext *ctx, StringSet *list)
{
    for (const auto &[key, record] : ctx->classes.records()) {
        Vesk_ClassHistoryAddContextName(list, veltrane::TextPtr(ClassRefToString(record.ns, record.name)).get());
    }
}

void PutClass(EvalContext *ctx, const char *name, bool is_soft, const char *tags)
{
    const ClassName split = veltrane::SplitClassName(name);
    if (split.name.empty()) {
        return;
    }
    ctx->classes.Put(split.ns, split.name, is_soft, SharedTags(ctx, tags));
    if (ctx->class_history != nullptr) {
        Vesk_ClassHistoryAddContextName(ctx->class_history, split.ns.empty() ? split.name.c_str() : name);
    }
}

bool IsSpecialScope(std::string_view scope)
{
    for (int i = SPECIAL_SCOPE_CONST; i < SPECIAL_SCOPE_NONE; i++) {
        if (scope == SpecialScopeToString(static_cast<SpecialScope>(i))) {
            return true;
        }
    }
    return false;
}

// Where a variable lives; scope "" when the reference says none and no bundle is under evaluation.
struct VariablePlace {
    std::string_view ns;
    std::string_view scope;
};

VariablePlace PlaceOf(const EvalContext *ctx, const VarRef *ref)
{
    VariablePlace place{NamespaceKey(ref->ns), ref->scope != nullptr ? ref->scope : ""};
    const Bundle *bundle = veltrane::EvalContextStackCurrentBundle(ctx);
    if (ref->scope == nullptr && bundle != nullptr) {
        place.scope = bundle->name;
        if (ref->ns == nullptr) {
            place.ns = NamespaceKey(bundle->ns);
        }
    }
    if (IsSpecialScope(place.scope)) {
        place.ns = "";
    }
    return place;
}

// A list is of scalars: anything else has no text to give.
bool IsStorable(const void *value, DataType type)
{
    switch (DataTypeToRvalType(type)) {
        case RVAL_TYPE_SCALAR:
            return true;
        case RVAL_TYPE_CONTAINER:
            return value != nullptr;
        case RVAL_TYPE_LIST:
            for (const Rlist *node = static_cast<const Rlist *>(value); node != nullptr; node = node->next) {
                if (node->val.type != RVAL_TYPE_SCALAR) {
                    return false;
                }
            }
            return true;
        case RVAL_TYPE_NONE:
            break;
    }
    return false;
}

Rval CopyOfValue(const void *value, DataType type)
{
    const RvalType rval_type = DataTypeToRvalType(type);
    if (value != nullptr) {
        return RvalNew(value, rval_type);
    }
    return rval_type == RVAL_TYPE_SCALAR ? RvalNew("", rval_type) : Rval{nullptr, rval_type};
}

}  // namespace

EvalContext *EvalContextNew(void) { return new EvalContext; }

void EvalContextDestroy(EvalContext *ctx) { delete ctx; }

void EvalContextClassPutHard(EvalContext *ctx, const char *name, const char *tags) { PutClass(ctx, name, false, tags); }

void EvalContextClassPutSoft(EvalContext *ctx, const char *name, const char *tags) { PutClass(ctx, name, true, tags); }

bool EvalContextClassRemove(EvalContext *ctx, const char *name)
{
    const ClassName split = veltrane::SplitClassName(name);
    const bool of_run = ctx->classes.Remove(split.ns, split.name);
    ctx->class_history_stale = ctx->class_history_stale || of_run;
    veltrane::StackFrame *frame = veltrane::CurrentBundleFrame(ctx);
    const bool of_bundle = frame != nullptr && frame->local_classes.Remove(split.ns, split.name);
    return of_run || of_bundle;
}

void CreateHardClassesFromCanonification(EvalContext *ctx, const char *canonified, const char *tags)
{
    std::string name = canonified;
    CanonifyNameInPlace(name.data());
    while (!name.empty()) {
        if (!ctx->classes.Has("", name)) {
            PutClass(ctx, name.c_str(), false, tags);
        }
        const size_t underscore = name.rfind('_');
        name.resize(underscore == std::string::npos ? 0 : underscore);
    }
}

const StringSet *EvalContextAllClassesGet(const EvalContext *ctx)
{
    if (ctx->class_history != nullptr && ctx->class_history_stale) {
        EvalContext *writable = const_cast<EvalContext *>(ctx);  // the set is a cache of the class table
        Vesk_ClassHistoryEnable(&writable->class_history, false);
        Vesk_ClassHistoryEnable(&writable->class_history, true);
        ClassHistoryAddAll(ctx, writable->class_history);
        writable->class_history_stale = false;
    }
    return ctx->class_history;
}

void EvalContextClassHistoryEnable(EvalContext *ctx, bool enable)
{
    if (ctx->class_history == nullptr) {
        ctx->class_history_stale = false;
    }
    Vesk_ClassHistoryEnable(&ctx->class_history, enable);
    if (ctx->class_history != nullptr) {
        ClassHistoryAddAll(ctx, ctx->class_history);
    }
}

bool EvalContextVariablePut(EvalContext *ctx, const VarRef *ref, const void *value, DataType type, const char *tags)
{
    const VariablePlace place = PlaceOf(ctx, ref);
    if (*ref->lval == '\0' || place.scope.empty() || !IsStorable(value, type)) {
        return false;
    }
    ctx->variables.Put(place.ns, place.scope, ref, type, CopyOfValue(value, type),
                       tags != nullptr ? SharedTags(ctx, tags) : nullptr);
    return true;
}

bool EvalContextVariablePutSpecial(EvalContext *ctx, SpecialScope scope, const char *lval, const void *value,
                                   DataType type, const char *tags)
{
    const char *name = SpecialScopeToString(scope);
    if (name == nullptr) {
        return false;
    }
    const veltrane::VarRefPtr ref(VarRefParseFromScope(lval, name));
    return EvalContextVariablePut(ctx, ref.get(), value, type, tags);
}

const void *EvalContextVariableGet(const EvalContext *ctx, const VarRef *ref, DataType *ret_type)
{
    const VariablePlace place = PlaceOf(ctx, ref);
    const Variable *variable = ctx->variables.Find(place.ns, place.scope, ref);
    if (ret_type != nullptr) {
        *ret_type = variable != nullptr ? variable->type : VT_DATA_TYPE_NONE;
    }
    return variable != nullptr ? variable->rval.item : nullptr;
}

const char *EvalContextVariableControlCommonGet(const EvalContext *ctx, CommonControl lval)
{
    const size_t i = static_cast<size_t>(lval);
    return i < ctx->control_common.size() && ctx->control_common[i].has_value() ? ctx->control_common[i]->c_str()
                                                                                : nullptr;
}

void EvalContextVariableControlCommonPut(EvalContext *ctx, CommonControl lval, const char *value)
{
    const size_t i = static_cast<size_t>(lval);
    if (i >= ctx->control_common.size()) {
        return;
    }
    ctx->control_common[i] = value;
    if (lval == COMMON_CONTROL_PACKAGE_INVENTORY) {
        ctx->default_inventory.reset(RlistFromSplitString(value, ','));
    }
}

Rlist *GetDefaultInventoryFromContext(const EvalContext *ctx) { return ctx->default_inventory.get(); }

void FatalError(const EvalContext *, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    VLog(LOG_LEVEL_CRIT, format, arguments);
    va_end(arguments);
    exit(255);  // NOLINT(concurrency-mt-unsafe): the end of this process is asked for
}

namespace veltrane {

void EvalContextClassPutLocal(EvalContext *ctx, const char *name, const char *tags)
{
    const ClassName split = SplitClassName(name);
    StackFrame *frame = CurrentBundleFrame(ctx);
    if (frame == nullptr) {
        PutClass(ctx, name, true, tags);
    } else if (!split.name.empty()) {
        frame->local_classes.Put(split.ns, split.name, true, SharedTags(ctx, tags));
    }
}

bool EvalContextClassIsDefined(const EvalContext *ctx, const char *name)
{
    const ClassName split = SplitClassName(name);
    const StackFrame *frame = CurrentBundleFrame(ctx);
    const auto is_defined_in = [ctx, &split, frame](std::string_view ns) {
        return ctx->classes.Has(ns, split.name) || (frame != nullptr && frame->local_classes.Has(ns, split.name));
    };
    if (strchr(name, ':') != nullptr || frame == nullptr) {
        return is_defined_in(split.ns);
    }
    return is_defined_in(NamespaceKey(frame->bundle->ns)) || is_defined_in("");
}

bool EvalContextVariableRemove(EvalContext *ctx, const VarRef *ref)
{
    const VariablePlace place = PlaceOf(ctx, ref);
    return ctx->variables.Remove(place.ns, place.scope, ref);
}

void EvalContextVariableClearScope(EvalContext *ctx, const char *ns, const char *scope)
{
    ctx->variables.RemoveScope(NamespaceKey(ns), scope);
}

}  // namespace veltrane
