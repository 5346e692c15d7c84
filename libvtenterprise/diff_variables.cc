// From the evaluation context's variables to the records of the variables report.
#include "libvtenterprise/diff_variables.h"

#include <string>
#include <string_view>

#include <veltrane/owned.h>
#include <veltrane/rval.h>
#include <veltrane/string_lib.h>
#include <veltrane/var_ref.h>
#include <veltrane/writer.h>

#include "libvtenterprise/record.h"
#include "libvtenterprise/reported_text.h"
#include "libvtenterprise/temporary_cache.h"

using veltrane::SeqPtr;
using veltrane::TextPtr;
using veltrane::VariableTableIteratorPtr;
using veltrane::WriterPtr;

namespace {

constexpr size_t kFirstRoom = 100;
constexpr TemporaryCache kCache = {"variable.cache.tmp", "variable_tmp_lock", report_type_variables};

std::string NameWithIndices(const VarRef *ref)
{
    std::string name = ref->lval;
    for (size_t i = 0; i < ref->num_indices; i++) { name.append("[").append(ref->indices[i]).append("]"); }
    return name;
}

TextPtr ReportedValue(const Variable *variable, const ReportedItem &item)
{
    const WriterPtr text(StringWriter());
    RvalWriteRaw(text.get(), VariableGetRval(variable, false));
    return ReportedText(std::string_view(StringWriterData(text.get()), StringWriterLength(text.get())), item,
                        "(value) is");
}

}  // namespace

HubVariableSerialized *HubVariableSerializedFromVariable(const Variable *variable) noexcept
{
    const VarRef *ref = VariableGetRef(variable);
    if (StringEqual(ref->scope, "const")) {
        return nullptr;
    }
    const std::string name = NameWithIndices(ref);
    const ReportedItem item = {"Variable", name.c_str()};
    const TextPtr value = ReportedValue(variable, item);
    const StringSet *tags = VariableGetTags(variable);
    const TextPtr joined_tags = tags != nullptr ? ReportedTags(tags, item) : nullptr;
    return HubVariableSerializedNew(ref->ns != nullptr ? AbsentIfEmpty(ref->ns) : "default", AbsentIfEmpty(ref->scope),
                                    AbsentIfEmpty(name.c_str()), VariableGetType(variable), value.get(),
                                    joined_tags.get());
}

Seq *GetCurrentVariablesFromEvalContext(const EvalContext *ctx) noexcept
{
    Seq *variables = SeqNew(kFirstRoom, HubVariableSerializedDelete);
    const VariableTableIteratorPtr iterator(EvalContextVariableTableIteratorNew(ctx, nullptr, nullptr, nullptr));
    while (const Variable *variable = VariableTableIteratorNext(iterator.get())) {
        HubVariableSerialized *record = HubVariableSerializedFromVariable(variable);
        if (record != nullptr) {
            SeqAppend(variables, record);
        }
    }
    return variables;
}

void StoreVariables(const EvalContext *ctx) noexcept
{
    const SeqPtr variables(GetCurrentVariablesFromEvalContext(ctx));
    kCache.Store(variables.get());
}

Map *GetCurrentCachedHubVariablesSerialized() noexcept { return kCache.Read(); }

Seq *GetCurrentHubVariableSerializedList(const EvalContext *ctx) noexcept
{
    return kCache.Merge(GetCurrentVariablesFromEvalContext(ctx));
}

bool PurgeCurrentVariables(time_t) noexcept { return kCache.Purge(); }
