// The last n items: a new one takes the place of the oldest.
#include <veltrane/ring_buffer.h>

#include <cstdlib>

#include <veltrane/alloc.h>

struct RingBuffer_ {
    void **items;
    size_t capacity;
    size_t length;
    size_t oldest;  // its position in items
    void *(*copy)(const void *);
    void (*destroy)(void *);
};

struct RingBufferIterator_ {
    const RingBuffer *ring;
    size_t next;  // items handed out so far
};

namespace {

void DestroyItem(const RingBuffer *ring, void *item)
{
    if (ring->destroy != nullptr && item != nullptr) {
        ring->destroy(item);
    }
}

}  // namespace

RingBuffer *RingBufferNew(size_t capacity, void *(*copy)(const void *), void (*destroy)(void *))
{
    RingBuffer *ring = static_cast<RingBuffer *>(xcalloc(1, sizeof(RingBuffer)));
    ring->items = static_cast<void **>(xcalloc(capacity, sizeof(void *)));
    ring->capacity = capacity;
    ring->copy = copy;
    ring->destroy = destroy;
    return ring;
}

void RingBufferAppend(RingBuffer *ring, void *item)
{
    if (ring->capacity == 0) {
        if (ring->copy == nullptr) {
            DestroyItem(ring, item);  // taken over, but there is no place to keep it
        }
        return;
    }
    if (ring->length == ring->capacity) {
        DestroyItem(ring, ring->items[ring->oldest]);
        ring->oldest = (ring->oldest + 1) % ring->capacity;
        ring->length--;
    }
    const size_t newest = (ring->oldest + ring->length) % ring->capacity;
    ring->items[newest] = ring->copy != nullptr ? ring->copy(item) : item;
    ring->length++;
}

size_t RingBufferLength(const RingBuffer *ring) { return ring->length; }

void RingBufferDestroy(RingBuffer *ring)
{
    if (ring == nullptr) {
        return;
    }
    for (size_t i = 0; i < ring->length; i++) { DestroyItem(ring, ring->items[(ring->oldest + i) % ring->capacity]); }
    free(ring->items);
    free(ring);
}

RingBufferIterator *RingBufferIteratorNew(const RingBuffer *ring)
{
    RingBufferIterator *i = static_cast<RingBufferIterator *>(xmalloc(sizeof(RingBufferIterator)));
    *i = {ring, 0};
    return i;
}

const void *RingBufferIteratorNext(RingBufferIterator *i)
{
    if (i->next == i->ring->length) {
        return nullptr;
    }
    return i->ring->items[(i->ring->oldest + i->next++) % i->ring->capacity];
}

void RingBufferIteratorDestroy(RingBufferIterator *i) { free(i); }
