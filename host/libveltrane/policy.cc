// The parsed policy: how it is put together, what is read from it, and the digests that name a file and a promise.
//
// Everything is made when it is put together, nothing on reading, so that several threads may read one policy.
#include <veltrane/policy.h>

#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/class.h>
#include <veltrane/eval_context.h>
#include <veltrane/rlist.h>
#include <veltrane/seq.h>
#include <veltrane/string_lib.h>
#include <veltrane/writer.h>

#include "libveltrane/policy_control.h"
#include "libveltrane/policy_internal.h"

namespace {

void ConstraintDestroy(void *item)
{
    Constraint *constraint = static_cast<Constraint *>(item);
    RvalDestroy(constraint->rval);
    free(constraint->lval);
    free(constraint);
}

void PromiseDestroyUntyped(void *item) { veltrane::PromiseDestroy(static_cast<Promise *>(item)); }

void SectionDestroy(void *item)
{
    BundleSection *section = static_cast<BundleSection *>(item);
    SeqDestroy(section->promises);
    free(section->promise_type);
    free(section);
}

void BundleDestroy(void *item)
{
    Bundle *bundle = static_cast<Bundle *>(item);
    SeqDestroy(bundle->sections);
    free(bundle->source_path);
    free(bundle->ns);
    free(bundle->name);
    free(bundle->type);
    free(bundle);
}

// Attributes that say nothing of what is promised: a note to the reader, and when the promise is looked at.
bool IsLeftOutOfHash(std::string_view lval) { return lval == "comment" || lval == "if" || lval == "unless"; }

const Rval *ControlValue(const Policy *policy, const char *kind, const char *attribute)
{
    const auto entry = policy->internal->control.find({kind, attribute});
    return entry != policy->internal->control.end() ? &entry->second : nullptr;
}

}  // namespace

const Bundle *PromiseGetBundle(const Promise *pp) { return pp->parent_section->parent_bundle; }

const char *PromiseGetNamespace(const Promise *pp) { return PromiseGetBundle(pp)->ns; }

const char *PromiseGetHandle(const Promise *pp)
{
    const Constraint *handle = PromiseGetConstraint(pp, "handle");
    return handle != nullptr ? RvalScalarValue(handle->rval) : nullptr;
}

const char *PromiseID(const Promise *pp)
{
    const char *handle = PromiseGetHandle(pp);
    return handle != nullptr ? handle : pp->internal->location.c_str();
}

void PromiseRef(LogLevel level, const Promise *pp)
{
    const Bundle *bundle = PromiseGetBundle(pp);
    const veltrane::TextPtr bundle_name(ClassRefToString(bundle->ns, bundle->name));
    Log(level, "This promise stands in bundle '%s': type '%s', promiser '%s', at '%s'", bundle_name.get(),
        pp->parent_section->promise_type, pp->promiser, pp->internal->location.c_str());
}

Constraint *PromiseGetConstraint(const Promise *pp, const char *lval)
{
    for (size_t i = SeqLength(pp->conlist); i-- > 0;) {  // the last one said is in force
        Constraint *constraint = static_cast<Constraint *>(SeqAt(pp->conlist, i));
        if (StringEqual(constraint->lval, lval)) {
            return constraint;
        }
    }
    return nullptr;
}

Constraint *PromiseGetImmediateConstraint(const Promise *pp, const char *lval)
{
    return PromiseGetConstraint(pp, lval);  // a parsed promise holds the attributes of its bodies as its own
}

Rlist *PromiseGetConstraintAsList(const Promise *pp, const char *lval)
{
    const Constraint *constraint = PromiseGetConstraint(pp, lval);
    return constraint != nullptr ? RvalRlistValue(constraint->rval) : nullptr;
}

const char *PolicyGetPolicyFileHash(const Policy *policy, const char *policy_file_path)
{
    if (policy_file_path == nullptr) {
        return nullptr;
    }
    const auto entry = policy->internal->file_hashes.find(policy_file_path);
    return entry != policy->internal->file_hashes.end() ? entry->second.c_str() : nullptr;
}

void PromiseRuntimeHash(const Promise *pp, const char *salt, unsigned char digest[EVP_MAX_MD_SIZE], HashMethod type)
{
    const veltrane::WriterPtr text(StringWriter());
    const auto add = [&text](const char *part) { WriterWriteLen(text.get(), part, strlen(part) + 1); };
    const auto add_value = [&text](Rval value) {
        RvalWriteRaw(text.get(), value);
        WriterWriteChar(text.get(), '\0');
    };
    add(salt);
    add(PromiseGetNamespace(pp));
    add(PromiseGetBundle(pp)->name);
    add(pp->parent_section->promise_type);
    add(pp->promiser);
    add_value(pp->promisee);
    for (size_t i = 0; i < SeqLength(pp->conlist); i++) {
        const Constraint *constraint = static_cast<const Constraint *>(SeqAt(pp->conlist, i));
        if (!IsLeftOutOfHash(constraint->lval)) {
            add(constraint->lval);
            add_value(constraint->rval);
        }
    }
    // false for a method that makes no digest: none is written
    (void)HashBytes(StringWriterData(text.get()), StringWriterLength(text.get()), digest, type);
}

Policy *PolicyNew(void)
{
    Policy *policy = static_cast<Policy *>(xcalloc(1, sizeof(Policy)));
    policy->bundles = SeqNew(8, BundleDestroy);
    policy->internal = new PolicyInternal_;
    return policy;
}

void PolicyDestroy(Policy *policy)
{
    if (policy == nullptr) {
        return;
    }
    SeqDestroy(policy->bundles);
    free(policy->release_id);
    delete policy->internal;
    free(policy);
}

Bundle *PolicyAppendBundle(Policy *policy, const char *ns, const char *name, const char *type, const char *source_path)
{
    Bundle *bundle = static_cast<Bundle *>(xcalloc(1, sizeof(Bundle)));
    bundle->parent_policy = policy;
    bundle->type = xstrdup(type);
    bundle->name = xstrdup(name);
    bundle->ns = xstrdup(ns != nullptr ? ns : "default");
    bundle->source_path = SafeStringDuplicate(source_path);
    bundle->sections = SeqNew(8, SectionDestroy);
    SeqAppend(policy->bundles, bundle);
    return bundle;
}

BundleSection *BundleAppendSection(Bundle *bundle, const char *promise_type)
{
    BundleSection *section = static_cast<BundleSection *>(xcalloc(1, sizeof(BundleSection)));
    section->parent_bundle = bundle;
    section->promise_type = xstrdup(promise_type);
    section->promises = SeqNew(8, PromiseDestroyUntyped);
    SeqAppend(bundle->sections, section);
    return section;
}

Promise *BundleSectionAppendPromise(BundleSection *section, const char *promiser, Rval promisee, SourceOffset offset)
{
    Promise *pp = veltrane::PromiseNewDetached(section, promiser, promisee, offset);
    SeqAppend(section->promises, pp);
    return pp;
}

Constraint *PromiseAppendConstraint(Promise *pp, const char *lval, Rval rval)
{
    Constraint *constraint = static_cast<Constraint *>(xcalloc(1, sizeof(Constraint)));
    constraint->lval = xstrdup(lval);
    constraint->rval = rval;
    SeqAppend(pp->conlist, constraint);
    return constraint;
}

void PolicySetFileHash(Policy *policy, const char *path, const char *hash)
{
    policy->internal->file_hashes[path] = hash;
}

namespace veltrane {

Promise *PromiseNewDetached(BundleSection *section, const char *promiser, Rval promisee, SourceOffset offset)
{
    const char *source = section->parent_bundle->source_path;
    Promise *pp = static_cast<Promise *>(xcalloc(1, sizeof(Promise)));
    pp->parent_section = section;
    pp->promiser = xstrdup(promiser);
    pp->promisee = promisee;
    pp->conlist = SeqNew(4, ConstraintDestroy);
    pp->offset = offset;
    pp->internal =
        new PromiseInternal_{std::string(source != nullptr ? source : "<no file>") + ":" + std::to_string(offset.line)};
    return pp;
}

void PromiseDestroy(Promise *pp)
{
    if (pp == nullptr) {
        return;
    }
    SeqDestroy(pp->conlist);
    RvalDestroy(pp->promisee);
    free(pp->promiser);
    delete pp->internal;
    free(pp);
}

const char *PolicyControlScalar(const Policy *policy, const char *kind, const char *attribute)
{
    const Rval *value = ControlValue(policy, kind, attribute);
    return value != nullptr ? RvalScalarValue(*value) : nullptr;
}

const Rlist *PolicyControlList(const Policy *policy, const char *kind, const char *attribute)
{
    const Rval *value = ControlValue(policy, kind, attribute);
    return value != nullptr ? RvalRlistValue(*value) : nullptr;
}

void PolicyControlCommonIntoContext(const Policy *policy, EvalContext *ctx)
{
    if (const char *version = PolicyControlScalar(policy, "common", "protocol_version"); version != nullptr) {
        EvalContextVariableControlCommonPut(ctx, COMMON_CONTROL_PROTOCOL_VERSION, version);
    }
    if (const char *seconds = PolicyControlScalar(policy, "common", "lastseen_expire_after"); seconds != nullptr) {
        EvalContextVariableControlCommonPut(ctx, COMMON_CONTROL_LASTSEEN_EXPIRE_AFTER, seconds);
    }
    std::string modules;
    for (const Rlist *node = PolicyControlList(policy, "common", "package_inventory"); node != nullptr;
         node = node->next) {
        modules += (modules.empty() ? "" : ",") + std::string(RlistScalarValue(node));
    }
    if (!modules.empty()) {
        EvalContextVariableControlCommonPut(ctx, COMMON_CONTROL_PACKAGE_INVENTORY, modules.c_str());
    }
}

}  // namespace veltrane
