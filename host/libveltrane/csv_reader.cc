// Reading the one CSV dialect: records out of a stream, fields out of a record; the writer is csv_writer.cc.
#include <veltrane/csv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <veltrane/alloc.h>
#include <veltrane/seq.h>

#include "libveltrane/byte_buffer.h"
#include "libveltrane/out_of_memory.h"

namespace {

struct FreeText {
    void operator()(char *text) const { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

bool HoldsOddQuotes(const char *bytes, size_t length)
{
    const char *const end = bytes + length;
    bool odd = false;
    while ((bytes = static_cast<const char *>(memchr(bytes, '"', end - bytes))) != nullptr) {
        odd = !odd;
        bytes++;
    }
    return odd;
}

// The length of a text without the one CR LF or LF that may end it.
size_t LengthWithoutLineEnd(const char *text, size_t length)
{
    if (length > 0 && text[length - 1] == '\n') {
        length--;
        if (length > 0 && text[length - 1] == '\r') {
            length--;
        }
    }
    return length;
}

// The next line of the stream with its "\n"; false at the end. *line and *room as getline has them.
bool NextLine(FILE *fp, char **line, size_t *room, size_t *ret_length)
{
    const ssize_t length = veltrane::xgetline(line, room, fp);
    if (length <= 0) {
        return false;
    }
    *ret_length = static_cast<size_t>(length);
    return true;
}

// A record whose first line left a quote open: lines are added until one closes it or the stream ends.
char *JoinLines(FILE *fp, const char *first, size_t first_length)
{
    veltrane::ByteBuffer record;
    record.Append(first, first_length);
    OwnedText line;
    size_t room = 0;
    bool quoted = true;
    while (quoted) {
        char *lent = line.release();
        size_t length = 0;
        const bool more = NextLine(fp, &lent, &room, &length);
        line.reset(lent);
        if (!more) {
            return record.Release();  // as it is, with its last line end: it will not parse
        }
        record.Append(line.get(), length);
        quoted = !HoldsOddQuotes(line.get(), length);
    }
    const size_t end = LengthWithoutLineEnd(record.data(), record.size());
    char *text = record.Release();
    text[end] = '\0';
    return text;
}

// Fields of one record, one after the other.
class FieldReader {
  public:
    FieldReader(const char *text, const char *end) : text_(text), end_(end) {}

    // new text of the next field; NULL when the record is malformed
    char *Next() { return text_ < end_ && *text_ == '"' ? NextQuoted() : NextPlain(); }

    // Whether a comma follows the field just read; steps over it.
    bool StepOverComma()
    {
        if (text_ == end_) {
            return false;
        }
        text_++;
        return true;
    }

  private:
    char *NextPlain()
    {
        const char *start = text_;
        while (text_ < end_ && *text_ != ',') {
            if (*text_ == '"') {
                return nullptr;
            }
            text_++;
        }
        return Copy(start, text_);
    }

    char *NextQuoted()
    {
        const char *start = ++text_;
        const char *quote = Quote();
        if (quote != nullptr && !Doubled(quote)) {  // the common case: no quote inside
            text_ = quote + 1;
            return AtFieldEnd() ? Copy(start, quote) : nullptr;
        }
        veltrane::ByteBuffer field;
        while (quote != nullptr && Doubled(quote)) {
            field.Append(text_, quote + 1 - text_);
            text_ = quote + 2;
            quote = Quote();
        }
        if (quote == nullptr) {
            return nullptr;  // never closed
        }
        field.Append(text_, quote - text_);
        text_ = quote + 1;
        return AtFieldEnd() ? field.Release() : nullptr;
    }

    const char *Quote() const { return static_cast<const char *>(memchr(text_, '"', end_ - text_)); }

    bool Doubled(const char *quote) const { return quote + 1 < end_ && quote[1] == '"'; }

    bool AtFieldEnd() const { return text_ == end_ || *text_ == ','; }

    static char *Copy(const char *start, const char *end)
    {
        const size_t length = end - start;
        char *copy = static_cast<char *>(xmalloc(length + 1));
        memcpy(copy, start, length);
        copy[length] = '\0';
        return copy;
    }

    const char *text_;
    const char *const end_;
};

}  // namespace

char *GetCsvLineNext(FILE *fp)
{
    char *lent = nullptr;
    size_t room = 0;
    size_t length = 0;
    const bool found = NextLine(fp, &lent, &room, &length);
    OwnedText line(lent);
    if (!found) {
        return nullptr;
    }
    if (HoldsOddQuotes(line.get(), length)) {
        return JoinLines(fp, line.get(), length);
    }
    line.get()[LengthWithoutLineEnd(line.get(), length)] = '\0';
    return line.release();
}

Seq *SeqParseCsvString(const char *record)
{
    FieldReader reader(record, record + LengthWithoutLineEnd(record, strlen(record)));
    Seq *fields = SeqNew(8, free);
    do {
        char *field = reader.Next();
        if (field == nullptr) {
            SeqDestroy(fields);
            return nullptr;
        }
        SeqAppend(fields, field);
    } while (reader.StepOverComma());
    return fields;
}
