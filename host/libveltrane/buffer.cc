// Growing bytes behind the C interface; see byte_buffer.h.
#include <veltrane/buffer.h>

#include "libveltrane/byte_buffer.h"

struct Buffer_ {
    veltrane::ByteBuffer bytes;
};

Buffer *BufferNew(void) { return new Buffer; }

void BufferAppend(Buffer *buffer, const char *bytes, size_t length) { buffer->bytes.Append(bytes, length); }

const char *BufferData(const Buffer *buffer) { return buffer->bytes.data(); }

size_t BufferSize(const Buffer *buffer) { return buffer->bytes.size(); }

void BufferDestroy(Buffer *buffer) { delete buffer; }
