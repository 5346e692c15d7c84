// One way to write to memory or to a file.
#ifndef VELTRANE_WRITER_H
#define VELTRANE_WRITER_H

#include <stdio.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// new; collects bytes in memory
Writer *StringWriter(void);

// new; takes over fp
Writer *FileWriter(FILE *fp);

// bytes written; a failed write is remembered until WriterClose
size_t WriterWrite(Writer *writer, const char *text);

// the same for bytes that may hold zeros
size_t WriterWriteLen(Writer *writer, const char *bytes, size_t length);
size_t WriterWriteChar(Writer *writer, char c);
size_t WriterWriteF(Writer *writer, const char *format, ...) VT_PRINTF(2, 3);

// bytes so far
size_t StringWriterLength(const Writer *writer);

// lent until the next write or the close; a zero follows the last byte
const char *StringWriterData(const Writer *writer);

// ends the writer; its text is new
char *StringWriterClose(Writer *writer);

// ends either kind, closing the FILE or dropping the text; false when a write, flush or close failed (errno): a
// full disk often speaks first here. true for NULL
bool WriterClose(Writer *writer);

VT_END_DECLS

#endif
