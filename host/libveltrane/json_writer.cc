// Writing JSON trees straight into a Writer.
//
// Every text in a tree is UTF-8 already (see json.cc), so only quotes, backslashes and control bytes need care.
#include <charconv>
#include <cstdlib>
#include <cstring>

#include <veltrane/writer.h>

#include "libveltrane/json_tree.h"

namespace {

void WriteEscaped(Writer *writer, unsigned char c)
{
    static const char kDigits[] = "0123456789abcdef";
    static const char kEscaped[] = "\b\f\n\r\t\"\\";
    static const char kLetters[] = "bfnrt\"\\";
    if (const char *found = static_cast<const char *>(memchr(kEscaped, c, sizeof(kEscaped) - 1))) {
        const char escape[] = {'\\', kLetters[found - kEscaped]};
        WriterWriteLen(writer, escape, sizeof(escape));
    } else {
        const char escape[] = {'\\', 'u', '0', '0', kDigits[c >> 4], kDigits[c & 15]};
        WriterWriteLen(writer, escape, sizeof(escape));
    }
}

void WriteString(Writer *writer, const char *text, size_t length)
{
    WriterWriteChar(writer, '"');
    const char *const end = text + length;
    const char *plain = text;
    for (; text < end; text++) {
        const unsigned char c = *text;
        if (c < 0x20 || c == '"' || c == '\\') {
            WriterWriteLen(writer, plain, text - plain);
            WriteEscaped(writer, c);
            plain = text + 1;
        }
    }
    WriterWriteLen(writer, plain, end - plain);
    WriterWriteChar(writer, '"');
}

void WriteInteger(Writer *writer, json_int_t value)
{
    char digits[32];
    const char *end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    WriterWriteLen(writer, digits, end - digits);
}

// Fifteen digits show 0.1 as it was written; only a number that they would change gets all seventeen.
void WriteReal(Writer *writer, const json_t *real)
{
    char digits[64];
    size_t length = json_dumpb(real, digits, sizeof(digits) - 1, JSON_ENCODE_ANY | JSON_REAL_PRECISION(15));
    digits[length] = '\0';
    if (strtod(digits, nullptr) != json_real_value(real)) {
        length = json_dumpb(real, digits, sizeof(digits), JSON_ENCODE_ANY | JSON_REAL_PRECISION(17));
    }
    WriterWriteLen(writer, digits, length);
}

void WriteElement(Writer *writer, json_t *json);

void WriteArray(Writer *writer, json_t *array)
{
    WriterWriteChar(writer, '[');
    size_t i;
    json_t *item;
    json_array_foreach(array, i, item)
    {
        if (i > 0) {
            WriterWriteChar(writer, ',');
        }
        WriteElement(writer, item);
    }
    WriterWriteChar(writer, ']');
}

void WriteObject(Writer *writer, json_t *object)
{
    WriterWriteChar(writer, '{');
    bool first = true;
    const char *key;
    json_t *value;
    json_object_foreach(object, key, value)
    {
        if (!first) {
            WriterWriteChar(writer, ',');
        }
        first = false;
        WriteString(writer, key, strlen(key));
        WriterWriteChar(writer, ':');
        WriteElement(writer, value);
    }
    WriterWriteChar(writer, '}');
}

void WriteElement(Writer *writer, json_t *json)
{
    switch (json_typeof(json)) {
        case JSON_OBJECT:
            WriteObject(writer, json);
            break;
        case JSON_ARRAY:
            WriteArray(writer, json);
            break;
        case JSON_STRING:
            WriteString(writer, json_string_value(json), json_string_length(json));
            break;
        case JSON_INTEGER:
            WriteInteger(writer, json_integer_value(json));
            break;
        case JSON_REAL:
            WriteReal(writer, json);
            break;
        case JSON_TRUE:
            WriterWrite(writer, "true");
            break;
        case JSON_FALSE:
            WriterWrite(writer, "false");
            break;
        case JSON_NULL:
            WriterWrite(writer, "null");
            break;
    }
}

}  // namespace

void JsonWriteCompact(Writer *writer, const JsonElement *json)
{
    WriteElement(writer, const_cast<json_t *>(veltrane::Tree(json)));  // jansson's walk wants it so; nothing changes
}
