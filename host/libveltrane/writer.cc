// One way to write to memory or to a file.
//
// Invariant: the errno of the first write that failed stays in `error` and comes out at WriterClose, however many
// writes succeeded after it. A writer owns its stream alone, so the stream is written without taking its lock.
#include <veltrane/writer.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <veltrane/errors.h>

#include "libveltrane/byte_buffer.h"

struct Writer_ {
    explicit Writer_(FILE *stream) : file(stream) {}

    FILE *file;                  // NULL: collects in memory
    veltrane::ByteBuffer bytes;  // of a writer to memory
    int error = 0;
};

namespace {

// A failure without a reason would read as success later.
void RememberFailure(Writer *writer)
{
    if (writer->error == 0) {
        writer->error = errno != 0 ? errno : EIO;
    }
}

size_t FormatToMemory(Writer *writer, const char *format, va_list arguments)
{
    const size_t spare = writer->bytes.Spare();
    va_list again;
    va_copy(again, arguments);
    int length = vsnprintf(writer->bytes.Reserve(spare), spare + 1, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) > spare) {
        length = vsnprintf(writer->bytes.Reserve(length), static_cast<size_t>(length) + 1, format, again);
    }
    va_end(again);
    if (length < 0) {
        RememberFailure(writer);
        writer->bytes.Commit(0);
        return 0;
    }
    writer->bytes.Commit(length);
    return length;
}

}  // namespace

Writer *StringWriter(void) { return new Writer(nullptr); }

Writer *FileWriter(FILE *fp)
{
    if (fp == nullptr) {
        ProgrammingError("A file writer needs a stream");
    }
    return new Writer(fp);
}

size_t WriterWrite(Writer *writer, const char *text) { return WriterWriteLen(writer, text, strlen(text)); }

size_t WriterWriteLen(Writer *writer, const char *bytes, size_t length)
{
    if (writer->file == nullptr) {
        writer->bytes.Append(bytes, length);
        return length;
    }
    errno = 0;
    const size_t written = fwrite_unlocked(bytes, 1, length, writer->file);
    if (written < length) {
        RememberFailure(writer);
    }
    return written;
}

size_t WriterWriteChar(Writer *writer, char c)
{
    if (writer->file == nullptr) {
        writer->bytes.AppendChar(c);
        return 1;
    }
    errno = 0;
    if (putc_unlocked(static_cast<unsigned char>(c), writer->file) == EOF) {
        RememberFailure(writer);
        return 0;
    }
    return 1;
}

size_t WriterWriteF(Writer *writer, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    size_t written = 0;
    if (writer->file == nullptr) {
        written = FormatToMemory(writer, format, arguments);
    } else {
        errno = 0;
        const int length = vfprintf(writer->file, format, arguments);
        if (length < 0) {
            RememberFailure(writer);
        } else {
            written = length;
        }
    }
    va_end(arguments);
    return written;
}

size_t StringWriterLength(const Writer *writer)
{
    if (writer->file != nullptr) {
        ProgrammingError("A file writer keeps no text");
    }
    return writer->bytes.size();
}

const char *StringWriterData(const Writer *writer)
{
    if (writer->file != nullptr) {
        ProgrammingError("A file writer keeps no text");
    }
    return writer->bytes.data();
}

char *StringWriterClose(Writer *writer)
{
    if (writer == nullptr) {
        return nullptr;
    }
    if (writer->file != nullptr) {
        ProgrammingError("A file writer keeps no text");
    }
    char *text = writer->bytes.Release();
    delete writer;
    return text;
}

bool WriterClose(Writer *writer)
{
    if (writer == nullptr) {
        return true;
    }
    errno = 0;
    if (writer->file != nullptr && fclose(writer->file) != 0) {
        RememberFailure(writer);
    }
    const int error = writer->error;
    delete writer;
    if (error != 0) {
        errno = error;
    }
    return error == 0;
}
