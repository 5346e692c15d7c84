// Texts that claim to be UTF-8: judging them, and making them so.
#ifndef LIBVELTRANE_UTF8_H
#define LIBVELTRANE_UTF8_H

#include <cstddef>
#include <string>

namespace veltrane {

// How many bytes from the start are whole, well-formed characters; length when the text is UTF-8. No overlong forms, no
// surrogates, nothing beyond U+10FFFF.
size_t ValidUtf8Length(const char *text, size_t length);

// The text with each byte that belongs to no well-formed character replaced by U+FFFD.
std::string CleanUtf8(const char *text, size_t length);

}  // namespace veltrane

#endif
