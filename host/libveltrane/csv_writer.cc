// Writing the one CSV dialect; the reader is csv_reader.cc.
//
// A field goes straight to the Writer, a short one in one piece with its comma and quotes; nothing is allocated for it.
#include <veltrane/csv.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
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

constexpr size_t kShortField = 252;

using Block = unsigned char __attribute__((vector_size(16)));

constexpr auto kAsksForQuotes = [](char c) { return c == ',' || c == '"' || c == '\r' || c == '\n'; };

bool BlockAsksForQuotes(const char *bytes)
{
    Block block;
    memcpy(&block, bytes, sizeof(block));
    const auto found = (block == ',') | (block == '"') | (block == '\r') | (block == '\n');
    uint64_t halves[2];
    memcpy(halves, &found, sizeof(halves));
    return (halves[0] | halves[1]) != 0;
}

// Whether a byte of text asks for quotes, or a blank at one of its ends. Caches have millions of fields, so it looks at
// a block of bytes at once; the last block overlaps the one before it.
bool NeedsQuotes(const char *text, size_t length)
{
    if (length == 0) {
        return false;
    }
    if (text[0] == ' ' || text[length - 1] == ' ') {
        return true;
    }
    if (length < sizeof(Block)) {
        return std::any_of(text, text + length, kAsksForQuotes);
    }
    for (size_t i = 0; i + sizeof(Block) < length; i += sizeof(Block)) {
        if (BlockAsksForQuotes(text + i)) {
            return true;
        }
    }
    return BlockAsksForQuotes(text + length - sizeof(Block));
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

// A field of at most kShortField bytes; in_quotes: it holds no quote itself.
void WriteShort(Writer *writer, const char *text, size_t length, bool after_comma, bool in_quotes)
{
    char piece[kShortField + 3];
    char *end = piece;
    if (after_comma) {
        *end++ = ',';
    }
    if (in_quotes) {
        *end++ = '"';
    }
    memcpy(end, text, length);
    end += length;
    if (in_quotes) {
        *end++ = '"';
    }
    WriterWriteLen(writer, piece, end - piece);
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
    const bool after_comma = csv->record_begun;
    csv->record_begun = true;
    if (text == nullptr) {
        text = "";
    }
    const size_t length = strlen(text);
    const bool quoted = NeedsQuotes(text, length);
    if (length <= kShortField && !(quoted && memchr(text, '"', length) != nullptr)) {
        WriteShort(csv->writer, text, length, after_comma, quoted);
        return;
    }
    if (after_comma) {
        WriterWriteChar(csv->writer, ',');
    }
    if (quoted) {
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
