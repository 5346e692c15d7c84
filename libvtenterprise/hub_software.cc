// One installed package or available patch: its name, architecture and version are all of its identity, so it comes and
// goes but never changes.
#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using SoftwareRecord = Record<HubSoftware, &HubSoftware::name, &HubSoftware::version, &HubSoftware::arch>;

namespace {

const char *OrEmpty(const char *text) { return text != nullptr ? text : ""; }

HubSoftware *FromFirstThree(const Seq *attr)
{
    HubSoftware *record = SoftwareRecord::New();
    record->name = TextAt(attr, 0);
    record->version = TextAt(attr, 1);
    record->arch = TextAt(attr, 2);
    return record;
}

}  // namespace

HubSoftware *HubSoftwareNew(HubHost *hh, const char *name, const char *version, const char *arch, time_t timeseen)
{
    HubSoftware *software = SoftwareRecord::New();
    software->hh = hh;
    software->name = SafeStringDuplicate(name);
    software->version = SafeStringDuplicate(version);
    software->arch = SafeStringDuplicate(arch);
    software->t = timeseen;
    return software;
}

void *HubSoftwareDup(const void *software) { return SoftwareRecord::Dup(static_cast<const HubSoftware *>(software)); }

void HubSoftwareDelete(void *software) { SoftwareRecord::Delete(static_cast<HubSoftware *>(software)); }

int HubSoftwareCompareKeys(const void *a, const void *b, void *)
{
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const HubSoftware *sa = static_cast<const HubSoftware *>(a);
    const HubSoftware *sb = static_cast<const HubSoftware *>(b);
    if (const int order = StringSafeCompare(sa->name, sb->name); order != 0) {
        return order;
    }
    if (const int order = StringSafeCompare(sa->arch, sb->arch); order != 0) {
        return order;
    }
    return StringSafeCompare(sa->version, sb->version);
}

char *HubSoftwareGetUniqKey(const HubSoftware *software)
{
    if (software == nullptr) {
        return nullptr;
    }
    return StringFormat("%s.%s.%s", OrEmpty(software->name), OrEmpty(software->version), OrEmpty(software->arch));
}

void HubSoftwareToCSV(void *software, CsvWriter *c)
{
    const HubSoftware *record = static_cast<const HubSoftware *>(software);
    WriteText(c, record->name);
    WriteText(c, record->version);
    WriteText(c, record->arch);
}

void *HubSoftwareFromAttributeList(Seq *attr) { return FieldCount(attr) == 3 ? FromFirstThree(attr) : nullptr; }

void HubSoftwarePatchToCSV(void *patch, CsvWriter *c)
{
    HubSoftwareToCSV(patch, c);
    CsvWriterField(c, "0");
}

void *HubSoftwarePatchFromAttributeList(Seq *attr) { return FieldCount(attr) == 4 ? FromFirstThree(attr) : nullptr; }

int SortSoftware(const void *p1, const void *p2)
{
    return StringSafeCompare(static_cast<const HubSoftware *>(p1)->name, static_cast<const HubSoftware *>(p2)->name) <
           0;
}
