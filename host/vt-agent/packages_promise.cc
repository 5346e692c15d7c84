// Promises of type "packages".
#include "vt-agent/packages_promise.h"

#include <string>

#include <veltrane/rlist.h>
#include <veltrane/string_lib.h>

#include "libveltrane/promise_attributes.h"

namespace veltrane {

namespace {

std::string TextOr(const Promise *expanded, const char *attribute, const char *absent)
{
    const char *const text = AttributeText(expanded, attribute);
    return text != nullptr ? text : absent;
}

}  // namespace

PromiseResult KeepPackagesPromise(PackageKeeper *keeper, EvalContext *ctx, const Promise *expanded)
{
    const Attributes attr = CommonAttributes(expanded);
    const Rlist *const inventory = GetDefaultInventoryFromContext(ctx);
    PackageWish wish;
    wish.name = expanded->promiser;
    wish.version = TextOr(expanded, "version", "");
    wish.architecture = TextOr(expanded, "architecture", "");
    wish.present = !StringEqual(AttributeText(expanded, "policy"), "absent");
    wish.module = TextOr(expanded, "module", inventory != nullptr ? RlistScalarValue(inventory) : "apt");

    const PackageVerdict verdict = keeper->Keep(wish);
    switch (verdict.result) {
        case PROMISE_RESULT_NOOP:
            RecordNoChange(ctx, expanded, &attr, "%s", verdict.message.c_str());
            break;
        case PROMISE_RESULT_CHANGE:
            RecordChange(ctx, expanded, &attr, "%s", verdict.message.c_str());
            break;
        default:
            RecordFailure(ctx, expanded, &attr, "%s", verdict.message.c_str());
    }
    return verdict.result;
}

}  // namespace veltrane
