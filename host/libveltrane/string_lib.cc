// Texts: comparing, copying, numbers, changing. (Regular expressions are in regex.cc.)
//
// Everything here works on bytes and asks no locale: what is a digit, a letter or white space is written out.
#include <veltrane/string_lib.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <veltrane/alloc.h>
#include <veltrane/logging.h>

#include "libveltrane/byte_buffer.h"

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool IsNameByte(char c) { return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }

uint64_t Mix(uint64_t a, uint64_t b)
{
    __extension__ typedef unsigned __int128 Product;
    const Product product = static_cast<Product>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

uint64_t Load64(const char *bytes)
{
    uint64_t word;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

uint64_t Load32(const char *bytes)
{
    uint32_t word;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

// The last 1 to 16 bytes as two words, reading some bytes twice rather than branching on each length.
void LoadTail(const char *bytes, size_t length, uint64_t *ret_a, uint64_t *ret_b)
{
    if (length >= 8) {
        *ret_a = Load64(bytes);
        *ret_b = Load64(bytes + length - 8);
    } else if (length >= 4) {
        *ret_a = Load32(bytes);
        *ret_b = Load32(bytes + length - 4);
    } else {
        const unsigned char *u = reinterpret_cast<const unsigned char *>(bytes);
        *ret_a = length > 0 ? (uint64_t{u[0]} << 16) | (uint64_t{u[length / 2]} << 8) | u[length - 1] : 0;
        *ret_b = 0;
    }
}

// Where the trailing line ends that shall go begin; -1 when the text does not end within max bytes.
int CutNewlines(char *text, size_t max, size_t at_most)
{
    size_t length = max < SIZE_MAX ? strnlen(text, max + 1) : strlen(text);
    if (max < SIZE_MAX && length == max + 1) {
        return -1;
    }
    for (; length > 0 && text[length - 1] == '\n' && at_most > 0; at_most--) { text[--length] = '\0'; }
    return 0;
}

}  // namespace

bool StringEqual(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return strcmp(a, b) == 0;
}

int StringSafeCompare(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr) {
        return (a != nullptr) - (b != nullptr);
    }
    const int order = strcmp(a, b);
    return (order > 0) - (order < 0);
}

char *SafeStringDuplicate(const char *text) { return text != nullptr ? xstrdup(text) : nullptr; }

char *SafeStringNDuplicate(const char *text, size_t n) { return text != nullptr ? xstrndup(text, n) : nullptr; }

size_t SafeStringLength(const char *text) { return text != nullptr ? strlen(text) : 0; }

bool EmptyString(const char *text)
{
    if (text == nullptr) {
        return true;
    }
    while (IsWhiteSpace(*text)) { text++; }
    return *text == '\0';
}

unsigned int StringHash(const char *text, unsigned int seed)
{
    // Odd constants with as many ones as zeros, as multiplicative hashing wants them.
    constexpr uint64_t kFirst = 0xA0761D6478BD642F;
    constexpr uint64_t kSecond = 0xE7037ED1A0B428DB;
    constexpr uint64_t kThird = 0x8EBC6AF09C88C6E3;

    const size_t length = strlen(text);
    uint64_t hash = Mix(seed ^ kFirst, kThird);
    size_t left = length;
    for (; left > 16; left -= 16, text += 16) { hash = Mix(Load64(text) ^ kSecond, Load64(text + 8) ^ hash); }
    uint64_t a = 0;
    uint64_t b = 0;
    LoadTail(text, left, &a, &b);
    hash = Mix(kSecond ^ length, Mix(a ^ kSecond, b ^ hash));
    return static_cast<unsigned int>(hash ^ (hash >> 32));
}

bool StringStartsWith(const char *text, const char *prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

size_t StringCopy(const char *from, char *to, size_t size)
{
    const size_t length = strlen(from);
    if (size > 0) {
        const size_t copied = length < size ? length : size - 1;
        memmove(to, from, copied);
        to[copied] = '\0';
    }
    return length;
}

char *StringFormat(const char *format, ...)
{
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    xvasprintf(&text, format, arguments);
    va_end(arguments);
    return text;
}

bool StringIsNumeric(const char *text)
{
    if (text == nullptr || *text == '\0') {
        return false;
    }
    while (IsDigit(*text)) { text++; }
    return *text == '\0';
}

int StringToLong(const char *text, long *ret_value)
{
    if (text == nullptr) {
        return EINVAL;
    }
    const char *digits = *text == '+' || *text == '-' ? text + 1 : text;
    if (!StringIsNumeric(digits)) {
        return EINVAL;
    }
    if (*text == '+') {
        text++;  // unknown to from_chars
    }
    long value = 0;
    if (std::from_chars(text, text + strlen(text), value).ec != std::errc()) {
        return ERANGE;
    }
    *ret_value = value;
    return 0;
}

void LogStringToLongError(const char *text, const char *who, int error)
{
    char buffer[128];
    Log(LOG_LEVEL_ERR, "Conversion of '%s' to a number failed in %s: %s", text != nullptr ? text : "(null)", who,
        strerror_r(error, buffer, sizeof(buffer)));
}

long StringToLongDefaultOnError(const char *text, long fallback)
{
    long value = fallback;
    (void)StringToLong(text, &value);  // leaves the fallback on an error
    return value;
}

long StringToLongUnsafe(const char *text)
{
    if (text == nullptr) {
        return 0;
    }
    while (IsWhiteSpace(*text)) { text++; }
    const bool negative = *text == '-';
    if (*text == '+' || *text == '-') {
        text++;
    }
    const char *end = text;
    while (IsDigit(*end)) { end++; }
    if (end == text) {
        return 0;
    }
    long value = 0;
    if (std::from_chars(negative ? text - 1 : text, end, value).ec != std::errc()) {
        return negative ? LONG_MIN : LONG_MAX;
    }
    return value;
}

bool StringToDouble(const char *text, double *ret_value)
{
    if (text == nullptr) {
        return false;
    }
    const char *number = *text == '+' || *text == '-' ? text + 1 : text;
    if (!IsDigit(number[0]) && !(number[0] == '.' && IsDigit(number[1]))) {
        return false;  // from_chars knows "inf" and "nan", a number does not
    }
    if (*text == '+') {
        text++;
    }
    const char *end = text + strlen(text);
    double value = 0;
    const auto [stopped, error] = std::from_chars(text, end, value);
    if (error != std::errc() || stopped != end) {
        return false;
    }
    *ret_value = value;
    return true;
}

char *SearchAndReplace(const char *text, const char *pattern, const char *replacement)
{
    const size_t pattern_length = strlen(pattern);
    if (pattern_length == 0) {
        return xstrdup(text);
    }
    const size_t replacement_length = strlen(replacement);
    veltrane::ByteBuffer result;
    while (const char *found = strstr(text, pattern)) {
        result.Append(text, found - text);
        result.Append(replacement, replacement_length);
        text = found + pattern_length;
    }
    result.Append(text, strlen(text));
    return result.Release();
}

ssize_t StringReplace(char *buffer, size_t size, const char *from, const char *to)
{
    char *replaced = SearchAndReplace(buffer, from, to);
    const size_t length = strlen(replaced);
    const bool fits = length < size;
    if (fits) {
        memcpy(buffer, replaced, length + 1);
    }
    free(replaced);
    return fits ? static_cast<ssize_t>(length) : -1;
}

int Chop(char *text, size_t max) { return CutNewlines(text, max, SIZE_MAX); }

int StripTrailingNewline(char *text, size_t max) { return CutNewlines(text, max, 1); }

bool ReplaceTrailingChar(char *text, char from, char to)
{
    const size_t length = strlen(text);
    if (length == 0 || text[length - 1] != from) {
        return false;
    }
    text[length - 1] = to;
    return true;
}

const char *CanonifyName(const char *text)
{
    static thread_local char name[4096];
    StringCopy(text, name, sizeof(name));
    CanonifyNameInPlace(name);
    return name;
}

void CanonifyNameInPlace(char *text)
{
    for (; *text != '\0'; text++) {
        if (!IsNameByte(*text)) {
            *text = '_';
        }
    }
}

const char *ReadLastNode(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

size_t StringBytesToHex(char *to, size_t size, const unsigned char *bytes, size_t n)
{
    static const char kDigits[] = "0123456789abcdef";
    if (size == 0 || n > (size - 1) / 2) {
        return 0;
    }
    for (size_t i = 0; i < n; i++) {
        *to++ = kDigits[bytes[i] >> 4];
        *to++ = kDigits[bytes[i] & 15];
    }
    *to = '\0';
    return 2 * n;
}
