// One change of a watched file, on its way from the change log to the hub as one CSV record.
#include <veltrane/owned.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using FileDiffRecord = Record<HubFileDiffSerialized, &HubFileDiffSerialized::filename, &HubFileDiffSerialized::hanlde,
                              &HubFileDiffSerialized::diff>;

HubFileDiffSerialized *HubFileDiffSerializedNew(time_t t, const char *filename, const char *handle, const char *diff)
{
    HubFileDiffSerialized *file_diff = FileDiffRecord::New();
    file_diff->t = t;
    file_diff->filename = SafeStringDuplicate(filename);
    file_diff->hanlde = SafeStringDuplicate(handle);
    file_diff->diff = SafeStringDuplicate(diff);
    return file_diff;
}

void HubFileDiffSerializedDelete(void *file_diff)
{
    FileDiffRecord::Delete(static_cast<HubFileDiffSerialized *>(file_diff));
}

char *HubFileDiffSerializedToCSV(const HubFileDiffSerialized *file_diff)
{
    if (file_diff == nullptr) {
        return nullptr;
    }
    veltrane::WriterPtr text(StringWriter());
    {
        const veltrane::CsvWriterPtr c(CsvWriterOpen(text.get()));
        WriteNumber(c.get(), file_diff->t);
        WriteText(c.get(), file_diff->filename);
        WriteText(c.get(), file_diff->hanlde);
        WriteText(c.get(), file_diff->diff);
    }
    return StringWriterClose(text.release());
}

HubFileDiffSerialized *HubFileDiffSerializedFromCSV(const char *csv_str)
{
    if (csv_str == nullptr) {
        return nullptr;
    }
    const veltrane::SeqPtr fields(SeqParseCsvString(csv_str));
    if (FieldCount(fields.get()) != 4) {
        return nullptr;
    }
    HubFileDiffSerialized *record = FileDiffRecord::New();
    record->t = StringToLongUnsafe(FieldAt(fields.get(), 0));
    record->filename = TextAt(fields.get(), 1);
    record->hanlde = TextAt(fields.get(), 2);
    record->diff = TextAt(fields.get(), 3);
    return record;
}
