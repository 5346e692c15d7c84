// Judging and cleaning UTF-8. Plain ASCII, the usual case, goes eight bytes at a time.
#include "libveltrane/utf8.h"

#include <cstdint>
#include <cstring>

namespace {

// The length of the well-formed character of two or more bytes that begins here; 0 when none does.
size_t LongCharacter(const unsigned char *bytes, size_t left)
{
    const unsigned char lead = bytes[0];
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || left < length) {
        return 0;
    }
    // The second byte alone decides overlong forms, surrogates and the upper end.
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (bytes[1] < lowest || bytes[1] > highest) {
        return 0;
    }
    for (size_t i = 2; i < length; i++) {
        if (bytes[i] < 0x80 || bytes[i] > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

size_t veltrane::ValidUtf8Length(const char *text, size_t length)
{
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(text);
    size_t i = 0;
    while (i < length) {
        uint64_t word = 0;
        while (length - i >= sizeof(word)) {
            memcpy(&word, bytes + i, sizeof(word));
            if ((word & UINT64_C(0x8080808080808080)) != 0) {
                break;
            }
            i += sizeof(word);
        }
        while (i < length && bytes[i] < 0x80) { i++; }
        if (i < length) {
            const size_t character = LongCharacter(bytes + i, length - i);
            if (character == 0) {
                return i;
            }
            i += character;
        }
    }
    return i;
}

std::string veltrane::CleanUtf8(const char *text, size_t length)
{
    std::string clean;
    for (;;) {
        const size_t valid = ValidUtf8Length(text, length);
        clean.append(text, valid);
        if (valid == length) {
            return clean;
        }
        clean += "\xEF\xBF\xBD";
        text += valid + 1;
        length -= valid + 1;
    }
}
