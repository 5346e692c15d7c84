// From the evaluation context's classes to the records of the classes report, by way of the temporary class cache.
#include "libvtenterprise/diff_classes.h"

#include <unistd.h>

#include <cstdio>
#include <string_view>

#include <veltrane/csv.h>
#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/item_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/critical_guard.h"
#include "libvtenterprise/state_files.h"

using veltrane::BufferPtr;
using veltrane::ClassTableIteratorPtr;
using veltrane::CsvWriterPtr;
using veltrane::FilePtr;
using veltrane::MapPtr;
using veltrane::SeqPtr;
using veltrane::SeqViewPtr;
using veltrane::StringSetPtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

constexpr const char *kTemporaryCacheSection = "context_tmp_lock";
constexpr size_t kFirstRoom = 100;

struct TemporaryCachePath {
    TemporaryCachePath() { (void)snprintf(text, sizeof(text), "%s/context.cache.tmp", GetStateDir()); }

    char text[4096];
};

// The joined tags as the record keeps them: new, cut when they are too long to be sent. No tags are absent, not "": an
// empty column is read back as absent, and the class would look changed after every run.
char *ReportedTags(const StringSet *tags, const char *full_name)
{
    const BufferPtr joined(StringSetToBuffer(tags, ','));
    const size_t size = BufferSize(joined.get());
    if (size == 0) {
        return nullptr;
    }
    if (size <= kMaxMetaTagBytes) {
        return SafeStringDuplicate(BufferData(joined.get()));
    }
    Log(LOG_LEVEL_VERBOSE,
        "Context '%s' (meta tags) are too large for transmission to reporting hub (larger than %zu bytes) -- will be "
        "truncated in reports",
        full_name, kMaxMetaTagBytes);
    return SafeStringNDuplicate(BufferData(joined.get()), kMaxMetaTagBytes - 1);
}

// Put a class into the map under its name, in place of one of the same name. False, and untouched, without a name.
bool InsertByName(Map *classes, HubClass *hub_class)
{
    char *name = HubClassGetMainKey(hub_class);
    if (name == nullptr) {
        return false;
    }
    (void)MapInsert(classes, name, hub_class);  // whether it replaced one does not matter
    return true;
}

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
    const TextPtr reported(ReportedTags(tags, full_name.get()));
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
    if (SeqLength(classes.get()) == 0) {
        return;
    }
    const WriterPtr text(StringWriter());
    CsvWriterPtr csv(CsvWriterOpen(text.get()));
    for (size_t i = 0; i < SeqLength(classes.get()); i++) {
        HubClassToCSV(SeqAt(classes.get(), i), csv.get());
        CsvWriterNewRecord(csv.get());
    }
    csv.reset();
    const TemporaryCachePath path;
    const CriticalGuard guard(kTemporaryCacheSection);
    if (!AppendRecords(path.text, std::string_view(StringWriterData(text.get()), StringWriterLength(text.get())))) {
        Log(LOG_LEVEL_ERR, "Could not write to the file: '%s'", path.text);
    }
}

Map *GetCurrentCachedHubClasses() noexcept
{
    const TemporaryCachePath path;
    MapPtr classes(MapNew(StringHashUntyped, StringEqualUntyped, free, HubClassDelete));
    const auto keep = [&](const char *record, Seq *fields) {
        HubClass *hub_class = static_cast<HubClass *>(HubClassFromAttributeList(fields));
        if (hub_class == nullptr || !InsertByName(classes.get(), hub_class)) {
            HubClassDelete(hub_class);
            Log(LOG_LEVEL_WARNING, "Invalid csv file entry ('%s'): '%s'", path.text, record);
        }
    };
    const CriticalGuard guard(kTemporaryCacheSection);
    const FilePtr file(safe_fopen(path.text, "r"));
    if (file == nullptr || !ForEachCsvRecord(file.get(), path.text, keep)) {
        Log(LOG_LEVEL_VERBOSE, "Could not read: '%s'", path.text);
        return nullptr;
    }
    return classes.release();
}

Seq *GetCurrentHubClassList(const EvalContext *ctx) noexcept
{
    SeqPtr current(GetCurrentClassesFromEvalContext(ctx));
    Map *cached = GetCurrentCachedHubClasses();
    if (cached == nullptr) {
        return current.release();
    }
    const SeqViewPtr moved(current.release());
    for (size_t i = 0; i < SeqLength(moved.get()); i++) {
        (void)InsertByName(cached, static_cast<HubClass *>(SeqAt(moved.get(), i)));  // a class of a context has a name
    }
    Seq *classes = SeqNew(MapSize(cached), HubClassDelete);
    MapIterator iterator = MapIteratorInit(cached);
    while (const MapKeyValue *entry = MapIteratorNext(&iterator)) { SeqAppend(classes, entry->value); }
    MapSoftDestroy(cached);
    return classes;
}

bool PurgeCurrentContexts(time_t) noexcept
{
    const TemporaryCachePath path;
    const CriticalGuard guard(kTemporaryCacheSection);
    if (FileCanOpen(path.text, "r") && unlink(path.text) != 0) {
        Log(LOG_LEVEL_VERBOSE, "Failed to remove file '%s' during cleanup", path.text);
        return false;
    }
    return true;
}
