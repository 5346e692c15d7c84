// Texts: comparing, numbers, changing, regular expressions.
#ifndef VELTRANE_STRING_LIB_H
#define VELTRANE_STRING_LIB_H

#include <sys/types.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// Comparing and copying. NULL is allowed in every argument called a, b or text of this block.
// exact; two NULLs are equal, NULL and "" are not
bool StringEqual(const char *a, const char *b);

// -1, 0, 1 by unsigned bytes; NULL before every text
int StringSafeCompare(const char *a, const char *b);

// new; NULL for NULL
char *SafeStringDuplicate(const char *text);

// new; at most the first n bytes; NULL for NULL
char *SafeStringNDuplicate(const char *text, size_t n);

// 0 for NULL
size_t SafeStringLength(const char *text);

// NULL, or nothing but white space (blank, \t \n \v \f \r)
bool EmptyString(const char *text);

// spreads all bytes; not stable across releases, so never stored
unsigned int StringHash(const char *text, unsigned int seed);
bool StringStartsWith(const char *text, const char *prefix);

// at most size - 1 bytes and always a zero; strlen(from), so >= size means it was cut; size 0 writes nothing
size_t StringCopy(const char *from, char *to, size_t size);

// new
char *StringFormat(const char *format, ...) VT_PRINTF(1, 2);

// Numbers: decimal with an optional sign, ASCII digits only.
// one or more digits and nothing else: no sign, no blank; false for "" and NULL
bool StringIsNumeric(const char *text);

// the whole text must be the number, no blanks around: 0; else EINVAL (no number) or ERANGE (too large). On failure
// *ret_value is untouched: callers that print it set it first
int StringToLong(const char *text, long *ret_value);

// logs at error level "Conversion of '%s' to a number failed in %s: %s"
void LogStringToLongError(const char *text, const char *who, int error);

// StringToLong, or fallback
long StringToLongDefaultOnError(const char *text, long fallback);

// leading white space skipped, then the longest number; 0 without one and for NULL; clamped
long StringToLongUnsafe(const char *text);

// whole text; "." is the decimal point; false leaves *ret_value
bool StringToDouble(const char *text, double *ret_value);

// Changing. The in-place functions never write beyond the text they were given.
// new; every occurrence from the left, the replacement is not searched again; an empty pattern copies
char *SearchAndReplace(const char *text, const char *pattern, const char *replacement);

// the same in place: the new length; -1 when it and its zero exceed size, buffer then unchanged
ssize_t StringReplace(char *buffer, size_t size, const char *from, const char *to);

// removes all trailing "\n"; 0, or -1 when no zero lies in the first max + 1 bytes
int Chop(char *text, size_t max);

// the same, one "\n" at most. Neither touches "\r" or blanks
int StripTrailingNewline(char *text, size_t max);

// when the last byte is from, writes to there ('\0' cuts it off); false: it was not
bool ReplaceTrailingChar(char *text, char from, char to);

// [A-Za-z0-9_] stay, every other byte becomes '_'; thread storage, cut at 4095 bytes
const char *CanonifyName(const char *text);
void CanonifyNameInPlace(char *text);

// lent: after the last '/', the whole text without one, "" after a trailing one
const char *ReadLastNode(const char *path);

// lower case and a zero: characters written, 0 when 2n + 1 > size
size_t StringBytesToHex(char *to, size_t size, const unsigned char *bytes, size_t n);

// Regular expressions: PCRE2 on bytes, "." matches a newline too. Compiled expressions are kept per thread, so one
// expression may meet a million texts. One that does not compile, or that runs into the match limit, matches
// nothing and is logged at error level.
// holds one of \ ^ $ . | ? * + ( ) [ ] { }
bool HasRegexMetaChars(const char *text);

// found anywhere; both positions may be NULL
bool StringMatch(const char *regex, const char *text, size_t *ret_start, size_t *ret_end);

// anchored at both ends while matching, so "a|ab" matches all of "ab"
bool StringMatchFull(const char *regex, const char *text);

VT_END_DECLS

#endif
