// Any bytes as a CSV file: every record that splits is written again and splits into the same fields.
#include <cstring>

#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"

namespace {

void RequireRoundTrip(const Seq *fields)
{
    veltrane::WriterPtr writer(StringWriter());
    CsvWriter *csv = CsvWriterOpen(writer.get());
    for (size_t i = 0; i < SeqLength(fields); ++i) { CsvWriterField(csv, static_cast<const char *>(SeqAt(fields, i))); }
    CsvWriterClose(csv);
    const veltrane::SeqPtr again(SeqParseCsvString(StringWriterData(writer.get())));
    Require(again != nullptr && SeqLength(again.get()) == SeqLength(fields));
    for (size_t i = 0; i < SeqLength(fields); ++i) {
        Require(std::strcmp(static_cast<const char *>(SeqAt(fields, i)),
                            static_cast<const char *>(SeqAt(again.get(), i))) == 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzWorkDirectory();
    if (size == 0) {
        return 0;
    }
    const veltrane::FilePtr file(fmemopen(const_cast<uint8_t *>(data), size, "r"));
    Require(file != nullptr);
    while (const veltrane::TextPtr record{GetCsvLineNext(file.get())}) {
        const veltrane::SeqPtr fields(SeqParseCsvString(record.get()));
        if (fields != nullptr) {
            RequireRoundTrip(fields.get());
        }
    }
    return 0;
}
