// Writing the one CSV dialect; the reader is csv_reader.cc.
//
// A field goes straight to the Writer, in as few pieces as its quotes allow; nothing is allocated for it.
#include <veltrane/csv.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>
#include <veltrane/writer.h>

struct CsvWriter_ {
    Writer *writer;     // lent
    bool terminate;     // the last record too
    bool record_begun;  // fields were written since the last record ended
};

namespace {

// Bytes that end the plain part of a field: the zero, and those that ask for quotes.
constexpr std::array<bool, 256> kEndsPlainText = [] {
    std::array<bool, 256> ends{};
    for (unsigned char c : {'\0', ',', '"', '\r', '\n'}) { ends[c] = true; }
    return ends;
}();

size_t PlainLength(const char *text)
{
    const char *end = text;
    while (!kEndsPlainText[static_cast<unsigned char>(*end)]) { end++; }
    return end - text;
}

// Inside quotes only quotes are special: they are doubled.
void WriteQuoted(Writer *writer, const char *text)
{
    WriterWriteChar(writer, '"');
    while (const char *quote = strchr(text, '"')) {
        WriterWriteLen(writer, text, quote - text + 1);
        WriterWriteChar(writer, '"');
        text = quote + 1;
    }
    WriterWrite(writer, text);
    WriterWriteChar(writer, '"');
}

}  // namespace

CsvWriter *CsvWriterOpen(Writer *writer) { return CsvWriterOpenSpecifyTerminate(writer, true); }

CsvWriter *CsvWriterOpenSpecifyTerminate(Writer *writer, bool terminate)
{
    if (writer == nullptr) {
        return nullptr;
    }
    CsvWriter *csv = static_cast<CsvWriter *>(xmalloc(sizeof(CsvWriter)));
    *csv = {writer, terminate, false};
    return csv;
}

void CsvWriterField(CsvWriter *csv, const char *text)
{
    if (csv->record_begun) {
        WriterWriteChar(csv->writer, ',');
    }
    csv->record_begun = true;
    if (text == nullptr || *text == '\0') {
        return;
    }
    const size_t length = PlainLength(text);
    if (text[length] != '\0' || text[0] == ' ' || text[length - 1] == ' ') {
        WriteQuoted(csv->writer, text);
    } else {
        WriterWriteLen(csv->writer, text, length);
    }
}

void CsvWriterFieldF(CsvWriter *csv, const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<size_t>(length) < sizeof(text)) {
        CsvWriterField(csv, text);
        return;
    }
    char *long_text = nullptr;
    va_start(arguments, format);
    xvasprintf(&long_text, format, arguments);
    va_end(arguments);
    CsvWriterField(csv, long_text);
    free(long_text);
}

void CsvWriterNewRecord(CsvWriter *csv)
{
    WriterWriteLen(csv->writer, "\r\n", 2);
    csv->record_begun = false;
}

void CsvWriterClose(CsvWriter *csv)
{
    if (csv == nullptr) {
        return;
    }
    if (csv->record_begun && csv->terminate) {
        CsvWriterNewRecord(csv);
    }
    free(csv);
}
