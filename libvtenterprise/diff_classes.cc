// From the evaluation context's classes to the records of the classes report.
#include "libvtenterprise/diff_classes.h"

#include <string_view>

#include <veltrane/errors.h>
#include <veltrane/item_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>

#include "libvtenterprise/reported_text.h"
#include "libvtenterprise/temporary_cache.h"

using veltrane::ClassTableIteratorPtr;
using veltrane::SeqPtr;
using veltrane::StringSetPtr;
using veltrane::TextPtr;

namespace {

constexpr size_t kFirstRoom = 100;
constexpr TemporaryCache kCache = {"context.cache.tmp", "context_tmp_lock", report_type_classes};

}  // namespace

HubClass *HubClassFromClass(const Class *context) noexcept
{
    const TextPtr full_name(ClassRefToString(context->ns, context->name));
    StringSetPtr no_tags;
    const StringSet *tags = context->tags;
    if (tags == nullptr) {
        __UnexpectedError("diff_classes", __LINE__, "NULL tags found in class: %s !", context->name);
        no_tags.reset(StringSetFromString("", ','));
        tags = no_tags.get();
    }
    const TextPtr reported = ReportedTags(tags, {"Context", full_name.get()});
    return HubClassNew(nullptr, full_name.get(), 0, reported.get());
}

bool IsContextIgnorableForReporting(const char *context_name) noexcept
{
    std::string_view name(context_name);
    if (name.starts_with("GMT_") && name.size() > 4) {
        name.remove_prefix(4);
    }
    const char *text = name.data();  // still ends in the zero of context_name
    return name.starts_with("Min") || name.starts_with("Hr") ||
           (name.size() == 2 && name[0] == 'Q' && name[1] >= '1' && name[1] <= '4') || name.starts_with("Yr") ||
           name.starts_with("Day") || name == "any" || name == "from_vtexecd" || IsStrIn(text, MONTH_TEXT) ||
           IsStrIn(text, DAY_TEXT) || IsStrIn(text, SHIFT_TEXT) || name.starts_with("Lcycle");
}

Seq *GetCurrentClassesFromEvalContext(const EvalContext *ctx) noexcept
{
    Seq *classes = SeqNew(kFirstRoom, HubClassDelete);
    const ClassTableIteratorPtr iterator(EvalContextClassTableIteratorNewGlobal(ctx, nullptr, true, true));
    while (const Class *context = ClassTableIteratorNext(iterator.get())) {
        if (IsContextIgnorableForReporting(context->name)) {
            Log(LOG_LEVEL_DEBUG, "Ignoring class for reporting: '%s'", context->name);
        } else {
            SeqAppend(classes, HubClassFromClass(context));
        }
    }
    return classes;
}

void StoreContexts(const EvalContext *ctx) noexcept
{
    const SeqPtr classes(GetCurrentClassesFromEvalContext(ctx));
    kCache.Store(classes.get());
}

Map *GetCurrentCachedHubClasses() noexcept { return kCache.Read(); }

Seq *GetCurrentHubClassList(const EvalContext *ctx) noexcept
{
    return kCache.Merge(GetCurrentClassesFromEvalContext(ctx));
}

bool PurgeCurrentContexts(time_t) noexcept { return kCache.Purge(); }
