// One class of a host, with its tags as its value. Reports hold hundreds of thousands of them: what reads, writes and
// compares a class allocates nothing but its texts.
#include <cstring>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using ClassRecord = Record<HubClass, &HubClass::context, &HubClass::meta_serialized>;

HubClass *HubClassNew(HubHost *hh, const char *context, time_t t, const char *meta_serialized)
{
    HubClass *hub_class = ClassRecord::New();
    hub_class->hh = hh;
    hub_class->context = SafeStringDuplicate(context);
    hub_class->meta_serialized = SafeStringDuplicate(meta_serialized);
    hub_class->t = t;
    return hub_class;
}

void *HubClassDup(const void *hub_class)
{
    HubClass *copy = ClassRecord::Dup(static_cast<const HubClass *>(hub_class));
    if (copy != nullptr) {
        copy->hh = HubHostDup(copy->hh);
    }
    return copy;
}

void HubClassDelete(void *hub_class) { ClassRecord::Delete(static_cast<HubClass *>(hub_class)); }

int HubClassCompareKeys(const void *a, const void *b, void *)
{
    return StringSafeCompare(static_cast<const HubClass *>(a)->context, static_cast<const HubClass *>(b)->context);
}

bool HubClassCompareValues(const void *a, const void *b)
{
    return a != nullptr && b != nullptr &&
           StringEqual(static_cast<const HubClass *>(a)->meta_serialized,
                       static_cast<const HubClass *>(b)->meta_serialized);
}

char *HubClassGetMainKey(void *hub_class)
{
    return hub_class != nullptr ? SafeStringDuplicate(static_cast<const HubClass *>(hub_class)->context) : nullptr;
}

void HubClassToCSV(void *hub_class, CsvWriter *c)
{
    const HubClass *record = static_cast<const HubClass *>(hub_class);
    WriteText(c, record->context);
    WriteText(c, record->meta_serialized);
}

void *HubClassFromAttributeList(Seq *attr)
{
    if (FieldCount(attr) != 2) {
        return nullptr;
    }
    HubClass *record = ClassRecord::New();
    record->context = TextAt(attr, 0);
    record->meta_serialized = TextAt(attr, 1);
    return record;
}

int SortClasses(const void *p1, const void *p2) { return HubClassCompareKeys(p1, p2, nullptr) < 0; }
