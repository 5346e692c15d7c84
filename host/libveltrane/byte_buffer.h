// Bytes that grow, for the sources of this directory: what Buffer, Writer and the CSV reader collect in.
//
// Invariant: the memory comes from malloc, so that it can be given away as a C text, and a zero byte always follows the
// last byte.
#ifndef LIBVELTRANE_BYTE_BUFFER_H
#define LIBVELTRANE_BYTE_BUFFER_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>

namespace veltrane {

class ByteBuffer {
  public:
    ByteBuffer() = default;
    ~ByteBuffer() { free(data_); }
    ByteBuffer(const ByteBuffer &) = delete;
    ByteBuffer &operator=(const ByteBuffer &) = delete;

    const char *data() const { return data_ != nullptr ? data_ : ""; }
    size_t size() const { return size_; }

    void Append(const char *bytes, size_t length)
    {
        if (length > 0) {
            memcpy(Reserve(length), bytes, length);
            Commit(length);
        }
    }

    void AppendChar(char c)
    {
        *Reserve(1) = c;
        Commit(1);
    }

    // Where the next bytes go: there is room for length of them and a zero.
    char *Reserve(size_t length)
    {
        if (room_ - size_ <= length) {
            Grow(length);
        }
        return data_ + size_;
    }

    // Bytes that can be written at the end without growing, the zero not counted.
    size_t Spare() const { return room_ > size_ ? room_ - size_ - 1 : 0; }

    // length bytes were written at the place that Reserve gave.
    void Commit(size_t length)
    {
        size_ += length;
        data_[size_] = '\0';
    }

    // Gives the text away; the buffer is empty afterwards.
    char *Release()
    {
        char *text = data_ != nullptr ? data_ : xstrdup("");
        data_ = nullptr;
        size_ = 0;
        room_ = 0;
        return text;
    }

  private:
    void Grow(size_t length)
    {
        size_t needed = 0;
        if (__builtin_add_overflow(size_, length, &needed) || needed > SIZE_MAX / 2 - 1) {
            needed = SIZE_MAX / 2 - 1;  // the allocator says no and ends the process
        }
        const size_t doubled = room_ < 32 ? 64 : room_ * 2;
        room_ = needed + 1 > doubled ? needed + 1 : doubled;
        data_ = static_cast<char *>(xrealloc(data_, room_));
        data_[size_] = '\0';
    }

    char *data_ = nullptr;
    size_t size_ = 0;
    size_t room_ = 0;
};

}  // namespace veltrane

#endif
