// One variable of a host: as policy holds it, and serialised as the variables report carries it.
#include <veltrane/logging.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using VariableRecord =
    Record<HubVariable, &HubVariable::ns, &HubVariable::bundle, &HubVariable::lval, &HubVariable::dtype>;
using SerializedRecord = Record<HubVariableSerialized, &HubVariableSerialized::ns, &HubVariableSerialized::scope,
                                &HubVariableSerialized::name, &HubVariableSerialized::value_serialized,
                                &HubVariableSerialized::meta_serialized>;

namespace {

constexpr long kDataTypeLimit = 16;  // the types' numbers stay below it

}  // namespace

HubVariable *HubVariableNew(HubHost *hh, const char *type, const char *ns, const char *bundle, const char *lval,
                            Rval rval, time_t t)
{
    HubVariable *variable = VariableRecord::New();
    variable->hh = hh;
    variable->ns = SafeStringDuplicate(ns);
    variable->bundle = SafeStringDuplicate(bundle);
    variable->lval = xstrdup(lval);
    variable->dtype = xstrdup(type);
    variable->t = t;
    variable->rval = rval;
    return variable;
}

void HubVariableDelete(HubVariable *variable)
{
    if (variable != nullptr) {
        RvalDestroy(variable->rval);
        VariableRecord::Delete(variable);
    }
}

HubVariableSerialized *HubVariableSerializedNew(const char *ns, const char *scope, const char *name, DataType type,
                                                const char *value_serialized, const char *meta_serialized)
{
    HubVariableSerialized *variable = SerializedRecord::New();
    variable->ns = SafeStringDuplicate(ns);
    variable->scope = SafeStringDuplicate(scope);
    variable->name = SafeStringDuplicate(name);
    variable->type = type;
    variable->value_serialized = SafeStringDuplicate(value_serialized);
    variable->meta_serialized = SafeStringDuplicate(meta_serialized);
    return variable;
}

void *HubVariableSerializedDup(const void *variable)
{
    return SerializedRecord::Dup(static_cast<const HubVariableSerialized *>(variable));
}

void HubVariableSerializedDelete(void *variable)
{
    SerializedRecord::Delete(static_cast<HubVariableSerialized *>(variable));
}

int HubVariableSerializedCompareKeys(const void *a, const void *b, void *)
{
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const HubVariableSerialized *va = static_cast<const HubVariableSerialized *>(a);
    const HubVariableSerialized *vb = static_cast<const HubVariableSerialized *>(b);
    if (const int order = StringSafeCompare(va->name, vb->name); order != 0) {
        return order;
    }
    if (const int order = StringSafeCompare(va->scope, vb->scope); order != 0) {
        return order;
    }
    return StringSafeCompare(va->ns, vb->ns);
}

bool HubVariableSerializedCompareValues(const void *a, const void *b)
{
    if (a == nullptr || b == nullptr) {
        return false;
    }
    const HubVariableSerialized *va = static_cast<const HubVariableSerialized *>(a);
    const HubVariableSerialized *vb = static_cast<const HubVariableSerialized *>(b);
    return StringEqual(va->value_serialized, vb->value_serialized) && va->type == vb->type &&
           StringEqual(va->meta_serialized, vb->meta_serialized);
}

char *HubVariableSerializedGetMainKey(void *variable)
{
    const HubVariableSerialized *record = static_cast<const HubVariableSerialized *>(variable);
    if (record == nullptr || record->name == nullptr || record->scope == nullptr) {
        return nullptr;
    }
    return record->ns != nullptr ? StringFormat("%s.%s.%s", record->ns, record->scope, record->name)
                                 : StringFormat("%s.%s", record->scope, record->name);
}

void HubVariableSerializedToCSV(void *variable, CsvWriter *c)
{
    const HubVariableSerialized *record = static_cast<const HubVariableSerialized *>(variable);
    WriteText(c, record->ns);
    WriteText(c, record->scope);
    WriteText(c, record->name);
    WriteNumber(c, static_cast<int>(record->type));
    WriteText(c, record->value_serialized);
    WriteText(c, record->meta_serialized);
}

void *HubVariableSerializedFromAttributeList(Seq *attr)
{
    if (FieldCount(attr) != 6) {
        return nullptr;
    }
    const long type = StringToLongDefaultOnError(FieldAt(attr, 3), kDataTypeLimit);
    if (type < 0 || type >= kDataTypeLimit) {
        Log(LOG_LEVEL_ERR, "Received variable with invalid type in reporting data");
        return nullptr;
    }
    HubVariableSerialized *record = SerializedRecord::New();
    record->ns = TextAt(attr, 0);
    record->scope = TextAt(attr, 1);
    record->name = TextAt(attr, 2);
    record->type = static_cast<DataType>(type);
    record->value_serialized = TextAt(attr, 4);
    record->meta_serialized = TextAt(attr, 5);
    return record;
}
