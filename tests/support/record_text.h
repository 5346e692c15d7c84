// Records as the rows of a test: from texts to fields, and from a record to the bytes of its columns.
#ifndef TESTS_SUPPORT_RECORD_TEXT_H
#define TESTS_SUPPORT_RECORD_TEXT_H

#include <cstdlib>
#include <string>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>
#include <veltrane/writer.h>

// The fields of a parsed CSV record: a new Seq of new texts.
inline veltrane::SeqPtr Fields(const std::vector<std::string> &texts)
{
    veltrane::SeqPtr fields(SeqNew(texts.size(), free));
    for (const std::string &text : texts) { SeqAppend(fields.get(), xstrdup(text.c_str())); }
    return fields;
}

// The bytes that to_csv writes for a record, with the record's end.
template <typename R>
std::string CsvOf(void (*to_csv)(R *, CsvWriter *), R *record)
{
    veltrane::WriterPtr text(StringWriter());
    {
        const veltrane::CsvWriterPtr c(CsvWriterOpen(text.get()));
        to_csv(record, c.get());
    }
    const veltrane::TextPtr bytes(StringWriterClose(text.release()));
    return bytes.get();
}

// A text that C handed over: its bytes, or "(absent)"; the text is freed.
inline std::string Taken(char *text)
{
    const veltrane::TextPtr owned(text);
    return text != nullptr ? text : "(absent)";
}

// A text that C lent.
inline std::string Lent(const char *text) { return text != nullptr ? text : "(absent)"; }

#endif
