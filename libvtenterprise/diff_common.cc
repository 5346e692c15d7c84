// Rows of difference files: their two leading columns, their CSV form and their names. What follows the two columns is
// left to the report type's operations.
#include "libvtenterprise/diff_common.h"

#include <cstdlib>

#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/record.h"

const char *DiffTypeToString(DiffType type)
{
    switch (type) {
        case diff_add:
            return "ADD";
        case diff_remove:
            return "REMOVE";
        case diff_change:
            return "CHANGE";
        case diff_untracked:
            return "UNTRACKED";
        case diff_unknown:
            break;
    }
    return "UNKNOWN";
}

DiffInfo *DiffInfoNew(time_t time, DiffType type)
{
    DiffInfo *info = static_cast<DiffInfo *>(xmalloc(sizeof(DiffInfo)));
    *info = {time, type};
    return info;
}

void DiffInfoDelete(void *ptr) { free(ptr); }

void DiffInfoToCSV(const DiffInfo *info, CsvWriter *c)
{
    WriteNumber(c, info->time);
    WriteNumber(c, static_cast<int>(info->type));
}

DiffInfo *DiffInfoFromAttributeList(Seq *attr)
{
    if (FieldCount(attr) != 2) {
        return nullptr;
    }
    const char *time_text = FieldAt(attr, 0);
    const char *type_text = FieldAt(attr, 1);
    if (!StringIsNumeric(time_text) || !StringIsNumeric(type_text)) {
        return nullptr;
    }
    long type = 0;
    long time = 0;
    const int type_error = StringToLong(type_text, &type);
    const int time_error = StringToLong(time_text, &time);
    if (type_error != 0 || time_error != 0) {
        Log(LOG_LEVEL_DEBUG, "Conversion error: '%s'->%ld '%s'->%ld", type_text, type, time_text, time);
        return nullptr;
    }
    if (type < diff_add || type > diff_untracked) {
        return nullptr;
    }
    return DiffInfoNew(time, static_cast<DiffType>(type));
}

DiffRow *DiffRowNew(DiffInfo *info, ReportType type, void *data, DataDeleteFn DataDelete)
{
    DiffRow *row = static_cast<DiffRow *>(xmalloc(sizeof(DiffRow)));
    *row = {info, type, data, DataDelete};
    return row;
}

void DiffRowDelete(void *ptr)
{
    DiffRow *row = static_cast<DiffRow *>(ptr);
    if (row == nullptr) {
        return;
    }
    DiffInfoDelete(row->info);
    if (row->data != nullptr) {
        row->DataDelete(row->data);
    }
    free(row);
}

DiffRow *DiffRowFromAttrListWithSpecifier(Seq *csv_attr, DataFromAttributeListFn DataFromAttr, DataDeleteFn DataDelete)
{
    const size_t count = FieldCount(csv_attr);
    if (count < 3) {
        return nullptr;
    }
    const veltrane::SeqViewPtr info_attr(SeqGetRange(csv_attr, 0, 1));
    const veltrane::SeqViewPtr data_attr(SeqGetRange(csv_attr, 2, count - 1));
    DiffInfo *info = DiffInfoFromAttributeList(info_attr.get());
    void *data = DataFromAttr(data_attr.get());
    if (info == nullptr || data == nullptr) {
        DiffInfoDelete(info);
        DataDelete(data);
        return nullptr;
    }
    return DiffRowNew(info, report_type_max, data, DataDelete);
}

DiffRow *DiffRowFromCSV(const char *string, ReportType type)
{
    if (string == nullptr) {
        return nullptr;
    }
    const veltrane::SeqPtr fields(SeqParseCsvString(string));
    if (fields == nullptr) {
        Log(LOG_LEVEL_ERR, "Failed to parse CSV entry: '%s'", string);
        return nullptr;
    }
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[type];
    return DiffRowFromAttrListWithSpecifier(fields.get(), handle.DataFromAttributeList, handle.DataDelete);
}

char *DiffRowToCSV(DiffRow *row, ReportType type, bool terminate)
{
    if (row->info == nullptr || row->data == nullptr) {
        return nullptr;
    }
    veltrane::WriterPtr text(StringWriter());
    {
        const veltrane::CsvWriterPtr c(CsvWriterOpenSpecifyTerminate(text.get(), terminate));
        DiffInfoToCSV(row->info, c.get());
        REPORT_DATA_HANDLES[type].DataToCSV(row->data, c.get());
    }
    return StringWriterClose(text.release());
}

char *DiffRowGetMainKey(DiffRow *row, ReportType type)
{
    if (type < 0 || type > report_type_max || REPORT_DATA_HANDLES[type].DataGetMainKey == nullptr) {
        return nullptr;
    }
    char *key = REPORT_DATA_HANDLES[type].DataGetMainKey(row->data);
    if (key == nullptr) {
        const veltrane::TextPtr csv(DiffRowToCSV(row, type, false));
        Log(LOG_LEVEL_WARNING, "Failed to get main key for %s report entry (csv:'%s')", ReportTypeToString(type),
            csv != nullptr ? csv.get() : "<failed to serialize>");
    }
    return key;
}

int DiffRowCompareTs(const void *a, const void *b, void *)
{
    if (a == nullptr || b == nullptr) {
        return a == b ? 0 : -1;  // one empty slot is -1 on either side: the sorts that use this never stray
    }
    const time_t ta = static_cast<const DiffRow *>(a)->info->time;
    const time_t tb = static_cast<const DiffRow *>(b)->info->time;
    return (ta > tb) - (ta < tb);
}
