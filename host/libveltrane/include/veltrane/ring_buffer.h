// The last n items.
#ifndef VELTRANE_RING_BUFFER_H
#define VELTRANE_RING_BUFFER_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// new; copy NULL: Append takes the item over
RingBuffer *RingBufferNew(size_t capacity, void *(*copy)(const void *), void (*destroy)(void *));

// when full, the oldest item is destroyed first
void RingBufferAppend(RingBuffer *ring, void *item);
size_t RingBufferLength(const RingBuffer *ring);
void RingBufferDestroy(RingBuffer *ring);

// new; the ring may not change while it lives
RingBufferIterator *RingBufferIteratorNew(const RingBuffer *ring);

// lent, oldest to newest; NULL at the end
const void *RingBufferIteratorNext(RingBufferIterator *i);
void RingBufferIteratorDestroy(RingBufferIterator *i);

VT_END_DECLS

#endif
