// From the class history to the class log.
#include "libvtenterprise/reports_context.h"

#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>

#include "libvtenterprise/diff_classes.h"
#include "libvtenterprise/json_line.h"
#include "libvtenterprise/safe_write_log.h"

using veltrane::JsonPtr;
using veltrane::WriterPtr;

bool LogContexts(const EvalContext *ctx, time_t timestamp, const char *file) noexcept
{
    const StringSet *classes = EvalContextAllClassesGet(ctx);
    if (classes == nullptr) {
        return false;
    }
    StringSetIterator next = StringSetIteratorInit(classes);
    while (const char *name = StringSetIteratorNext(&next)) {
        if (IsContextIgnorableForReporting(name)) {
            continue;
        }
        const JsonPtr record(JsonObjectCreate(2));
        JsonObjectAppendString(record.get(), "name", name);
        JsonObjectAppendInteger(record.get(), "timestamp", static_cast<int>(timestamp));  // the low 32 bits
        const WriterPtr line(StringWriter());
        JsonLWriteRecord(line.get(), record.get());
        SafeWriteLog(file, StringWriterData(line.get()));
    }
    return true;
}
