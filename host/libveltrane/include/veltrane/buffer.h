// Growing bytes.
#ifndef VELTRANE_BUFFER_H
#define VELTRANE_BUFFER_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// new, empty
Buffer *BufferNew(void);
void BufferAppend(Buffer *buffer, const char *bytes, size_t length);

// lent until the next change; always ends in a zero byte beyond its size
const char *BufferData(const Buffer *buffer);

// bytes, without that zero
size_t BufferSize(const Buffer *buffer);
void BufferDestroy(Buffer *buffer);

VT_END_DECLS

#endif
